#include "service/list_info.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "common/ini_recovery.h"
#include "foundation/include/zfclog.h"
#include "platform/profile.h"
#include "platform/registry.h"
#include "platform/registry_read_ahead.h"
#include "platform/text.h"
#include "service/ini_path.h"
#include "service/job_list.h"
#include "service/schedule_store.h"

namespace qx {
namespace {

using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using platform::RegistryKey;

constexpr std::size_t kNameUnits = 256;  // the longest name that a file keeps, with its terminator

constexpr std::uint32_t kWorthReadingAhead = 256;  // rows: it starts a thread

bool IsBehind(std::u16string_view name, std::u16string_view other) {
  return std::lexicographical_compare(other.begin(), other.end(), name.begin(), name.end(), [](char16_t a, char16_t b) {
    return platform::ToUpperSimple(a) < platform::ToUpperSimple(b);
  });
}

// The index of the first key behind `id`.
ErrorCode FindIndexBehind(const RegistryKey& key, std::u16string_view id, std::uint32_t& index) {
  platform::KeyInfo info;
  if (const ErrorCode rc = platform::QueryInfoKey(key, info); rc != ERROR_SUCCESS) return rc;
  std::uint32_t low = 0;
  std::uint32_t high = info.subKeyCount;
  while (low < high) {
    const std::uint32_t middle = low + (high - low) / 2;
    std::u16string name;
    const ErrorCode rc = platform::EnumKey(key, middle, name);
    if (rc != ERROR_SUCCESS && rc != platform::ERROR_NO_MORE_ITEMS) return rc;
    if (rc == platform::ERROR_NO_MORE_ITEMS || IsBehind(name, id)) {
      high = middle;
    } else {
      low = middle + 1;
    }
  }
  index = low;
  return ERROR_SUCCESS;
}

bool ReadKey(const RegistryKey& schedules, ListRow& row) {
  RegistryKey key;
  if (platform::OpenKey(schedules, row.id, platform::KEY_READ, key) != ERROR_SUCCESS) return false;
  const std::pair<std::u16string_view, std::u16string*> texts[] = {
      {u"Application", &row.application}, {u"ObjectID", &row.objectId},     {u"WrapperBinary", &row.wrapper},
      {u"XMLFilePathName", &row.xml},     {u"Parameters", &row.parameters}, {u"PreScript", &row.preScript},
      {u"PostScript", &row.postScript},
  };
  for (const auto& [name, text] : texts) {
    if (platform::ReadRegistryString(key, name, *text) != ERROR_SUCCESS) return false;
  }
  std::uint32_t useGuid = 0;
  if (platform::ReadRegistryDword(key, u"TaskOPCODE", row.taskCode) != ERROR_SUCCESS) return false;
  if (platform::ReadRegistryDword(key, u"UseGUID", useGuid) != ERROR_SUCCESS) return false;
  row.passId = useGuid != 0 ? 1 : 0;
  return true;
}

// Name and window of a schedule that has a node; false without one.
bool ReadNode(const ScheduleGuid& id, ListRow& row) {
  const platform::CriticalSectionGuard guard(g_JobListLock);
  const CJobList::Position at = g_JobList.Find(id);
  if (at == g_JobList.End()) return false;
  row.nextWindow = static_cast<std::int32_t>(at->NextTimeWindow);
  char16_t* name = nullptr;
  if (at->ScheduleObj.m_pSchedule != nullptr && !ZepFailed(at->ScheduleObj.m_pSchedule->get_Name(&name)) &&
      name != nullptr) {
    row.name = name;
    ZepStringFree(name);
  }
  return true;
}

std::u16string NameFromFile(const ScheduleGuid& id, const std::u16string& xmlPath) {
  const std::u16string path = IniPath(id, xmlPath);
  (void)RestoreOldIniFile(path);
  std::array<char16_t, kNameUnits> name{};
  std::uint32_t length = 0;
  (void)platform::GetProfileString(path, u"General", u"m_Name", u"", name, length);  // no file: no name
  return std::u16string(name.data(), length);
}

void AddNodeOrFile(ListRow& row) {
  ScheduleGuid id;
  (void)platform::ClsidFromString(row.id, id);  // it passed before
  if (!ReadNode(id, row)) row.name = NameFromFile(id, row.xml);
}

}  // namespace

Status CListInfo::Page(const std::u16string& afterId, std::uint32_t limit, std::vector<ListRow>& rows) {
  if (limit == 0 || limit > kListPageLimit) limit = kListPageLimit;
  std::vector<ListRow> page;
  std::uint32_t index = 0;
  std::u16string last;
  RegistryKey schedules = std::move(m_schedules);
  ErrorCode rc = ERROR_SUCCESS;
  const bool continues = !afterId.empty() && m_nextIndex > 0 && m_lastId == afterId && schedules &&
                         platform::EnumKey(schedules, m_nextIndex - 1, last) == ERROR_SUCCESS && last == afterId;
  if (continues) {
    index = m_nextIndex;
  } else {
    rc = platform::OpenKey(platform::Hive::kLocalMachine, kSchedulesKey, platform::KEY_READ, schedules);
    if (rc == ERROR_SUCCESS && !afterId.empty()) rc = FindIndexBehind(schedules, afterId, index);
    // The handle then stands in front of it.
    if (rc == ERROR_SUCCESS && index > 0) rc = platform::EnumKey(schedules, index - 1, last);
  }
  std::optional<platform::KeyReadAhead> ahead;
  if (rc == ERROR_SUCCESS && limit >= kWorthReadingAhead) ahead.emplace(schedules, nullptr, index, limit);
  while (rc == ERROR_SUCCESS && page.size() < limit) {
    ListRow row;
    rc = platform::EnumKey(schedules, index, row.id);
    if (rc != ERROR_SUCCESS) break;
    ++index;
    ScheduleGuid id;
    if (platform::ClsidFromString(row.id, id) != 0) continue;
    if (!ReadKey(schedules, row)) {
      ListRow bare;
      bare.id = row.id;
      bare.nextWindow = kDamagedKey;
      row = std::move(bare);
    }
    m_lastId = row.id;
    m_nextIndex = index;
    page.push_back(std::move(row));
  }
  ahead.reset();
  if (rc == ERROR_SUCCESS) m_schedules = std::move(schedules);
  if (rc != ERROR_SUCCESS && rc != platform::ERROR_NO_MORE_ITEMS) {
    ZepFoundation::ServiceLog(1, u"ListInfo: Failed with error : %x", rc);
    return kStatusList;
  }
  for (ListRow& row : page) {
    if (row.nextWindow != kDamagedKey) AddNodeOrFile(row);
  }
  rows = std::move(page);
  return kStatusOk;
}

}  // namespace qx
