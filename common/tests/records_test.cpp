// The records, identifiers and codes of the client interface, as clients and the wire count on them.
#include "interface/records.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "platform/text.h"

namespace {

std::string Text(const ScheduleGuid& id) { return platform::Utf8FromWide(platform::GuidText(id)); }

TEST(Records, BearTheIdentifiersOfTheTypeLibrary) {
  EXPECT_EQ(Text(LIBID_QXSCHEDSERVICELib), "{F1D593D8-0CEC-4569-8943-55C609CFD2F4}");
  EXPECT_EQ(Text(CLSID_SchedulerService), "{99E6EA90-FFAE-46F2-B940-62519E6E0FD6}");
  EXPECT_EQ(Text(IID_ISchedulerService), "{5D5A7ABD-0414-4C56-92F9-B33B7B48E1AC}");
  EXPECT_EQ(Text(IID_ISchedulerServiceEvents), "{B6F846B1-B6E7-4F33-A64B-5DAD103EA870}");
  EXPECT_EQ(Text(GUID_SCHEDULE_OBJECT), "{ADAB1A8F-62D9-4DAA-86B0-F4FFB77987D0}");
  EXPECT_EQ(Text(GUID_SCHEDULE_RULE), "{C8F05E16-CE53-4908-9ED7-96C81280957E}");
  EXPECT_EQ(Text(GUID_SCHEDULE_OBJECT_EX), "{E50E8E0E-94C6-40E7-AF4F-A7FD79AF9AA6}");
  EXPECT_EQ(Text(GUID_parameterType), "{33D7D210-8256-4861-8633-C3CA6F8950DC}");
}

TEST(Records, KnowTwoTypesOfParameters) {
  EXPECT_EQ(APPLICATION_NAME, 1);
  EXPECT_EQ(OBJECT_ID, 2);
  EXPECT_EQ(sizeof(parameterType), 4u);
}

// Taking a record apart names its fields in their order, all of them.
TEST(Records, ARuleHasItsFieldsInOrderAndOfTheirTypes) {
  SCHEDULE_RULE rule;
  auto& [start, end, duration, effectiveFlag, effective, restartFlag, restart, repeatFlag, repeat, anchor, month, last, week0,
         week1, week2, week3, week4, include, exclude] = rule;
  EXPECT_EQ(&start, &rule.lStartTime);
  EXPECT_EQ(&end, &rule.lEndTime);
  EXPECT_EQ(&duration, &rule.dwTimeDuration);
  EXPECT_EQ(&effectiveFlag, &rule.bEffectiveDate);
  EXPECT_EQ(&effective, &rule.lEffectiveDate);
  EXPECT_EQ(&restartFlag, &rule.bRestartInterval);
  EXPECT_EQ(&restart, &rule.dwRestartInterval);
  EXPECT_EQ(&repeatFlag, &rule.bRepeatInterval);
  EXPECT_EQ(&repeat, &rule.dwRepeatInterval);
  EXPECT_EQ(&anchor, &rule.lAnchorDate);
  EXPECT_EQ(&month, &rule.adwDaysOfMonth);
  EXPECT_EQ(&last, &rule.bLastDayOfMonth);
  EXPECT_EQ(&week0, &rule.dwDaysOfWeek0);
  EXPECT_EQ(&week1, &rule.dwDaysOfWeek1);
  EXPECT_EQ(&week2, &rule.dwDaysOfWeek2);
  EXPECT_EQ(&week3, &rule.dwDaysOfWeek3);
  EXPECT_EQ(&week4, &rule.dwDaysOfWeek4);
  EXPECT_EQ(&include, &rule.alIncludeDates);
  EXPECT_EQ(&exclude, &rule.alExcludeDates);

  EXPECT_TRUE((std::is_same_v<decltype(rule.lStartTime), std::int32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(rule.lEndTime), std::int32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(rule.dwTimeDuration), std::uint32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(rule.lEffectiveDate), std::int32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(rule.dwRestartInterval), std::uint32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(rule.dwRepeatInterval), std::int32_t>)) << "signed, unlike its neighbour";
  EXPECT_TRUE((std::is_same_v<decltype(rule.lAnchorDate), std::int32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(rule.adwDaysOfMonth), std::array<std::int16_t, 32>>));
  EXPECT_TRUE((std::is_same_v<decltype(rule.dwDaysOfWeek0), std::array<std::uint32_t, 7>>));
  EXPECT_TRUE((std::is_same_v<decltype(rule.alIncludeDates), std::array<std::int32_t, 365>>));
  EXPECT_TRUE((std::is_same_v<decltype(rule.alExcludeDates), std::array<std::int32_t, 365>>));
  for (const std::uint32_t* flag : {&rule.bEffectiveDate, &rule.bRestartInterval, &rule.bRepeatInterval, &rule.bLastDayOfMonth}) {
    EXPECT_EQ(*flag, 0u);
  }
}

TEST(Records, AScheduleHasItsFieldsInOrder) {
  SCHEDULE_OBJECT s;
  auto& [name, description, application, object, code, wrapper, xml, parameters, pre, post, runNow, useGuid, next, rules] = s;
  const BSTR* const texts[] = {&name, &description, &application, &object, &wrapper, &xml, &parameters, &pre, &post};
  const BSTR* const fields[] = {&s.bstrName,       &s.bstrDescription,       &s.bstrApplication,
                                &s.bstrObjectID,   &s.bstrWrapperBinaryName, &s.bstrXMLFilePathName,
                                &s.bstrParameters, &s.bstrPreScript,         &s.bstrPostScript};
  for (std::size_t i = 0; i < std::size(texts); ++i) {
    EXPECT_EQ(texts[i], fields[i]) << i;
    EXPECT_FALSE(texts[i]->has_value()) << i;  // a null string, not an empty one
  }
  EXPECT_EQ(&code, &s.dwTaskOpCode);
  EXPECT_EQ(&runNow, &s.bRunNow);
  EXPECT_EQ(&useGuid, &s.bUseGUID);
  EXPECT_EQ(&next, &s.lNextTimeWindow);
  EXPECT_EQ(&rules, &s.stScheduleRules);
  EXPECT_TRUE((std::is_same_v<decltype(s.dwTaskOpCode), std::uint32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(s.bRunNow), std::uint32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(s.lNextTimeWindow), std::int32_t>));
}

TEST(Records, TheShortFormHasItsFieldsInOrder) {
  SCHEDULE_OBJECT_EX s;
  auto& [code, id, application, object, wrapper, xml, parameters, pre, post, useGuid] = s;
  EXPECT_EQ(&code, &s.dwTaskOpCode);
  EXPECT_EQ(&id, &s.bstrScheduleID);
  EXPECT_EQ(&application, &s.bstrApplication);
  EXPECT_EQ(&object, &s.bstrObjectID);
  EXPECT_EQ(&wrapper, &s.bstrWrapperBinaryName);
  EXPECT_EQ(&xml, &s.bstrXMLFilePathName);
  EXPECT_EQ(&parameters, &s.bstrParameters);
  EXPECT_EQ(&pre, &s.bstrPreScript);
  EXPECT_EQ(&post, &s.bstrPostScript);
  EXPECT_EQ(&useGuid, &s.bUseGUID);
}

}  // namespace
