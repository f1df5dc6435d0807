#include "service/list_info.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <span>
#include <string_view>
#include <utility>

#include "common/ini_recovery.h"
#include "foundation/include/zfclog.h"
#include "foundation/include/zfctext.h"
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

// How many readers at different places are served from what is kept; one client reads several parts of a list at a
// time.
constexpr std::size_t kMostStretches = 16;

// How much of a rule object its name is in, and what the processor fetches of it at a time.
constexpr std::size_t kRulesAhead = 192;
constexpr std::size_t kCacheLine = 64;

// The store's order of names; of an ID, its narrow text counts as well.
template <typename Name, typename Other>
bool IsBehind(const Name& name, const Other& other) {
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

// Keeps a text as it travels, with its length in bytes ahead of it.
void KeepText(std::u16string_view text, std::string& texts) {
  std::uint32_t length = 0;
  const std::size_t begin = texts.size();
  texts.append(sizeof length, '\0');
  AppendSentText(texts, text);
  length = static_cast<std::uint32_t>(texts.size() - begin - sizeof length);
  std::memcpy(texts.data() + begin, &length, sizeof length);
}

// The text that is kept at a place, and the place behind it.
std::string_view KeptText(const std::string& texts, std::size_t& at) {
  std::uint32_t length = 0;
  std::memcpy(&length, texts.data() + at, sizeof length);
  const std::string_view text(texts.data() + at + sizeof length, length);
  at += sizeof length + length;
  return text;
}

// Keeps the name of a listed schedule; the lock is held.
void KeepName(const CJobNode& node, std::string& texts) {
  ZepFoundation::ZepOwnedText<char16_t> text;
  zepISchedule* const rules = node.ScheduleObj.m_pSchedule;
  const bool hasName = rules != nullptr && !ZepFailed(rules->get_Name(text.Out())) && text.Get() != nullptr;
  KeepText(hasName ? std::u16string_view(text.Get()) : std::u16string_view(), texts);
}

std::u16string NameFromFile(const ScheduleGuid& id, std::u16string_view xmlPath) {
  const std::u16string path = IniPath(id, xmlPath);
  (void)RestoreOldIniFile(path);
  std::array<char16_t, kNameUnits> name{};
  std::uint32_t length = 0;
  (void)platform::GetProfileString(path, u"General", u"m_Name", u"", name, length);  // no file: no name
  return std::u16string(name.data(), length);
}

}  // namespace

// --- what is kept ---

// Whether the first key behind `afterId` is among those that were read or the next one to be read.
bool CListInfo::Stretch::Covers(const std::u16string& afterId) const {
  return !IsBehind(from, afterId) && (isComplete || !IsBehind(afterId, upTo));
}

std::string_view CListInfo::Stretch::IdOf(const KeptRow& row) const {
  std::size_t at = row.texts;
  return KeptText(texts, at);
}

std::size_t CListInfo::Stretch::FirstBehind(const std::u16string& afterId) const {
  const auto at = std::partition_point(rows.begin(), rows.end(),
                                       [&](const KeptRow& row) { return !IsBehind(IdOf(row), afterId); });
  return static_cast<std::size_t>(at - rows.begin());
}

bool CListInfo::Stretch::Join(const Stretch& other) {
  if (IsBehind(from, other.from) || (!isComplete && IsBehind(other.from, upTo))) return false;
  if (isComplete || (!other.isComplete && !IsBehind(other.upTo, upTo))) return true;  // nothing new
  for (std::size_t i = other.FirstBehind(upTo); i < other.rows.size(); ++i) {
    KeptRow row = other.rows[i];
    const std::size_t end = i + 1 < other.rows.size() ? other.rows[i + 1].texts : other.texts.size();
    const std::size_t begin = std::exchange(row.texts, texts.size());
    texts.append(other.texts, begin, end - begin);
    rows.push_back(row);
  }
  upTo = other.upTo;
  isComplete = other.isComplete;
  return true;
}

void CListInfo::Forget() {
  m_stamp = {};
  m_isDoubtful = false;
  m_stretches.clear();
}

CListInfo::Stretch& CListInfo::StretchFor(const std::u16string& afterId) {
  const auto at = std::find_if(m_stretches.begin(), m_stretches.end(),
                               [&](const Stretch& stretch) { return stretch.Covers(afterId); });
  if (at != m_stretches.end()) {
    m_stretches.splice(m_stretches.begin(), m_stretches, at);
    return m_stretches.front();
  }
  if (m_stretches.size() == kMostStretches) m_stretches.pop_back();
  m_stretches.emplace_front();
  m_stretches.front().from = m_stretches.front().upTo = afterId;
  return m_stretches.front();
}

// Two readers have met: what they read is kept once.
void CListInfo::JoinOthersTo(Stretch& stretch) {
  m_stretches.remove_if([&](const Stretch& other) { return &other != &stretch && stretch.Join(other); });
}

void CListInfo::Keep(const platform::SubKeyValues& key, Stretch& stretch) {
  stretch.upTo = key.Name();
  KeptRow row;
  if (platform::ClsidFromString(key.Name(), row.id) != 0) return;
  row.texts = stretch.texts.size();
  KeepText(key.Name(), stretch.texts);
  ErrorCode rc = ERROR_SUCCESS;
  std::u16string text;
  for (std::size_t i = 0; i < kTextCount && rc == ERROR_SUCCESS; ++i) {
    rc = key.Text(i, text);
    if (rc == ERROR_SUCCESS) KeepText(text, stretch.texts);
  }
  std::uint32_t useGuid = 0;
  if (rc == ERROR_SUCCESS) rc = key.Dword(kTaskCode, row.taskCode);
  if (rc == ERROR_SUCCESS) rc = key.Dword(kUseGuid, useGuid);
  row.passId = useGuid != 0 ? 1 : 0;
  row.isDamaged = rc != ERROR_SUCCESS;
  if (row.isDamaged && !IsLasting(rc)) m_isDoubtful = true;
  stretch.rows.push_back(row);
}

ErrorCode CListInfo::ReadMore(const RegistryKey& schedules, std::size_t count, Stretch& stretch) {
  std::size_t seen = 0;
  const ErrorCode rc =
      platform::ReadSubKeys(schedules, stretch.upTo, count, kValueNames, [&](const platform::SubKeyValues& key) {
        Keep(key, stretch);
        ++seen;
      });
  if (rc == ERROR_SUCCESS && seen < count) stretch.isComplete = true;
  return rc;
}

// Sees to it that the rows of a page are kept.
ErrorCode CListInfo::Prepare(const std::u16string& afterId, std::uint32_t limit, Stretch*& stretch,
                             std::size_t& first) {
  RegistryKey schedules;
  platform::RegistryStamp stamp;
  ErrorCode rc = platform::OpenKey(platform::Hive::kLocalMachine, kSchedulesKey, platform::KEY_READ, schedules);
  // Ahead of the reading: what changes meanwhile makes the stamp old, not the rows.
  if (rc == ERROR_SUCCESS) rc = platform::ReadRegistryStamp(schedules, stamp);
  if (rc != ERROR_SUCCESS) return rc;
  if (m_isDoubtful || stamp != m_stamp) Forget();
  m_stamp = {};  // a failure, of whatever kind, leaves nothing that counts
  stretch = &StretchFor(afterId);
  first = stretch->FirstBehind(afterId);
  bool read = false;
  while (rc == ERROR_SUCCESS && !stretch->isComplete && stretch->rows.size() - first < limit) {
    rc = ReadMore(schedules, limit - (stretch->rows.size() - first), *stretch);
    read = true;
  }
  if (rc != ERROR_SUCCESS) return rc;
  if (read) JoinOthersTo(*stretch);
  m_stamp = stamp;
  return rc;
}

// --- rows ---

// Looks up several rows at a time: with very many schedules each node and each rule object is fetched from memory, all
// of them at once rather than one after the other.
void CListInfo::LookUp(const Stretch& stretch, std::size_t begin, std::size_t end) {
  std::array<ScheduleGuid, kRowsAtOnce> ids;
  std::array<CJobNode*, kRowsAtOnce> found{};
  const std::span nodes = std::span(found).first(end - begin);
  for (std::size_t i = begin; i < end; ++i) ids[i - begin] = stretch.rows[i].id;
  m_names.clear();
  const platform::CriticalSectionGuard guard(g_JobListLock);
  g_JobList.FindNodes(std::span(ids).first(nodes.size()), nodes);
  for (const CJobNode* node : nodes) {
    if (node != nullptr) __builtin_prefetch(&node->ScheduleObj);
  }
  for (const CJobNode* node : nodes) {
    if (node == nullptr) continue;
    const auto* const rules = reinterpret_cast<const char*>(node->ScheduleObj.m_pSchedule);
    for (std::size_t at = 0; at < kRulesAhead; at += kCacheLine) __builtin_prefetch(rules + at);
  }
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    Listed& listed = m_listed[i];
    listed = {nodes[i] != nullptr, kNoWindow, m_names.size()};
    if (nodes[i] == nullptr) continue;
    listed.nextWindow = static_cast<std::int32_t>(nodes[i]->NextTimeWindow);
    KeepName(*nodes[i], m_names);
  }
}

SentListRow CListInfo::Row(const Stretch& stretch, const KeptRow& kept, const Listed& listed) {
  SentListRow row;
  std::size_t at = kept.texts;
  row.id = KeptText(stretch.texts, at);
  if (kept.isDamaged) {
    row.nextWindow = kDamagedKey;
    return row;
  }
  std::string_view* const texts[] = {&row.application, &row.objectId,  &row.wrapper,   &row.xml,
                                     &row.parameters,  &row.preScript, &row.postScript};
  static_assert(std::size(texts) == kTextCount);
  for (std::string_view* text : texts) *text = KeptText(stretch.texts, at);
  row.taskCode = kept.taskCode;
  row.passId = kept.passId;
  row.nextWindow = listed.nextWindow;
  if (listed.hasNode) {
    std::size_t name = listed.name;
    row.name = KeptText(m_names, name);
  } else {
    m_nameFromFile.clear();
    AppendSentText(m_nameFromFile, NameFromFile(kept.id, platform::WideFromUtf8(row.xml)));
    row.name = m_nameFromFile;
  }
  return row;
}

Status CListInfo::Page(const std::u16string& afterId, std::uint32_t limit, const RowSeen& row) {
  if (limit == 0 || limit > kListPageLimit) limit = kListPageLimit;
  Stretch* stretch = nullptr;
  std::size_t first = 0;
  if (const ErrorCode rc = Prepare(afterId, limit, stretch, first); rc != ERROR_SUCCESS) {
    ZepFoundation::ServiceLog(1, u"ListInfo: Failed with error : %x", rc);
    return kStatusList;
  }
  const std::size_t end = std::min(first + limit, stretch->rows.size());
  for (std::size_t block = first; block < end; block += kRowsAtOnce) {
    const std::size_t blockEnd = std::min(block + kRowsAtOnce, end);
    LookUp(*stretch, block, blockEnd);
    for (std::size_t i = block; i < blockEnd; ++i) {
      if (!row(Row(*stretch, stretch->rows[i], m_listed[i - block]))) return kStatusOk;
    }
  }
  return kStatusOk;
}

}  // namespace qx
