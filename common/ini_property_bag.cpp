#include "common/ini_property_bag.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/profile.h"
#include "platform/text.h"

using ZepFoundation::wcstring;

namespace {

constexpr std::size_t kTextUnits = 256;      // of a text with its NUL
constexpr std::size_t kBoolUnits = 7;        // of a boolean with its NUL
constexpr std::size_t kSectionUnits = 1024;  // of a whole section
constexpr std::size_t kByteCounterEnd = 256;

// The names of a schedule's properties, the general ones first.
const wcstring kNames[] = {
    u"Object Type",           u"Object Version",        u"m_ScheduleID",          u"m_Name",
    u"m_Description",         u"m_StartTime",           u"m_EndTime",             u"m_TimeDuration",
    u"m_bUseEffectiveDate",   u"m_dtEffectiveDate",     u"m_bUseRestartInterval", u"m_RestartInterval",
    u"m_bUseRepeatInterval",  u"m_iRepeatInterval",     u"m_AnchorDate",          u"m_SpecificIncludeDateSet",
    u"m_SpecificExcludeDateSet", u"m_DaysOfMonth",         u"m_DayOfWeekList",       u"m_CustomBitSet",
    u"m_CustomStringMap",
};
constexpr std::ptrdiff_t kGeneralNames = 12;

const wcstring kGeneral(u"General");
const wcstring kRunDayRules(u"Run Day Rules");
const wcstring kCustomMapData(u"Custom Map Data");
const wcstring kDayOfWeekArray(u"DayOfWeekArray");
constexpr std::u16string_view kDayOfWeekList = u"m_DayOfWeekList";

bool IsSame(std::u16string_view a, std::u16string_view b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(char16_t)) == 0;
}

// A property's name as a key. Those of a schedule are there once for all bags; any other is made for the call.
class PropertyKey {
 public:
  explicit PropertyKey(std::u16string_view name)
      : m_known(std::find_if(std::begin(kNames), std::end(kNames),
                             [&](const wcstring& known) { return IsSame(known.view(), name); })) {
    if (m_known == std::end(kNames)) m_other = wcstring(name);
  }
  // Whether it lies in the section of the general values.
  [[nodiscard]] bool IsGeneral() const { return m_known - std::begin(kNames) < kGeneralNames; }
  [[nodiscard]] const wcstring& Get() const { return m_known != std::end(kNames) ? *m_known : m_other; }

 private:
  const wcstring* m_known;
  wcstring m_other;
};

using Bag = CIniFilePropertyBag;
using Name = const wcstring&;

// How a tag is written and read under a section; a null entry drops the property.
struct TagRow {
  ZepTag tag;
  void (*writeGeneral)(Bag&, Name section, Name key, const PropertyValue&);
  void (*writeRules)(Bag&, Name section, Name key, const PropertyValue&);
  void (*readGeneral)(Bag&, Name section, Name key, PropertyValue&);
  void (*readRules)(Bag&, Name section, Name key, PropertyValue&);
};

void WriteDate(Bag& bag, Name section, Name key, const PropertyValue& value) {
  bag.WriteWide(section, key, static_cast<long>(value.Wide()));
}
void WriteTime(Bag& bag, Name section, Name key, const PropertyValue& value) {
  bag.WriteWide(section, key, static_cast<long long>(value.Wide()));
}
void WriteUnsigned32(Bag& bag, Name section, Name key, const PropertyValue& value) {
  bag.WriteUnsigned(section, key, value.UInt32());
}
void WriteSigned32(Bag& bag, Name section, Name key, const PropertyValue& value) {
  bag.WriteSigned(section, key, value.Int32());
}
void WriteSigned8(Bag& bag, Name section, Name key, const PropertyValue& value) {
  bag.WriteSigned(section, key, value.Int8());
}
void WriteSigned8AsUnsigned(Bag& bag, Name section, Name key, const PropertyValue& value) {
  bag.WriteUnsigned(section, key, static_cast<std::uint32_t>(std::int32_t{value.Int8()}));
}
void WriteSigned16(Bag& bag, Name section, Name key, const PropertyValue& value) {
  bag.WriteSigned(section, key, value.Int16());
}
void WriteUnsigned16(Bag& bag, Name section, Name key, const PropertyValue& value) {
  bag.WriteUnsigned(section, key, value.UInt16());
}
void WriteBoolean(Bag& bag, Name section, Name key, const PropertyValue& value) {
  bag.WriteBool(section, key, value.Byte());
}
void WriteNarrow(Bag& bag, Name section, Name key, const PropertyValue& value) {
  bag.WriteString(section, key, value.Text());
}
void WriteDates(Bag& bag, Name section, Name key, const PropertyValue& value) {
  bag.WriteDateArray(section, key, value);
}
void WriteInt16s(Bag& bag, Name section, Name key, const PropertyValue& value) {
  bag.WriteInt16Array(section, key, value);
}

void ReadDate(Bag& bag, Name section, Name key, PropertyValue& value) {
  long number = value.Wide();
  value.SetWide(bag.ReadWide(section, key, number));
}
void ReadTime(Bag& bag, Name section, Name key, PropertyValue& value) {
  long long number = value.Wide();
  value.SetWide(bag.ReadWide(section, key, number));
}
void ReadNumber(Bag& bag, Name section, Name key, PropertyValue& value) {
  std::uint32_t number = value.UInt32();
  value.SetLow32(bag.ReadInt(section, key, number));
}
void ReadBoolean(Bag& bag, Name section, Name key, PropertyValue& value) {
  std::uint8_t byte = value.Byte();
  value.SetByte(bag.ReadBool(section, key, byte));
}
void ReadNarrow(Bag& bag, Name section, Name key, PropertyValue& value) { bag.ReadString(section, key, value); }
void ReadDates(Bag& bag, Name section, Name key, PropertyValue& value) { bag.ReadDateArray(section, key, value); }
void ReadInt16s(Bag& bag, Name section, Name key, PropertyValue& value) { bag.ReadInt16Array(section, key, value); }

constexpr TagRow kTagRows[] = {
    {kTagDate, WriteDate, WriteDate, ReadDate, ReadDate},
    {kTagTime, WriteTime, WriteTime, ReadTime, ReadTime},
    {kTagTimeSpan, WriteUnsigned32, WriteUnsigned32, ReadNumber, ReadNumber},
    {kTagInt8, WriteSigned8, WriteSigned8AsUnsigned, ReadNumber, ReadNumber},
    {kTagBool, WriteBoolean, WriteBoolean, ReadBoolean, ReadBoolean},
    {kTagInt16, WriteSigned16, WriteSigned16, ReadNumber, ReadNumber},
    {kTagUInt16, WriteUnsigned16, WriteUnsigned16, ReadNumber, ReadNumber},
    {kTagInt32, WriteSigned32, WriteSigned32, ReadNumber, ReadNumber},
    {kTagUInt32, WriteUnsigned32, WriteUnsigned32, ReadNumber, ReadNumber},
    {kTagText, WriteNarrow, WriteNarrow, ReadNarrow, ReadNarrow},
    {kTagBits32, WriteUnsigned32, WriteUnsigned32, ReadNumber, ReadNumber},
    {kTagDateArray, nullptr, WriteDates, nullptr, ReadDates},
    {kTagInt16Array, nullptr, WriteInt16s, nullptr, ReadInt16s},
};

const TagRow* RowOf(ZepTag tag) {
  const auto* found =
      std::find_if(std::begin(kTagRows), std::end(kTagRows), [&](const TagRow& r) { return r.tag == tag; });
  return found == std::end(kTagRows) ? nullptr : found;
}

std::u16string Decimal(std::int32_t number) { return platform::WideFromUtf8(std::to_string(number)); }

// Deliberate: the tenth key is "Item010", and "Item10" never exists.
wcstring ElementKey(std::size_t i) {
  return wcstring((i < 10 ? u"Item0" : u"Item") + Decimal(static_cast<std::int32_t>(i + 1)));
}

// Blanks, a sign and decimal digits; the low 64 bits of a longer number.
std::int64_t ParseElement(std::u16string_view text) {
  while (!text.empty() && text.front() <= u' ') text.remove_prefix(1);
  const bool negative = text.starts_with(u'-');
  if (negative || text.starts_with(u'+')) text.remove_prefix(1);
  std::uint64_t number = 0;
  for (const char16_t c : text) {
    if (c < u'0' || c > u'9') break;
    number = number * 10 + static_cast<std::uint64_t>(c - u'0');
  }
  return static_cast<std::int64_t>(negative ? 0 - number : number);
}

// The elements of a section: its complete lines, in file order.
template <class T>
std::vector<T> ReadElements(const wcstring& file, const wcstring& section) {
  char16_t buffer[kSectionUnits];
  platform::ProfileSectionText text;
  (void)platform::GetProfileSection(file.view(), section.view(), buffer, text);
  std::vector<T> elements;
  std::u16string_view rest(buffer, kSectionUnits);
  for (std::uint32_t i = 0; i < text.completeLines; ++i) {
    const std::u16string_view line = rest.substr(0, rest.find(u'\0'));
    rest.remove_prefix(line.size() + 1);
    const std::size_t equals = line.find(u'=');
    elements.push_back(
        static_cast<T>(ParseElement(equals == std::u16string_view::npos ? line : line.substr(equals + 1))));
  }
  return elements;
}

}  // namespace

ZRESULT CIniFilePropertyBag::QueryInterface(const ZepGuid& iid, void** out) {
  if (out == nullptr) return ZEP_E_POINTER;
  const bool known = iid == IID_zepIUnknown || iid == IID_zepIPropertyBag;
  *out = known ? static_cast<zepIPropertyBag*>(this) : nullptr;
  return known ? ZEP_S_OK : ZEP_E_NOINTERFACE;
}

std::uint32_t CIniFilePropertyBag::AddRef() { return ++m_references; }

std::uint32_t CIniFilePropertyBag::Release() {
  const std::uint32_t count = --m_references;
  if (count == 0) delete this;
  return count;
}

ZRESULT CIniFilePropertyBag::Write(const char16_t* name, PropertyValue* value) {
  if (m_fileName.empty() || name == nullptr || value == nullptr) return ZEP_S_OK;
  const PropertyKey property(name);
  const wcstring& key = property.Get();
  const bool general = property.IsGeneral();
  if (!general && value->Tag() == kTagCustom) {
    if (key.view() == kDayOfWeekList) WriteByteArray(kDayOfWeekArray, key, *value);
  } else if (!general && value->Tag() == kTagStringMap) {
    WriteStringMap(kCustomMapData, key, *value);
  } else if (const TagRow* row = RowOf(value->Tag())) {
    const auto write = general ? row->writeGeneral : row->writeRules;
    if (write != nullptr) write(*this, general ? kGeneral : kRunDayRules, key, *value);
  }
  return ZEP_S_OK;
}

ZRESULT CIniFilePropertyBag::Read(const char16_t* name, PropertyValue* value) {
  if (m_fileName.empty() || name == nullptr || value == nullptr) return ZEP_S_OK;
  const PropertyKey property(name);
  const wcstring& key = property.Get();
  const bool general = property.IsGeneral();
  if (!general && value->Tag() == kTagCustom) {
    if (key.view() == kDayOfWeekList) ReadByteArray(kDayOfWeekArray, key, *value);
  } else if (!general && value->Tag() == kTagStringMap) {
    ReadStringMap(kCustomMapData, key, *value);
  } else if (const TagRow* row = RowOf(value->Tag())) {
    const auto read = general ? row->readGeneral : row->readRules;
    if (read != nullptr) read(*this, general ? kGeneral : kRunDayRules, key, *value);
  }
  return ZEP_S_OK;
}

bool CIniFilePropertyBag::SetFileName(const char16_t* path) {
  m_fileName = path;
  return true;
}

const char* CIniFilePropertyBag::ReadString(const wcstring& section, const wcstring& key, PropertyValue& value) {
  char16_t buffer[kTextUnits] = {};
  std::uint32_t length = 0;
  (void)platform::GetProfileString(m_fileName.view(), section.view(), key.view(), u"", buffer, length);
  // A pair that the cut went through would make the whole text unreadable: its first half goes too.
  const bool cut = length == kTextUnits - 1;
  if (cut && buffer[length - 1] >= 0xD800 && buffer[length - 1] < 0xDC00) buffer[length - 1] = u'\0';
  int error = 0;
  const std::size_t size = platform::Wcstombs(nullptr, buffer, 0, error);
  if (size == platform::kRuntimeFailure) throw ZepFoundation::CharConversion_error("CIniFilePropertyBag::ReadString");
  std::string narrow(size, '\0');
  (void)platform::Wcstombs(narrow.data(), buffer, size, error);
  value.SetText(narrow);
  return value.Text();
}

std::uint8_t CIniFilePropertyBag::ReadBool(const wcstring& section, const wcstring& key, std::uint8_t& value) {
  char16_t buffer[kBoolUnits] = {};
  std::uint32_t length = 0;
  (void)platform::GetProfileString(m_fileName.view(), section.view(), key.view(), u"FALSE", buffer, length);
  value = std::u16string_view(buffer, length) == u"TRUE" ? 1 : 0;
  return value;
}

std::int32_t CIniFilePropertyBag::ReadInt(const wcstring& section, const wcstring& key, std::int32_t& value) {
  const std::int32_t fallback = value;
  (void)platform::GetProfileInt(m_fileName.view(), section.view(), key.view(), fallback, value);
  return value;
}

std::uint32_t CIniFilePropertyBag::ReadInt(const wcstring& section, const wcstring& key, std::uint32_t& value) {
  auto number = static_cast<std::int32_t>(value);
  value = static_cast<std::uint32_t>(ReadInt(section, key, number));
  return value;
}

long CIniFilePropertyBag::ReadWide(const wcstring& section, const wcstring& key, long& value) {
  auto number = static_cast<std::int32_t>(value);
  value = ReadInt(section, key, number);
  return value;
}

long long CIniFilePropertyBag::ReadWide(const wcstring& section, const wcstring& key, long long& value) {
  auto number = static_cast<std::int32_t>(value);
  value = ReadInt(section, key, number);
  return value;
}

std::uint32_t CIniFilePropertyBag::ReadDateArray(const wcstring& section, const wcstring&, PropertyValue& value) {
  value.SetDates(ReadElements<std::int64_t>(m_fileName, section));
  return value.Array()->elementCount;
}

std::uint32_t CIniFilePropertyBag::ReadByteArray(const wcstring& section, const wcstring&, PropertyValue& value) {
  value.SetBytes(ReadElements<std::uint8_t>(m_fileName, section));
  return value.Array()->elementCount;
}

std::uint32_t CIniFilePropertyBag::ReadInt16Array(const wcstring& section, const wcstring&, PropertyValue& value) {
  value.SetInt16s(ReadElements<std::int16_t>(m_fileName, section));
  return value.Array()->elementCount;
}

std::uint32_t CIniFilePropertyBag::ReadStringMap(const wcstring&, const wcstring&, PropertyValue&) { return 0; }

std::int32_t CIniFilePropertyBag::WriteText(const wcstring& section, const wcstring& key, const char16_t* text) {
  return platform::WriteProfileString(m_fileName.view(), section.view(), key.view(), text) == platform::ERROR_SUCCESS;
}

std::int32_t CIniFilePropertyBag::WriteBool(const wcstring& section, const wcstring& key, std::uint8_t value) {
  return WriteText(section, key, value == 1 ? u"TRUE" : u"FALSE");
}

std::int32_t CIniFilePropertyBag::WriteUnsigned(const wcstring& section, const wcstring& key, std::uint32_t value) {
  // Deliberate: printed as signed; the integer read gives the same 32 bits back.
  return WriteText(section, key, Decimal(static_cast<std::int32_t>(value)).c_str());
}

std::int32_t CIniFilePropertyBag::WriteSigned(const wcstring& section, const wcstring& key, std::int32_t value) {
  return WriteText(section, key, Decimal(value).c_str());
}

std::int32_t CIniFilePropertyBag::WriteString(const wcstring& section, const wcstring& key, const char* text) {
  if (text == nullptr) return WriteText(section, key, nullptr);
  return WriteText(section, key, platform::WideFromSystem(text).c_str());
}

std::int32_t CIniFilePropertyBag::WriteWide(const wcstring& section, const wcstring& key, long value) {
  return WriteUnsigned(section, key, static_cast<std::uint32_t>(value));
}

std::int32_t CIniFilePropertyBag::WriteWide(const wcstring& section, const wcstring& key, long long value) {
  return WriteUnsigned(section, key, static_cast<std::uint32_t>(value));
}

std::uint32_t CIniFilePropertyBag::WriteDateArray(const wcstring& section, const wcstring&,
                                                  const PropertyValue& value) {
  const auto dates = value.Dates();
  for (std::size_t i = 0; i < dates.size(); ++i) WriteWide(section, ElementKey(i), static_cast<long>(dates[i]));
  return static_cast<std::uint32_t>(dates.size());
}

std::uint32_t CIniFilePropertyBag::WriteByteArray(const wcstring& section, const wcstring&,
                                                  const PropertyValue& value) {
  const auto bytes = value.Bytes();
  // Deliberate: an 8-bit counter numbers the bytes, so that those behind the 256th are never stored.
  const std::size_t stored = std::min(bytes.size(), kByteCounterEnd);
  for (std::size_t i = 0; i < stored; ++i) WriteSigned(section, ElementKey(i), bytes[i]);
  return static_cast<std::uint32_t>(bytes.size());
}

std::uint32_t CIniFilePropertyBag::WriteInt16Array(const wcstring& section, const wcstring&,
                                                   const PropertyValue& value) {
  const auto numbers = value.Int16s();
  for (std::size_t i = 0; i < numbers.size(); ++i) WriteSigned(section, ElementKey(i), numbers[i]);
  return static_cast<std::uint32_t>(numbers.size());
}

std::uint32_t CIniFilePropertyBag::WriteStringMap(const wcstring& section, const wcstring&,
                                                  const PropertyValue& value) {
  const std::vector<std::string> strings = value.Strings();
  const wcstring own = section;  // its narrow form is cached in the string, and the section names are shared
  for (std::size_t i = 0; i < strings.size(); i += 2) {
    if (i + 1 == strings.size()) throw std::out_of_range("invalid vector<T> subscript");
    (void)platform::WriteProfileStringNarrow(m_fileName.ascii(), own.ascii(), strings[i], strings[i + 1].c_str());
  }
  return static_cast<std::uint32_t>(strings.size() / 2);
}
