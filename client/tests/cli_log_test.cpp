#include "client/cli_log.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "client/tests/cli_fixture.h"
#include "platform/host.h"

namespace {

using nlohmann::json;
using qx::MergeLogFiles;
using testing::ElementsAre;
using testing::HasSubstr;

std::string Line(int hour, int second, const std::string& text) {
  char head[80];
  std::snprintf(head, sizeof head, "Mon Nov 30 %02d:00:%02d 2026 (PID:%5d, TID:%5d): ", hour, second, 41, 42);
  return head + text + "\r\n";
}
std::vector<std::string> Texts(const std::vector<std::string>& lines) {
  std::vector<std::string> texts;
  for (const std::string& line : lines) texts.push_back(line.substr(line.rfind(' ') + 1));
  return texts;
}

TEST(LogFiles, AreMergedByTheTimesOfTheirLines) {
  // The ring went 0, 1, 2; a start went on with 0.
  EXPECT_THAT(Texts(MergeLogFiles({Line(1, 0, "a") + Line(9, 0, "e") + Line(9, 1, "f"), Line(2, 0, "b") + Line(3, 0, "c"),
                                   Line(4, 0, "d")})),
              ElementsAre("a", "b", "c", "d", "e", "f"));
}

TEST(LogFiles, StayTogetherWithinOneSecond) {
  // 2 was full and the ring came to 0 within one second.
  EXPECT_THAT(Texts(MergeLogFiles({Line(5, 0, "c") + Line(5, 0, "d"), "", Line(4, 0, "a") + Line(5, 0, "b")})),
              ElementsAre("a", "b", "c", "d"));
}

TEST(LogFiles, KeepTheirOrderWhenTheClockIsSetBack) {
  EXPECT_THAT(Texts(MergeLogFiles({Line(5, 0, "a") + Line(3, 0, "b") + Line(6, 0, "d"), Line(5, 30, "c"), ""})),
              ElementsAre("a", "b", "c", "d"));
}

TEST(LogFiles, TakeALineWithoutAHeadWithTheOneAheadOfIt) {
  EXPECT_THAT(Texts(MergeLogFiles({Line(1, 0, "a") + "goes-on\r\n" + Line(3, 0, "c"), Line(2, 0, "b"), ""})),
              ElementsAre("a", "goes-on", "b", "c"));
}

TEST(LogFiles, LeaveALineThatIsStillWritten) {
  EXPECT_THAT(Texts(MergeLogFiles({Line(1, 0, "a") + "Mon Nov 30 02:00", "", ""})), ElementsAre("a"));
  EXPECT_THAT(MergeLogFiles({"", "", ""}), ElementsAre());
}

class LogCommand : public CliTest {
 protected:
  LogCommand() { std::filesystem::create_directory(Path("logs")); }
  void WriteLog(int index, const std::string& text) {
    std::ofstream(Path("logs/SchedService" + std::to_string(index) + ".log"), std::ios::binary) << text;
  }
  void AppendLog(int index, const std::string& text) {
    std::ofstream(Path("logs/SchedService" + std::to_string(index) + ".log"), std::ios::binary | std::ios::app) << text;
  }
  Result Log(std::vector<std::string> words = {}) {
    words.insert(words.begin(), {"--root", m_directory, "log"});
    return Run(words);
  }
};

// A peer's or a client's text may have put it there.
TEST_F(LogCommand, TakesALineWithATimeThatIsNoneForOneWithoutAHead) {
  const std::string foot = " 2026 (PID:1, TID:2): text";
  const std::string lines[] = {"Mon Nov 30 99999999999999999:00:00" + foot, "Mon Nov 30 24:00:00" + foot,
                               "Mon Nov 30 10:60:00" + foot, "Mon Nov 30 10:00:-5" + foot};
  for (const std::string& line : lines) {
    WriteLog(0, Line(1, 5, "a") + line + "\r\n" + Line(2, 0, "b"));
    EXPECT_EQ(Log().out, "2026-11-30 01:00:05  a\n" + line + "\n2026-11-30 02:00:00  b\n");
    const json shown = json::parse(Log({"--json", "-n", "2"}).out.substr(0, Log({"--json", "-n", "2"}).out.find('\n')));
    EXPECT_TRUE(shown["time"].is_null());
    EXPECT_EQ(shown["text"], line);
  }
}

TEST_F(LogCommand, ShowsTheLinesWithTheirTimes) {
  WriteLog(0, Line(1, 5, "a"));
  WriteLog(1, Line(2, 0, "b"));
  const Result result = Log();
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.out, "2026-11-30 01:00:05  a\n2026-11-30 02:00:00  b\n");
  EXPECT_EQ(Log({"-n", "1"}).out, "2026-11-30 02:00:00  b\n");
  EXPECT_EQ(Log({"-n", "0"}).out, "");
}

TEST_F(LogCommand, ShowsLinesAsJson) {
  WriteLog(0, Line(1, 0, "a text") + "no head\r\n");
  const Result result = Log({"--json"});
  std::istringstream lines(result.out);
  std::string line;
  ASSERT_TRUE(std::getline(lines, line));
  EXPECT_EQ(json::parse(line), (json{{"time", "2026-11-30 01:00:00"}, {"pid", 41}, {"tid", 42}, {"text", "a text"}}));
  ASSERT_TRUE(std::getline(lines, line));
  EXPECT_EQ(json::parse(line)["text"], "no head");
}

TEST_F(LogCommand, SendsNoControlCharactersToTheTerminal) {
  WriteLog(0, Line(1, 0, "a\033[31m"));
  EXPECT_EQ(Log().out, "2026-11-30 01:00:00  a\\x1B[31m\n");
}

TEST_F(LogCommand, EndsWith3WithoutALog) {
  const Result result = Log();
  EXPECT_EQ(result.exit, 3);
  EXPECT_THAT(result.err, testing::AllOf(HasSubstr("no service log: " + Path("logs/SchedService0.log")), HasSubstr("hint: ")));
}

TEST_F(LogCommand, FollowsTheRingFromFileToFile) {
  WriteLog(0, Line(1, 0, "a"));
  WriteLog(2, Line(3, 0, "old"));
  platform::SetStateDirectory(m_directory);
  std::istringstream in;
  std::ostringstream out, err;
  qx::CliContext context{in, out, err, {}};
  qx::LogArguments arguments;
  arguments.follow = true;
  int turn = 0;
  arguments.stop = [&] {
    switch (turn++) {
      case 1:
        AppendLog(0, Line(4, 0, "b") + "Mon Nov 30 05:00");
        break;
      case 2:
        AppendLog(0, ":00 2026 (PID:   41, TID:   42): c\r\n");  // the rest of a line
        break;
      case 3:
        WriteLog(1, Line(6, 0, "d"));
        break;
      case 4:
        WriteLog(2, "x\r\n");  // begun again, and shorter than before
        break;
      default:
        break;
    }
    return turn > 6;
  };
  EXPECT_EQ(qx::RunLog(context, arguments), 0);
  EXPECT_EQ(out.str(),
            "2026-11-30 01:00:00  a\n2026-11-30 03:00:00  old\n2026-11-30 04:00:00  b\n2026-11-30 05:00:00  c\n"
            "2026-11-30 06:00:00  d\nx\n");
}

TEST_F(LogCommand, FollowsALogThatBeginsLater) {
  platform::SetStateDirectory(m_directory);
  std::istringstream in;
  std::ostringstream out, err;
  qx::CliContext context{in, out, err, {}};
  qx::LogArguments arguments;
  arguments.follow = true;
  arguments.lines = 0;
  int turn = 0;
  arguments.stop = [&] {
    if (turn++ == 1) WriteLog(0, Line(1, 0, "first"));
    return turn > 3;
  };
  EXPECT_EQ(qx::RunLog(context, arguments), 0);
  EXPECT_EQ(out.str(), "2026-11-30 01:00:00  first\n");
}

}  // namespace
