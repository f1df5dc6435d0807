#include "client/schedule_keys.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/schedule_file.h"
#include "foundation/include/zfclog.h"
#include "platform/testing/virtual_clock.h"

namespace {

using qx::AssignKey;
using qx::AsServiceKeeps;
using qx::CompareKeys;
using qx::KeysOf;
using qx::ScheduleKey;
using qx::TextOfKeys;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ScheduleKeys : public testing::Test {
 protected:
  ~ScheduleKeys() override { ZepFoundation::SetServiceLogWriter(m_writerBefore); }
  static SCHEDULE_OBJECT Parse(const std::string& text) {
    const auto file = qx::ParseScheduleFile(text, {platform::CurrentZone(), platform::NowSeconds(), true, {}});
    for (const auto& finding : file.findings) EXPECT_NE(finding.severity, qx::Severity::kError) << finding.text;
    return file.record;
  }
  static std::vector<ScheduleKey> Keys(const std::string& text) { return KeysOf(Parse(text), platform::CurrentZone()); }

  platform::ScopedZone m_zone{"CET-1CEST,M3.5.0,M10.5.0/3"};
  platform::VirtualClock m_clock{1796040000};  // Monday 2026-11-30 13:00:00 +0100
  ZepFoundation::ServiceLogWriter* m_writerBefore =
      ZepFoundation::SetServiceLogWriter(ZepFoundation::NullServiceLogWriter());
};

const std::string kFull =
    "name = \"n \\\"q\\\" = x\"\napplication = \"app\"\ntask_code = 7\n"
    "job.wrapper = \"/bin/true\"\njob.parameters = \"-v\"\njob.pass_id = true\n"
    "window.start = \"22:00\"\nwindow.duration = \"36m\"\nwindow.restart = \"10m\"\n"
    "days.effective = 2026-12-01\ndays.last = [\"fri\"]\ndays.every = [\"mon\"]\ndays.of_month = [1, \"last\"]\n"
    "days.repeat = { every = 14, anchor = 2026-12-01 }\ndays.include = [2026-12-28]\ndays.exclude = [2026-12-25]\n";

TEST_F(ScheduleKeys, NameEveryValueOfARecord) {
  EXPECT_THAT(
      Keys(kFull),
      ElementsAre(ScheduleKey{"name", "\"n \\\"q\\\" = x\""}, ScheduleKey{"application", "\"app\""},
                  ScheduleKey{"task_code", "7"}, ScheduleKey{"job.wrapper", "\"/bin/true\""},
                  ScheduleKey{"job.parameters", "\"-v\""}, ScheduleKey{"job.pass_id", "true"},
                  ScheduleKey{"window.start", "\"22:00\""}, ScheduleKey{"window.duration", "\"36m\""},
                  ScheduleKey{"window.restart", "\"10m\""}, ScheduleKey{"days.effective", "2026-12-01"},
                  ScheduleKey{"days.last", "[\"fri\"]"}, ScheduleKey{"days.every", "[\"mon\"]"},
                  ScheduleKey{"days.of_month", "[1, \"last\"]"}, ScheduleKey{"days.repeat.every", "14"},
                  ScheduleKey{"days.repeat.anchor", "2026-12-01"}, ScheduleKey{"days.include", "[2026-12-28]"},
                  ScheduleKey{"days.exclude", "[2026-12-25]"}));
}

TEST_F(ScheduleKeys, MakeTheSameRecordAgain) {
  const auto keys = Keys(kFull);
  EXPECT_EQ(KeysOf(Parse(TextOfKeys(keys)), platform::CurrentZone()), keys);
}

TEST_F(ScheduleKeys, CountEmptyTextsAndTheOrderToRunAsNothing) {
  EXPECT_TRUE(CompareKeys(Keys("job.wrapper = \"w\"\njob.parameters = \"\"\njob.run_now = true\n"),
                          Keys("job.wrapper = \"w\"\n"))
                  .empty());
}

TEST_F(ScheduleKeys, OfARecordAreThoseThatTheServiceKeepsButForTheWindowsEnd) {
  const SCHEDULE_OBJECT record = Parse(kFull);
  const SCHEDULE_OBJECT kept = AsServiceKeeps(record);
  const auto differences =
      CompareKeys(KeysOf(record, platform::CurrentZone()), KeysOf(kept, platform::CurrentZone()));
  ASSERT_EQ(differences.size(), 2u);  // the service gives an end back for each duration
  EXPECT_EQ(differences[0].key, "window.duration");
  EXPECT_EQ(differences[1].key, "window.end");
  EXPECT_EQ(differences[1].after, "\"22:36\"");
  EXPECT_THAT(CompareKeys(KeysOf(kept, platform::CurrentZone()),
                          KeysOf(AsServiceKeeps(kept), platform::CurrentZone())),
              IsEmpty());
}

TEST_F(ScheduleKeys, TellWhatTheServiceWouldDrop) {
  SCHEDULE_OBJECT record = Parse(kFull);
  const auto whole = KeysOf(AsServiceKeeps(record), platform::CurrentZone());
  record.stScheduleRules.dwRestartInterval = 5;  // below a second: the setter refuses it
  const auto differences = CompareKeys(whole, KeysOf(AsServiceKeeps(record), platform::CurrentZone()));
  ASSERT_EQ(differences.size(), 1u);
  EXPECT_EQ(differences[0].key, "window.restart");
}

TEST_F(ScheduleKeys, CompareAsChangedTakenAwayAndNew) {
  const auto differences = CompareKeys(Keys("job.wrapper = \"a\"\nname = \"x\"\n"),
                                       Keys("job.wrapper = \"b\"\njob.parameters = \"-v\"\n"));
  ASSERT_EQ(differences.size(), 3u);
  EXPECT_EQ(differences[0].key, "name");
  EXPECT_EQ(differences[0].after, std::nullopt);
  EXPECT_EQ(differences[1].before, "\"a\"");
  EXPECT_EQ(differences[1].after, "\"b\"");
  EXPECT_EQ(differences[2].key, "job.parameters");
  EXPECT_EQ(differences[2].before, std::nullopt);
}

TEST_F(ScheduleKeys, AreAssignedOneByOne) {
  struct Case {
    int line;
    const char* assignment;
    const char* key;
    const char* value;  // null: taken away
  };
  const Case cases[] = {
      {__LINE__, "window.start=23:30", "window.start", "\"23:30\""},
      {__LINE__, "name=a \"b\" = c\\d", "name", "\"a \\\"b\\\" = c\\\\d\""},
      {__LINE__, "window.restart=", "window.restart", nullptr},
      {__LINE__, "task_code=9", "task_code", "9"},
      {__LINE__, "days.repeat.every=7", "days.repeat.every", "7"},
      {__LINE__, "days.effective=2027-01-01", "days.effective", "2027-01-01"},
      {__LINE__, "days.every=mon,fri", "days.every", "[\"mon\", \"fri\"]"},
      {__LINE__, "days.every=[\"tue\"]", "days.every", "[\"tue\"]"},
      {__LINE__, "days.every=", "days.every", nullptr},
      {__LINE__, "days.every+=fri", "days.every", "[\"mon\", \"fri\"]"},
      {__LINE__, "days.every+=mon", "days.every", "[\"mon\"]"},
      {__LINE__, "days.every-=mon", "days.every", nullptr},
      {__LINE__, "days.of_month-=last", "days.of_month", "[1]"},
      {__LINE__, "days.of_month=15,last", "days.of_month", "[15, \"last\"]"},
      {__LINE__, "days.exclude+=2026-12-26, 2026-12-27", "days.exclude", "[2026-12-25, 2026-12-26, 2026-12-27]"},
  };
  for (const Case& c : cases) {
    auto keys = Keys(kFull);
    std::string key;
    EXPECT_EQ(AssignKey(keys, c.assignment, key), "") << "line " << c.line;
    EXPECT_EQ(key, c.key) << "line " << c.line;
    const auto at = std::find_if(keys.begin(), keys.end(), [&](const ScheduleKey& k) { return k.name == c.key; });
    EXPECT_EQ(at == keys.end(), c.value == nullptr) << "line " << c.line;
    if (at != keys.end() && c.value != nullptr) {
      EXPECT_EQ(at->value, c.value) << "line " << c.line;
    }
  }
}

TEST_F(ScheduleKeys, AnEndAndADurationTakeEachOthersPlace) {
  auto keys = Keys(kFull);
  std::string key;
  ASSERT_EQ(AssignKey(keys, "window.end=23:00", key), "");
  EXPECT_THAT(TextOfKeys(keys), testing::Not(HasSubstr("duration")));
  ASSERT_EQ(AssignKey(keys, "window.duration=1h", key), "");
  EXPECT_THAT(TextOfKeys(keys), testing::Not(HasSubstr("window.end")));
}

TEST_F(ScheduleKeys, RefuseWhatIsNoAssignment) {
  const std::pair<const char*, const char*> cases[] = {
      {"window.start", "is no KEY=VALUE"},
      {"=x", "is no KEY=VALUE"},
      {"window.strat=1", "unknown key \"window.strat\" (allowed: name, description,"},
      {"job.run_now=true", "unknown key"},
      {"name+=x", "name is no list"},
      {"days.every-=sat", "days.every has no \"sat\""},
      {"task_code=7\nname = 1", "task_code is a value of one line"},
  };
  for (const auto& [assignment, expected] : cases) {
    auto keys = Keys(kFull);
    std::string key;
    EXPECT_THAT(AssignKey(keys, assignment, key), HasSubstr(expected)) << assignment;
    EXPECT_EQ(keys, Keys(kFull)) << assignment;
  }
}

TEST_F(ScheduleKeys, KnowWhatIsFixed) {
  EXPECT_EQ(qx::ChangedFixedKey({{"name", "a", "b"}, {"object_id", "a", "b"}}), "object_id");
  EXPECT_EQ(qx::ChangedFixedKey({{"name", "a", "b"}}), std::nullopt);
  for (const char* key : {"application", "object_id", "task_code", "job.pass_id"}) EXPECT_TRUE(qx::IsFixedKey(key));
}

// A list element may come with anything between its commas; nothing of it becomes a key of its own.
TEST_F(ScheduleKeys, KeepALineEndOfAListInItsList) {
  auto keys = Keys(kFull);
  std::string key;
  if (AssignKey(keys, "days.exclude=2026-12-26\nname = \"other\"", key).empty()) {
    const auto file = qx::ParseScheduleFile(TextOfKeys(keys), {platform::CurrentZone(), platform::NowSeconds(), true, {}});
    EXPECT_TRUE(qx::HasErrors(file.findings));
  }
}

}  // namespace
