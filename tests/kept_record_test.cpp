// What qxsched says of a record before it is sent, beside what the service does with it.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "client/cli_offline.h"
#include "client/schedule_file.h"
#include "client/schedule_json.h"
#include "client/schedule_keys.h"
#include "client/tests/random_records.h"
#include "service/tests/service_fixture.h"

namespace {

using qx::testing::kPresent;

class KeptRecord : public qx::testing::ServiceFixture, protected RandomRecords {
 protected:
  KeptRecord() : ServiceFixture("CET-1CEST,M3.5.0,M10.5.0/3"), RandomRecords(kPresent, m_folder) {}

  void StartAnew() {
    DoCleanUp();
    ASSERT_EQ(platform::CloseRegistryStore(), 0u);
    ASSERT_EQ(platform::OpenRegistryStore(m_folder + "/registry.db"), 0u);
    ASSERT_EQ(PopulateJobList(), kStatusOk);
  }
  static std::string Shown(const SCHEDULE_OBJECT& record) { return qx::RecordToJson(record).dump(1); }
  // The texts of a key come back empty where they weren't given.
  static SCHEDULE_OBJECT AsTold(const SCHEDULE_OBJECT& sent) {
    SCHEDULE_OBJECT record = WithAllTexts(qx::AsServiceKeeps(sent));
    record.bRunNow = 0;
    record.stScheduleRules.bLastDayOfMonth = 0;  // nobody reads it
    return record;
  }
};

TEST_F(KeptRecord, IsTakenOrRefusedAndGivenBackAsTheCommandLineSays) {
  std::map<Status, int> answers;
  for (int i = 0, cases = Cases(50); i < cases; ++i) {
    SCHEDULE_OBJECT sent = LikelyRecord();
    if (OneIn(3)) sent.stScheduleRules = AnyRecord().stScheduleRules;
    if (OneIn(4)) {  // a day at most, passed or to come
      const std::int32_t day = OneIn(3) ? 0 : Instant();
      sent.stScheduleRules = {};
      sent.stScheduleRules.alIncludeDates[0] = day;
    }
    SCOPED_TRACE("case " + std::to_string(i) + " of QX_SEED=" + std::to_string(Seed()));
    const std::string text = qx::WriteScheduleFile(sent, platform::CurrentZone());
    const qx::CheckedFile checked = qx::CheckText(text, true);
    // Of a file with a value that none may have, or a full list that loses its last date, nothing is said.
    const bool isFile = checked.status != kStatusOk || !qx::HasErrors(checked.findings);
    if (isFile) sent = checked.record;
    ScheduleGuid id{};
    const Status status = m_service.CreateSchedule(sent, id);
    ++answers[status];
    if (isFile) {
      EXPECT_EQ(status, checked.status) << text;
    }
    if (status == kStatusOk) {
      SCHEDULE_OBJECT told = AsTold(sent);
      const SCHEDULE_OBJECT read = ReadBack(id);
      EXPECT_EQ(Shown(read), Shown(told)) << text;
      const std::int64_t window = ListedWindow(id);
      EXPECT_EQ(window, told.lNextTimeWindow) << text;
      StartAnew();
      if (qx::CheckRecord(sent).empty()) {
        // The end of a day that nobody gave is 23:59:59.059; the file keeps whole seconds.
        std::uint32_t& duration = told.stScheduleRules.dwTimeDuration;
        if (sent.stScheduleRules.dwTimeDuration == 0) duration -= duration % 1000;
        EXPECT_EQ(Shown(ReadBack(id)), Shown(told)) << text;
        EXPECT_EQ(ListedWindow(id), window) << text;
      }
      EXPECT_EQ(m_service.DeleteSchedule(id), kStatusOk);
    }
    if (HasFailure()) return;
  }
  for (const Status status : {kStatusOk, kStatusNoRunDay, kStatusRestartTooLong, kStatusBackdated}) {
    EXPECT_GT(answers[status], 0) << std::hex << status;
  }
}

}  // namespace
