#include "client/schedule_json.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

TEST(ScheduleJson, ReadsEveryFieldByItsName) {
  SCHEDULE_OBJECT record;
  std::string error;
  ASSERT_TRUE(qx::RecordFromJson(json::parse(R"({
    "bstrName": "n", "bstrDescription": "d", "bstrApplication": "a", "bstrObjectID": "o", "dwTaskOpCode": 4294967295,
    "bstrWrapperBinaryName": "w", "bstrXMLFilePathName": "x", "bstrParameters": "p", "bstrPreScript": null,
    "bstrPostScript": "\u00e9", "bRunNow": true, "bUseGUID": 2, "lNextTimeWindow": -1,
    "stScheduleRules": {"lStartTime": -5, "lEndTime": 6, "dwTimeDuration": 7, "bEffectiveDate": false,
      "lEffectiveDate": 8, "bRestartInterval": 1, "dwRestartInterval": 9, "bRepeatInterval": 1,
      "dwRepeatInterval": -10, "lAnchorDate": 11, "adwDaysOfMonth": [1, -2], "bLastDayOfMonth": 1,
      "dwDaysOfWeek0": [1], "dwDaysOfWeek1": [0, 1], "dwDaysOfWeek2": [0, 0, 1], "dwDaysOfWeek3": [0, 0, 0, 1],
      "dwDaysOfWeek4": [0, 0, 0, 0, 0, 0, 1], "alIncludeDates": [12, 13], "alExcludeDates": [14]}})"),
                                 record, error))
      << error;
  EXPECT_EQ(record.bstrName, u"n");
  EXPECT_EQ(record.bstrDescription, u"d");
  EXPECT_EQ(record.bstrApplication, u"a");
  EXPECT_EQ(record.bstrObjectID, u"o");
  EXPECT_EQ(record.dwTaskOpCode, 4294967295u);
  EXPECT_EQ(record.bstrWrapperBinaryName, u"w");
  EXPECT_EQ(record.bstrXMLFilePathName, u"x");
  EXPECT_EQ(record.bstrParameters, u"p");
  EXPECT_EQ(record.bstrPreScript, std::nullopt);
  EXPECT_EQ(record.bstrPostScript, u"\u00e9");
  EXPECT_EQ(record.bRunNow, 1u);
  EXPECT_EQ(record.bUseGUID, 2u);
  EXPECT_EQ(record.lNextTimeWindow, -1);
  const SCHEDULE_RULE& rules = record.stScheduleRules;
  EXPECT_EQ(rules.lStartTime, -5);
  EXPECT_EQ(rules.lEndTime, 6);
  EXPECT_EQ(rules.dwTimeDuration, 7u);
  EXPECT_EQ(rules.bEffectiveDate, 0u);
  EXPECT_EQ(rules.lEffectiveDate, 8);
  EXPECT_EQ(rules.bRestartInterval, 1u);
  EXPECT_EQ(rules.dwRestartInterval, 9u);
  EXPECT_EQ(rules.bRepeatInterval, 1u);
  EXPECT_EQ(rules.dwRepeatInterval, -10);
  EXPECT_EQ(rules.lAnchorDate, 11);
  EXPECT_EQ(rules.adwDaysOfMonth[0], 1);
  EXPECT_EQ(rules.adwDaysOfMonth[1], -2);
  EXPECT_EQ(rules.bLastDayOfMonth, 1u);
  EXPECT_EQ(rules.dwDaysOfWeek0[0], 1u);
  EXPECT_EQ(rules.dwDaysOfWeek1[1], 1u);
  EXPECT_EQ(rules.dwDaysOfWeek2[2], 1u);
  EXPECT_EQ(rules.dwDaysOfWeek3[3], 1u);
  EXPECT_EQ(rules.dwDaysOfWeek4[6], 1u);
  EXPECT_EQ(rules.alIncludeDates[1], 13);
  EXPECT_EQ(rules.alIncludeDates[2], 0);
  EXPECT_EQ(rules.alExcludeDates[0], 14);
}

TEST(ScheduleJson, NamesTheKeyOfWhatItRefuses) {
  struct Case {
    const char* text;
    const char* error;
  };
  const Case cases[] = {
      {"[]", "the record isn't an object"},
      {R"({"bstrNam": "x"})", "bstrNam is unknown"},
      {R"({"stScheduleRules": {"lStart": 1}})", "stScheduleRules.lStart is unknown"},
      {R"({"stScheduleRules": []})", "stScheduleRules isn't an object"},
      {R"({"bstrName": 5})", "bstrName isn't a string"},
      {R"({"bstrName": "a\nb"})", "bstrName holds a line end or a NUL"},
      {R"({"bstrName": "a\rb"})", "bstrName holds a line end or a NUL"},
      {R"({"bstrName": "a\u0000b"})", "bstrName holds a line end or a NUL"},
      {R"({"bstrName": "a\uFFFEb"})", "bstrName holds a character that the service can't be told: U+FFFE"},
      {R"({"dwTaskOpCode": "5"})", "dwTaskOpCode isn't a whole number"},
      {R"({"dwTaskOpCode": 1.0})", "dwTaskOpCode isn't a whole number"},
      {R"({"dwTaskOpCode": true})", "dwTaskOpCode isn't a whole number"},
      {R"({"dwTaskOpCode": null})", "dwTaskOpCode isn't a whole number"},
      {R"({"dwTaskOpCode": -1})", "dwTaskOpCode is out of range (allowed: 0 to 4294967295)"},
      {R"({"dwTaskOpCode": 4294967296})", "dwTaskOpCode is out of range (allowed: 0 to 4294967295)"},
      {R"({"dwTaskOpCode": 18446744073709551615})", "dwTaskOpCode is out of range (allowed: 0 to 4294967295)"},
      {R"({"lNextTimeWindow": 2147483648})", "lNextTimeWindow is out of range (allowed: -2147483648 to 2147483647)"},
      {R"({"stScheduleRules": {"adwDaysOfMonth": 1}})", "stScheduleRules.adwDaysOfMonth isn't a list"},
      {R"({"stScheduleRules": {"adwDaysOfMonth": [0, 40000]}})",
       "stScheduleRules.adwDaysOfMonth[1] is out of range (allowed: -32768 to 32767)"},
      {R"({"stScheduleRules": {"dwDaysOfWeek0": [0,0,0,0,0,0,0,0]}})",
       "stScheduleRules.dwDaysOfWeek0 has too many elements (allowed: 7)"},
  };
  for (const Case& c : cases) {
    SCHEDULE_OBJECT record;
    record.dwTaskOpCode = 77;
    const SCHEDULE_OBJECT before = record;
    std::string error;
    EXPECT_FALSE(qx::RecordFromJson(json::parse(c.text), record, error)) << c.text;
    EXPECT_EQ(error, c.error);
    EXPECT_EQ(record, before) << c.text;
  }
}

TEST(ScheduleJson, WritesFieldsInDeclaredOrderAndListsWithoutTrailingZeros) {
  SCHEDULE_OBJECT record;
  record.bstrName = u"n";
  record.stScheduleRules.adwDaysOfMonth[1] = 1;
  EXPECT_EQ(qx::RecordToJson(record).dump(),
            R"({"bstrName":"n","bstrDescription":null,"bstrApplication":null,"bstrObjectID":null,"dwTaskOpCode":0,)"
            R"("bstrWrapperBinaryName":null,"bstrXMLFilePathName":null,"bstrParameters":null,"bstrPreScript":null,)"
            R"("bstrPostScript":null,"bRunNow":0,"bUseGUID":0,"lNextTimeWindow":0,"stScheduleRules":{"lStartTime":0,)"
            R"("lEndTime":0,"dwTimeDuration":0,"bEffectiveDate":0,"lEffectiveDate":0,"bRestartInterval":0,)"
            R"("dwRestartInterval":0,"bRepeatInterval":0,"dwRepeatInterval":0,"lAnchorDate":0,"adwDaysOfMonth":[0,1],)"
            R"("bLastDayOfMonth":0,"dwDaysOfWeek0":[],"dwDaysOfWeek1":[],"dwDaysOfWeek2":[],"dwDaysOfWeek3":[],)"
            R"("dwDaysOfWeek4":[],"alIncludeDates":[],"alExcludeDates":[]}})");
}

TEST(ScheduleJson, ComesBackAsTheRecordThatWasWritten) {
  EXPECT_TRUE(rc::check("write then read is the identity", [] {
    using namespace rc;
    SCHEDULE_OBJECT record;
    if (*gen::arbitrary<bool>()) record.bstrName = u"na\"me\u4e00";
    record.dwTaskOpCode = *gen::arbitrary<std::uint32_t>();
    record.bRunNow = *gen::arbitrary<std::uint32_t>();
    record.lNextTimeWindow = *gen::arbitrary<std::int32_t>();
    SCHEDULE_RULE& rules = record.stScheduleRules;
    rules.lStartTime = *gen::arbitrary<std::int32_t>();
    rules.dwRepeatInterval = *gen::arbitrary<std::int32_t>();
    for (auto& day : rules.adwDaysOfMonth) day = *gen::arbitrary<std::int16_t>();
    for (auto& day : rules.dwDaysOfWeek3) day = *gen::arbitrary<std::uint32_t>();
    for (int i = *gen::inRange(0, 365); i > 0; --i) rules.alIncludeDates[i] = *gen::arbitrary<std::int32_t>();
    SCHEDULE_OBJECT back;
    std::string error;
    RC_ASSERT(qx::RecordFromJson(json::parse(qx::RecordToJson(record).dump()), back, error));
    RC_ASSERT(back == record);
  }));
}

}  // namespace
