#include "common/ini_property_bag.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <type_traits>
#include <utility>

#include "platform/profile.h"
#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"
#include "platform/text.h"

namespace {

using ZepFoundation::wcstring;

const char16_t kFlag[] = u"m_bUseRepeatInterval";       // a name of "Run Day Rules"
const char16_t kGeneralFlag[] = u"m_bUseEffectiveDate";  // one of "General"
const char16_t kList[] = u"m_DayOfWeekList";

class IniFileBag : public testing::Test {
 protected:
  void SetUp() override {
    m_file = m_directory + "/{1}.ini";
    m_path = platform::WideFromUtf8(m_file);
    m_bag.SetFileName(m_path.c_str());
  }
  void TearDown() override {
    EXPECT_EQ(platform::SetSystemCodePage(platform::kCodePageUtf8), platform::ERROR_SUCCESS);
  }

  void Put(const std::string& bytes) const { std::ofstream(m_file, std::ios::binary | std::ios::trunc) << bytes; }
  [[nodiscard]] std::string Get() const {
    std::ifstream in(m_file, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }
  void Remove() const { std::filesystem::remove(m_file); }
  void Write(const char16_t* name, PropertyValue value) { EXPECT_EQ(m_bag.Write(name, &value), 0); }
  PropertyValue Read(const char16_t* name, PropertyValue value) {
    EXPECT_EQ(m_bag.Read(name, &value), 0);
    return value;
  }
  // What a write of one property leaves in a new file.
  std::string FileOf(const char16_t* name, PropertyValue value) {
    Remove();
    Write(name, std::move(value));
    return Get();
  }
  // Writes one property into a new file, all its lines at once.
  void SaveAnew(const char16_t* name, PropertyValue value) {
    Remove();
    platform::ProfileBatch batch(m_path, platform::ProfileBatch::kSave);
    Write(name, std::move(value));
    EXPECT_EQ(batch.Commit(), platform::ERROR_SUCCESS);
  }
  void DropSection(std::u16string_view section) const {
    EXPECT_EQ(platform::WriteProfileString(m_path, section, {}, nullptr), platform::ERROR_SUCCESS);
  }
  static PropertyValue Bytes(const std::vector<std::uint8_t>& bytes) {
    PropertyValue value;
    value.SetBytes(bytes);
    return value;
  }
  static PropertyValue Dates(const std::vector<std::int64_t>& dates) {
    PropertyValue value;
    value.SetDates(dates);
    return value;
  }
  static PropertyValue Int16s(const std::vector<std::int16_t>& numbers) {
    PropertyValue value;
    value.SetInt16s(numbers);
    return value;
  }
  static PropertyValue Text(std::string_view text) {
    PropertyValue value;
    value.SetText(text);
    return value;
  }
  static PropertyValue Strings(const std::vector<std::string>& strings) {
    PropertyValue value;
    value.SetStrings(strings);
    return value;
  }
  template <class T>
  static std::vector<T> Vector(std::span<const T> elements) {
    return {elements.begin(), elements.end()};
  }

  const platform::TemporaryFolder m_temporary{"ini_bag"};
  const std::string m_directory = m_temporary.Path();
  std::string m_file;
  std::u16string m_path;
  CIniFilePropertyBag m_bag;
};

TEST_F(IniFileBag, WithoutAPathReadsNothingAndCreatesNothing) {
  CIniFilePropertyBag bag;
  PropertyValue value(kTagInt32, 5);
  EXPECT_EQ(bag.Write(kFlag, &value), 0);
  EXPECT_EQ(bag.Read(kFlag, &value), 0);
  EXPECT_EQ(value.Int32(), 5);
  PropertyValue text;
  text.SetText("as it was");
  const char* before = text.Text();
  EXPECT_EQ(bag.Read(kFlag, &text), 0);
  EXPECT_EQ(text.Text(), before);
  EXPECT_TRUE(std::filesystem::is_empty(m_directory));
}

TEST_F(IniFileBag, NumbersTheKeysOfTwelveBytesUnevenlyAndReadsThemInFileOrder) {
  const std::vector<std::uint8_t> bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 255};
  EXPECT_EQ(FileOf(kList, Bytes(bytes)),
            "[DayOfWeekArray]\r\nItem01=1\r\nItem02=2\r\nItem03=3\r\nItem04=4\r\nItem05=5\r\nItem06=6\r\nItem07=7\r\n"
            "Item08=8\r\nItem09=9\r\nItem010=10\r\nItem11=11\r\nItem12=255\r\n");
  const PropertyValue back = Read(kList, PropertyValue(kTagCustom));
  EXPECT_EQ(Vector(back.Bytes()), bytes);
  EXPECT_EQ(back.Array()->elementSize, 1u);
}

TEST_F(IniFileBag, ReadsOnlyTheCompleteLinesOfASectionLongerThanItsBuffer) {
  std::vector<std::int64_t> dates;
  for (int i = 1; i <= 120; ++i) dates.push_back(i * 7);
  SaveAnew(u"m_SpecificIncludeDateSet", Dates(dates));
  const PropertyValue back = Read(u"m_SpecificIncludeDateSet", PropertyValue(kTagDateArray));
  dates.resize(94);  // the 95th line is cut behind "It"
  EXPECT_EQ(Vector(back.Dates()), dates);
}

TEST_F(IniFileBag, CountsALineThatEndsWithTheBufferAsComplete) {
  for (const std::size_t digits : {1022u - 4 - 3, 1022u - 4 - 2, 1022u - 4 - 1}) {
    // "a=1" and a NUL, "b=" and as many digits as named; the double NUL takes the last two units of 1024.
    Put("[Run Day Rules]\r\na=1\r\nb=" + std::string(digits, '0') + "\r\n");
    const bool fits = 4 + 2 + digits <= 1022;
    EXPECT_EQ(Read(u"m_X", PropertyValue(kTagInt16Array)).Int16s().size(), fits ? 2u : 1u) << digits;
  }
}

TEST_F(IniFileBag, WritesOnePairOfThreeStringsAndThenRaises) {
  PropertyValue value = Strings({"key", "value", "alone"});
  try {
    m_bag.Write(u"m_CustomStringMap", &value);
    ADD_FAILURE() << "nothing was raised";
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "invalid vector<T> subscript");
  }
  EXPECT_EQ(Get(), "[Custom Map Data]\r\nkey=value\r\n");
}

TEST_F(IniFileBag, ReadsAnyOtherSpellingOfTrueAsFalse) {
  for (const char* text : {"True", "true", "TRUE ", "TRUEandmore", "1", "yes", "", "TRUE;", "TRU"}) {
    Put(std::string("[Run Day Rules]\r\nm_bUseRepeatInterval=") + text + "\r\n");
    const bool same = std::string_view(text) == "TRUE ";  // a blank at the end isn't part of the value
    EXPECT_EQ(Read(kFlag, PropertyValue(kTagBool, 1)).Byte(), same ? 1 : 0) << text;
  }
  Remove();
  EXPECT_EQ(Read(kFlag, PropertyValue(kTagBool, 1)).Byte(), 0) << "a missing flag is false, whatever went in";
}

TEST_F(IniFileBag, DropsTheCustomTypeUnderAnyOtherName) {
  for (const char16_t* name : {u"m_dayOfWeekList", u"m_DayOfWeekLis", u"m_DayOfWeekListX", u"m_Name"}) {
    EXPECT_EQ(FileOf(name, Bytes({1, 2})), "");
  }
  Put("[DayOfWeekArray]\r\nItem01=1\r\n");
  const PropertyValue back = Read(u"m_Other", PropertyValue(kTagCustom));
  EXPECT_EQ(back.Array(), nullptr);
}

TEST_F(IniFileBag, StoresAnUnsignedNumberBeyondTheSignedRangeAsNegative) {
  EXPECT_EQ(FileOf(u"m_CustomBitSet", PropertyValue(kTagUInt32, 0xFFFFFFFF)), "[Run Day Rules]\r\nm_CustomBitSet=-1\r\n");
  EXPECT_EQ(Read(u"m_CustomBitSet", PropertyValue(kTagUInt32, 0)).UInt32(), 0xFFFFFFFFu);
}

TEST_F(IniFileBag, KnowsTheGeneralNamesExactly) {
  const char16_t* general[] = {
      u"Object Type",         u"Object Version",    u"m_ScheduleID",          u"m_Name",
      u"m_Description",       u"m_StartTime",       u"m_EndTime",             u"m_TimeDuration",
      u"m_bUseEffectiveDate", u"m_dtEffectiveDate", u"m_bUseRestartInterval", u"m_RestartInterval"};
  for (const char16_t* name : general) {
    EXPECT_TRUE(FileOf(name, PropertyValue(kTagInt32, 1)).starts_with("[General]\r\n"));
    const std::u16string longer = name + std::u16string(u"X");
    EXPECT_TRUE(FileOf(longer.c_str(), PropertyValue(kTagInt32, 1)).starts_with("[Run Day Rules]\r\n"));
    std::u16string otherCase = name;
    char16_t& last = otherCase.back();
    last = platform::ToUpperSimple(last) != last ? platform::ToUpperSimple(last) : platform::ToLowerSimple(last);
    EXPECT_TRUE(FileOf(otherCase.c_str(), PropertyValue(kTagInt32, 1)).starts_with("[Run Day Rules]\r\n"));
  }
}

struct TextCase {
  int line;
  ZepTag tag;
  std::int64_t slot;
  const char* text;  // in either section
  std::int64_t back;  // read into a slot of zeros
};
const TextCase kNumbers[] = {
    {__LINE__, kTagDate, 1714557600, "1714557600", 1714557600},
    {__LINE__, kTagDate, -1, "-1", -1},
    {__LINE__, kTagDate, 0x80000000, "-2147483648", -2147483648},
    {__LINE__, kTagDate, 0x100000005, "5", 5},
    {__LINE__, kTagTime, 86399, "86399", 86399},
    {__LINE__, kTagTime, -5, "-5", -5},
    {__LINE__, kTagTimeSpan, 3600, "3600", 3600},
    {__LINE__, kTagTimeSpan, 0xFFFFFFFF, "-1", 0xFFFFFFFF},
    {__LINE__, kTagInt8, -128, "-128", 0xFFFFFF80},
    {__LINE__, kTagInt8, 127, "127", 127},
    {__LINE__, kTagInt8, 0x1FF, "-1", 0xFFFFFFFF},
    {__LINE__, kTagInt16, -32768, "-32768", 0xFFFF8000},
    {__LINE__, kTagUInt16, 65535, "65535", 65535},
    {__LINE__, kTagUInt16, -1, "65535", 65535},
    {__LINE__, kTagInt32, -2147483648, "-2147483648", 0x80000000},
    {__LINE__, kTagUInt32, 2147483648, "-2147483648", 0x80000000},
    {__LINE__, kTagBits32, 0x80000001, "-2147483647", 0x80000001},
    {__LINE__, kTagBool, 1, "TRUE", 1},
    {__LINE__, kTagBool, 0, "FALSE", 0},
    {__LINE__, kTagBool, 2, "FALSE", 0},
    {__LINE__, kTagBool, 0x101, "TRUE", 1},
};

TEST_F(IniFileBag, WritesNumbersByTheirTag) {
  for (const TextCase& c : kNumbers) {
    EXPECT_EQ(FileOf(kGeneralFlag, PropertyValue(c.tag, c.slot)),
              std::string("[General]\r\nm_bUseEffectiveDate=") + c.text + "\r\n")
        << "line " << c.line;
    EXPECT_EQ(Read(kGeneralFlag, PropertyValue(c.tag)).Wide(), c.back) << "line " << c.line;
    EXPECT_EQ(FileOf(kFlag, PropertyValue(c.tag, c.slot)),
              std::string("[Run Day Rules]\r\nm_bUseRepeatInterval=") + c.text + "\r\n")
        << "line " << c.line;
    EXPECT_EQ(Read(kFlag, PropertyValue(c.tag)).Wide(), c.back) << "line " << c.line;
  }
}

TEST_F(IniFileBag, LeavesANumberAsItWasWhereTheKeyIsMissing) {
  for (const ZepTag tag : {kTagTimeSpan, kTagInt8, kTagInt16, kTagUInt16, kTagInt32, kTagUInt32, kTagBits32}) {
    const std::int64_t before = 0x123456789ABCDEF0;
    EXPECT_EQ(Read(kFlag, PropertyValue(tag, before)).Wide(), before) << tag;
  }
  for (const ZepTag tag : {kTagDate, kTagTime}) {
    EXPECT_EQ(Read(kFlag, PropertyValue(tag, 86399)).Wide(), 86399) << tag;
    EXPECT_EQ(Read(kFlag, PropertyValue(tag, -1)).Wide(), -1) << tag;
  }
}

TEST_F(IniFileBag, ReadsThirtyTwoBitsIntoTheSlotWhateverTheTag) {
  Put("[Run Day Rules]\r\nm_bUseRepeatInterval=305419896\r\n");
  EXPECT_EQ(Read(kFlag, PropertyValue(kTagInt8, 0x7FFFFFFF00000000)).Wide(), 0x7FFFFFFF12345678);
}

TEST_F(IniFileBag, DropsWhatHasNoPlace) {
  for (const ZepTag tag : {ZepTag{0}, ZepTag{1}, ZepTag{5}, kTagUInt8, kTagInt32Twin, kTagUInt32Twin, ZepTag{98}}) {
    EXPECT_EQ(FileOf(kFlag, PropertyValue(tag, 5)), "");
    EXPECT_EQ(FileOf(kGeneralFlag, PropertyValue(tag, 5)), "");
    EXPECT_EQ(Read(kFlag, PropertyValue(tag, 5)).Wide(), 5);
  }
  EXPECT_EQ(FileOf(u"m_Name", Dates({1})), "");
  EXPECT_EQ(FileOf(u"m_Name", Int16s({1})), "");
  EXPECT_EQ(FileOf(u"m_Name", Strings({"a", "b"})), "");
  Put("[General]\r\na=1\r\n");
  for (const ZepTag tag : {kTagDateArray, kTagInt16Array, kTagCustom, kTagStringMap}) {
    EXPECT_EQ(Read(u"m_Name", PropertyValue(tag)).Array(), nullptr) << tag;
  }
  PropertyValue value(kTagInt32, 5);
  EXPECT_EQ(m_bag.Write(nullptr, &value), 0);
  EXPECT_EQ(m_bag.Write(kFlag, nullptr), 0);
  EXPECT_EQ(m_bag.Read(nullptr, &value), 0);
  EXPECT_EQ(m_bag.Read(kFlag, nullptr), 0);
}

TEST_F(IniFileBag, NeverReadsAStringMapBack) {
  Write(u"m_CustomStringMap", Strings({"b", "1", "a", "2"}));
  EXPECT_EQ(Get(), "[Custom Map Data]\r\nb=1\r\na=2\r\n");
  const PropertyValue back = Read(u"m_CustomStringMap", PropertyValue(kTagStringMap));
  EXPECT_EQ(back.Array(), nullptr);
}

TEST_F(IniFileBag, TakesTheTextBehindTheFirstEqualsSignOfEachLineWhateverItsKey) {
  Put("[Run Day Rules]\r\nm_bUseRepeatInterval=FALSE\r\nzz= 12\r\nItem07=-3\r\n44\r\nb=5=6\r\n;c=9\r\nd=\"7\"\r\ne=70000\r\n");
  const PropertyValue dates = Read(u"m_SpecificIncludeDateSet", PropertyValue(kTagDateArray));
  EXPECT_EQ(Vector(dates.Dates()), (std::vector<std::int64_t>{0, 12, -3, 44, 5, 0, 70000}));
  EXPECT_EQ(dates.Array()->elementSize, 8u);
  const PropertyValue numbers = Read(u"m_X", PropertyValue(kTagInt16Array));
  EXPECT_EQ(Vector(numbers.Int16s()), (std::vector<std::int16_t>{0, 12, -3, 44, 5, 0, 4464}));
  EXPECT_EQ(numbers.Array()->elementSize, 2u);
}

TEST_F(IniFileBag, GivesAnArrayWithoutElementsForAMissingOrEmptySection) {
  for (const char* file : {"", "[Run Day Rules]\r\n[T]\r\na=1\r\n"}) {
    Put(file);
    const PropertyValue value = Read(u"m_SpecificIncludeDateSet", Dates({1, 2}));
    ASSERT_NE(value.Array(), nullptr);
    EXPECT_EQ(value.Array()->elementCount, 0);
    EXPECT_EQ(value.Array()->elementSize, 8u);
    EXPECT_EQ(value.Array()->elements, nullptr);
  }
}

TEST_F(IniFileBag, MixesBothDateListsInOneSection) {
  Write(u"m_SpecificIncludeDateSet", Dates({10, 20, 30}));
  Write(u"m_SpecificExcludeDateSet", Dates({40}));
  EXPECT_EQ(Get(), "[Run Day Rules]\r\nItem01=40\r\nItem02=20\r\nItem03=30\r\n");
}

TEST_F(IniFileBag, StoresAtMostTwoHundredAndFiftySixBytes) {
  std::vector<std::uint8_t> bytes(300, 7);
  SaveAnew(kList, Bytes(bytes));
  const std::string file = Get();
  EXPECT_EQ(std::count(file.begin(), file.end(), '='), 256);
  EXPECT_TRUE(file.ends_with("Item255=7\r\nItem256=7\r\n"));
  const platform::ProfileBatch batch(m_path, platform::ProfileBatch::kSave);
  EXPECT_EQ(m_bag.WriteByteArray(wcstring(u"S"), wcstring(u""), Bytes(bytes)), 300u);
}

TEST_F(IniFileBag, DeletesTheKeyOfANullText) {
  Write(u"m_Name", Text("a name"));
  Write(u"m_Description", Text(""));
  EXPECT_EQ(Get(), "[General]\r\nm_Name=a name\r\nm_Description=\r\n");
  Write(u"m_Name", PropertyValue(kTagText));
  EXPECT_EQ(Get(), "[General]\r\nm_Description=\r\n");
}

TEST_F(IniFileBag, ReadsAMissingTextAsEmpty) {
  const PropertyValue value = Read(u"m_Name", Text("a default"));
  EXPECT_STREQ(value.Text(), "");
}

TEST_F(IniFileBag, CutsATextAt255CharactersWhenReadingOnly) {
  const std::string longText(300, 'x');
  Write(u"m_Description", Text(longText));
  EXPECT_EQ(Get(), "[General]\r\nm_Description=" + longText + "\r\n");
  EXPECT_EQ(Read(u"m_Description", PropertyValue(kTagText)).Text(), std::string(255, 'x'));
}

TEST_F(IniFileBag, DoesNotCutATextWithinAPair) {
  for (const std::size_t before : {253u, 254u, 255u}) {
    Write(u"m_Description", Text(std::string(before, 'x') + "\xF0\x9F\x98\x80"));
    const std::string expected = std::string(before, 'x') + (before + 2 <= 255 ? "\xF0\x9F\x98\x80" : "");
    EXPECT_EQ(Read(u"m_Description", PropertyValue(kTagText)).Text(), expected);
  }
}

TEST_F(IniFileBag, WritesTextUnquotedAndLosesBlanksAndOnePairOfQuotes) {
  EXPECT_EQ(FileOf(u"m_Name", Text("\"n; a=b [c]\"")), "[General]\r\nm_Name=\"n; a=b [c]\"\r\n");
  EXPECT_STREQ(Read(u"m_Name", PropertyValue(kTagText)).Text(), "n; a=b [c]");
}

TEST_F(IniFileBag, KeepsTextInTheSystemCodePage) {
  ASSERT_EQ(platform::SetSystemCodePage(platform::kCodePageWestern), platform::ERROR_SUCCESS);
  EXPECT_EQ(FileOf(u"m_Name", Text("caf\xE9 \x80")), "[General]\r\nm_Name=caf\xE9 \x80\r\n");
  EXPECT_STREQ(Read(u"m_Name", PropertyValue(kTagText)).Text(), "caf\xE9 \x80");
}

TEST_F(IniFileBag, RaisesWhereATextHasNoNarrowForm) {
  std::string wide = "\xFF\xFE";
  for (const char16_t c : std::u16string_view(u"[General]\r\nm_Name=a\xD800z\r\n")) {
    wide += static_cast<char>(c & 0xFF);
    wide += static_cast<char>(c >> 8);
  }
  Put(wide);
  PropertyValue value = Text("before");
  EXPECT_THROW((void)m_bag.Read(u"m_Name", &value), ZepFoundation::CharConversion_error);
  EXPECT_STREQ(value.Text(), "before");
}

TEST_F(IniFileBag, RaisesWhenMemoryIsExhausted) {
  Put("[General]\r\nm_Name=a\r\n[Run Day Rules]\r\nx=1\r\n");
  for (const char* what : {"PropertyValue text", "PropertyArray", "PropertyArray elements"}) {
    const bool text = std::string_view(what) == "PropertyValue text";
    PropertyValue value = text ? Text("before") : PropertyValue(kTagDateArray);
    const auto plan = platform::FaultPlan::FailCall(platform::Operation::kAllocate, 1,
                                                    platform::ERROR_NOT_ENOUGH_MEMORY, platform::kOnce, what);
    EXPECT_THROW((void)m_bag.Read(text ? u"m_Name" : u"m_X", &value), std::bad_alloc) << what;
    EXPECT_EQ(plan.hits(), 1) << what;
    if (text) {
      EXPECT_STREQ(value.Text(), "before");
    }
  }
}

TEST_F(IniFileBag, AnswersZeroWhenThePlatformFails) {
  Put("[Run Day Rules]\r\nm_bUseRepeatInterval=7\r\n");
  const auto plan = platform::FaultPlan::FailAnyCall(1, platform::ERROR_DISK_FULL, platform::kFromThenOn);
  Write(kFlag, PropertyValue(kTagInt32, 8));
  EXPECT_EQ(Read(kFlag, PropertyValue(kTagInt32, 5)).Int32(), 5);
  EXPECT_EQ(Read(kFlag, PropertyValue(kTagBool, 1)).Byte(), 0);
  EXPECT_GE(plan.hits(), 3);
  EXPECT_EQ(Get(), "[Run Day Rules]\r\nm_bUseRepeatInterval=7\r\n");
}

TEST_F(IniFileBag, AnswersOneOrZeroFromThePrimitives) {
  const wcstring section(u"S");
  const wcstring key(u"k");
  EXPECT_EQ(m_bag.WriteSigned(section, key, -1), 1);
  EXPECT_EQ(m_bag.WriteUnsigned(section, key, 1), 1);
  EXPECT_EQ(m_bag.WriteBool(section, key, 1), 1);
  EXPECT_EQ(m_bag.WriteString(section, key, "x"), 1);
  EXPECT_EQ(m_bag.WriteWide(section, key, 1L), 1);
  EXPECT_EQ(m_bag.WriteWide(section, key, 1LL), 1);
  EXPECT_EQ(m_bag.WriteStringMap(section, key, Strings({"a", "b", "c", "d"})), 2u);
  EXPECT_EQ(m_bag.WriteDateArray(section, key, Dates({1, 2, 3})), 3u);
  EXPECT_EQ(m_bag.WriteInt16Array(section, key, Int16s({1, 2})), 2u);
  PropertyValue value;
  EXPECT_EQ(m_bag.ReadStringMap(section, key, value), 0u);
  const auto plan =
      platform::FaultPlan::FailCall(platform::Operation::kWriteProfileString, 1, platform::ERROR_DISK_FULL, platform::kFromThenOn);
  EXPECT_EQ(m_bag.WriteSigned(section, key, -1), 0);
  EXPECT_EQ(m_bag.WriteBool(section, key, 1), 0);
}

TEST_F(IniFileBag, UpdatesTheFileAtEachWriteUnlessABatchGathersThem) {
  Write(kFlag, PropertyValue(kTagInt32, 1));
  EXPECT_EQ(Get(), "[Run Day Rules]\r\nm_bUseRepeatInterval=1\r\n");
  platform::ProfileBatch batch(m_path, platform::ProfileBatch::kSave);
  Write(kFlag, PropertyValue(kTagInt32, 2));
  Write(u"m_CustomStringMap", Strings({"a", "b"}));
  EXPECT_EQ(Get(), "[Run Day Rules]\r\nm_bUseRepeatInterval=1\r\n");
  EXPECT_EQ(platform::CommitProfiles(), platform::ERROR_SUCCESS);
  EXPECT_EQ(Get(), "[Run Day Rules]\r\nm_bUseRepeatInterval=2\r\n[Custom Map Data]\r\na=b\r\n");
}

TEST_F(IniFileBag, GoesOnInTheFileThatItWasGivenLast) {
  Write(kFlag, PropertyValue(kTagInt32, 1));
  const std::string first = m_file;
  m_file = m_directory + "/{2}.ini";
  m_path = platform::WideFromUtf8(m_file);
  EXPECT_TRUE(m_bag.SetFileName(m_path.c_str()));
  EXPECT_EQ(Read(kFlag, PropertyValue(kTagInt32, 5)).Int32(), 5);
  Write(kFlag, PropertyValue(kTagInt32, 2));
  EXPECT_EQ(Get(), "[Run Day Rules]\r\nm_bUseRepeatInterval=2\r\n");
  m_file = first;
  EXPECT_EQ(Get(), "[Run Day Rules]\r\nm_bUseRepeatInterval=1\r\n");
}

// Notes the primitives that are reached, the inner ones of a wide value too.
class NotingBag final : public CIniFilePropertyBag {
 public:
  using Name = const wcstring&;
  using Value = const PropertyValue&;
  using Slot = PropertyValue&;
  using Bag = CIniFilePropertyBag;

  const char* ReadString(Name s, Name k, Slot v) override { return Note("ReadString", Bag::ReadString(s, k, v)); }
  std::uint8_t ReadBool(Name s, Name k, std::uint8_t& v) override { return Note("ReadBool", Bag::ReadBool(s, k, v)); }
  std::int32_t ReadInt(Name s, Name k, std::int32_t& v) override { return Note("ReadInt", Bag::ReadInt(s, k, v)); }
  std::uint32_t ReadInt(Name s, Name k, std::uint32_t& v) override {
    std::int32_t number = static_cast<std::int32_t>(v);  // the base's passes on to the form above
    v = static_cast<std::uint32_t>(Bag::ReadInt(s, k, number));
    return Note("ReadInt", v);
  }
  long ReadWide(Name s, Name k, long& v) override { return Note("ReadWide date", Bag::ReadWide(s, k, v)); }
  long long ReadWide(Name s, Name k, long long& v) override { return Note("ReadWide time", Bag::ReadWide(s, k, v)); }
  std::uint32_t ReadDateArray(Name s, Name k, Slot v) override { return Note("ReadDateArray", Bag::ReadDateArray(s, k, v)); }
  std::uint32_t ReadByteArray(Name s, Name k, Slot v) override { return Note("ReadByteArray", Bag::ReadByteArray(s, k, v)); }
  std::uint32_t ReadInt16Array(Name s, Name k, Slot v) override {
    return Note("ReadInt16Array", Bag::ReadInt16Array(s, k, v));
  }
  std::uint32_t ReadStringMap(Name s, Name k, Slot v) override { return Note("ReadStringMap", Bag::ReadStringMap(s, k, v)); }
  std::int32_t WriteBool(Name s, Name k, std::uint8_t v) override { return Note("WriteBool", Bag::WriteBool(s, k, v)); }
  std::int32_t WriteUnsigned(Name s, Name k, std::uint32_t v) override {
    return Note("WriteUnsigned", Bag::WriteUnsigned(s, k, v));
  }
  std::int32_t WriteSigned(Name s, Name k, std::int32_t v) override { return Note("WriteSigned", Bag::WriteSigned(s, k, v)); }
  std::int32_t WriteString(Name s, Name k, const char* v) override { return Note("WriteString", Bag::WriteString(s, k, v)); }
  std::int32_t WriteWide(Name s, Name k, long v) override { return Note("WriteWide date", Bag::WriteWide(s, k, v)); }
  std::int32_t WriteWide(Name s, Name k, long long v) override { return Note("WriteWide time", Bag::WriteWide(s, k, v)); }
  std::uint32_t WriteDateArray(Name s, Name k, Value v) override { return Note("WriteDateArray", Bag::WriteDateArray(s, k, v)); }
  std::uint32_t WriteByteArray(Name s, Name k, Value v) override { return Note("WriteByteArray", Bag::WriteByteArray(s, k, v)); }
  std::uint32_t WriteInt16Array(Name s, Name k, Value v) override {
    return Note("WriteInt16Array", Bag::WriteInt16Array(s, k, v));
  }
  std::uint32_t WriteStringMap(Name s, Name k, Value v) override { return Note("WriteStringMap", Bag::WriteStringMap(s, k, v)); }

  // The primitives since the last call, innermost first.
  std::string Taken() { return std::exchange(m_calls, {}); }

 private:
  template <class T>
  T Note(const char* name, T result) {
    m_calls += (m_calls.empty() ? "" : ", ") + std::string(name);
    return result;
  }
  std::string m_calls;
};

struct PrimitiveCase {
  ZepTag tag;
  const char* general;
  const char* rules;
  const char* read;  // of both, where `general` isn't empty
};
const PrimitiveCase kPrimitives[] = {
    {kTagDate, "WriteUnsigned, WriteWide date", "WriteUnsigned, WriteWide date", "ReadInt, ReadWide date"},
    {kTagTime, "WriteUnsigned, WriteWide time", "WriteUnsigned, WriteWide time", "ReadInt, ReadWide time"},
    {kTagTimeSpan, "WriteUnsigned", "WriteUnsigned", "ReadInt"},
    {kTagInt8, "WriteSigned", "WriteUnsigned", "ReadInt"},
    {kTagBool, "WriteBool", "WriteBool", "ReadBool"},
    {kTagInt16, "WriteSigned", "WriteSigned", "ReadInt"},
    {kTagUInt16, "WriteUnsigned", "WriteUnsigned", "ReadInt"},
    {kTagInt32, "WriteSigned", "WriteSigned", "ReadInt"},
    {kTagUInt32, "WriteUnsigned", "WriteUnsigned", "ReadInt"},
    {kTagText, "WriteString", "WriteString", "ReadString"},
    {kTagBits32, "WriteUnsigned", "WriteUnsigned", "ReadInt"},
    {kTagDateArray, "", "WriteDateArray", "ReadDateArray"},
    {kTagInt16Array, "", "WriteInt16Array", "ReadInt16Array"},
    {kTagStringMap, "", "WriteStringMap", "ReadStringMap"},
    {kTagCustom, "", "", ""},
    {ZepTag{1}, "", "", ""},
};
TEST_F(IniFileBag, ReachesThePrimitiveOfEachTagThroughTheTableOfOperations) {
  NotingBag bag;
  bag.SetFileName(m_path.c_str());
  for (const PrimitiveCase& c : kPrimitives) {
    PropertyValue value(c.tag);
    for (const char16_t* name : {kGeneralFlag, kFlag}) {
      const bool general = name == kGeneralFlag;
      EXPECT_EQ(bag.Write(name, &value), 0);
      EXPECT_EQ(bag.Taken(), general ? c.general : c.rules) << c.tag;
      EXPECT_EQ(bag.Read(name, &value), 0);
      EXPECT_EQ(bag.Taken(), general && *c.general == '\0' ? "" : c.read) << c.tag;
    }
  }
  PropertyValue bytes = Bytes({1});
  EXPECT_EQ(bag.Write(kList, &bytes), 0);
  EXPECT_EQ(bag.Taken(), "WriteSigned, WriteByteArray");
  EXPECT_EQ(bag.Read(kList, &bytes), 0);
  EXPECT_EQ(bag.Taken(), "ReadByteArray");
  PropertyValue dates = Dates({1});
  EXPECT_EQ(bag.Write(u"m_SpecificIncludeDateSet", &dates), 0);
  EXPECT_EQ(bag.Taken(), "WriteUnsigned, WriteWide date, WriteDateArray");
}

TEST_F(IniFileBag, AnswersTwoInterfacesWithoutTakingAReference) {
  void* out = nullptr;
  EXPECT_EQ(m_bag.QueryInterface(IID_zepIUnknown, &out), ZEP_S_OK);
  EXPECT_EQ(out, static_cast<zepIPropertyBag*>(&m_bag));
  out = nullptr;
  EXPECT_EQ(m_bag.QueryInterface(IID_zepIPropertyBag, &out), ZEP_S_OK);
  EXPECT_EQ(out, static_cast<zepIPropertyBag*>(&m_bag));
  EXPECT_EQ(m_bag.QueryInterface(IID_zepISchedule, &out), ZEP_E_NOINTERFACE);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(m_bag.QueryInterface(IID_zepIUnknown, nullptr), ZEP_E_POINTER);
  EXPECT_EQ(m_bag.AddRef(), 1u) << "the count was still 0";
}

TEST_F(IniFileBag, DestroysItselfWhenTheLastReferenceGoes) {
  struct Watched : CIniFilePropertyBag {
    explicit Watched(bool& gone) : m_gone(gone) {}
    ~Watched() override { m_gone = true; }
    bool& m_gone;
  };
  bool gone = false;
  auto* bag = new Watched(gone);
  EXPECT_EQ(bag->AddRef(), 1u);
  EXPECT_EQ(bag->AddRef(), 2u);
  EXPECT_EQ(bag->Release(), 1u);
  EXPECT_FALSE(gone);
  EXPECT_EQ(bag->Release(), 0u);
  EXPECT_TRUE(gone);
}

// --- values ---

TEST(TaggedValue, LeavesElementsBehindThe65535thOut) {
  PropertyValue value;
  value.SetBytes(std::vector<std::uint8_t>(70000, 1));
  EXPECT_EQ(value.Array()->elementCount, 65535);
  EXPECT_EQ(value.Bytes().size(), 65535u);
}

TEST(TaggedValue, KeepsStringsEndToEnd) {
  PropertyValue value;
  const std::vector<std::string> strings{"key", "", "\xC3\xA9"};
  value.SetStrings(strings);
  EXPECT_EQ(value.Array()->elementCount, 3);
  EXPECT_EQ(value.Strings(), strings);
  EXPECT_EQ(std::string_view(static_cast<const char*>(value.Array()->elements), 8), std::string_view("key\0\0\xC3\xA9\0", 8));
}

TEST(TaggedValue, MovesWhatItOwns) {
  PropertyValue value;
  value.SetText("text");
  PropertyValue other(std::move(value));
  EXPECT_STREQ(other.Text(), "text");
  EXPECT_EQ(value.Text(), nullptr);
  other.Reset(kTagInt32);
  EXPECT_EQ(other.Text(), nullptr);
}

// --- what is saved comes back ---

TEST_F(IniFileBag, GivesEveryNumberBackThatFitsItsTag) {
  const char16_t* names[] = {kFlag, kGeneralFlag};
  struct Range {
    ZepTag tag;
    std::int64_t low;
    std::int64_t high;
  };
  constexpr std::int64_t kLow32 = std::numeric_limits<std::int32_t>::min();
  constexpr std::int64_t kHigh32 = std::numeric_limits<std::int32_t>::max();
  const Range ranges[] = {{kTagDate, kLow32, kHigh32},  {kTagTime, kLow32, kHigh32}, {kTagTimeSpan, 0, 0xFFFFFFFF},
                          {kTagInt8, -128, 127},        {kTagBool, 0, 1},            {kTagInt16, -32768, 32767},
                          {kTagUInt16, 0, 65535},       {kTagInt32, kLow32, kHigh32}, {kTagUInt32, 0, 0xFFFFFFFF},
                          {kTagBits32, 0, 0xFFFFFFFF}};
  for (const Range& range : ranges) {
    for (const char16_t* name : names) {
      const platform::ProfileBatch batch(m_path, platform::ProfileBatch::kSave);  // in memory: hundreds of saves
      EXPECT_TRUE(rc::check("numbers come back", [&] {
        const auto number = *rc::gen::inRange<std::int64_t>(range.low, range.high + 1);
        Write(name, PropertyValue(range.tag, number));
        const PropertyValue back = Read(name, PropertyValue(range.tag));
        if (range.tag == kTagDate || range.tag == kTagTime) {
          RC_ASSERT(back.Wide() == number);
        } else {
          RC_ASSERT(back.UInt32() == static_cast<std::uint32_t>(number));
        }
      }));
    }
  }
}

TEST_F(IniFileBag, GivesEveryPlainTextBack) {
  const platform::ProfileBatch batch(m_path, platform::ProfileBatch::kSave);
  EXPECT_TRUE(rc::check("texts come back", [&] {
    // Blanks and quotes at the ends, line ends and more than 255 characters are known not to come back.
    auto text = *rc::gen::container<std::string>(rc::gen::inRange<char>(' ' + 1, 127));
    if (text.size() > 253) text.resize(253);
    const std::string whole = "<" + text + ">";
    Write(u"m_Name", Text(whole));
    RC_ASSERT(std::string(Read(u"m_Name", PropertyValue(kTagText)).Text()) == whole);
  }));
}

TEST_F(IniFileBag, GivesEveryArrayBackThatFitsTheBuffer) {
  const platform::ProfileBatch batch(m_path, platform::ProfileBatch::kSave);
  EXPECT_TRUE(rc::check("bytes come back", [&] {
    auto bytes = *rc::gen::arbitrary<std::vector<std::uint8_t>>();
    if (bytes.size() > 80) bytes.resize(80);
    DropSection(u"DayOfWeekArray");
    Write(kList, Bytes(bytes));
    RC_ASSERT(Vector(Read(kList, PropertyValue(kTagCustom)).Bytes()) == bytes);
  }));
  EXPECT_TRUE(rc::check("dates come back", [&] {
    const auto numbers = *rc::gen::arbitrary<std::vector<std::int32_t>>();
    std::vector<std::int64_t> dates(numbers.begin(), numbers.begin() + std::min<std::ptrdiff_t>(numbers.size(), 50));
    DropSection(u"Run Day Rules");
    Write(u"m_SpecificIncludeDateSet", Dates(dates));
    RC_ASSERT(Vector(Read(u"m_SpecificIncludeDateSet", PropertyValue(kTagDateArray)).Dates()) == dates);
  }));
  EXPECT_TRUE(rc::check("integers come back", [&] {
    auto numbers = *rc::gen::arbitrary<std::vector<std::int16_t>>();
    if (numbers.size() > 70) numbers.resize(70);
    DropSection(u"Run Day Rules");
    Write(u"m_X", Int16s(numbers));
    RC_ASSERT(Vector(Read(u"m_X", PropertyValue(kTagInt16Array)).Int16s()) == numbers);
  }));
}

}  // namespace
