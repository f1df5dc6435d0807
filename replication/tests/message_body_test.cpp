#include "replication/message_body.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "foundation/testing/captured_log.h"
#include "platform/guid.h"
#include "platform/testing/fault.h"
#include "platform/text.h"
#include "replication/wire.h"

namespace qx {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using platform::FaultPlan;
using platform::Operation;
using ZepFoundation::CapturedServiceLog;

constexpr ScheduleGuid kBodyId = platform::GuidConstant(u"{0123ABCD-4567-89AB-CDEF-001122334455}");
constexpr std::u16string_view kIdText = u"{0123ABCD-4567-89AB-CDEF-001122334455}";

SCHEDULE_OBJECT Schedule() {
  SCHEDULE_OBJECT s;
  s.bstrName = u"never leaves";
  s.bstrApplication = u"snapshot";
  s.bstrObjectID = u"vol-17";
  s.dwTaskOpCode = 4294967295u;
  s.bstrWrapperBinaryName = u"/usr/bin/wrap";
  s.bstrXMLFilePathName = u"C:\\jobs\\a.xml";
  s.bstrParameters = u"-x \"caf\u00e9\"";
  s.bstrPreScript = u"pre";
  s.bUseGUID = 7;
  return s;
}

const char16_t kFormA[] =
    u"<QxSchedService><AppName>snapshot</AppName><ObjID>vol-17</ObjID><TaskOpcode>4294967295</TaskOpcode>"
    u"<Wrapper>/usr/bin/wrap</Wrapper><XMLFilePath>C:\\jobs\\a.xml</XMLFilePath><Parameters>-x \"caf\u00e9\"</Parameters>"
    u"<PreScript>pre</PreScript><PostScript></PostScript><UseGuid>1</UseGuid><DATA1>0123ABCD</DATA1><DATA2>4567</DATA2>"
    u"<DATA3>89AB</DATA3><DATA4>CDEF</DATA4><DATA5>001122334455</DATA5><MSG_TYPE>1</MSG_TYPE></QxSchedService>";
const char16_t kFormB[] =
    u"<QxSchedService><DATA1>0123ABCD</DATA1><DATA2>4567</DATA2><DATA3>89AB</DATA3><DATA4>CDEF</DATA4>"
    u"<DATA5>001122334455</DATA5><MSG_TYPE>2</MSG_TYPE></QxSchedService>";

TEST(CreateXMLString, WritesTheThreeForms) {
  std::u16string xml;
  EXPECT_EQ(CreateXMLString(Schedule(), kBodyId, MSG_CREATE, xml), platform::Utf8FromWide(kFormA).size() + 1);
  EXPECT_EQ(xml, kFormA);
  xml.clear();
  EXPECT_EQ(CreateXMLString(kBodyId, MSG_DELETE, xml), platform::Utf8FromWide(kFormB).size() + 1);
  EXPECT_EQ(xml, kFormB);
  xml.clear();
  const std::u16string_view formC =
      u"<QxSchedService><OpData>touch /tmp/x /<OpData><MSG_TYPE>256</MSG_TYPE></QxSchedService>";
  EXPECT_EQ(CreateXMLString(u"touch /tmp/x ", MSG_PERFORM, xml), formC.size() + 1);
  EXPECT_EQ(xml, formC);
}

TEST(CreateXMLString, EscapesNothing) {
  std::u16string xml;
  EXPECT_NE(CreateXMLString(u"a & b < c", MSG_PERFORM, xml), 0u);
  EXPECT_NE(xml.find(u"<OpData>a & b < c/<OpData>"), std::u16string::npos);
}

TEST(CreateXMLString, LogsTheTextAndAFailedMeasure) {
  CapturedServiceLog log;
  std::u16string xml;
  (void)CreateXMLString(u"100%", MSG_PERFORM, xml);
  EXPECT_THAT(log.texts(), ElementsAre("XML string created is <QxSchedService><OpData>100%/<OpData><MSG_TYPE>256</MSG_TYPE>"
                                       "</QxSchedService>"));
  const FaultPlan plan = FaultPlan::FailCall(Operation::kConvertText, 1, 1113);
  EXPECT_EQ(CreateXMLString(kBodyId, MSG_DELETE, xml), 0u);
  EXPECT_TRUE(log.texts().back().starts_with("Failed CreateXMLString:WideCharToMultiByte with error "));
}

TEST(ParseXMLContent, TakesBothFormsApart) {
  SCHEDULE_OBJECT schedule;
  BSTR id;
  std::uint32_t type = 0;
  ASSERT_EQ(ParseXMLContent(kFormA, schedule, &id, type), 0u);
  SCHEDULE_OBJECT expected = Schedule();
  expected.bstrName.reset();
  expected.bstrPostScript = u"";
  expected.bUseGUID = 1;
  EXPECT_EQ(schedule, expected);
  EXPECT_EQ(id, kIdText);
  EXPECT_EQ(type, 1u);
  id.reset();
  ASSERT_EQ(ParseXMLContent(kFormB, &id, type), 0u);
  EXPECT_EQ(id, kIdText);
  EXPECT_EQ(type, 2u);
}

TEST(ParseXMLContent, FindsElementsInAnyOrderAmongOthersAndTakesTheFirst) {
  const char16_t kText[] =
      u"<R><MSG_TYPE>9</MSG_TYPE><New>1</New><DATA5>e</DATA5><DATA2>b</DATA2><DATA1>a</DATA1><DATA1>z</DATA1>"
      u"<DATA3>c</DATA3><DATA4>d</DATA4></R>";
  BSTR id;
  std::uint32_t type = 0;
  ASSERT_EQ(ParseXMLContent(kText, &id, type), 0u);
  EXPECT_EQ(id, u"{a-b-c-d-e}");
  EXPECT_EQ(type, 9u);
}

TEST(ParseXMLContent, WhatNoParserTakesLeavesTheOutputsUnset) {
  for (const char16_t* text : {u"<R><AppName>A&B</AppName></R>", u"", u"<R>"}) {
    CapturedServiceLog log;
    SCHEDULE_OBJECT schedule;
    BSTR id;
    std::uint32_t type = 77;
    EXPECT_EQ(ParseXMLContent(text, schedule, &id, type), 0u);
    EXPECT_FALSE(id);
    EXPECT_EQ(type, 77u);
    EXPECT_EQ(schedule, SCHEDULE_OBJECT());
    EXPECT_THAT(log.texts(), ElementsAre("ParseXMLContent Failed to load the XML String"));
  }
  CapturedServiceLog log;
  BSTR id;
  std::uint32_t type = 0;
  EXPECT_EQ(ParseXMLContent(nullptr, &id, type), 0u);
  EXPECT_FALSE(id);
  EXPECT_THAT(log.texts(), ElementsAre());
}

TEST(ParseXMLContent, AMissingElementEndsItWithOne) {
  const std::u16string whole = kFormA;
  for (const char16_t* tag : {u"AppName", u"ObjID", u"TaskOpcode", u"Wrapper", u"XMLFilePath", u"Parameters",
                              u"PreScript", u"PostScript", u"UseGuid", u"DATA1", u"DATA2", u"DATA3", u"DATA4", u"DATA5",
                              u"MSG_TYPE"}) {
    CapturedServiceLog log;
    std::u16string text = whole;
    const std::u16string name(tag);
    text.replace(text.find(u"<" + name + u">") + 1, 1, u"_");
    text.replace(text.find(u"</" + name + u">") + 2, 1, u"_");
    SCHEDULE_OBJECT schedule;
    BSTR id;
    std::uint32_t type = 0;
    EXPECT_EQ(ParseXMLContent(text.c_str(), schedule, &id, type), 1u);
    EXPECT_FALSE(id);
    EXPECT_EQ(log.texts().back(), "ERROR: There is no element with tag name " + platform::Utf8FromWide(name));
  }
}

TEST(ParseXMLContent, LogsWhatItFinds) {
  CapturedServiceLog log;
  BSTR id;
  std::uint32_t type = 0;
  ASSERT_EQ(ParseXMLContent(kFormB, &id, type), 0u);
  EXPECT_THAT(log.texts(),
              ElementsAre("DATA1 loaded from XML string is 0123ABCD", "DATA2 loaded from XML string is 4567",
                          "DATA3 loaded from XML string is 89AB", "DATA4 loaded from XML string is CDEF",
                          "DATA5 loaded from XML string is 001122334455", "MSG_TYPE loaded from XML string is 2"));
}

TEST(ParseXMLContent, EachPlatformFailureHasItsLineAndCode) {
  constexpr std::uint32_t kCode = 0x80004005;
  const struct {
    Operation operation;
    int call;
    std::uint32_t result;
    const char* text;
  } kCases[] = {
      {Operation::kCoInitialize, 1, 0, "ParseXMLContent: CoInitialize returned with value: 80004005"},
      {Operation::kXmlCreate, 1, kCode, "ParseXMLContent: CreateInstance failed with error  80004005"},
      {Operation::kXmlLoad, 1, 0, "ParseXMLContent Failed to load the XML String"},
      {Operation::kXmlText, 3, kCode, "Failed to get the DATA3, error = 80004005"},
      {Operation::kXmlFind, 2, kCode, "ParseXMLContent:Caught some Exception"},
  };
  for (const auto& c : kCases) {
    CapturedServiceLog log;
    BSTR id;
    std::uint32_t type = 0;
    const FaultPlan plan = FaultPlan::FailCall(c.operation, c.call, kCode);
    EXPECT_EQ(ParseXMLContent(kFormB, &id, type), c.result) << c.text;
    EXPECT_THAT(log.texts(), Contains(c.text));
    EXPECT_EQ(id.has_value(), c.operation == Operation::kCoInitialize) << c.text;
  }
  BSTR id;
  std::uint32_t type = 0;
  EXPECT_EQ(ParseXMLContent(kFormB, nullptr, type), 0x80004003u);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 1, 8, platform::kOnce, "ParseXMLContent");
  EXPECT_EQ(ParseXMLContent(kFormB, &id, type), 0x8007000Eu);
  EXPECT_FALSE(id);
}

TEST(FindOperationData, CutsAtTheFirstEndMark) {
  const struct {
    const char16_t* text;
    std::optional<std::u16string_view> data;
  } kCases[] = {
      {u"<Q><OpData>ls -l/<OpData><M>1</M>", u"ls -l"},
      {u"<Q><OpData>echo /<OpData> more/<OpData>", u"echo "},  // a command that holds the mark
      {u"<OpData>/<OpData>", u""},
      {u"<OpData>ls", std::nullopt},
      {u"ls/<OpData>", std::nullopt},
      {u"/<OpData><OpData>ls", std::nullopt},  // the end mark comes first
      {u"", std::nullopt},
      {u"<OpData", std::nullopt},
  };
  for (const auto& c : kCases) EXPECT_EQ(FindOperationData(c.text), c.data) << platform::Utf8FromWide(c.text);
}

}  // namespace
}  // namespace qx
