#include "common/SchedPersist.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/Schedule.h"
#include "common/property_value.h"
#include "common/schedule_persistence.h"
#include "common/tests/schedule_fixture.h"
#include "foundation/testing/captured_trace.h"
#include "platform/testing/fault.h"

namespace {

using qx::PersistRow;
using qx::testing::Local;
using qx::testing::Rules;
using testing::ElementsAre;
using ZepFoundation::bistrstream;
using ZepFoundation::bostrstream;
using ZepFoundation::CapturedTrace;
using ZepFoundation::CByteOrder;
using ZepFoundation::CGUID;
using ZepFoundation::kTraceDebug;
using ZepFoundation::kTraceError;
using ZepFoundation::wcstring;

constexpr char kIdText[] = "{00112233-4455-6677-8899-AABBCCDDEEFF}";
constexpr char kTypeText[] = "{C2EDA523-69C6-11D2-8A7C-0000C0B839E5}";
const CGUID kId(u"{00112233-4455-6677-8899-AABBCCDDEEFF}");

PropertyValue Copy(const PropertyValue& value) {
  PropertyValue copy(value.Tag(), value.Wide());
  if (value.Text() != nullptr) copy.SetText(value.Text());
  if (value.Array() != nullptr) {
    if (value.Tag() == kTagDateArray) copy.SetDates(value.Dates());
    if (value.Tag() == kTagInt16Array) copy.SetInt16s(value.Int16s());
    if (value.Tag() == kTagCustom) copy.SetBytes(value.Bytes());
    if (value.Tag() == kTagStringMap) copy.SetStrings(value.Strings());
  }
  return copy;
}

// A bag that keeps its properties in memory, in the order of writing.
class MemoryBag final : public zepIPropertyBag {
 public:
  ZRESULT QueryInterface(const ZepGuid&, void** out) override { return *out = nullptr, ZEP_E_NOINTERFACE; }
  std::uint32_t AddRef() override { return 1; }
  std::uint32_t Release() override { return 1; }
  ZRESULT Write(const char16_t* name, PropertyValue* value) override {
    const std::u16string key(name);
    if (key == m_failing) return ZEP_E_FAIL;
    if (m_onWrite) m_onWrite(name);
    m_names.push_back(key);
    m_values.insert_or_assign(key, Copy(*value));
    return ZEP_S_OK;
  }
  ZRESULT Read(const char16_t* name, PropertyValue* value) override {
    if (m_onRead) m_onRead(name);
    const auto found = m_values.find(name);
    if (found == m_values.end() && m_passesMissing) return ZEP_S_OK;
    if (found == m_values.end() || name == m_failing || found->second.Tag() != value->Tag()) return ZEP_E_FAIL;
    *value = Copy(found->second);
    return ZEP_S_OK;
  }

  PropertyValue& operator[](const char16_t* name) { return m_values[name]; }

  std::map<std::u16string, PropertyValue> m_values;
  std::vector<std::u16string> m_names;
  std::u16string m_failing;
  bool m_passesMissing = false;  // leaves the value of a missing name alone
  std::function<void(std::u16string_view)> m_onRead;
  std::function<void(std::u16string_view)> m_onWrite;
};

// A stream over a string.
class MemoryStream final : public zepIStream {
 public:
  ZRESULT QueryInterface(const ZepGuid&, void** out) override { return *out = nullptr, ZEP_E_NOINTERFACE; }
  std::uint32_t AddRef() override { return 1; }
  std::uint32_t Release() override { return 1; }
  ZRESULT Read(void* buffer, std::uint32_t size, std::uint32_t* read) override {
    ++m_calls;
    if (m_onRead) m_onRead();
    *read = static_cast<std::uint32_t>(std::min<std::size_t>(size, m_bytes.size()));
    std::memcpy(buffer, m_bytes.data(), *read);
    return m_result;
  }
  ZRESULT Write(const void* buffer, std::uint32_t size, std::uint32_t* written) override {
    ++m_calls;
    if (m_onWrite) m_onWrite();
    m_bytes.assign(static_cast<const char*>(buffer), size);
    *written = size;
    return m_result;
  }

  std::string m_bytes;
  ZRESULT m_result = ZEP_S_OK;
  int m_calls = 0;
  std::function<void()> m_onRead;
  std::function<void()> m_onWrite;
};

std::string Hex(std::string_view bytes) {
  std::string out;
  char text[4];
  for (const unsigned char byte : bytes) {
    std::snprintf(text, sizeof text, "%02x", byte);
    out += text;
  }
  return out;
}

std::string Text(const char16_t* wide) {
  std::string out;
  for (; *wide != 0; ++wide) out += static_cast<char>(*wide);
  return out;
}

std::string NameOf(CSchedule& schedule) {
  char16_t* name = nullptr;
  EXPECT_EQ(schedule.get_Name(&name), ZEP_S_OK);
  const std::string text = Text(name);
  ZepStringFree(name);
  return text;
}

class Persist : public testing::Test {
 protected:
  // A schedule in which no field has its first value.
  void Fill(CSchedule& s) {
    EXPECT_EQ(s.put_ScheduleID(&kId), 0);
    EXPECT_EQ(s.put_Name(u"night run"), 0);
    EXPECT_EQ(s.put_Description(u"all volumes"), 0);
    EXPECT_EQ(s.put_StartTime(Local("2024-01-10 22:00")), 0);
    EXPECT_EQ(s.put_TimeDuration(4 * 3600000), 0);
    EXPECT_EQ(s.put_UseEffectiveDate(1), 0);
    EXPECT_EQ(s.put_EffectiveDate(Local("2024-02-01")), 0);
    EXPECT_EQ(s.put_UseRestartInterval(1), 0);
    EXPECT_EQ(s.put_RestartInterval(3600000), 0);
    EXPECT_EQ(s.put_UseRepeatInterval(1), 0);
    EXPECT_EQ(s.put_RepeatInterval(14), 0);
    EXPECT_EQ(s.put_AnchorDate(Local("2024-01-01")), 0);
    EXPECT_EQ(s.SetSpecificDate(1, Local("2024-12-28")), 0);
    EXPECT_EQ(s.SetSpecificDate(1, Local("2024-12-27")), 0);
    EXPECT_EQ(s.SetSpecificDate(2, Local("2024-12-25")), 0);
    EXPECT_EQ(s.SetDayOfMonth(0), 0);
    EXPECT_EQ(s.SetDayOfMonth(31), 0);
    EXPECT_EQ(s.SetDayOfWeek(5, 4), 0);
    EXPECT_EQ(s.put_CustomBitSet(0x80000001), 0);
    EXPECT_EQ(s.SetCustomString(u"colour", u"blue"), 0);
    EXPECT_EQ(s.SetCustomString(u"a", u"1"), 0);
  }
  // What a duration is behind a save into a bag and a load of it.
  std::uint32_t ThroughABag(std::uint32_t milliseconds) {
    MemoryBag bag;
    std::uint32_t duration = 0;
    m_source.put_TimeDuration(milliseconds);
    m_source.Save(&bag, 0);
    EXPECT_EQ(m_target.Load(&bag), ZEP_S_OK);
    m_target.get_TimeDuration(&duration);
    return duration;
  }

  // Everything that the interface gives out, as one text.
  static std::string Everything(CSchedule& s) {
    std::string out = NameOf(s);
    const auto add = [&out](std::int64_t value) { out += "," + std::to_string(value); };
    CGUID id;
    s.get_ScheduleID(&id);
    out += Hex({reinterpret_cast<const char*>(&id), 16});
    char16_t* text = nullptr;
    s.get_Description(&text);
    out += "," + Text(text);
    ZepStringFree(text);
    ZepTime time = 0;
    std::uint32_t number = 0;
    std::int32_t days = 0;
    zepByte byte = 0;
    s.get_StartTime(&time), add(time);
    s.get_EndTime(&time), add(time);
    s.get_TimeDuration(&number), add(number);
    s.get_UseEffectiveDate(&byte), add(byte);
    s.get_EffectiveDate(&time), add(time);
    s.get_UseRestartInterval(&byte), add(byte);
    s.get_RestartInterval(&number), add(number);
    s.get_UseRepeatInterval(&byte), add(byte);
    s.get_RepeatInterval(&days), add(days);
    s.get_AnchorDate(&time), add(time);
    for (std::uint32_t type : {1u, 2u}) {
      s.GetSpecificDatesCount(type, &number), add(number);
      for (std::uint32_t i = 0; i < number; ++i) s.GetSpecificDate(type, i, &time), add(time);
    }
    for (std::uint16_t i = 0; i < 32; ++i) {
      std::uint16_t set = 0;
      s.GetDayOfMonth(i, &set), add(set);
    }
    for (zepByte week = 0; week < 5; ++week) {
      for (zepByte day = 0; day < 7; ++day) s.GetDayOfWeek(day, week, &byte), add(byte);
    }
    s.get_CustomBitSet(&number), add(number);
    s.GetCustomStringCount(&number), add(number);
    char16_t* value = nullptr;
    if (s.GetCustomStringAt(0, &text, &value) == 0) {
      out += Text(text) + "=" + Text(value);
      ZepStringFree(text);
      ZepStringFree(value);
    }
    return out;
  }

  static std::string Bytes(CSchedule& s) {
    MemoryStream stream;
    EXPECT_EQ(s.Save(&stream, 0), ZEP_S_OK);
    return stream.m_bytes;
  }
  ZRESULT LoadBytes(CSchedule& s, const std::string& bytes) {
    MemoryStream stream;
    stream.m_bytes = bytes;
    return s.Load(&stream);
  }

  static zepByte Dirty(CSchedule& s) {
    zepByte dirty = 9;
    EXPECT_EQ(s.get_Dirty(&dirty), 0);
    return dirty;
  }

  platform::VirtualClock m_clock{1718449200};  // 15 June 2024
  platform::ScopedZone m_zone{"UTC0"};
  CSchedule m_source;
  CSchedule m_target;
};

// --- the interfaces' common part ---

TEST_F(Persist, GivesItsClassIdentifier) {
  ZepGuid id;
  EXPECT_EQ(m_source.GetClassID(&id), ZEP_S_OK);
  EXPECT_EQ(id, CLSID_CSchedule);
  EXPECT_EQ(m_source.GetClassID(nullptr), ZEP_E_POINTER);
}

TEST_F(Persist, HasNoInitNew) { EXPECT_EQ(m_source.InitNew(), ZEP_E_NOTIMPL); }

TEST_F(Persist, IsDirtyIsZeroForADirtyObjectAndOneForACleanOne) {
  m_source.put_Dirty(1);
  EXPECT_EQ(m_source.IsDirty(), 0);
  m_source.put_Dirty(0);
  EXPECT_EQ(m_source.IsDirty(), 1);
}

TEST_F(Persist, RefusesNullPointers) {
  CapturedTrace trace;
  EXPECT_EQ(m_source.Save(static_cast<zepIPropertyBag*>(nullptr), 0), ZEP_E_POINTER);
  EXPECT_EQ(m_source.Load(static_cast<zepIPropertyBag*>(nullptr)), ZEP_E_POINTER);
  EXPECT_EQ(m_source.Save(static_cast<zepIStream*>(nullptr), 0), ZEP_E_POINTER);
  EXPECT_EQ(m_source.Load(static_cast<zepIStream*>(nullptr)), ZEP_E_POINTER);
  EXPECT_EQ(m_source.Save(nullptr, 0, 100), ZEP_E_POINTER);
  EXPECT_EQ(m_source.Load(nullptr, 100), ZEP_E_POINTER);
  EXPECT_EQ(m_source.StreamSizeMax(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(m_source.MemorySizeMax(nullptr), ZEP_E_POINTER);
  EXPECT_EQ(trace.records().size(), 8u);
  EXPECT_TRUE(trace.Has(kTraceError, "ZEP_E_POINTER"));
}

// --- the property bag ---

TEST_F(Persist, WritesItsPropertiesInTheOrderOfTheTable) {
  MemoryBag bag;
  ASSERT_EQ(m_source.Save(&bag, 0), ZEP_S_OK);
  EXPECT_THAT(bag.m_names,
              ElementsAre(u"Object Type", u"Object Version", u"m_ScheduleID", u"m_Name", u"m_Description", u"m_StartTime",
                          u"m_EndTime", u"m_TimeDuration", u"m_bUseEffectiveDate", u"m_dtEffectiveDate",
                          u"m_bUseRestartInterval", u"m_RestartInterval", u"m_bUseRepeatInterval", u"m_iRepeatInterval",
                          u"m_AnchorDate", u"m_SpecificIncludeDateSet", u"m_SpecificExcludeDateSet", u"m_DaysOfMonth",
                          u"m_DayOfWeekList", u"m_CustomBitSet", u"m_CustomStringMap"));
}

TEST_F(Persist, GivesEachPropertyItsTagAndValue) {
  Fill(m_source);
  MemoryBag bag;
  ASSERT_EQ(m_source.Save(&bag, 0), ZEP_S_OK);
  const struct {
    int line;
    const char16_t* name;
    ZepTag tag;
    std::int64_t number;
    const char* text;
  } kCases[] = {
      {__LINE__, u"Object Type", 15, 0, kTypeText},
      {__LINE__, u"Object Version", 12, 0x20032, nullptr},
      {__LINE__, u"m_ScheduleID", 15, 0, kIdText},
      {__LINE__, u"m_Name", 15, 0, "night run"},
      {__LINE__, u"m_Description", 15, 0, "all volumes"},
      {__LINE__, u"m_StartTime", 3, Local("2024-06-15 22:00"), nullptr},
      {__LINE__, u"m_EndTime", 3, Local("2024-06-15 02:00"), nullptr},
      {__LINE__, u"m_TimeDuration", 4, 14400, nullptr},
      {__LINE__, u"m_bUseEffectiveDate", 8, 1, nullptr},
      {__LINE__, u"m_dtEffectiveDate", 2, Local("2024-02-01"), nullptr},
      {__LINE__, u"m_bUseRestartInterval", 8, 1, nullptr},
      {__LINE__, u"m_RestartInterval", 4, 3600, nullptr},
      {__LINE__, u"m_bUseRepeatInterval", 8, 1, nullptr},
      {__LINE__, u"m_iRepeatInterval", 11, 14, nullptr},
      {__LINE__, u"m_AnchorDate", 2, Local("2024-01-01"), nullptr},
      {__LINE__, u"m_DaysOfMonth", 22, 0x80000001, nullptr},
      {__LINE__, u"m_CustomBitSet", 22, 0x80000001, nullptr},
  };
  for (const auto& c : kCases) {
    const PropertyValue& value = bag[c.name];
    EXPECT_EQ(value.Tag(), c.tag) << c.line;
    if (c.text != nullptr) {
      EXPECT_STREQ(value.Text(), c.text) << c.line;
    } else {
      EXPECT_EQ(value.Wide(), c.number) << c.line;
    }
  }
  EXPECT_THAT(bag[u"m_SpecificIncludeDateSet"].Dates(), ElementsAre(Local("2024-12-27"), Local("2024-12-28")));
  EXPECT_THAT(bag[u"m_SpecificExcludeDateSet"].Dates(), ElementsAre(Local("2024-12-25")));
  EXPECT_THAT(bag[u"m_DayOfWeekList"].Bytes(), ElementsAre(0xFF & 0x7F, 0x7F, 0x7F, 0x7F, 0x7F));
  EXPECT_THAT(bag[u"m_CustomStringMap"].Strings(), ElementsAre("a", "1", "colour", "blue"));
}

TEST_F(Persist, ABagGivesBackEverythingThatWasSaved) {
  Fill(m_source);
  MemoryBag bag;
  ASSERT_EQ(m_source.Save(&bag, 0), ZEP_S_OK);
  ASSERT_EQ(m_target.Load(&bag), ZEP_S_OK);
  EXPECT_EQ(Everything(m_target), Everything(m_source));
  EXPECT_EQ(Dirty(m_target), 0);
}

TEST_F(Persist, ASaveClearsTheDirtyFlagOnlyWhenAsked) {
  MemoryBag bag;
  MemoryStream stream;
  char block[4096];
  const std::function<ZRESULT(zepByte)> kSaves[] = {
      [&](zepByte clear) { return m_source.Save(&bag, clear); },
      [&](zepByte clear) { return m_source.Save(&stream, clear); },
      [&](zepByte clear) { return m_source.Save(block, clear, sizeof block); },
  };
  for (const auto& save : kSaves) {
    m_source.put_Dirty(1);
    EXPECT_EQ(save(0), ZEP_S_OK);
    EXPECT_EQ(Dirty(m_source), 1);
    EXPECT_EQ(save(1), ZEP_S_OK);
    EXPECT_EQ(Dirty(m_source), 0);
  }
}

TEST_F(Persist, AnObjectTypeThatCannotBeWrittenEndsTheSave) {
  MemoryBag bag;
  bag.m_failing = u"Object Type";
  m_source.put_Dirty(1);
  EXPECT_EQ(m_source.Save(&bag, 1), ZEP_E_FAIL);
  EXPECT_TRUE(bag.m_names.empty());
  EXPECT_EQ(Dirty(m_source), 1);
}

TEST_F(Persist, NothingIsThrownOutOfASave) {
  m_source.put_Name(u"x");
  MemoryBag bag;
  const auto plan = platform::FaultPlan::FailCall(platform::Operation::kAllocate, 1, platform::ERROR_OUTOFMEMORY,
                                                  platform::kOnce, "PropertyValue text");
  EXPECT_EQ(m_source.Save(&bag, 1), ZEP_E_OUTOFMEMORY);
  EXPECT_EQ(plan.hits(), 1);
}

TEST_F(Persist, WhateverAForeignBagThrowsFailsTheSaveAndKeepsTheDirtyFlag) {
  CapturedTrace trace;
  MemoryBag bag;
  m_source.put_Dirty(1);
  for (const char16_t* const at : {u"Object Type", u"Object Version", u"m_ScheduleID", u"m_CustomStringMap"}) {
    SCOPED_TRACE(Text(at));
    bag.m_onWrite = [at](std::u16string_view name) {
      if (name == at) throw std::runtime_error("full");
    };
    EXPECT_EQ(m_source.Save(&bag, 1), ZEP_E_FAIL);
    EXPECT_TRUE(trace.Has(kTraceError, "CSchedule::Save() - Error: A C++ exception was caught during the save process.  "
                                       "The error message text is:full"));
    bag.m_onWrite = [at](std::u16string_view name) {
      if (name == at) throw 1;
    };
    EXPECT_EQ(m_source.Save(&bag, 1), ZEP_E_FAIL);
    EXPECT_TRUE(trace.Has(kTraceError,
                          "CSchedule::Save() - Error: A generic exception was caught during the save process."));
    trace.Clear();
    EXPECT_EQ(Dirty(m_source), 1);
  }
}

TEST_F(Persist, WhateverAForeignStreamThrowsFailsTheSaveAndKeepsTheDirtyFlag) {
  MemoryStream stream;
  m_source.put_Dirty(1);
  stream.m_onWrite = [] { throw std::runtime_error("line gone"); };
  EXPECT_EQ(m_source.Save(&stream, 1), ZEP_E_FAIL);
  stream.m_onWrite = [] { throw std::bad_alloc(); };
  EXPECT_EQ(m_source.Save(&stream, 1), ZEP_E_OUTOFMEMORY);
  stream.m_onWrite = [] { throw 1; };
  EXPECT_EQ(m_source.Save(&stream, 1), ZEP_E_FAIL);
  EXPECT_EQ(Dirty(m_source), 1);
}

TEST_F(Persist, TracesEachItemOfTheBag) {
  MemoryBag bag;
  CapturedTrace trace;
  m_source.Save(&bag, 0);
  EXPECT_TRUE(trace.Has(kTraceDebug, "Save(PropertyBag) Item number=0\tm_Name"));
  EXPECT_TRUE(trace.Has(kTraceDebug, "Save(PropertyBag) Item number=17\tm_CustomStringMap"));
  m_target.Load(&bag);
  EXPECT_TRUE(trace.Has(kTraceDebug, "Load(PropertyBag) Item number=3\tm_EndTime"));
}

TEST_F(Persist, AWrongObjectTypeWithThePresentVersionLoads) {
  MemoryBag bag;
  m_source.put_Name(u"kept");
  m_source.Save(&bag, 0);
  bag[u"Object Type"].SetText(kIdText);
  EXPECT_EQ(m_target.Load(&bag), ZEP_S_OK);
  EXPECT_EQ(NameOf(m_target), "kept");
}

TEST_F(Persist, TheRightObjectTypeWithAnUnknownVersionLoads) {
  MemoryBag bag;
  m_source.put_Name(u"kept");
  m_source.Save(&bag, 0);
  bag[u"Object Version"].SetLow32(0x20001);
  EXPECT_EQ(m_target.Load(&bag), ZEP_S_OK);
  EXPECT_EQ(NameOf(m_target), "kept");
}

TEST_F(Persist, NeitherTypeNorVersionFailsAfterTheReset) {
  MemoryBag bag;
  m_source.Save(&bag, 0);
  bag[u"Object Type"].SetText("");
  bag[u"Object Version"].SetLow32(0);
  m_target.put_Name(u"before");
  CapturedTrace trace;
  EXPECT_EQ(m_target.Load(&bag), ZEP_E_FAIL);
  EXPECT_TRUE(trace.Has(kTraceError, "ZEP_E_FAIL"));
  EXPECT_EQ(NameOf(m_target), "");
}

TEST_F(Persist, AHeaderPropertyThatCannotBeReadEndsTheLoad) {
  for (const char16_t* name : {u"Object Type", u"Object Version", u"m_ScheduleID"}) {
    MemoryBag bag;
    m_source.put_Name(u"not taken");
    m_source.Save(&bag, 0);
    bag.m_failing = name;
    EXPECT_EQ(m_target.Load(&bag), ZEP_E_FAIL);
    EXPECT_EQ(NameOf(m_target), "");
    EXPECT_EQ(Dirty(m_target), 1);
  }
}

TEST_F(Persist, ABagWithoutAnEndTimeKeepsTheEndOfAFullDay) {
  MemoryBag bag;
  Fill(m_source);
  m_source.Save(&bag, 0);
  bag.m_values.erase(u"m_EndTime");
  ASSERT_EQ(m_target.Load(&bag), ZEP_S_OK);
  MemoryBag again;
  m_target.Save(&again, 0);
  EXPECT_EQ(again[u"m_EndTime"].Wide(), Local("2024-06-15 23:59:59"));
  // The milliseconds show in the byte form: 86399059 is 23:59:59.059.
  EXPECT_NE(Hex(Bytes(m_target)).find("05265853"), std::string::npos);
}

TEST_F(Persist, AFullDayLosesItsFractionOfASecondInABagToo) {
  MemoryBag bag;
  m_source.Reset();
  m_source.Save(&bag, 0);
  ASSERT_EQ(m_target.Load(&bag), ZEP_S_OK);  // the same day: both values are those that a reset has
  std::uint32_t duration = 0;
  m_target.get_TimeDuration(&duration);
  EXPECT_EQ(duration, 86399000u);
  EXPECT_NE(Hex(Bytes(m_target)).find("05265818"), std::string::npos);  // 23:59:59.000
  EXPECT_EQ(Hex(Bytes(m_target)).find("05265853"), std::string::npos);
}

// A bag over a file gives a missing value back as it went in, and is no failure.
TEST_F(Persist, AValueThatIsMissingLeavesItsFieldAlone) {
  MemoryBag bag;
  bag.m_passesMissing = true;
  m_source.Reset();
  m_source.Save(&bag, 0);
  for (const char16_t* name : {u"m_TimeDuration", u"m_EndTime", u"m_iRepeatInterval"}) bag.m_values.erase(name);
  ASSERT_EQ(m_target.Load(&bag), ZEP_S_OK);
  std::uint32_t duration = 0;
  m_target.get_TimeDuration(&duration);
  EXPECT_EQ(duration, 86399059u);
  EXPECT_NE(Hex(Bytes(m_target)).find("05265853"), std::string::npos);  // 23:59:59.059
  std::int32_t days = 0;
  m_target.get_RepeatInterval(&days);
  EXPECT_EQ(days, 2);
}

TEST_F(Persist, ADurationLosesItsFractionOfASecondInABag) { EXPECT_EQ(ThroughABag(1500), 1000u); }

TEST_F(Persist, ADurationASecondShortOfADayComesBackAsItWas) { EXPECT_EQ(ThroughABag(86399000), 86399000u); }

TEST_F(Persist, AnEmptyOrMissingTextLoadsAsAnEmptyOne) {
  MemoryBag bag;
  m_source.put_Name(u"name");
  m_source.Save(&bag, 0);
  bag[u"m_Name"].SetText("");
  bag[u"m_Description"] = PropertyValue(kTagText);
  ASSERT_EQ(m_target.Load(&bag), ZEP_S_OK);
  EXPECT_EQ(NameOf(m_target), "");
}

TEST_F(Persist, TextsTravelAsUtf8) {
  MemoryBag bag;
  m_source.put_Name(u"Gr\u00fc\u00dfe \U0001F600");
  m_source.Save(&bag, 0);
  EXPECT_STREQ(bag[u"m_Name"].Text(), "Gr\xC3\xBC\xC3\x9F" "e \xF0\x9F\x98\x80");
  ASSERT_EQ(m_target.Load(&bag), ZEP_S_OK);
  char16_t* name = nullptr;
  m_target.get_Name(&name);
  EXPECT_TRUE(std::u16string_view(name) == u"Gr\u00fc\u00dfe \U0001F600");
  ZepStringFree(name);
}

TEST_F(Persist, ABagThatThrowsAmongTheSpecificDatesLosesOnlyThoseRows) {
  MemoryBag bag;
  Fill(m_source);
  m_source.Save(&bag, 0);
  CapturedTrace trace;
  bag.m_onRead = [](std::u16string_view name) {
    if (name == u"m_SpecificIncludeDateSet") throw std::runtime_error("no dates today");
    if (name == u"m_SpecificExcludeDateSet") throw 1;
  };
  ASSERT_EQ(m_target.Load(&bag), ZEP_S_OK);
  EXPECT_TRUE(trace.Has(kTraceError,
                        "CSchedule::Load(LPZEPPROPERTYBAG pPropBag) - Error: A C++ exception was caught while loading "
                        "specific dates, attempting to continue.  The error message text is:no dates today"));
  EXPECT_TRUE(trace.Has(kTraceError,
                        "CSchedule::Load(LPZEPPROPERTYBAG pPropBag) - Error: A generic exception was caught while loading "
                        "specific dates, attempting to continue."));
  std::uint32_t count = 9;
  m_target.GetSpecificDatesCount(1, &count);
  EXPECT_EQ(count, 0u);
  std::uint32_t bits = 0;
  m_target.get_CustomBitSet(&bits);
  EXPECT_EQ(bits, 0x80000001u);  // a row behind them
}

TEST_F(Persist, ABagThatThrowsAnywhereElseEndsTheLoadWithTheResultSoFar) {
  MemoryBag bag;
  Fill(m_source);
  m_source.Save(&bag, 0);
  CapturedTrace trace;
  bag.m_onRead = [](std::u16string_view name) {
    if (name == u"m_StartTime") throw std::runtime_error("clock gone");
  };
  EXPECT_EQ(m_target.Load(&bag), ZEP_S_OK);
  EXPECT_TRUE(trace.Has(kTraceError,
                        "CSchedule::Load(LPZEPPROPERTYBAG pPropBag) - Error: A C++ exception was caught during the load "
                        "process, loading aborted.  The error message text is:clock gone"));
  EXPECT_EQ(NameOf(m_target), "night run");
  EXPECT_EQ(Dirty(m_target), 1);
  bag.m_onRead = [](std::u16string_view name) {
    if (name == u"m_StartTime") throw 1;
  };
  EXPECT_EQ(m_target.Load(&bag), ZEP_S_OK);
  EXPECT_TRUE(trace.Has(kTraceError,
                        "CSchedule::Load(LPZEPPROPERTYBAG pPropBag) - Error: A generic exception was caught during the "
                        "load process, loading aborted."));
}

TEST_F(Persist, FewerThanFiveDayOfWeekBytesEndTheLoad) {
  MemoryBag bag;
  m_source.Save(&bag, 0);
  const std::uint8_t four[] = {1, 2, 3, 4};
  bag[u"m_DayOfWeekList"].SetBytes(four);
  CapturedTrace trace;
  EXPECT_EQ(m_target.Load(&bag), ZEP_S_OK);
  EXPECT_TRUE(trace.Has(kTraceError,
                        "CSchedule::Load(LPZEPPROPERTYBAG pPropBag) - Error: A C++ exception was caught during the load "
                        "process, loading aborted.  The error message text is:invalid vector<T> subscript"));
}

// --- tags that no field of today uses ---

struct OtherFields {
  zepByte byte = 200;
  std::int16_t shortNumber = -2;
  std::uint16_t unsignedShort = 40000;
  std::int32_t number = -3;
  std::uint32_t unsignedNumber = 4000000000u;
  std::vector<std::int16_t> numbers{1, -1, 300};

  std::vector<PersistRow> Rows() {
    return {{u"six", 6, &byte},           {u"nine", 9, &shortNumber},          {u"ten", 10, &unsignedShort},
            {u"thirteen", 13, &number},   {u"fourteen", 14, &unsignedNumber},  {u"twentyfive", 25, &numbers},
            {nullptr, 12, &unsignedNumber}, {u"no field", 12, std::monostate{}}};
  }
  static OtherFields Empty() { return {0, 0, 0, 0, 0, {}}; }
  bool operator==(const OtherFields&) const = default;
};

TEST_F(Persist, EveryTagHasItsByteForm) {
  OtherFields fields;
  bostrstream out(CByteOrder::kBigEndian);
  CapturedTrace trace;
  const qx::SchedulePersistence persistence(m_source);
  persistence.SaveToStream(out, fields.Rows());
  EXPECT_EQ(Hex(out.view()), "c8" "fffe" "9c40" "fffffffd" "ee6b2800" "00000003" "0001" "ffff" "012c");
  EXPECT_TRUE(trace.Has(kTraceDebug, "SaveToStream() Item number=1\tnine\tZEP_UI2-2"));
  EXPECT_TRUE(trace.Has(kTraceDebug, "SaveToStream() Item number=3\tthirteen\tZEP_INT32:-3"));
  const std::string bytes(out.view());
  for (const bool first : {false, true}) {
    OtherFields read = OtherFields::Empty();
    bistrstream in(bytes.data(), static_cast<std::streamsize>(bytes.size()), CByteOrder::kBigEndian);
    if (first) {
      persistence.LoadFromStreamV1(in, read.Rows());
    } else {
      persistence.LoadFromStream(in, read.Rows());
    }
    EXPECT_EQ(read, fields);
  }
  EXPECT_TRUE(trace.Has(kTraceDebug, "\tZEP_UINT32:4000000000\tsize=4"));
  EXPECT_TRUE(trace.Has(kTraceDebug, "\tQTX_I4:-3\tsize=4"));
}

TEST_F(Persist, EveryTagHasItsPropertyForm) {
  OtherFields fields;
  MemoryBag bag;
  const qx::SchedulePersistence persistence(m_source);
  persistence.SaveToBag(bag, fields.Rows());
  EXPECT_EQ(bag.m_names.size(), 6u);
  EXPECT_THAT(bag[u"twentyfive"].Int16s(), ElementsAre(1, -1, 300));
  OtherFields read = OtherFields::Empty();
  persistence.LoadFromBag(bag, read.Rows());
  EXPECT_EQ(read, fields);
}

TEST_F(Persist, ABagThatThrowsInAnArrayOfNumbersLosesOnlyThatRow) {
  OtherFields fields;
  MemoryBag bag;
  const qx::SchedulePersistence persistence(m_source);
  persistence.SaveToBag(bag, fields.Rows());
  CapturedTrace trace;
  bag.m_onRead = [](std::u16string_view name) {
    if (name == u"twentyfive") throw std::runtime_error("why");
  };
  OtherFields read = OtherFields::Empty();
  persistence.LoadFromBag(bag, read.Rows());
  EXPECT_TRUE(read.numbers.empty());
  EXPECT_TRUE(trace.Has(kTraceError,
                        "CSchedule::Load(LPZEPPROPERTYBAG pPropBag) - Error: A C++ exception was caught while loading "
                        "interger array, attempting to continue.  The error message text is:why"));
  bag.m_onRead = [](std::u16string_view name) {
    if (name == u"twentyfive") throw 1;
  };
  persistence.LoadFromBag(bag, read.Rows());
  EXPECT_TRUE(trace.Has(kTraceError,
                        "CSchedule::Load(LPZEPPROPERTYBAG pPropBag) - Error: A generic exception was caught while loading "
                        "interger array, attempting to continue."));
}

// --- bytes ---

TEST_F(Persist, TheByteFormIsTheTableInBigEndianOrder) {
  Fill(m_source);
  m_source.ClearAllDaysOfWeek();
  m_source.SetDayOfWeek(5, 4);
  const std::string expected =
      "c2eda52369c611d28a7c0000c0b839e5" "00020032" "00112233445566778899aabbccddeeff"
      "00000009" "6e696768742072756e"                              // m_Name
      "0000000b" "616c6c20766f6c756d6573"                          // m_Description
      "04b87f00"                                                   // 22:00 in milliseconds
      "006ddd00"                                                   // 02:00
      "0000000000dbba00" "00"                                      // 14400000 ms, positive
      "01" "000b4664"                                              // 2024-02-01 is day 738916
      "01" "000000000036ee80" "00"                                 // 3600000 ms
      "01" "0000000e" "000b4645"                                   // every 14 days from 2024-01-01
      "00000002" "000b47ae" "000b47af"                             // 2024-12-27 and 28
      "00000001" "000b47ac"                                        // 2024-12-25
      "80000001"                                                   // days of the month
      "00000000" "00000000" "00000000" "00000000" "00000020"       // last Friday
      "80000001"                                                   // custom bits
      "00000002" "00000001" "61" "00000001" "31" "00000006" "636f6c6f7572" "00000004" "626c7565";
  EXPECT_EQ(Hex(Bytes(m_source)), expected);
}

TEST_F(Persist, AStreamGivesBackEverythingThatWasSaved) {
  Fill(m_source);
  ASSERT_EQ(LoadBytes(m_target, Bytes(m_source)), ZEP_S_OK);
  EXPECT_EQ(Everything(m_target), Everything(m_source));
  EXPECT_EQ(Dirty(m_target), 0);
}

TEST_F(Persist, AStreamIsWrittenInOneCall) {
  MemoryStream stream;
  stream.m_result = ZEP_E_FAIL;
  m_source.put_Dirty(1);
  EXPECT_EQ(m_source.Save(&stream, 1), ZEP_E_FAIL);
  EXPECT_EQ(stream.m_calls, 1);
  EXPECT_EQ(Dirty(m_source), 0);
}

TEST_F(Persist, OlderVersionsOfTheSecondGenerationLoad) {
  Fill(m_source);
  for (const char* version : {"00020000", "0002000a", "00020032"}) {
    std::string bytes = Bytes(m_source);
    for (int i = 0; i < 4; ++i) {
      bytes[16 + i] = static_cast<char>(std::stoi(std::string(version + 2 * i, 2), nullptr, 16));
    }
    ASSERT_EQ(LoadBytes(m_target, bytes), ZEP_S_OK) << version;
    EXPECT_EQ(Everything(m_target), Everything(m_source));
  }
}

TEST_F(Persist, AnUnknownVersionFailsAfterTheObjectWasReset) {
  std::string bytes = Bytes(m_source);
  bytes[19] = 0x01;  // 0x20001
  m_target.put_Name(u"before");
  EXPECT_EQ(LoadBytes(m_target, bytes), ZEP_E_FAIL);
  EXPECT_EQ(NameOf(m_target), "");
}

TEST_F(Persist, AnotherClassLeavesAllButTheIdentifier) {
  m_source.put_ScheduleID(&kId);
  std::string bytes = Bytes(m_source);
  bytes[0] = 0;
  m_target.put_Name(u"before");
  EXPECT_EQ(LoadBytes(m_target, bytes), ZEP_E_FAIL);
  EXPECT_EQ(NameOf(m_target), "before");
  CGUID id;
  m_target.get_ScheduleID(&id);
  EXPECT_TRUE(id == kId);
}

TEST_F(Persist, AnEmptyStreamLeavesTheObjectAndGivesTheStreamsResult) {
  MemoryStream stream;
  stream.m_result = ZEP_E_FAIL;
  const std::string before = Everything(m_target);
  EXPECT_EQ(m_target.Load(&stream), ZEP_E_FAIL);
  EXPECT_EQ(Everything(m_target), before);
}

TEST_F(Persist, AStreamThatThrowsFailsTheLoadAndLeavesTheObject) {
  const std::string before = Everything(m_target);
  CapturedTrace trace;
  MemoryStream stream;
  stream.m_onRead = [] { throw std::runtime_error("line gone"); };
  EXPECT_EQ(m_target.Load(&stream), ZEP_E_FAIL);
  EXPECT_TRUE(trace.Has(kTraceError,
                        "CSchedule::Load(zepIStream* pStm) - Error: A C++ exception was caught during the load process, "
                        "loading aborted.  The error message text is:line gone"));
  stream.m_onRead = [] { throw 1; };
  EXPECT_EQ(m_target.Load(&stream), ZEP_E_FAIL);
  EXPECT_TRUE(trace.Has(kTraceError,
                        "CSchedule::Load(zepIStream* pStm) - Error: A C++ exception was caught during the load process, "
                        "loading aborted."));
  EXPECT_EQ(Everything(m_target), before);
}

TEST_F(Persist, AStreamIsReadToTwoThousandAndFortyEightBytes) {
  m_source.put_Name(std::u16string(100, u'n').c_str());
  m_source.put_Description(std::u16string(2700, u'd').c_str());
  m_source.put_RepeatInterval(77);
  ASSERT_GT(Bytes(m_source).size(), 2900u);
  ASSERT_EQ(LoadBytes(m_target, Bytes(m_source)), ZEP_S_OK);
  EXPECT_EQ(NameOf(m_target).size(), 100u);
  char16_t* description = nullptr;
  m_target.get_Description(&description);
  EXPECT_EQ(Text(description), "");
  ZepStringFree(description);
  std::int32_t days = 0;
  m_target.get_RepeatInterval(&days);
  EXPECT_EQ(days, 2);
}

TEST_F(Persist, ABlockIsReadWhole) {
  m_source.put_Description(std::u16string(2700, u'd').c_str());
  m_source.put_RepeatInterval(77);
  std::string bytes = Bytes(m_source);
  ASSERT_EQ(m_target.Load(bytes.data(), static_cast<std::uint32_t>(bytes.size())), ZEP_S_OK);
  EXPECT_EQ(Everything(m_target), Everything(m_source));
}

TEST_F(Persist, BytesThatEndAnywhereAreNeverReadBeyond) {
  Fill(m_source);
  const std::string bytes = Bytes(m_source);
  for (std::size_t length = 1; length < bytes.size(); ++length) {
    std::vector<char> cut(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
    CSchedule target;
    const ZRESULT result = target.Load(cut.data(), static_cast<std::uint32_t>(length));
    EXPECT_EQ(result, length < 36 ? ZEP_E_FAIL : ZEP_S_OK) << length;
  }
}

TEST_F(Persist, ACountThatLiesReservesNothing) {
  // A row of dates and a map that claim four thousand million elements.
  std::string bytes = "\xFF\xFF\xFF\xFF\x00\x00\x00\x01";
  qx::DateSet dates;
  qx::StringMap map;
  const std::vector<PersistRow> rows = {{u"dates", 18, &dates}, {u"map", 31, &map}};
  bistrstream in(bytes.data(), 8, CByteOrder::kBigEndian);
  qx::SchedulePersistence(m_target).LoadFromStream(in, rows);
  EXPECT_TRUE(dates.Empty());
  EXPECT_TRUE(map.empty());
}

TEST_F(Persist, AMemoryBlockOneByteTooSmallIsRefused) {
  Fill(m_source);
  std::uint32_t size = 0;
  ASSERT_EQ(m_source.MemorySizeMax(&size), ZEP_S_OK);
  EXPECT_EQ(size, Bytes(m_source).size());
  std::vector<char> block(size, '#');
  m_source.put_Dirty(1);
  CapturedTrace trace;
  EXPECT_EQ(m_source.Save(block.data(), 1, size - 1), ZEP_E_INVALIDARG);
  EXPECT_TRUE(trace.Has(kTraceError, "ZEP_E_INVALIDARG"));
  EXPECT_EQ(Dirty(m_source), 1);
  EXPECT_EQ(block[0], '#');
  EXPECT_EQ(m_source.Save(block.data(), 1, size), ZEP_S_OK);
  EXPECT_EQ(std::string(block.begin(), block.end()), Bytes(m_source));
}

TEST_F(Persist, TheStreamsGreatestSizeIsAnEstimate) {
  Fill(m_source);
  std::uint32_t size = 0;
  ASSERT_EQ(m_source.StreamSizeMax(&size), ZEP_S_OK);
  // 16, the texts of 9 and 11, 2 times, 2 spans, 3 flags, 2 dates, one number, two lists, days, words, bits, no map.
  EXPECT_EQ(size, 16u + 9 + 11 + 2 * 4 + 2 * 9 + 3 * 1 + 2 * 4 + 4 + (4 + 32) + (4 + 16) + 4 + 20 + 4);
  // The two interfaces ask under one name for two things.
  std::uint32_t through = 0;
  static_cast<zepIPersistStreamInit&>(m_source).GetSizeMax(&through);
  EXPECT_EQ(through, size);
  static_cast<zepIPersistMemory&>(m_source).GetSizeMax(&through);
  EXPECT_EQ(through, Bytes(m_source).size());
}

TEST_F(Persist, ATimeFromAnotherZoneMovesByTheDifference) {
  Fill(m_source);  // 22:00 and 02:00 in UTC
  const std::string bytes = Bytes(m_source);
  const platform::ScopedZone zone("XXX5");  // five hours west
  ASSERT_EQ(m_target.SetSenderTimeZoneOffset(0), ZEP_S_OK);
  CapturedTrace trace;
  ASSERT_EQ(LoadBytes(m_target, bytes), ZEP_S_OK);
  ZepTime time = 0;
  m_target.get_StartTime(&time);
  EXPECT_EQ(qx::testing::Shown(time), "2024-06-15 22:00:00");
  m_target.get_EndTime(&time);
  EXPECT_EQ(qx::testing::Shown(time), "2024-06-15 02:00:00");
  EXPECT_TRUE(trace.Has(kTraceDebug, "\n*** Doing timezone adjustment ***"));
  EXPECT_TRUE(trace.Has(kTraceDebug, "\nCurrent timezone offset is18000"));
  EXPECT_TRUE(trace.Has(kTraceDebug, "\nSender's timezone offset is0"));
  CSchedule unmoved;
  ASSERT_EQ(LoadBytes(unmoved, bytes), ZEP_S_OK);
  unmoved.get_StartTime(&time);
  EXPECT_EQ(qx::testing::Shown(time), "2024-06-15 17:00:00");
}

TEST_F(Persist, ATimeFromTheEastMovesBackAcrossMidnight) {
  Fill(m_source);
  const std::string bytes = Bytes(m_source);
  ASSERT_EQ(m_target.SetSenderTimeZoneOffset(3 * 3600), ZEP_S_OK);  // this machine is at 0
  ASSERT_EQ(LoadBytes(m_target, bytes), ZEP_S_OK);
  ZepTime time = 0;
  m_target.get_EndTime(&time);
  EXPECT_EQ(qx::testing::Shown(time), "2024-06-15 23:00:00");  // 02:00 less three hours
}

TEST_F(Persist, TracesTheWalkThroughTheBytes) {
  Fill(m_source);
  CapturedTrace trace;
  const std::string bytes = Bytes(m_source);
  EXPECT_TRUE(trace.Has(kTraceDebug, "SaveToStream() Item number=0\tm_Name\tZEP_UTF8STR:night run"));
  EXPECT_TRUE(trace.Has(kTraceDebug, "SaveToStream() Item number=5\tm_bUseEffectiveDate\tZEP_BOOL:1"));
  EXPECT_TRUE(trace.Has(kTraceDebug, "SaveToStream() Item number=12\tm_SpecificIncludeDateSet\tZEP_ARRAY | ZEP_DATE [2]"));
  trace.Clear();
  LoadBytes(m_target, bytes);
  EXPECT_TRUE(trace.Has(kTraceDebug, "LOAD i=0\tm_Name"));
  EXPECT_TRUE(trace.Has(kTraceDebug, "\tZEP_UTF8STR:night run\tsize=13"));
}

// --- version 1.x ---

class PersistV1 : public Persist {
 protected:
  // The form of version 1.1, row by row.
  std::string V1(const std::function<void(bostrstream&)>& daysOfWeek) {
    bostrstream out(CByteOrder::kBigEndian);
    CGUID(CLSID_CSchedule).BinaryOut(out);
    out << std::uint32_t{0x10100};
    kId.BinaryOut(out);
    out << std::uint32_t{3};
    out.write("old", 3);
    out << std::uint32_t{0};
    out << std::uint32_t{36000000} << std::uint32_t{39600000};       // 10:00 and 11:00 UTC
    out << std::uint64_t{3600000} << static_cast<unsigned char>(0);  // the duration
    out << std::uint32_t{2} << std::uint32_t{738967};                // a flag of 32 bits: any value but 0 is true
    out << std::uint32_t{0} << std::uint64_t{0} << static_cast<unsigned char>(0);
    out << std::uint32_t{0} << std::uint32_t{5} << std::uint32_t{738967};
    out << std::uint32_t{0} << std::uint32_t{1} << std::uint32_t{738968};
    out << std::uint32_t{0x80000000};
    daysOfWeek(out);
    return std::string(out.view());  // no custom bits, no custom strings
  }
};

TEST_F(PersistV1, DayOneAndWeekOneIsTheFirstSunday) {
  const std::string bytes = V1([](bostrstream& out) {
    out << std::uint32_t{2} << std::uint16_t{1} << std::uint16_t{1} << std::uint16_t{7} << std::uint16_t{5};
  });
  CapturedTrace trace;
  ASSERT_EQ(LoadBytes(m_target, bytes), ZEP_S_OK);
  zepByte set = 0;
  m_target.GetDayOfWeek(0, 0, &set);
  EXPECT_EQ(set, 1);
  m_target.GetDayOfWeek(6, 4, &set);
  EXPECT_EQ(set, 1);
  m_target.GetDayOfWeek(1, 0, &set);
  EXPECT_EQ(set, 0);
  EXPECT_TRUE(trace.Has(kTraceDebug, "\tQTX_ARRAY | QTX_I2 [2]: day=7week=5"));
  EXPECT_TRUE(trace.Has(kTraceDebug, "\tQTX_UINT: m_DaysOfMonth=2147483648\tsize=4"));
  EXPECT_TRUE(trace.Has(kTraceDebug, "\tQTX_UTF8STR:old\tsize=7"));
}

TEST_F(PersistV1, TheOtherRowsFollowTheFirstGeneration) {
  ASSERT_EQ(LoadBytes(m_target, V1([](bostrstream& out) { out << std::uint32_t{0}; })), ZEP_S_OK);
  EXPECT_EQ(NameOf(m_target), "old");
  zepByte use = 0;
  m_target.get_UseEffectiveDate(&use);
  EXPECT_EQ(use, 1);
  ZepTime time = 0;
  m_target.get_StartTime(&time);
  EXPECT_EQ(qx::testing::Shown(time), "2024-06-15 10:00:00");
  std::uint16_t last = 0;
  m_target.GetDayOfMonth(31, &last);
  EXPECT_EQ(last, 1);
  std::uint32_t count = 0;
  m_target.GetSpecificDatesCount(2, &count);
  EXPECT_EQ(count, 1u);
}

TEST_F(PersistV1, DaylightSavingInForceTakesAnHourOff) {
  const std::string bytes = V1([](bostrstream& out) { out << std::uint32_t{0}; });
  const platform::ScopedZone zone("WET0WEST,M3.5.0/1,M10.5.0");  // in June daylight saving is in force
  ASSERT_EQ(LoadBytes(m_target, bytes), ZEP_S_OK);
  ZepTime time = 0;
  m_target.get_StartTime(&time);
  EXPECT_EQ(qx::testing::Shown(time), "2024-06-15 09:00:00");
}

TEST_F(PersistV1, AWeekThatDoesNotExistEndsTheLoad) {
  const std::string bytes = V1([](bostrstream& out) {
    out << std::uint32_t{1} << std::uint16_t{1} << std::uint16_t{0};
  });
  CapturedTrace trace;
  EXPECT_EQ(LoadBytes(m_target, bytes), ZEP_S_OK);
  EXPECT_TRUE(trace.Has(kTraceError,
                        "CSchedule::Load(zepIStream* pStm) - Error: A C++ exception was caught during the load process, "
                        "loading aborted.  The error message text is:invalid vector<T> subscript"));
  std::string block = bytes;
  EXPECT_EQ(m_target.Load(block.data(), static_cast<std::uint32_t>(block.size())), ZEP_S_OK);
  EXPECT_TRUE(trace.Has(kTraceError,
                        "CSchedule::Load(void *pvMem, unsigned long cbSize) - Error: A C++ exception was caught during "
                        "the load process, loading aborted.  The error message text is:invalid vector<T> subscript"));
  EXPECT_EQ(Dirty(m_target), 1);
}

TEST_F(PersistV1, TheDaysAheadOfOneThatDoesNotExistStaySet) {
  const std::string bytes = V1([](bostrstream& out) {
    out << std::uint32_t{3} << std::uint16_t{2} << std::uint16_t{5} << std::uint16_t{9} << std::uint16_t{1};
    out << std::uint16_t{3} << std::uint16_t{1};
  });
  EXPECT_EQ(LoadBytes(m_target, bytes), ZEP_S_OK);
  zepByte set = 0;
  m_target.GetDayOfWeek(1, 4, &set);
  EXPECT_EQ(set, 1);
  m_target.GetDayOfWeek(2, 0, &set);
  EXPECT_EQ(set, 0);
  EXPECT_EQ(Dirty(m_target), 1);
}

// --- the days of the week alone ---

TEST(DayOfWeekForms, BytesKeepTheLowEightBitsOfEachWord) {
  const char bytes[] = "\x00\x00\x00\x01\x00\x00\x00\x00\xFF\xFF\xFF\x02\x00\x00\x00\x80\x00\x00\x01\x00";
  bistrstream in(bytes, 20, CByteOrder::kBigEndian);
  CDayOfWeek days;
  days.SetDay(3, 1);
  days.BinaryIn(in);
  EXPECT_THAT(days.Words(), ElementsAre(1u, 0u, 2u, 0x80u, 0u));
  bostrstream out(CByteOrder::kBigEndian);
  days.BinaryOut(out);
  EXPECT_EQ(Hex(out.view()), "0000000100000000000000020000008000000000");
}

TEST(DayOfWeekForms, AnArrayHoldsTheFiveWordsInOrder) {
  CDayOfWeek days;
  days.SetDay(0, 0);
  days.SetDay(6, 4);
  PropertyValue value;
  EXPECT_EQ(days.ToArray(&value), ZEP_S_OK);
  EXPECT_THAT(value.Bytes(), ElementsAre(1, 0, 0, 0, 64));
  CDayOfWeek read;
  read.SetDay(1, 1);
  EXPECT_EQ(read.FromArray(&value), ZEP_S_OK);
  EXPECT_EQ(read, days);
}

TEST(DayOfWeekForms, AnAbsentArrayClearsAllAndAShortOneIsARangeFailure) {
  CDayOfWeek days;
  days.SetDay(1, 1);
  const PropertyValue absent(kTagCustom);
  EXPECT_EQ(days.FromArray(&absent), ZEP_S_OK);
  EXPECT_FALSE(days.AnyDaySet());
  PropertyValue four(kTagCustom);
  four.SetBytes(std::vector<std::uint8_t>{1, 2, 3, 4});
  EXPECT_THROW(days.FromArray(&four), std::out_of_range);
}

}  // namespace
