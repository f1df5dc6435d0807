#include "common/schedule_adapter.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/ini_property_bag.h"
#include "common/ini_recovery.h"
#include "common/plain_schedule_file.h"
#include "foundation/include/zfclog.h"
#include "foundation/include/zfctext.h"
#include "platform/clock.h"
#include "platform/fault_point.h"
#include "platform/profile.h"
#include "platform/text.h"

namespace {

using ZepFoundation::ForLog;
using ZepFoundation::ServiceLog;

// Levels of the adapter's lines.
constexpr std::uint32_t kLogInvalidRules = 0;
constexpr std::uint32_t kLogFailure = 1;
constexpr std::uint32_t kLogEntryAndExit = 4;
constexpr std::uint32_t kLogValues = 5;

constexpr ZepTime kNoNextWindow = -1;

// Writes entry and exit of an operation.
class LogScope {
 public:
  explicit LogScope(const char16_t* operation) : m_operation(operation) {
    ServiceLog(kLogEntryAndExit, u"Entered into CZEPScheduleObj::%s", m_operation);
  }
  ~LogScope() { ServiceLog(kLogEntryAndExit, u"Exited from CZEPScheduleObj::%s", m_operation); }
  LogScope(const LogScope&) = delete;
  LogScope& operator=(const LogScope&) = delete;

 private:
  const char16_t* m_operation;
};

// --- from the record into the schedule ---

// One value of the record and the setter that takes it. A setter's refusal is no failure: the value isn't applied.
struct RuleStep {
  bool (*given)(const SCHEDULE_RULE& rule);
  ZRESULT (*apply)(zepISchedule& schedule, const SCHEDULE_RULE& rule);
};

using R = SCHEDULE_RULE;
using S = zepISchedule;
constexpr bool Always(const R&) { return true; }

// In the order in which the values are applied: the start before the end, the duration behind both, so that it wins.
constexpr RuleStep kRuleSteps[] = {
    {Always, [](S& s, const R& r) { return s.put_UseRepeatInterval(static_cast<zepByte>(r.bRepeatInterval)); }},
    {[](const R& r) { return r.bRepeatInterval != 0; },
     [](S& s, const R& r) { return s.put_RepeatInterval(r.dwRepeatInterval); }},
    {Always, [](S& s, const R& r) { return s.put_UseRestartInterval(static_cast<zepByte>(r.bRestartInterval)); }},
    {[](const R& r) { return r.bRestartInterval != 0; },
     [](S& s, const R& r) { return s.put_RestartInterval(r.dwRestartInterval); }},
    {[](const R& r) { return r.lAnchorDate != 0; }, [](S& s, const R& r) { return s.put_AnchorDate(r.lAnchorDate); }},
    {[](const R& r) { return r.lStartTime != 0; }, [](S& s, const R& r) { return s.put_StartTime(r.lStartTime); }},
    {[](const R& r) { return r.lEndTime != 0; }, [](S& s, const R& r) { return s.put_EndTime(r.lEndTime); }},
    {[](const R& r) { return r.dwTimeDuration != 0; },
     [](S& s, const R& r) { return s.put_TimeDuration(r.dwTimeDuration); }},
    {Always, [](S& s, const R& r) { return s.put_UseEffectiveDate(static_cast<zepByte>(r.bEffectiveDate)); }},
    {[](const R& r) { return r.bEffectiveDate != 0; },
     [](S& s, const R& r) { return s.put_EffectiveDate(r.lEffectiveDate); }},
};

// The weekday fields of the record, by week of the month.
constexpr std::array<std::uint32_t, kDaysOfWeekCount> SCHEDULE_RULE::* kWeekFields[] = {
    &SCHEDULE_RULE::dwDaysOfWeek0, &SCHEDULE_RULE::dwDaysOfWeek1, &SCHEDULE_RULE::dwDaysOfWeek2,
    &SCHEDULE_RULE::dwDaysOfWeek3, &SCHEDULE_RULE::dwDaysOfWeek4};

// Sets dates up to the first 0; false when there was none.
bool SetDates(zepISchedule& schedule, std::uint32_t type, const std::array<std::int32_t, kSpecificDateCount>& dates) {
  for (const std::int32_t date : dates) {
    if (date == 0) return true;
    (void)schedule.SetSpecificDate(type, date);
  }
  return false;
}

void LoadRules(zepISchedule& schedule, const SCHEDULE_OBJECT& object) {
  const SCHEDULE_RULE& rule = object.stScheduleRules;
  (void)schedule.Reset();
  if (object.bstrName) (void)schedule.put_Name(object.bstrName->c_str());
  if (object.bstrDescription) (void)schedule.put_Description(object.bstrDescription->c_str());
  for (const RuleStep& step : kRuleSteps) {
    if (step.given(rule)) (void)step.apply(schedule, rule);
  }
  for (std::uint16_t i = 0; i < kDaysOfMonthCount; ++i) {
    if (rule.adwDaysOfMonth[i] != 0) (void)schedule.SetDayOfMonth(i);
  }
  for (zepByte day = 0; day < kDaysOfWeekCount; ++day) {
    for (zepByte week = 0; week < std::size(kWeekFields); ++week) {
      if ((rule.*kWeekFields[week])[day] != 0) (void)schedule.SetDayOfWeek(day, week);
    }
  }
  // Deliberate: a full list of include dates runs on into the exclude dates, which then are include dates as well.
  if (!SetDates(schedule, ZEP_SPECIFIC_INCLUDE, rule.alIncludeDates)) {
    (void)SetDates(schedule, ZEP_SPECIFIC_INCLUDE, rule.alExcludeDates);
  }
  (void)SetDates(schedule, ZEP_SPECIFIC_EXCLUDE, rule.alExcludeDates);
}

struct ValidationStatus {
  ZRESULT result;
  const char16_t* text;
  Status status;
};
constexpr ValidationStatus kValidationStatuses[] = {
    {ZEP_SCHED_E_NORUNDAY, u"No run day rule defined.", kStatusNoRunDay},
    {ZEP_SCHED_E_DATEOVERLAP, u"There is an include/exclude date overlap.", kStatusDateOverlap},
    {ZEP_SCHED_E_RESTARTTOOLONG, u"The Restart interval exceeds the size of the time-window.", kStatusRestartTooLong},
};

Status ValidationStatusOf(ZRESULT result) {
  if (!ZepFailed(result)) return static_cast<Status>(result);
  for (const ValidationStatus& row : kValidationStatuses) {
    if (row.result != result) continue;
    ServiceLog(kLogInvalidRules, row.text);
    return row.status;
  }
  ServiceLog(kLogInvalidRules, u"The schedule is invalid, for an unknown reason.");
  return kStatusRulesInvalid;
}

Status LoadAndValidate(zepISchedule& schedule, const SCHEDULE_OBJECT& object) {
  LoadRules(schedule, object);
  return ValidationStatusOf(schedule.Validate());
}

// --- the .ini file ---

// A property bag over a file with one reference, given up at the end; null when memory is exhausted.
class BagHolder {
 public:
  BagHolder() = default;
  explicit BagHolder(const ZepFoundation::wcstring& path) : BagHolder() {
    if (platform::FaultAt(platform::Operation::kAllocate, "CIniFilePropertyBag") != platform::ERROR_SUCCESS) return;
    m_bag = new (std::nothrow) CIniFilePropertyBag();  // counted: its Release() deletes it
    if (m_bag == nullptr) return;
    m_bag->AddRef();
    (void)m_bag->SetFileName(path.c_str());
  }
  ~BagHolder() {
    if (m_bag != nullptr) m_bag->Release();
  }
  BagHolder(const BagHolder&) = delete;
  BagHolder& operator=(const BagHolder&) = delete;
  [[nodiscard]] zepIPropertyBag* Get() const { return m_bag; }

 private:
  CIniFilePropertyBag* m_bag = nullptr;
};

// A schedule's interface for property bags with its reference.
class PersistHolder {
 public:
  explicit PersistHolder(zepISchedule& schedule) {
    void* found = nullptr;
    m_result = schedule.QueryInterface(IID_zepIPersistPropertyBag, &found);
    if (!ZepFailed(m_result)) m_persist = static_cast<zepIPersistPropertyBag*>(found);
  }
  ~PersistHolder() {
    if (m_persist != nullptr) m_persist->Release();
  }
  PersistHolder(const PersistHolder&) = delete;
  PersistHolder& operator=(const PersistHolder&) = delete;
  [[nodiscard]] ZRESULT Result() const { return m_result; }
  zepIPersistPropertyBag* operator->() const { return m_persist; }

 private:
  ZRESULT m_result = ZEP_E_FAIL;
  zepIPersistPropertyBag* m_persist = nullptr;
};

// The two sections that keep the specific dates apart, in the order in which they are written.
struct DateSection {
  std::u16string_view name;
  std::uint32_t type;
};
constexpr DateSection kDateSections[] = {
    {u"Specific Include Dates", ZEP_SPECIFIC_INCLUDE},
    {u"Specific Exclude Dates", ZEP_SPECIFIC_EXCLUDE},
};
constexpr std::u16string_view kCountKey = u"Count";

std::u16string Decimal(std::int64_t value) {
  const std::string digits = std::to_string(value);
  return {digits.begin(), digits.end()};
}

// "Item01", "Item02", ..., "Item99", "Item100": at least two digits.
std::u16string ItemKey(std::uint64_t number) {
  return (number < 10 ? u"Item0" : u"Item") + Decimal(static_cast<std::int64_t>(number));
}

std::vector<ZepTime> SpecificDates(zepISchedule& schedule, std::uint32_t type) {
  std::uint32_t count = 0;
  if (ZepFailed(schedule.GetSpecificDatesCount(type, &count))) return {};
  std::vector<ZepTime> dates;
  for (std::uint32_t i = 0; i < count; ++i) {
    ZepTime date = 0;
    if (!ZepFailed(schedule.GetSpecificDate(type, i, &date))) dates.push_back(date);
  }
  return dates;
}

platform::ErrorCode WriteDateSections(zepISchedule& schedule, std::u16string_view path) {
  platform::ErrorCode rc = platform::ERROR_SUCCESS;
  const auto write = [&](std::u16string_view section, std::u16string_view key, const char16_t* value) {
    if (rc == platform::ERROR_SUCCESS) rc = platform::WriteProfileString(path, section, key, value);
  };
  // Older items go with their sections; both go first, so that they stand in one order whatever was there.
  for (const DateSection& section : kDateSections) write(section.name, {}, nullptr);
  for (const DateSection& section : kDateSections) {
    const std::vector<ZepTime> dates = SpecificDates(schedule, section.type);
    write(section.name, kCountKey, Decimal(static_cast<std::int64_t>(dates.size())).c_str());
    for (std::size_t i = 0; i < dates.size(); ++i) {
      write(section.name, ItemKey(i + 1), Decimal(dates[i]).c_str());
    }
  }
  return rc;
}

std::optional<std::int64_t> ParseDecimal(std::u16string_view text) {
  const std::string narrow(text.begin(), text.end());
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(narrow.data(), narrow.data() + narrow.size(), value);
  if (error != std::errc() || end != narrow.data() + narrow.size() || narrow.empty()) return std::nullopt;
  return value;
}

// A key of these sections: letters compare without regard to case, as everywhere in the file.
std::u16string FoldedKey(std::u16string_view key) {
  std::u16string folded(key);
  std::transform(folded.begin(), folded.end(), folded.begin(), platform::ToUpperSimple);
  return folded;
}

// The lines of a section by their folded keys, first ones first.
std::map<std::u16string, std::u16string> ReadSection(std::u16string_view path, std::u16string_view section) {
  constexpr std::size_t kFirstSize = 256;  // units: most schedules have few dates of their own
  std::vector<char16_t> buffer(kFirstSize);
  platform::ProfileSectionText found;
  while (platform::GetProfileSection(path, section, buffer, found) == platform::ERROR_SUCCESS &&
         found.length + 2 >= buffer.size()) {
    buffer.resize(buffer.size() * 8);
  }
  std::map<std::u16string, std::u16string> lines;
  std::u16string_view rest(buffer.data(), found.length);
  while (!rest.empty()) {
    const std::u16string_view line = rest.substr(0, rest.find(u'\0'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    const std::size_t equals = line.find(u'=');
    if (equals != line.npos) {
      lines.try_emplace(FoldedKey(line.substr(0, equals)), platform::WithoutQuotes(line.substr(equals + 1)));
    }
  }
  return lines;
}

// The dates of a section; nothing when it has no count. Items are taken as they come: a count reserves nothing.
std::optional<std::vector<ZepTime>> ReadDates(std::u16string_view path, const DateSection& section) {
  const auto lines = ReadSection(path, section.name);
  const auto countLine = lines.find(FoldedKey(kCountKey));
  if (countLine == lines.end()) return std::nullopt;
  const std::int64_t count = ParseDecimal(countLine->second).value_or(-1);
  std::vector<ZepTime> dates;
  std::int64_t missing = count < 0 ? 1 : 0;
  for (std::int64_t i = 1; i <= count; ++i) {
    // More items than lines can't be there: what is left of a count that lies is not looked for.
    if (i > static_cast<std::int64_t>(lines.size())) {
      missing += count - i + 1;
      break;
    }
    const auto line = lines.find(FoldedKey(ItemKey(static_cast<std::uint64_t>(i))));
    const std::optional<std::int64_t> date = line != lines.end() ? ParseDecimal(line->second) : std::nullopt;
    if (date) {
      dates.push_back(*date);
    } else {
      ++missing;
    }
  }
  if (missing != 0) {
    ServiceLog(kLogFailure,
               u"CZEPScheduleObj::LoadScheduleFromFile: the section %s of %s is damaged, %d dates of it are kept",
               section.name, ForLog(path), dates.size());
  }
  return dates;
}

// Sets both lists from their sections, when both are there.
void LoadDateSections(zepISchedule& schedule, std::u16string_view path) {
  std::optional<std::vector<ZepTime>> lists[std::size(kDateSections)];
  for (std::size_t i = 0; i < std::size(kDateSections); ++i) {
    lists[i] = ReadDates(path, kDateSections[i]);
    if (!lists[i]) return;
  }
  for (std::size_t i = 0; i < std::size(kDateSections); ++i) {
    (void)schedule.ClearSpecificDates(kDateSections[i].type);
    for (const ZepTime date : *lists[i]) (void)schedule.SetSpecificDate(kDateSections[i].type, date);
  }
  (void)schedule.put_Dirty(0);
}

// --- from the schedule into the record ---

struct TextField {
  ZRESULT (zepISchedule::*get)(char16_t** text);
  BSTR SCHEDULE_OBJECT::* field;
  const char16_t* failure;
};
constexpr TextField kTextFields[] = {
    {&zepISchedule::get_Name, &SCHEDULE_OBJECT::bstrName,
     u"CZEPScheduleObj::LoadScheduleFromPropBag::get_Name retuned with error %x"},
    {&zepISchedule::get_Description, &SCHEDULE_OBJECT::bstrDescription,
     u"CZEPScheduleObj::LoadScheduleFromPropBag::get_description retuned with error %x"},
};

struct TimeField {
  ZRESULT (zepISchedule::*get)(ZepTime* time);
  std::int32_t SCHEDULE_RULE::* field;
};
constexpr TimeField kTimeFields[] = {
    {&zepISchedule::get_AnchorDate, &SCHEDULE_RULE::lAnchorDate},
    {&zepISchedule::get_StartTime, &SCHEDULE_RULE::lStartTime},
    {&zepISchedule::get_EndTime, &SCHEDULE_RULE::lEndTime},
};

struct DateField {
  std::uint32_t type;
  std::array<std::int32_t, kSpecificDateCount> SCHEDULE_RULE::* field;
  const char16_t* countFailure;
  const char16_t* dateFailure;
};
constexpr DateField kDateFields[] = {
    {ZEP_SPECIFIC_INCLUDE, &SCHEDULE_RULE::alIncludeDates,
     u"CZEPScheduleObj::LoadScheduleFromPropBag - GetSpecificDatesCount(INCLUDE) returned with error : %x",
     u" GetSpecificDate(INCLUDE, %d) returned with error %x"},
    // Deliberate: a failing exclude date is told with the word INCLUDE too.
    {ZEP_SPECIFIC_EXCLUDE, &SCHEDULE_RULE::alExcludeDates,
     u"CZEPScheduleObj::LoadScheduleFromPropBag - GetSpecificDatesCount(EXCLUDE) returned with error : %x",
     u" GetSpecificDate(INCLUDE, %d) returned with error %x"},
};

// A flag and the value that counts only with it.
template <typename Value, typename Field>
void GivePair(zepISchedule& schedule, ZRESULT (zepISchedule::*getFlag)(zepByte*),
              ZRESULT (zepISchedule::*getValue)(Value*), std::uint32_t& flag, Field& field) {
  zepByte use = 0;
  Value value = 0;
  (void)(schedule.*getFlag)(&use);
  if (use != 0) (void)(schedule.*getValue)(&value);
  flag = use;
  field = static_cast<Field>(value);
}

void GiveDates(zepISchedule& schedule, const DateField& field, SCHEDULE_RULE& rule) {
  auto& dates = rule.*field.field;
  dates.fill(0);
  std::uint32_t count = 0;
  if (const ZRESULT result = schedule.GetSpecificDatesCount(field.type, &count); ZepFailed(result)) {
    ServiceLog(kLogFailure, field.countFailure, result);
    return;
  }
  const auto fitting = std::min<std::uint32_t>(count, kSpecificDateCount);
  for (std::uint32_t i = 0; i < fitting; ++i) {
    ZepTime date = 0;
    if (const ZRESULT result = schedule.GetSpecificDate(field.type, i, &date); ZepFailed(result)) {
      ServiceLog(kLogFailure, field.dateFailure, i, result);
      continue;
    }
    dates[i] = static_cast<std::int32_t>(date);
  }
}

}  // namespace

Status CZEPScheduleObj::AddScheduleRules(const SCHEDULE_OBJECT* schedule) {
  const LogScope scope(u"AddScheduleRules");
  const Status status = LoadAndValidate(*m_pSchedule, *schedule);
  // Deliberate: what the save answers isn't looked at.
  if (status == kStatusOk) (void)SaveScheduleToFile();
  return status;
}

Status CZEPScheduleObj::Validate_ScheduleRules(const SCHEDULE_OBJECT* schedule) {
  const LogScope scope(u"Validate_ScheduleRules");
  return LoadAndValidate(*m_pSchedule, *schedule);
}

Status CZEPScheduleObj::SaveScheduleToFile() { return CScheduleFileSave(*this).Finish(); }

Status CZEPScheduleObj::LoadScheduleFromFile() {
  const LogScope scope(u"LoadScheduleFromFile");
  ServiceLog(kLogValues, u"Ini file path is %s", ForLog(m_IniFilePath.view()));
  const BagHolder bag(m_IniFilePath);
  if (bag.Get() == nullptr) {
    ServiceLog(kLogFailure, u"CZEPScheduleObj::LoadScheduleFromFile: new CIniFilePropertyBag() failed;");
    return static_cast<Status>(ZEP_E_OUTOFMEMORY);
  }
  const PersistHolder persist(*m_pSchedule);
  if (ZepFailed(persist.Result())) {
    ServiceLog(kLogFailure,
               u"CZEPScheduleObj::LoadScheduleFromFile:Failed to query IID_zepIPersistPropertyBag interface, hr : %x",
               persist.Result());
    return static_cast<Status>(persist.Result());
  }
  (void)qx::RestoreOldIniFile(m_IniFilePath.view());
  const auto failed = [](Status status) {
    ServiceLog(kLogFailure, u"CZEPScheduleObj::LoadScheduleFromFile:Failed to load the ini file into propBag, hr : %x",
               status);
    return status;
  };
  platform::ProfileBatch batch(m_IniFilePath.view(), platform::ProfileBatch::kLoad);
  // A file that can't be read would load as one without values, and the job would run by other rules or not at all.
  if (const platform::ErrorCode rc = batch.Read(); rc != platform::ERROR_SUCCESS) {
    return failed(platform::StatusFromErrorCode(rc));
  }
  if (!qx::IsLoadingTold() && qx::LoadPlainSchedule(*m_pSchedule, batch.Bytes())) return kStatusOk;
  const ZRESULT result = persist->Load(bag.Get());
  if (ZepFailed(result)) return failed(static_cast<Status>(result));
  LoadDateSections(*m_pSchedule, m_IniFilePath.view());
  if (const platform::ErrorCode rc = batch.FirstFailure(); rc != platform::ERROR_SUCCESS) {
    return failed(platform::StatusFromErrorCode(rc));
  }
  return static_cast<Status>(result);
}

Status CZEPScheduleObj::LoadScheduleFromPropBag(SCHEDULE_OBJECT* schedule) {
  const LogScope scope(u"LoadScheduleFromPropBag");
  zepISchedule& source = *m_pSchedule;
  SCHEDULE_RULE& rule = schedule->stScheduleRules;
  for (const TextField& row : kTextFields) {
    ZepFoundation::ZepOwnedText<char16_t> text;
    if (const ZRESULT result = (source.*row.get)(text.Out()); ZepFailed(result)) {
      ServiceLog(kLogFailure, row.failure, result);
      return static_cast<Status>(result);
    }
    schedule->*row.field = text.Get() != nullptr ? text.Get() : u"";
  }
  for (const TimeField& row : kTimeFields) {
    ZepTime time = 0;
    if (!ZepFailed((source.*row.get)(&time))) rule.*row.field = static_cast<std::int32_t>(time);
  }
  (void)source.get_TimeDuration(&rule.dwTimeDuration);
  GivePair(source, &zepISchedule::get_UseEffectiveDate, &zepISchedule::get_EffectiveDate, rule.bEffectiveDate,
           rule.lEffectiveDate);
  GivePair(source, &zepISchedule::get_UseRestartInterval, &zepISchedule::get_RestartInterval, rule.bRestartInterval,
           rule.dwRestartInterval);
  GivePair(source, &zepISchedule::get_UseRepeatInterval, &zepISchedule::get_RepeatInterval, rule.bRepeatInterval,
           rule.dwRepeatInterval);
  for (zepByte day = 0; day < kDaysOfWeekCount; ++day) {
    for (zepByte week = 0; week < std::size(kWeekFields); ++week) {
      zepByte set = 0;
      if (source.GetDayOfWeek(day, week, &set) == ZEP_S_OK) (rule.*kWeekFields[week])[day] = set;
    }
  }
  for (const DateField& row : kDateFields) GiveDates(source, row, rule);
  std::uint16_t days = 0;
  (void)source.GetDaysOfMonthCount(&days);
  for (std::uint16_t i = 0; i < std::min<std::size_t>(days, kDaysOfMonthCount); ++i) {
    std::uint16_t set = 0;
    if (!ZepFailed(source.GetDayOfMonth(i, &set))) rule.adwDaysOfMonth[i] = static_cast<std::int16_t>(set);
  }
  schedule->lNextTimeWindow = static_cast<std::int32_t>(GetNextTimeWindow());
  return kStatusOk;
}

std::uint32_t CZEPScheduleObj::GetNextTimeWindow() {
  const LogScope scope(u"GetNextTimeWindow");
  const ZepTime now = platform::NowSeconds();
  ZepTime start = kNoNextWindow;
  ZepTime end = kNoNextWindow;
  zepByte last = 0;
  // Deliberate: the result isn't looked at; a start of -1 tells that there is no window.
  (void)m_pSchedule->GetNextTimeWindow(0, 0, now, &start, &end, &last);
  ServiceLog(kLogValues, u"reference time: %ld and NextTimeWindow: %ld", now, start);
  return static_cast<std::uint32_t>(start);
}

// --- saves ---

struct CScheduleFileSave::State {
  explicit State(CZEPScheduleObj& object) : schedule(object) {}

  // Takes the rules from the schedule object into the batch.
  void Gather() {
    isGathered = true;
    const BagHolder bag(schedule.m_IniFilePath);
    if (bag.Get() == nullptr) {
      status = static_cast<Status>(ZEP_E_OUTOFMEMORY);
      return;
    }
    const PersistHolder persist(*schedule.m_pSchedule);
    if (ZepFailed(persist.Result())) {
      status = static_cast<Status>(persist.Result());
      hasNoPersist = true;
      return;
    }
    (void)schedule.m_pSchedule->get_Dirty(&dirty);
    batch.emplace(schedule.m_IniFilePath.view(), platform::ProfileBatch::kSave);
    status = static_cast<Status>(persist->Save(bag.Get(), 1));
    if (status == kStatusOk && !schedule.m_IniFilePath.empty()) {
      status = platform::StatusFromErrorCode(WriteDateSections(*schedule.m_pSchedule, schedule.m_IniFilePath.view()));
    }
  }

  // What the file doesn't hold is still to be saved.
  void StayDirty() {
    if (batch) (void)schedule.m_pSchedule->put_Dirty(dirty);
  }

  CZEPScheduleObj& schedule;
  bool isGathered = false;
  bool hasNoPersist = false;
  bool isFinished = false;
  zepByte dirty = 0;
  std::optional<platform::ProfileBatch> batch;
  Status status = kStatusOk;
};

CScheduleFileSave::CScheduleFileSave(CZEPScheduleObj& schedule) : m_state(std::make_unique<State>(schedule)) {}

CScheduleFileSave::~CScheduleFileSave() {
  if (!m_state->isFinished) m_state->StayDirty();
}

void CScheduleFileSave::Prepare() {
  m_state->Gather();
  if (m_state->status == kStatusOk && !m_state->schedule.m_IniFilePath.empty()) m_state->batch->Prepare();
}

Status CScheduleFileSave::Finish() {
  const LogScope scope(u"SaveScheduleToFile");
  State& state = *m_state;
  if (!state.isGathered) state.Gather();
  state.isFinished = true;
  if (state.hasNoPersist) {
    ServiceLog(kLogFailure, u"SaveScheduleToFile:Unable to get query  IID_zepIPersistPropertyBag interface, error : %x",
               state.status);
  }
  if (!state.batch) return state.status;
  if (state.status == kStatusOk && !state.schedule.m_IniFilePath.empty()) {
    state.status = platform::StatusFromErrorCode(state.batch->Commit());
  }
  if (state.status != kStatusOk) {
    state.StayDirty();
    ServiceLog(kLogFailure, u"Failed to save propBag into ini file, error : %x", state.status);
  }
  return state.status;
}
