#include "common/SchedPersist.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <new>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

#include "common/Schedule.h"
#include "common/property_value.h"
#include "common/refusals.h"
#include "common/schedule_persistence.h"
#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfcclock.h"
#include "foundation/include/zfcdbg.h"
#include "foundation/include/zfctext.h"
#include "foundation/include/zfcutf8.h"
#include "platform/clock.h"
#include "platform/text.h"

using ZepFoundation::bistream;
using ZepFoundation::bistrstream;
using ZepFoundation::bostream;
using ZepFoundation::bostrstream;
using ZepFoundation::CByteOrder;
using ZepFoundation::CDate;
using ZepFoundation::CGUID;
using ZepFoundation::CZepUTF8;
using ZepFoundation::kTraceDebug;
using ZepFoundation::kTraceError;
using ZepFoundation::wcstring;
using ZepFoundation::WTime;
using ZepFoundation::WTimeSpan;

// --- days of the week ---

void CDayOfWeek::BinaryOut(bostream& out) const {
  for (const std::uint32_t word : m_words) out << word;
}

void CDayOfWeek::BinaryIn(bistream& in) {
  ClearAll();
  for (std::uint32_t& word : m_words) {
    std::uint32_t value = 0;
    in >> value;
    if (!in) return;
    word = value & 0xFFu;
  }
}

ZRESULT CDayOfWeek::ToArray(PropertyValue* value) const {
  std::array<std::uint8_t, kWeeks> bytes{};
  std::transform(m_words.begin(), m_words.end(), bytes.begin(),
                 [](std::uint32_t word) { return static_cast<std::uint8_t>(word); });
  value->SetBytes(bytes);
  return ZEP_S_OK;
}

ZRESULT CDayOfWeek::FromArray(const PropertyValue* value) {
  ClearAll();
  const std::span<const std::uint8_t> bytes = value->Bytes();
  if (bytes.empty()) return ZEP_S_OK;
  if (bytes.size() < kWeeks) throw std::out_of_range("invalid vector<T> subscript");
  std::copy_n(bytes.begin(), kWeeks, m_words.begin());
  return ZEP_S_OK;
}

namespace qx {

namespace {

constexpr std::uint32_t kVersions2[] = {kScheduleVersion200, kScheduleVersion210, kScheduleObjectVersion};
constexpr auto kOrder = CByteOrder::kBigEndian;

constexpr char16_t kObjectType[] = u"Object Type";
constexpr char16_t kObjectVersion[] = u"Object Version";
constexpr char16_t kScheduleID[] = u"m_ScheduleID";
constexpr std::u16string_view kDaysOfMonthName = u"m_DaysOfMonth";
constexpr std::u16string_view kDayOfWeekListName = u"m_DayOfWeekList";

// --- tags ---

// What is told of a tag in the trace, in both generations of the byte form, and its size where the size is fixed.
struct TagRow {
  ZepTag tag;
  const char* name;    // version 2.x
  const char* nameV1;  // version 1.x
  std::uint32_t size;  // bytes of the byte form; 0 where the count decides, and for the map
};
constexpr TagRow kTags[] = {
    {kTagDate, "\tZEP_DATE:", "\tQTX_DATE:", 4},
    {kTagTime, "\tZEP_TIME:", "\tQTX_TIME:", 4},
    {kTagTimeSpan, "\tZEP_TIMESPAN:", "\tQTX_TIMESPAN:", 9},
    {kTagInt8, "\tZEP_UI1:", "\tQTX_UI1:", 1},
    {kTagUInt8, "\tZEP_UI1:", "\tQTX_UI1:", 1},
    {kTagBool, "\tZEP_BOOL:", "\tQTX_BOOL:", 1},
    {kTagInt16, "\tZEP_UI2", "\tQTX_UI2:", 2},  // Deliberate: written without a colon.
    {kTagUInt16, "\tZEP_UI2", "\tQTX_UI2:", 2},
    {kTagInt32, "\tZEP_INT32:", "\tQTX_I4:", 4},
    {kTagUInt32, "\tZEP_UINT32:", "\tQTX_UINT:", 4},
    {kTagInt32Twin, "\tZEP_INT32:", "\tQTX_I4:", 4},
    {kTagUInt32Twin, "\tZEP_UINT32:", "\tQTX_UINT:", 4},
    {kTagText, "\tZEP_UTF8STR:", "\tQTX_UTF8STR:", 0},
    {kTagDateArray, "\tZEP_ARRAY | ZEP_DATE [", "\tQTX_ARRAY | QTX_DATE [", 0},
    {kTagBits32, "\tZEP_BITFIELD32:", "\tQTX_UINT: m_DaysOfMonth=", 4},
    {kTagInt16Array, "\tZEP_ARRAY | ZEP_I2 [", "\tQTX_ARRAY | QTX_I2 [", 0},
    {kTagStringMap, "\tZEP_MAP | ZEP_UTF8STR [", "", 0},
    {kTagCustom, "\tZEP_CUSTOM:", "\tQTX_ARRAY | QTX_I2 [", 20},
};

const TagRow& TagOf(ZepTag tag) {
  static constexpr TagRow kUnknown{0, "", "", 0};
  const auto* const row =
      std::find_if(std::begin(kTags), std::end(kTags), [&](const TagRow& t) { return t.tag == tag; });
  return row != std::end(kTags) ? *row : kUnknown;
}

bool IsWalked(const PersistRow& row) {
  return row.name != nullptr && !std::holds_alternative<std::monostate>(row.field);
}

std::string Narrow(std::u16string_view text) { return platform::Utf8FromWide(text); }

// --- how each type of field is shown in the trace ---

std::ostream& Show(std::ostream& out, const wcstring& text) { return out << Narrow(text.view()); }
std::ostream& Show(std::ostream& out, const CDate& date) { return date.Print(out), out; }
std::ostream& Show(std::ostream& out, const WTime& time) { return time.Print(out), out; }
std::ostream& Show(std::ostream& out, const WTimeSpan& span) { return span.Print(out), out; }
std::ostream& Show(std::ostream& out, const CDayOfWeek& days) {
  char words[56];
  days.PrintWords(words);
  return out << words;
}
std::ostream& Show(std::ostream& out, const DateSet& dates) { return out << dates.Size() << ']'; }
std::ostream& Show(std::ostream& out, const std::vector<std::int16_t>& values) { return out << values.size() << ']'; }
std::ostream& Show(std::ostream& out, const StringMap& map) { return out << map.size() << ']'; }
template <typename T>
  requires std::is_integral_v<T>
std::ostream& Show(std::ostream& out, T value) {
  return out << static_cast<std::int64_t>(value);
}

struct Shown {
  const PersistField& field;
  friend std::ostream& operator<<(std::ostream& out, const Shown& shown) {
    std::visit(
        [&](auto pointer) {
          if constexpr (!std::is_same_v<decltype(pointer), std::monostate>) Show(out, *pointer);
        },
        shown.field);
    return out;
  }
};

// --- the byte form, by type of field ---

void WriteText(bostream& out, const wcstring& text) { text.utf8().BinaryOut(out); }

template <typename T>
  requires requires(const T& value, bostream& out) { value.BinaryOut(out); }
void WriteField(bostream& out, const T& value) {
  value.BinaryOut(out);
}
void WriteField(bostream& out, const wcstring& text) { WriteText(out, text); }
template <typename T>
  requires std::is_integral_v<T>
void WriteField(bostream& out, T value) {
  out << value;
}
void WriteField(bostream& out, const DateSet& dates) {
  out << static_cast<std::uint32_t>(dates.Size());
  for (const std::int32_t day : dates.Days()) {
    out << day;  // the binary form of a date; one that has none comes back too
  }
}
void WriteField(bostream& out, const std::vector<std::int16_t>& values) {
  out << static_cast<std::uint32_t>(values.size());
  for (const std::int16_t value : values) out << value;
}
void WriteField(bostream& out, const StringMap& map) {
  out << static_cast<std::uint32_t>(map.size());
  for (const auto& [key, value] : map) {
    WriteText(out, key);
    WriteText(out, value);
  }
}

wcstring ReadText(bistream& in) {
  CZepUTF8 text;
  text.BinaryIn(in);
  return wcstring(text);
}

// A count and that many elements, one after the other; nothing when the stream failed on the way.
template <typename Element, typename ReadElement>
std::optional<std::vector<Element>> ReadArray(bistream& in, ReadElement&& readElement) {
  std::uint32_t count = 0;
  in >> count;
  std::vector<Element> elements;
  for (std::uint32_t i = 0; i < count && in; ++i) {
    Element element = readElement();
    if (in) elements.push_back(std::move(element));
  }
  if (!in) return std::nullopt;
  return elements;
}

DateSet DateSetOf(std::vector<std::int32_t> days) {
  std::sort(days.begin(), days.end());
  DateSet set;
  for (const std::int32_t day : days) set.Insert(day);
  return set;
}

// Each reads one field and stores it only when the stream is still good.
void ReadField(bistream& in, CDate& date) { date.BinaryIn(in); }
void ReadField(bistream& in, WTime& time) { time.BinaryIn(in); }
void ReadField(bistream& in, WTimeSpan& span) { span.BinaryIn(in); }
void ReadField(bistream& in, CDayOfWeek& days) {
  CDayOfWeek read;
  read.BinaryIn(in);
  if (in) days = read;
}
void ReadField(bistream& in, wcstring& text) {
  const wcstring read = ReadText(in);
  if (in) text = read;
}
template <typename T>
  requires std::is_integral_v<T>
void ReadField(bistream& in, T& value) {
  T read = 0;
  in >> read;
  if (in) value = read;
}
void ReadField(bistream& in, DateSet& dates) {
  auto days = ReadArray<std::int32_t>(in, [&in] {
    CDate date(ZepFoundation::QTM_FIXED);
    date.BinaryIn(in);
    return static_cast<std::int32_t>(DayFromDate(date));
  });
  if (days) dates = DateSetOf(*std::move(days));
}
void ReadField(bistream& in, std::vector<std::int16_t>& values) {
  auto read = ReadArray<std::int16_t>(in, [&in] {
    std::int16_t value = 0;
    in >> value;
    return value;
  });
  if (read) values = *std::move(read);
}
void ReadField(bistream& in, StringMap& map) {
  auto pairs = ReadArray<std::pair<wcstring, wcstring>>(in, [&in] {
    wcstring key = ReadText(in);
    wcstring value = in ? ReadText(in) : wcstring();
    return std::pair(std::move(key), std::move(value));
  });
  if (!pairs) return;
  map.clear();
  for (auto& [key, value] : *pairs) map.insert_or_assign(std::move(key), std::move(value));
}

void ReadAnyField(bistream& in, const PersistField& field) {
  std::visit(
      [&](auto pointer) {
        if constexpr (!std::is_same_v<decltype(pointer), std::monostate>) ReadField(in, *pointer);
      },
      field);
}

// The bytes that a stream's reader has behind it.
std::streamoff Position(bistream& in) { return in.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::in); }

// Moves a time of day, around midnight where it must; an invalid one stays so.
void Move(WTime& time, std::int64_t milliseconds) {
  if (!time.IsValid()) return;
  time += WTimeSpan(static_cast<std::uint64_t>(milliseconds < 0 ? -milliseconds : milliseconds), milliseconds < 0);
}

void AdjustToThisZone(WTime& time, std::int32_t senderOffset) {
  const std::int32_t ownOffset = ZepFoundation::Zep_TimeZoneOffsetInSeconds();
  QX_TRACE(kTraceDebug, "\n*** Doing timezone adjustment ***");
  QX_TRACE(kTraceDebug, "\nCurrent timezone offset is" << ownOffset);
  QX_TRACE(kTraceDebug, "\nSender's timezone offset is" << senderOffset);
  Move(time, (std::int64_t{ownOffset} - senderOffset) * 1000);
  QX_TRACE(kTraceDebug, "\n*** Ajustment done:" << Shown{&time} << "***\n");
}

// --- version 1.x ---

void ReadFlagV1(bistream& in, zepByte& flag) {
  std::int32_t read = 0;
  in >> read;
  if (in) flag = read != 0 ? 1 : 0;
}

void ReadTimeV1(bistream& in, WTime& time) {
  constexpr std::int64_t kDaylightMs = 3600000;
  time.BinaryIn(in);
  if (in && platform::CurrentZone().IsDaylight(platform::NowSeconds())) Move(time, -kDaylightMs);
}

void ReadDaysOfWeekV1(bistream& in, CDayOfWeek& days) {
  const auto pairs = ReadArray<std::pair<std::uint16_t, std::uint16_t>>(in, [&in] {
    std::pair<std::uint16_t, std::uint16_t> dayAndWeek;
    in >> dayAndWeek.first >> dayAndWeek.second;
    return dayAndWeek;
  });
  if (!pairs || pairs->empty()) return;
  // Both count from 1; what a byte can't hold is as far out of range as 255.
  const auto index = [](std::uint16_t fromOne) {
    return static_cast<zepByte>(std::min<std::uint32_t>(static_cast<std::uint16_t>(fromOne - 1), 255));
  };
  days.ClearAll();
  for (const auto& [day, week] : *pairs) {
    QX_TRACE(kTraceDebug, "\tQTX_ARRAY | QTX_I2 [" << pairs->size() << "]: day=" << day << "week=" << week);
    days.SetDay(index(day), index(week));
  }
}

// Reads the rows that version 1.x has otherwise; false for all others.
bool ReadOwnFormV1(bistream& in, const PersistRow& row) {
  switch (row.tag) {
    case kTagTime:
      ReadTimeV1(in, *std::get<WTime*>(row.field));
      return true;
    case kTagBool:
      ReadFlagV1(in, *std::get<zepByte*>(row.field));
      return true;
    case kTagBits32:
      return row.name != kDaysOfMonthName;
    case kTagStringMap:
      return true;
    case kTagCustom:
      if (row.name == kDayOfWeekListName) ReadDaysOfWeekV1(in, *std::get<CDayOfWeek*>(row.field));
      return true;
    default:
      return false;
  }
}

// --- properties ---

std::string Utf8(const wcstring& text) {
  const CZepUTF8 converted = text.utf8();
  const auto [length, bytes] = converted.Utf8();
  return bytes != nullptr ? std::string(bytes, length) : std::string();
}

// An empty or unconvertible text is an empty one.
wcstring TextOf(const PropertyValue& value) {
  ZepFoundation::ZepOwnedText<char16_t> wide;
  (void)ZepFoundation::ZepUtf8ToWcs(wide.Out(), value.Text());
  return wcstring(wide.Get());
}

// What the slot of a number holds for a field.
constexpr std::uint64_t kMillisecondsPerSecond = 1000;
std::int64_t SlotOf(const CDate& date) { return date.AsANSITime(); }
std::int64_t SlotOf(const WTime& time) { return SecondsOfTimeOfDay(time); }
// Deliberate: whole seconds, the fraction is lost.
std::int64_t SlotOf(const WTimeSpan& span) {
  return static_cast<std::uint32_t>(span.GetMagnitude() / kMillisecondsPerSecond);
}
template <typename T>
  requires std::is_integral_v<T>
std::int64_t SlotOf(T value) {
  return static_cast<std::int64_t>(value);
}

void FromSlot(CDate& date, const PropertyValue& value) { date = DateFromDay(LocalDayOf(value.Wide())); }
void FromSlot(WTime& time, const PropertyValue& value) { (void)time.SetTime(value.Wide()); }
void FromSlot(WTimeSpan& span, const PropertyValue& value) {
  span = WTimeSpan(value.UInt32() * kMillisecondsPerSecond, false);
}
template <typename T>
  requires std::is_integral_v<T>
void FromSlot(T& field, const PropertyValue& value) {
  field = static_cast<T>(value.Wide());
}

template <typename T>
concept HasSlot = requires(const T& field) { SlotOf(field); };

template <HasSlot T>
bool IsSameField(const T& a, const T& b) {
  return a == b;
}
bool IsSameField(const WTimeSpan& a, const WTimeSpan& b) {
  return a.GetMagnitude() == b.GetMagnitude() && a.IsNegative() == b.IsNegative();
}

PropertyValue ValueOf(ZepTag tag, const wcstring& text) {
  PropertyValue value(tag);
  value.SetText(Utf8(text));
  return value;
}
template <HasSlot T>
PropertyValue ValueOf(ZepTag tag, const T& field) {
  return PropertyValue(tag, SlotOf(field));
}
PropertyValue ValueOf(ZepTag tag, const DateSet& dates) {
  std::vector<std::int64_t> seconds;
  for (const std::int32_t day : dates.Days()) seconds.push_back(SecondsOfDay(day));
  PropertyValue value(tag);
  value.SetDates(seconds);
  return value;
}
PropertyValue ValueOf(ZepTag tag, const std::vector<std::int16_t>& numbers) {
  PropertyValue value(tag);
  value.SetInt16s(numbers);
  return value;
}
PropertyValue ValueOf(ZepTag tag, const StringMap& map) {
  std::vector<std::string> strings;
  for (const auto& [key, text] : map) {
    strings.push_back(Utf8(key));
    strings.push_back(Utf8(text));
  }
  PropertyValue value(tag);
  value.SetStrings(strings);
  return value;
}
PropertyValue ValueOf(ZepTag tag, const CDayOfWeek& days) {
  PropertyValue value(tag);
  (void)days.ToArray(&value);
  return value;
}

// Runs `load`; what it throws is traced, and the load goes on with the next row.
template <typename Load>
void GuardArray(const char* array, Load&& load) {
  try {
    load();
  } catch (const std::exception& error) {
    QX_TRACE(kTraceError,
             "CSchedule::Load(LPZEPPROPERTYBAG pPropBag) - Error: A C++ exception was caught while loading "
                 << array << ", attempting to continue.  The error message text is:" << error.what());
  } catch (...) {
    QX_TRACE(kTraceError,
             "CSchedule::Load(LPZEPPROPERTYBAG pPropBag) - Error: A generic exception was caught while loading "
                 << array << ", attempting to continue.");
  }
}

// Each reads one property into its field; false when the bag couldn't.
bool ReadProperty(zepIPropertyBag& bag, const PersistRow& row, wcstring& text) {
  PropertyValue value(row.tag);
  if (ZepFailed(bag.Read(row.name, &value))) return false;
  text = TextOf(value);
  return true;
}
// A bag gives the slot back as it was where it has nothing: of a number that came back so, another default tells.
bool StandsInBag(zepIPropertyBag& bag, const PersistRow& row, std::int64_t number) {
  PropertyValue value(row.tag, number + 1);
  return !ZepFailed(bag.Read(row.name, &value)) && value.Wide() == number;
}
template <HasSlot T>
bool ReadProperty(zepIPropertyBag& bag, const PersistRow& row, T& field) {
  PropertyValue value(row.tag, SlotOf(field));
  const std::int64_t before = value.Wide();
  if (ZepFailed(bag.Read(row.name, &value))) return false;
  if (value.Wide() == before) {
    // The slot is coarser than some fields: where the bag has nothing, the end of a full day keeps its milliseconds.
    T read = field;
    FromSlot(read, value);
    if (IsSameField(read, field) || !StandsInBag(bag, row, before)) return true;
  }
  FromSlot(field, value);
  return true;
}
bool ReadProperty(zepIPropertyBag& bag, const PersistRow& row, DateSet& dates) {
  GuardArray("specific dates", [&] {
    PropertyValue value(row.tag);
    if (ZepFailed(bag.Read(row.name, &value))) return;
    std::vector<std::int32_t> days;
    for (const std::int64_t seconds : value.Dates()) {
      if (const std::int32_t day = LocalDayOf(seconds); day >= 0) days.push_back(day);
    }
    dates = DateSetOf(std::move(days));
  });
  return true;
}
bool ReadProperty(zepIPropertyBag& bag, const PersistRow& row, std::vector<std::int16_t>& numbers) {
  GuardArray("interger array", [&] {
    PropertyValue value(row.tag);
    if (ZepFailed(bag.Read(row.name, &value))) return;
    const auto read = value.Int16s();
    numbers.assign(read.begin(), read.end());
  });
  return true;
}
bool ReadProperty(zepIPropertyBag& bag, const PersistRow& row, StringMap& map) {
  PropertyValue value(row.tag);
  if (ZepFailed(bag.Read(row.name, &value))) return false;
  const auto wide = [](const std::string& text) { return wcstring(platform::WideFromUtf8(text)); };
  const std::vector<std::string> strings = value.Strings();
  map.clear();
  for (std::size_t i = 0; i + 1 < strings.size(); i += 2) map.insert_or_assign(wide(strings[i]), wide(strings[i + 1]));
  return true;
}
bool ReadProperty(zepIPropertyBag& bag, const PersistRow& row, CDayOfWeek& days) {
  PropertyValue value(row.tag);
  if (ZepFailed(bag.Read(row.name, &value))) return false;
  (void)days.FromArray(&value);
  return true;
}

// Runs `save`. Nothing leaves the interface as an exception: bags and streams are other people's.
template <typename Save>
ZRESULT GuardSave(Save&& save) {
  try {
    return save();
  } catch (const std::exception& error) {
    QX_TRACE(kTraceError, "CSchedule::Save() - Error: A C++ exception was caught during the save process.  "
                          "The error message text is:"
                              << error.what());
    return dynamic_cast<const std::bad_alloc*>(&error) != nullptr ? ZEP_E_OUTOFMEMORY : ZEP_E_FAIL;
  } catch (...) {
    QX_TRACE(kTraceError, "CSchedule::Save() - Error: A generic exception was caught during the save process.");
    return ZEP_E_FAIL;
  }
}

// What left a load of bytes; `form` is the operation as its trace names it.
void TraceFailedLoad(const char* form, const char* text) {
  if (text != nullptr && *text != '\0') {
    QX_TRACE(kTraceError, form << " - Error: A C++ exception was caught during the load process, loading aborted.  "
                                  "The error message text is:"
                               << text);
  } else {
    QX_TRACE(kTraceError, form << " - Error: A C++ exception was caught during the load process, loading aborted.");
  }
}

template <typename Load>
void GuardLoad(const char* form, Load&& load) {
  try {
    load();
  } catch (const std::exception& error) {
    TraceFailedLoad(form, error.what());
  } catch (...) {
    TraceFailedLoad(form, nullptr);
  }
}

// A row of the schedule's table: the field as a member.
using Member = std::variant<wcstring CSchedule::*, CDate CSchedule::*, WTime CSchedule::*, WTimeSpan CSchedule::*,
                            zepByte CSchedule::*, std::int32_t CSchedule::*, std::uint32_t CSchedule::*,
                            DateSet CSchedule::*, StringMap CSchedule::*, CDayOfWeek CSchedule::*>;
struct MemberRow {
  const char16_t* name;
  ZepTag tag;
  Member member;
};

}  // namespace

std::vector<PersistRow> SchedulePersistence::Rows() const {
  using S = CSchedule;
  static constexpr MemberRow kRows[] = {
      {u"m_Name", kTagText, &S::m_Name},
      {u"m_Description", kTagText, &S::m_Description},
      {u"m_StartTime", kTagTime, &S::m_StartTime},
      {u"m_EndTime", kTagTime, &S::m_EndTime},
      {u"m_TimeDuration", kTagTimeSpan, &S::m_TimeDuration},
      {u"m_bUseEffectiveDate", kTagBool, &S::m_bUseEffectiveDate},
      {u"m_dtEffectiveDate", kTagDate, &S::m_dtEffectiveDate},
      {u"m_bUseRestartInterval", kTagBool, &S::m_bUseRestartInterval},
      {u"m_RestartInterval", kTagTimeSpan, &S::m_RestartInterval},
      {u"m_bUseRepeatInterval", kTagBool, &S::m_bUseRepeatInterval},
      {u"m_iRepeatInterval", kTagInt32, &S::m_iRepeatInterval},
      {u"m_AnchorDate", kTagDate, &S::m_AnchorDate},
      {u"m_SpecificIncludeDateSet", kTagDateArray, &S::m_SpecificIncludeDateSet},
      {u"m_SpecificExcludeDateSet", kTagDateArray, &S::m_SpecificExcludeDateSet},
      {u"m_DaysOfMonth", kTagBits32, &S::m_DaysOfMonth},
      {u"m_DayOfWeekList", kTagCustom, &S::m_DayOfWeekList},
      {u"m_CustomBitSet", kTagBits32, &S::m_CustomBitSet},
      {u"m_CustomStringMap", kTagStringMap, &S::m_CustomStringMap},
  };
  std::vector<PersistRow> rows;
  rows.reserve(std::size(kRows));
  for (const MemberRow& row : kRows) {
    const PersistField field =
        std::visit([this](auto member) { return PersistField(&(m_schedule.*member)); }, row.member);
    rows.push_back({row.name, row.tag, field});
  }
  return rows;
}

void SchedulePersistence::SaveToStream(bostream& out, std::span<const PersistRow> rows) const {
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const PersistRow& row = rows[i];
    if (!IsWalked(row)) continue;
    QX_TRACE(kTraceDebug, "SaveToStream() Item number=" << i << '\t' << Narrow(row.name) << TagOf(row.tag).name
                                                        << Shown{row.field});
    std::visit(
        [&](auto field) {
          if constexpr (!std::is_same_v<decltype(field), std::monostate>) WriteField(out, *field);
        },
        row.field);
  }
}

void SchedulePersistence::LoadFromStream(bistream& in, std::span<const PersistRow> rows) const {
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const PersistRow& row = rows[i];
    if (row.name == nullptr) continue;
    QX_TRACE(kTraceDebug, "LOAD i=" << i << '\t' << Narrow(row.name));
    if (!IsWalked(row)) continue;
    const std::streamoff before = ZepFoundation::DebugTraceEnabled(kTraceDebug) ? Position(in) : 0;
    ReadAnyField(in, row.field);
    if (row.tag == kTagTime && in && m_schedule.m_SenderTimeZoneOffset != -1) {
      AdjustToThisZone(*std::get<WTime*>(row.field), m_schedule.m_SenderTimeZoneOffset);
    }
    QX_TRACE(kTraceDebug, TagOf(row.tag).name << Shown{row.field} << "\tsize=" << Position(in) - before);
  }
}

void SchedulePersistence::LoadFromStreamV1(bistream& in, std::span<const PersistRow> rows) const {
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const PersistRow& row = rows[i];
    if (!IsWalked(row)) continue;
    QX_TRACE(kTraceDebug, "LOAD i=" << i << '\t' << Narrow(row.name));
    const std::streamoff before = ZepFoundation::DebugTraceEnabled(kTraceDebug) ? Position(in) : 0;
    if (!ReadOwnFormV1(in, row)) ReadAnyField(in, row.field);
    QX_TRACE(kTraceDebug, TagOf(row.tag).nameV1 << Shown{row.field} << "\tsize=" << Position(in) - before);
  }
}

void SchedulePersistence::SaveToBag(zepIPropertyBag& bag, std::span<const PersistRow> rows) const {
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const PersistRow& row = rows[i];
    if (!IsWalked(row)) continue;
    QX_TRACE(kTraceDebug, "Save(PropertyBag) Item number=" << i << '\t' << Narrow(row.name));
    std::visit(
        [&](auto field) {
          if constexpr (!std::is_same_v<decltype(field), std::monostate>) {
            PropertyValue value = ValueOf(row.tag, *field);
            (void)bag.Write(row.name, &value);
          }
        },
        row.field);
  }
}

void SchedulePersistence::LoadFromBag(zepIPropertyBag& bag, std::span<const PersistRow> rows) const {
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const PersistRow& row = rows[i];
    if (!IsWalked(row)) continue;
    QX_TRACE(kTraceDebug, "Load(PropertyBag) Item number=" << i << '\t' << Narrow(row.name));
    std::visit(
        [&](auto field) {
          if constexpr (!std::is_same_v<decltype(field), std::monostate>) (void)ReadProperty(bag, row, *field);
        },
        row.field);
  }
}

// --- property bag ---

ZRESULT SchedulePersistence::Save(zepIPropertyBag* bag, zepByte clearDirty) const {
  if (bag == nullptr) return RefusePointer();
  return GuardSave([&]() -> ZRESULT {
    PropertyValue type = ValueOf(kTagText, CGUID(CLSID_CSchedule).GUIDAsString(0));
    const ZRESULT result = bag->Write(kObjectType, &type);
    if (ZepFailed(result)) return result;
    PropertyValue version(kTagUInt32, kScheduleObjectVersion);
    (void)bag->Write(kObjectVersion, &version);
    PropertyValue id = ValueOf(kTagText, m_schedule.m_ScheduleID.GUIDAsString(0));
    (void)bag->Write(kScheduleID, &id);
    SaveToBag(*bag, Rows());
    if (clearDirty != 0) m_schedule.m_bDirty = 0;
    return result;
  });
}

void SchedulePersistence::ReadBag(zepIPropertyBag& bag, ZRESULT& result) const {
  m_schedule.Reset();
  PropertyValue type(kTagText);
  result = bag.Read(kObjectType, &type);
  if (ZepFailed(result)) return;
  PropertyValue version(kTagUInt32);
  result = bag.Read(kObjectVersion, &version);
  if (ZepFailed(result)) return;
  // Deliberate: the right type or the present version alone is enough.
  if (!(CGUID(TextOf(type)) == CGUID(CLSID_CSchedule)) && version.UInt32() != kScheduleObjectVersion) {
    result = RefuseFail();
    return;
  }
  PropertyValue id(kTagText);
  result = bag.Read(kScheduleID, &id);
  if (ZepFailed(result)) return;
  m_schedule.m_ScheduleID = CGUID(TextOf(id));
  LoadFromBag(bag, Rows());
  m_schedule.m_bDirty = 0;
}

ZRESULT SchedulePersistence::Load(zepIPropertyBag* bag) const {
  if (bag == nullptr) return RefusePointer();
  ZRESULT result = ZEP_S_OK;
  try {
    ReadBag(*bag, result);
  } catch (const std::exception& error) {
    TraceFailedLoad("CSchedule::Load(LPZEPPROPERTYBAG pPropBag)", error.what());
  } catch (...) {
    QX_TRACE(kTraceError,
             "CSchedule::Load(LPZEPPROPERTYBAG pPropBag) - Error: A generic exception was caught during the "
             "load process, loading aborted.");
  }
  return result;
}

// --- bytes ---

void SchedulePersistence::WriteAll(bostream& out) const {
  CGUID(CLSID_CSchedule).BinaryOut(out);
  out << kScheduleObjectVersion;
  m_schedule.m_ScheduleID.BinaryOut(out);
  SaveToStream(out, Rows());
}

ZRESULT SchedulePersistence::Save(zepIStream* stream, zepByte clearDirty) const {
  if (stream == nullptr) return RefusePointer();
  return GuardSave([&]() -> ZRESULT {
    bostrstream out(kOrder);
    WriteAll(out);
    if (!out) return ZEP_E_OUTOFMEMORY;
    const std::string_view bytes = out.view();
    std::uint32_t written = 0;
    const ZRESULT result = stream->Write(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &written);
    // Deliberate: also when the stream refused the bytes.
    if (clearDirty != 0) m_schedule.m_bDirty = 0;
    return result;
  });
}

ZRESULT SchedulePersistence::Save(void* memory, zepByte clearDirty, std::uint32_t size) const {
  if (memory == nullptr) return RefusePointer();
  return GuardSave([&]() -> ZRESULT {
    bostrstream out(kOrder);
    WriteAll(out);
    if (!out) return ZEP_E_OUTOFMEMORY;
    const std::string_view bytes = out.view();
    if (bytes.size() > size) return RefuseArgument();
    std::memcpy(memory, bytes.data(), bytes.size());
    if (clearDirty != 0) m_schedule.m_bDirty = 0;
    return ZEP_S_OK;
  });
}

// Reads header and rows; `result` is set where the load comes to an end of its own.
void SchedulePersistence::ReadAll(bistream& in, ZRESULT& result) const {
  CGUID classId{ZepGuid{}};
  CGUID id{ZepGuid{}};
  std::uint32_t version = 0;
  classId.BinaryIn(in);
  in >> version;
  id.BinaryIn(in);
  // Deliberate: the identifier is taken ahead of all checks, also from bytes of another class.
  if (in) m_schedule.m_ScheduleID = id;
  if (!(classId == CGUID(CLSID_CSchedule))) {
    result = RefuseFail();
    return;
  }
  // Deliberate: an unknown version is found out only after the reset.
  m_schedule.Reset();
  if (in && version == kScheduleVersion101) {
    LoadFromStreamV1(in, Rows());
  } else if (in && std::find(std::begin(kVersions2), std::end(kVersions2), version) != std::end(kVersions2)) {
    LoadFromStream(in, Rows());
  } else {
    result = RefuseFail();
    return;
  }
  m_schedule.m_bDirty = 0;
}

ZRESULT SchedulePersistence::Load(zepIStream* stream) const {
  if (stream == nullptr) return RefusePointer();
  std::array<char, kStreamReadLimit> buffer;
  ZRESULT result = ZEP_E_FAIL;  // of a stream that throws
  GuardLoad("CSchedule::Load(zepIStream* pStm)", [&] {
    std::uint32_t read = 0;
    result = stream->Read(buffer.data(), kStreamReadLimit, &read);
    if (read == 0) return;
    bistrstream in(buffer.data(), std::min(read, kStreamReadLimit), kOrder);
    in.rdbuf()->SetReadLimit(true);
    ReadAll(in, result);
  });
  return result;
}

ZRESULT SchedulePersistence::Load(void* memory, std::uint32_t size) const {
  if (memory == nullptr) return RefusePointer();
  ZRESULT result = ZEP_S_OK;
  GuardLoad("CSchedule::Load(void *pvMem, unsigned long cbSize)", [&] {
    bistrstream in(static_cast<const char*>(memory), size, kOrder);
    ReadAll(in, result);
  });
  return result;
}

ZRESULT SchedulePersistence::StreamSizeMax(std::uint32_t* size) const {
  if (size == nullptr) return RefusePointer();
  constexpr std::size_t kBase = 16;
  constexpr std::size_t kCount = 4;
  constexpr std::size_t kPerDate = 16;
  constexpr std::size_t kPerNumber = 2;
  std::size_t sum = kBase;
  for (const PersistRow& row : Rows()) {
    if (const auto* text = std::get_if<wcstring*>(&row.field)) {
      sum += (*text)->length();
    } else if (const auto* dates = std::get_if<DateSet*>(&row.field)) {
      sum += kCount + kPerDate * (*dates)->Size();
    } else if (const auto* numbers = std::get_if<std::vector<std::int16_t>*>(&row.field)) {
      sum += kCount + kPerNumber * (*numbers)->size();
    } else {
      sum += TagOf(row.tag).size;
    }
  }
  *size = static_cast<std::uint32_t>(sum);
  return ZEP_S_OK;
}

ZRESULT SchedulePersistence::MemorySizeMax(std::uint32_t* size) const {
  if (size == nullptr) return RefusePointer();
  *size = 0;
  (void)GuardSave([&] {
    bostrstream out(kOrder);
    WriteAll(out);
    if (out) *size = static_cast<std::uint32_t>(out.view().size());
    return ZEP_S_OK;
  });
  return ZEP_S_OK;
}

}  // namespace qx

// --- the schedule's persistence interfaces ---

ZRESULT CSchedule::GetClassID(ZepGuid* classId) {
  if (classId == nullptr) return qx::RefusePointer();
  *classId = CLSID_CSchedule;
  return ZEP_S_OK;
}

ZRESULT CSchedule::InitNew() { return ZEP_E_NOTIMPL; }

ZRESULT CSchedule::IsDirty() { return m_bDirty != 0 ? ZEP_S_OK : ZEP_S_FALSE; }

ZRESULT CSchedule::Load(zepIPropertyBag* bag) { return qx::SchedulePersistence(*this).Load(bag); }

ZRESULT CSchedule::Save(zepIPropertyBag* bag, zepByte clearDirty) {
  return qx::SchedulePersistence(*this).Save(bag, clearDirty);
}

ZRESULT CSchedule::Load(zepIStream* stream) { return qx::SchedulePersistence(*this).Load(stream); }

ZRESULT CSchedule::Save(zepIStream* stream, zepByte clearDirty) {
  return qx::SchedulePersistence(*this).Save(stream, clearDirty);
}

ZRESULT CSchedule::Load(void* memory, std::uint32_t size) { return qx::SchedulePersistence(*this).Load(memory, size); }

ZRESULT CSchedule::Save(void* memory, zepByte clearDirty, std::uint32_t size) {
  return qx::SchedulePersistence(*this).Save(memory, clearDirty, size);
}

ZRESULT CSchedule::StreamSizeMax(std::uint32_t* size) { return qx::SchedulePersistence(*this).StreamSizeMax(size); }

ZRESULT CSchedule::MemorySizeMax(std::uint32_t* size) { return qx::SchedulePersistence(*this).MemorySizeMax(size); }
