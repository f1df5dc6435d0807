#include "common/plain_schedule_file.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "common/property_value.h"
#include "foundation/include/zfcdbg.h"
#include "foundation/include/zfclog.h"
#include "platform/text.h"

namespace qx {
namespace {

// --- the form ---

enum class Kind { kText, kNumber, kFlag };
struct Field {
  std::string_view line;  // its beginning
  std::u16string_view name;
  Kind kind;
};
// The lines of a plain file, in order. The keys are those of common/ini_property_bag.h and of the rows of
// SchedulePersistence.
constexpr Field kFields[] = {
    {"Object Type=", u"Object Type", Kind::kText},
    {"Object Version=", u"Object Version", Kind::kNumber},
    {"m_ScheduleID=", u"m_ScheduleID", Kind::kText},
    {"m_Name=", u"m_Name", Kind::kText},
    {"m_Description=", u"m_Description", Kind::kText},
    {"m_StartTime=", u"m_StartTime", Kind::kNumber},
    {"m_EndTime=", u"m_EndTime", Kind::kNumber},
    {"m_TimeDuration=", u"m_TimeDuration", Kind::kNumber},
    {"m_bUseEffectiveDate=", u"m_bUseEffectiveDate", Kind::kFlag},
    {"m_dtEffectiveDate=", u"m_dtEffectiveDate", Kind::kNumber},
    {"m_bUseRestartInterval=", u"m_bUseRestartInterval", Kind::kFlag},
    {"m_RestartInterval=", u"m_RestartInterval", Kind::kNumber},
    {"m_bUseRepeatInterval=", u"m_bUseRepeatInterval", Kind::kFlag},
    {"m_iRepeatInterval=", u"m_iRepeatInterval", Kind::kNumber},
    {"m_AnchorDate=", u"m_AnchorDate", Kind::kNumber},
    {"m_DaysOfMonth=", u"m_DaysOfMonth", Kind::kNumber},
    {"m_CustomBitSet=", u"m_CustomBitSet", Kind::kNumber},
};
constexpr std::size_t kGeneralFields = 12;
constexpr std::string_view kGeneral = "[General]";
constexpr std::string_view kRunDayRules = "[Run Day Rules]";
constexpr std::string_view kDayOfWeekArray = "[DayOfWeekArray]";
constexpr std::size_t kWeeks = 5;
constexpr std::u16string_view kDayOfWeekList = u"m_DayOfWeekList";
// The property form keeps the specific dates here too, under keys that the two lists share; the sections of their own
// are those that count.
constexpr std::string_view kMixedDate = "Item";

struct DateSection {
  std::string_view header;
  std::uint32_t type;
};
constexpr DateSection kDateSections[] = {
    {"[Specific Include Dates]", ZEP_SPECIFIC_INCLUDE},
    {"[Specific Exclude Dates]", ZEP_SPECIFIC_EXCLUDE},
};
constexpr std::string_view kCount = "Count=";

constexpr std::size_t kMostUnits = 254;         // of a text; a longer one may be cut
constexpr std::size_t kMostDigits = 10;         // of a number of 32 bits, which may wrap
constexpr std::size_t kMostDigitsOfDate = 18;   // fit into 64 bits

struct PlainFile {
  std::array<std::string, std::size(kFields)> texts;
  std::array<std::uint32_t, std::size(kFields)> numbers{};  // flags too
  std::array<std::uint8_t, kWeeks> daysOfWeek{};
  std::array<std::vector<std::int64_t>, std::size(kDateSections)> dates;
};

// --- reading ---

// An optional sign and at most so many digits.
std::optional<std::int64_t> ParseNumber(std::string_view text, std::size_t mostDigits) {
  const bool negative = text.starts_with('-');
  if (negative) text.remove_prefix(1);
  if (text.empty() || text.size() > mostDigits) return std::nullopt;
  std::int64_t number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    number = number * 10 + (c - '0');
  }
  return negative ? -number : number;
}

// A text as the bag's ReadString gives it; false where that would trim, cut or refuse it.
bool ParseText(std::string_view bytes, std::string& out) {
  if (bytes.empty()) return true;
  bool isAscii = true;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < ' ') return false;
    isAscii = isAscii && byte < 0x80;
  }
  if (bytes.front() == ' ' || bytes.back() == ' ' || bytes.front() == '"' || bytes.front() == '\'') return false;
  if (isAscii) {
    if (bytes.size() > kMostUnits) return false;
    out = bytes;
    return true;
  }
  const std::u16string wide = platform::WideFromSystem(bytes);
  if (wide.size() > kMostUnits) return false;
  int error = 0;
  const std::size_t size = platform::Wcstombs(nullptr, wide.c_str(), 0, error);
  if (size == platform::kRuntimeFailure) return false;
  out.resize(size);
  (void)platform::Wcstombs(out.data(), wide.c_str(), size, error);
  return true;
}

class Reader {
 public:
  explicit Reader(std::string_view file) : m_rest(file) {}

  // False when the file is of another form.
  bool Read(PlainFile& file) {
    if (!Take(kGeneral)) return false;
    for (std::size_t i = 0; i < std::size(kFields); ++i) {
      if (i == kGeneralFields && !Take(kRunDayRules)) return false;
      if (i > kGeneralFields && !SkipMixedDates()) return false;
      if (!ReadField(kFields[i], file.texts[i], file.numbers[i])) return false;
    }
    if (!SkipMixedDates() || !Take(kDayOfWeekArray)) return false;
    for (std::size_t i = 0; i < kWeeks; ++i) {
      const std::optional<std::int64_t> bits = ReadItem(i + 1, kMostDigits);
      if (!bits) return false;
      file.daysOfWeek[i] = static_cast<std::uint8_t>(*bits);
    }
    for (std::size_t i = 0; i < std::size(kDateSections); ++i) {
      if (!Take(kDateSections[i].header) || !ReadDates(file.dates[i])) return false;
    }
    return m_rest.empty();
  }

 private:
  // The next line without its end; nothing where there is no whole one.
  std::optional<std::string_view> Line() {
    const std::size_t end = m_rest.find('\r');
    if (end == std::string_view::npos || end + 1 >= m_rest.size() || m_rest[end + 1] != '\n') {
      m_rest = {};
      return std::nullopt;
    }
    const std::string_view line = m_rest.substr(0, end);
    m_rest.remove_prefix(end + 2);
    return line;
  }
  bool Take(std::string_view wanted) { return Line() == wanted; }
  // The value behind the beginning of a line.
  std::optional<std::string_view> Value(std::string_view begin) {
    if (!m_rest.starts_with(begin)) return std::nullopt;
    std::optional<std::string_view> line = Line();
    if (line) line->remove_prefix(begin.size());
    return line;
  }

  bool SkipMixedDates() {
    while (m_rest.starts_with(kMixedDate)) {
      const std::optional<std::string_view> line = Line();
      // A line feed alone would end the line too.
      if (!line || line->find('\n') != std::string_view::npos) return false;
    }
    return true;
  }

  bool ReadField(const Field& field, std::string& text, std::uint32_t& number) {
    const std::optional<std::string_view> value = Value(field.line);
    if (!value) return false;
    if (field.kind == Kind::kText) return ParseText(*value, text);
    if (field.kind == Kind::kFlag) {
      number = *value == "TRUE" ? 1 : 0;
      return number == 1 || *value == "FALSE";
    }
    const std::optional<std::int64_t> parsed = ParseNumber(*value, kMostDigits);
    number = static_cast<std::uint32_t>(parsed.value_or(0));
    return parsed.has_value();
  }

  // "Item01=...", "Item02=...", ..., "Item100=...".
  std::optional<std::int64_t> ReadItem(std::size_t number, std::size_t mostDigits) {
    char key[32] = "Item";
    std::size_t size = 4;
    if (number < 10) key[size++] = '0';
    const std::string digits = std::to_string(number);
    size += digits.copy(key + size, sizeof key - size - 1);
    key[size++] = '=';
    const std::optional<std::string_view> value = Value({key, size});
    return value ? ParseNumber(*value, mostDigits) : std::nullopt;
  }

  bool ReadDates(std::vector<std::int64_t>& dates) {
    const std::optional<std::string_view> text = Value(kCount);
    const std::optional<std::int64_t> count = text ? ParseNumber(*text, kMostDigits) : std::nullopt;
    if (!count || *count < 0) return false;
    for (std::int64_t i = 1; i <= *count; ++i) {
      const std::optional<std::int64_t> date = ReadItem(static_cast<std::size_t>(i), kMostDigitsOfDate);
      if (!date) return false;
      dates.push_back(*date);
    }
    return true;
  }

  std::string_view m_rest;
};

// --- loading ---

// What was read, as the properties that the bag over the file would give.
class PlainBag final : public zepIPropertyBag {
 public:
  explicit PlainBag(const PlainFile& file) : m_file(file) {}
  virtual ~PlainBag() = default;

  ZRESULT QueryInterface(const ZepGuid&, void**) override { return ZEP_E_NOINTERFACE; }
  std::uint32_t AddRef() override { return 1; }  // lives on the stack of its one user
  std::uint32_t Release() override { return 1; }
  ZRESULT Write(const char16_t*, PropertyValue*) override { return ZEP_E_NOTIMPL; }

  ZRESULT Read(const char16_t* name, PropertyValue* value) override {
    const std::u16string_view wanted(name);
    // Whoever loads asks in the order of the file, but for what has no line of its own.
    std::size_t at = m_next;
    for (std::size_t tried = 0; tried < std::size(kFields); ++tried, at = (at + 1) % std::size(kFields)) {
      if (kFields[at].name != wanted) continue;
      m_next = (at + 1) % std::size(kFields);
      Fill(at, *value);
      return ZEP_S_OK;
    }
    if (wanted == kDayOfWeekList && value->Tag() == kTagCustom) value->SetBytes(m_file.daysOfWeek);
    // The lists of dates come from their own sections, and a map of strings is never read back.
    return ZEP_S_OK;
  }

 private:
  void Fill(std::size_t at, PropertyValue& value) const {
    switch (value.Tag()) {
      case kTagText:
        value.SetText(m_file.texts[at]);
        break;
      case kTagBool:
        value.SetByte(static_cast<std::uint8_t>(m_file.numbers[at]));
        break;
      case kTagDate:
      case kTagTime:
        value.SetWide(static_cast<std::int32_t>(m_file.numbers[at]));
        break;
      default:
        value.SetLow32(m_file.numbers[at]);
    }
  }

  const PlainFile& m_file;
  std::size_t m_next = 0;
};

}  // namespace

bool IsLoadingTold() {
  constexpr std::uint32_t kDetailLevel = 4;
  if (ZepFoundation::ServiceLogLevel.load(std::memory_order_relaxed) >= kDetailLevel) return true;
  for (std::uint16_t level = ZepFoundation::kTraceError; level <= ZepFoundation::kTraceDebug; ++level) {
    if (ZepFoundation::DebugTraceEnabled(level)) return true;
  }
  return false;
}

bool LoadPlainSchedule(zepISchedule& schedule, std::string_view bytes) {
  PlainFile file;
  if (!Reader(bytes).Read(file)) return false;
  void* found = nullptr;
  if (ZepFailed(schedule.QueryInterface(IID_zepIPersistPropertyBag, &found))) return false;
  auto* const persist = static_cast<zepIPersistPropertyBag*>(found);
  PlainBag bag(file);
  const ZRESULT loaded = persist->Load(&bag);
  (void)persist->Release();
  if (loaded != ZEP_S_OK) return false;
  for (std::size_t i = 0; i < std::size(kDateSections); ++i) {
    (void)schedule.ClearSpecificDates(kDateSections[i].type);
    for (const std::int64_t date : file.dates[i]) (void)schedule.SetSpecificDate(kDateSections[i].type, date);
  }
  (void)schedule.put_Dirty(0);
  return true;
}

}  // namespace qx
