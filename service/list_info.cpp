#include "service/list_info.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>

#include "common/ini_recovery.h"
#include "foundation/include/zfclog.h"
#include "platform/profile.h"
#include "platform/registry.h"
#include "platform/registry_sub_keys.h"
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

bool IsBehind(std::u16string_view name, std::u16string_view other) {
  return std::lexicographical_compare(other.begin(), other.end(), name.begin(), name.end(), [](char16_t a, char16_t b) {
    return platform::ToUpperSimple(a) < platform::ToUpperSimple(b);
  });
}

constexpr std::u16string_view kValueNames[] = {u"Application", u"ObjectID",   u"WrapperBinary", u"XMLFilePathName",
                                               u"Parameters",  u"PreScript",  u"PostScript",    u"TaskOPCODE",
                                               u"UseGUID"};
constexpr std::size_t kTextCount = 7;  // the first ones
constexpr std::size_t kTaskCode = 7;
constexpr std::size_t kUseGuid = 8;

// Whether a value isn't as it has to be, rather than out of reach for now.
bool IsLasting(ErrorCode code) {
  return code == platform::ERROR_FILE_NOT_FOUND || code == platform::ERROR_INVALID_DATA ||
         code == platform::ERROR_MORE_DATA;
}

// Name and window of a schedule that has a node; false without one.
bool ReadNode(const ScheduleGuid& id, ListRow& row) {
  const platform::CriticalSectionGuard guard(g_JobListLock);
  const CJobList::Position node = g_JobList.Find(id);
  if (node == g_JobList.End()) return false;
  row.nextWindow = static_cast<std::int32_t>(node->NextTimeWindow);
  char16_t* name = nullptr;
  if (node->ScheduleObj.m_pSchedule != nullptr && !ZepFailed(node->ScheduleObj.m_pSchedule->get_Name(&name)) &&
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

void CListInfo::Forget() {
  m_stamp = {};
  m_isComplete = false;
  m_isDoubtful = false;
  m_rows.clear();
  m_rows.shrink_to_fit();
  m_texts.clear();
  m_texts.shrink_to_fit();
}

// Whether the first key behind `afterId` is among those that were read or the next one to be read.
bool CListInfo::Covers(const std::u16string& afterId) const {
  return !IsBehind(m_from, afterId) && (m_isComplete || !IsBehind(afterId, m_upTo));
}

std::size_t CListInfo::FirstBehind(const std::u16string& afterId) const {
  const auto at = std::partition_point(m_rows.begin(), m_rows.end(),
                                       [&](const KeptRow& row) { return !IsBehind(IdOf(row), afterId); });
  return static_cast<std::size_t>(at - m_rows.begin());
}

void CListInfo::Keep(const platform::SubKeyValues& key) {
  m_upTo = key.Name();
  ScheduleGuid id;
  if (platform::ClsidFromString(key.Name(), id) != 0) return;
  KeptRow row;
  row.texts = m_texts.size();
  m_texts.append(key.Name()).push_back(u'\0');
  ErrorCode rc = ERROR_SUCCESS;
  std::u16string text;
  for (std::size_t i = 0; i < kTextCount && rc == ERROR_SUCCESS; ++i) {
    rc = key.Text(i, text);
    if (rc == ERROR_SUCCESS) m_texts.append(text).push_back(u'\0');
  }
  std::uint32_t useGuid = 0;
  if (rc == ERROR_SUCCESS) rc = key.Dword(kTaskCode, row.taskCode);
  if (rc == ERROR_SUCCESS) rc = key.Dword(kUseGuid, useGuid);
  row.passId = useGuid != 0 ? 1 : 0;
  row.isDamaged = rc != ERROR_SUCCESS;
  if (row.isDamaged && !IsLasting(rc)) m_isDoubtful = true;
  m_rows.push_back(row);
}

ErrorCode CListInfo::ReadMore(const RegistryKey& schedules, std::size_t count) {
  std::size_t seen = 0;
  const ErrorCode rc =
      platform::ReadSubKeys(schedules, m_upTo, count, kValueNames, [&](const platform::SubKeyValues& key) {
        Keep(key);
        ++seen;
      });
  if (rc == ERROR_SUCCESS && seen < count) m_isComplete = true;
  return rc;
}

// Sees to it that the rows of a page are kept.
ErrorCode CListInfo::Prepare(const std::u16string& afterId, std::uint32_t limit, std::size_t& first) {
  RegistryKey schedules;
  platform::RegistryStamp stamp;
  ErrorCode rc = platform::OpenKey(platform::Hive::kLocalMachine, kSchedulesKey, platform::KEY_READ, schedules);
  // Ahead of the reading: what changes meanwhile makes the stamp old, not the rows.
  if (rc == ERROR_SUCCESS) rc = platform::ReadRegistryStamp(schedules, stamp);
  if (rc != ERROR_SUCCESS) return rc;
  if (m_isDoubtful || stamp != m_stamp || !Covers(afterId)) {
    Forget();
    m_from = m_upTo = afterId;
  }
  m_stamp = {};  // a failure, of whatever kind, leaves nothing that counts
  first = FirstBehind(afterId);
  while (rc == ERROR_SUCCESS && !m_isComplete && m_rows.size() - first < limit) {
    rc = ReadMore(schedules, limit - (m_rows.size() - first));
  }
  if (rc == ERROR_SUCCESS) m_stamp = stamp;
  return rc;
}

void CListInfo::Give(const KeptRow& kept, ListRow& row) const {
  const char16_t* at = m_texts.c_str() + kept.texts;
  row.id = at;
  row.taskCode = row.passId = 0;
  std::u16string* const texts[] = {&row.application, &row.objectId,  &row.wrapper,   &row.xml,
                                   &row.parameters,  &row.preScript, &row.postScript};
  static_assert(std::size(texts) == kTextCount);
  row.name.clear();
  if (kept.isDamaged) {
    for (std::u16string* text : texts) text->clear();
    row.nextWindow = kDamagedKey;
    return;
  }
  std::size_t length = row.id.size();
  for (std::u16string* text : texts) {
    at += length + 1;
    *text = at;
    length = text->size();
  }
  row.taskCode = kept.taskCode;
  row.passId = kept.passId;
  row.nextWindow = kNoWindow;
  AddNodeOrFile(row);
}

Status CListInfo::Page(const std::u16string& afterId, std::uint32_t limit, std::vector<ListRow>& rows) {
  if (limit == 0 || limit > kListPageLimit) limit = kListPageLimit;
  std::size_t first = 0;
  if (const ErrorCode rc = Prepare(afterId, limit, first); rc != ERROR_SUCCESS) {
    ZepFoundation::ServiceLog(1, u"ListInfo: Failed with error : %x", rc);
    return kStatusList;
  }
  rows.resize(std::min<std::size_t>(limit, m_rows.size() - first));
  for (std::size_t i = 0; i < rows.size(); ++i) Give(m_rows[first + i], rows[i]);
  return kStatusOk;
}

}  // namespace qx
