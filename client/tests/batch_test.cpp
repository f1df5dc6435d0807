#include "client/batch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "foundation/include/zfclog.h"
#include "platform/testing/virtual_clock.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;

class Batch : public testing::Test {
 protected:
  ~Batch() override { ZepFoundation::SetServiceLogWriter(m_writerBefore); }

  static json Answer(const std::string& line) { return json::parse(qx::AnswerBatchLine(line)); }

  ZepFoundation::ServiceLogWriter* m_writerBefore =
      ZepFoundation::SetServiceLogWriter(ZepFoundation::NullServiceLogWriter());
  platform::ScopedZone m_zone{"UTC0"};
  platform::VirtualClock m_clock{1714651200};  // Thursday 2024-05-02 12:00:00
};

// Last Friday of the month, 10:00 to 11:00.
const std::string kLastFriday =
    R"("record":{"stScheduleRules":{"lStartTime":36000,"lEndTime":39600,"dwDaysOfWeek4":[0,0,0,0,0,1]}})";

TEST_F(Batch, AnswersInTheOrderOfTheContractsFields) {
  EXPECT_EQ(qx::AnswerBatchLine(R"({"id":7,)" + kLastFriday + R"(,"ref":1714651200})"),
            R"({"id":7,"validate":"0x00000000","windows":[{"hr":"0x00000000","start":1717149600,"end":1717153200,)"
            R"("last":0,"match":2}]})");
}

TEST_F(Batch, AsksEachWindowFromTheStartOfTheOneBefore) {
  const json answer = Answer("{" + kLastFriday + R"(,"ref":1714651200,"count":3})");
  ASSERT_EQ(answer["windows"].size(), 3u);
  EXPECT_EQ(answer["windows"][0]["start"], 1717149600);  // 2024-05-31
  EXPECT_EQ(answer["windows"][1]["start"], 1719568800);  // 2024-06-28
  EXPECT_EQ(answer["windows"][2]["start"], 1721988000);  // 2024-07-26
  EXPECT_EQ(answer["id"], nullptr);
}

TEST_F(Batch, TellsWhetherATimeIsInAWindowOnlyWhenAsked) {
  EXPECT_EQ(Answer("{" + kLastFriday + R"(,"at":1717151400})")["in_window"], 1);
  EXPECT_EQ(Answer("{" + kLastFriday + R"(,"at":1717149600})")["in_window"], 0);
  EXPECT_FALSE(Answer("{" + kLastFriday + "}").contains("in_window"));
}

TEST_F(Batch, ComputesWindowsWhateverTheValidationSays) {
  const json none = Answer(R"({"record":{},"ref":1714651200})");
  EXPECT_EQ(none["validate"], "0x8004020A");
  ASSERT_EQ(none["windows"].size(), 1u);
  EXPECT_EQ(none["windows"][0], json::parse(R"({"hr":"0x00000001","start":-1,"end":-1,"last":0,"match":0})"));
  const json tooLong =
      Answer(R"({"record":{"stScheduleRules":{"lStartTime":36000,"lEndTime":39600,"bRestartInterval":1,)"
             R"("dwRestartInterval":7200000,"adwDaysOfMonth":[1]}},"ref":1714651200})");
  EXPECT_EQ(tooLong["validate"], "0x8004020C");
  EXPECT_EQ(tooLong["windows"][0]["hr"], "0x00000000");
  EXPECT_EQ(tooLong["windows"][0]["start"], 1717236000);  // 2024-06-01 10:00
  EXPECT_EQ(tooLong["windows"][0]["match"], 4);
}

TEST_F(Batch, EndsTheListWithTheWindowThatFailed) {
  // One include date, 2024-05-03.
  const json answer =
      Answer(R"({"record":{"stScheduleRules":{"lStartTime":36000,"lEndTime":39600,"alIncludeDates":[1714737600]}},)"
             R"("ref":1714651200,"count":5})");
  ASSERT_EQ(answer["windows"].size(), 2u);
  EXPECT_EQ(answer["windows"][0], json::parse(R"({"hr":"0x00000000","start":1714730400,"end":1714734000,"last":1,)"
                                              R"("match":1})"));
  EXPECT_EQ(answer["windows"][1]["hr"], "0x00000001");
  EXPECT_EQ(answer["windows"][1]["start"], -1);
}

TEST_F(Batch, GivesNullForOutsThatStayUnwritten) {
  const json answer = Answer(R"({"fresh":true,"ref":2145916800})");
  ASSERT_EQ(answer["windows"].size(), 1u);
  EXPECT_EQ(answer["windows"][0]["hr"], "0x80000003");
  EXPECT_EQ(answer["windows"][0]["start"], nullptr);
  EXPECT_EQ(answer["windows"][0]["end"], nullptr);
  EXPECT_EQ(answer["windows"][0]["last"], 0);
}

TEST_F(Batch, AsksAFreshObjectWithoutARecord) {
  const json answer = Answer(R"({"fresh":true,"ref":1714651200})");
  EXPECT_EQ(answer["validate"], "0x00000000");
  EXPECT_EQ(answer["windows"][0]["start"], 1714694400);  // the next midnight
  EXPECT_EQ(answer["windows"][0]["match"], 2);
}

TEST_F(Batch, HandsAnchorAndEffectiveDateToTheQuery) {
  const std::string record =
      R"("record":{"stScheduleRules":{"lStartTime":36000,"lEndTime":39600,"bRepeatInterval":1,"dwRepeatInterval":3,)"
      R"("lAnchorDate":1704067200,"bEffectiveDate":1,"lEffectiveDate":1704067200}})";
  // Anchor 2024-01-01 (a Monday), reference 2024-01-05 09:00.
  EXPECT_EQ(Answer("{" + record + R"(,"ref":1704445200})")["windows"][0]["start"], 1704621600);  // 01-07
  EXPECT_EQ(Answer("{" + record + R"(,"ref":1704445200,"anchor":1704153600})")["windows"][0]["start"],
            1704448800);  // 01-05
  EXPECT_EQ(Answer("{" + record + R"(,"ref":1704445200,"effective":1706745600})")["windows"][0]["start"],
            1706954400);  // 02-03: the phase stays that of the anchor
}

TEST_F(Batch, TakesTheProcessesZone) {
  const platform::ScopedZone east("ZZZ-2");
  EXPECT_EQ(Answer(R"({"fresh":true,"ref":1714651200})")["windows"][0]["start"], 1714687200);
}

TEST_F(Batch, NamesWhatIsMalformed) {
  struct Case {
    std::string line;
    const char* answer;
  };
  const Case cases[] = {
      {"{", R"({"id":null,"error":"the line isn't JSON, byte 2"})"},
      {"[1]", R"({"id":null,"error":"the line isn't an object"})"},
      {R"({"id":"a"})", R"({"id":"a","error":"one of record and fresh is needed"})"},
      {R"({"id":[1,{"x":2.5}],"fresh":false})", R"({"id":[1,{"x":2.5}],"error":"one of record and fresh is needed"})"},
      {R"({"id":1,"fresh":true,"record":{}})", R"({"id":1,"error":"one of record and fresh is needed"})"},
      {R"({"id":1,"fresh":1})", R"({"id":1,"error":"fresh isn't true or false"})"},
      {R"({"id":1,"fresh":true,"ref":"x"})", R"({"id":1,"error":"ref isn't a whole number"})"},
      {R"({"id":1,"fresh":true,"ref":1.5})", R"({"id":1,"error":"ref isn't a whole number"})"},
      {R"({"id":1,"fresh":true,"at":18446744073709551615})", R"({"id":1,"error":"at is out of range"})"},
      {R"({"id":1,"fresh":true,"count":100001})",
       R"-({"id":1,"error":"count is out of range (allowed: 0 to 100000)"})-"},
      {R"({"id":1,"fresh":true,"count":-1})", R"-({"id":1,"error":"count is out of range (allowed: 0 to 100000)"})-"},
      {R"({"id":1,"fresh":true,"anker":1})", R"({"id":1,"error":"anker is unknown"})"},
      {R"({"id":1,"record":{"bstrNmae":"x"}})", R"({"id":1,"error":"bstrNmae is unknown"})"},
      {R"({"id":1,"record":7})", R"({"id":1,"error":"the record isn't an object"})"},
      {"{\"id\":\"\xff\",\"fresh\":true}", R"({"id":null,"error":"the line isn't JSON, byte 8"})"},
      {"{\"id\":" + std::string(100000, '['), R"({"id":null,"error":"the line nests too deeply"})"},
  };
  for (const Case& c : cases) EXPECT_EQ(qx::AnswerBatchLine(c.line), c.answer);
}

TEST_F(Batch, TakesANullAsAnAbsentQuestionAndNoWindows) {
  EXPECT_EQ(qx::AnswerBatchLine(R"({"id":1,"fresh":true,"count":0,"at":null})"),
            R"({"id":1,"validate":"0x00000000","windows":[]})");
}

TEST_F(Batch, GivesTheIdBackAsItCame) {
  for (const char* id : {"null", "true", "-5", "18446744073709551615", "1.5", "\"\\u00e9\"", "[{}]", "{\"a\":[1]}"}) {
    const json answer = Answer(std::string("{\"fresh\":true,\"count\":0,\"id\":") + id + "}");
    EXPECT_EQ(answer["id"], json::parse(id));
  }
}

TEST_F(Batch, ReadsOnBehindAMalformedLine) {
  std::istringstream in(
      "not json\n"
      "\n"
      "{\"id\":2,\"fresh\":true,\"count\":0}\r\n" +
      std::string(qx::kBatchLongestLine + 10, 'x') +
      "\n"
      "{\"id\":4,\"fresh\":true,\"count\":0}");
  std::ostringstream out;
  EXPECT_TRUE(qx::RunBatch(in, out));
  EXPECT_EQ(out.str(),
            "{\"id\":null,\"error\":\"the line isn't JSON, byte 2\"}\n"
            "{\"id\":2,\"validate\":\"0x00000000\",\"windows\":[]}\n"
            "{\"id\":null,\"error\":\"the line is too long (allowed: 4194304 bytes)\"}\n"
            "{\"id\":4,\"validate\":\"0x00000000\",\"windows\":[]}\n");
}

// Counts the flushes that reach it and what was written before each.
class FlushCounter : public std::stringbuf {
 public:
  std::vector<std::string> m_seen;

 protected:
  int sync() override {
    m_seen.push_back(str());
    return 0;
  }
};

TEST_F(Batch, FlushesBehindEachAnswer) {
  std::istringstream in("{\"fresh\":true,\"count\":0}\n{\"fresh\":true,\"count\":0}\n");
  FlushCounter buffer;
  std::ostream out(&buffer);
  EXPECT_TRUE(qx::RunBatch(in, out));
  ASSERT_EQ(buffer.m_seen.size(), 2u);
  EXPECT_EQ(buffer.m_seen[0].back(), '\n');
  EXPECT_EQ(buffer.m_seen[1].size(), 2 * buffer.m_seen[0].size());
}

TEST_F(Batch, StopsWhenTheOutputTakesNoMore) {
  std::istringstream in("{\"fresh\":true}\n{\"fresh\":true}\n");
  std::ostream closed(nullptr);
  EXPECT_FALSE(qx::RunBatch(in, closed));
}

TEST_F(Batch, AnswersAHundredThousandWindows) {
  const json answer =
      Answer(R"({"record":{"stScheduleRules":{"lStartTime":1,"dwTimeDuration":86400000,"bRestartInterval":1,)"
             R"("dwRestartInterval":1000,"adwDaysOfMonth":[1]}},"ref":1714651200,"count":100000})");
  EXPECT_EQ(answer["windows"].size(), 100000u);
  EXPECT_EQ(answer["windows"].back()["hr"], "0x00000000");
}

}  // namespace
