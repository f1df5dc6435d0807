#include "client/history_recorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/guid.h"
#include "platform/testing/virtual_clock.h"
#include "platform/text.h"

namespace {

using namespace qx;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int64_t kRecorderNow = 1796040000;

class Recorder : public testing::Test {
 protected:
  static ScheduleGuid Id(std::uint32_t number = 1) { return {number, 0, 0x4001, {0x80}}; }
  static std::string Text(std::uint32_t number = 1) { return platform::Utf8FromWide(platform::GuidText(Id(number))); }
  static ListRow Row(std::int64_t next, std::uint32_t number = 1) {
    ListRow row;
    row.id = platform::GuidText(Id(number));
    row.name = u"daily";
    row.nextWindow = static_cast<std::int32_t>(next);
    return row;
  }
  // The link and the service are there, and the list was read once.
  void Begin(const std::vector<ListRow>& rows, std::uint32_t process = 100) {
    recorder.BeginHearing();
    recorder.ServiceUp(process);
    List(rows);
    (void)Take();
  }
  void List(const std::vector<ListRow>& rows) {
    recorder.BeginList();
    recorder.TakeList(rows);
    recorder.Settle();
  }
  void Wait(std::int64_t seconds) { clock.Advance(static_cast<std::uint64_t>(seconds) * 1000); }
  // "missed 1 10 86400 reason" of each entry since the last call; times from kRecorderNow, "-" for none.
  std::vector<std::string> Take() {
    std::vector<std::string> texts;
    const auto time = [](const std::optional<std::int64_t>& value) {
      if (!value) return std::string(" -");
      return *value < 0 ? std::string(" end") : " " + std::to_string(*value - kRecorderNow);
    };
    for (const HistoryEntry& entry : recorder.Entries()) {
      std::string text = HistoryKindText(entry.kind);
      if (!entry.schedule.empty()) text += time(entry.window) + time(entry.next);
      if (!entry.reason.empty()) text += " " + entry.reason;
      texts.push_back(text);
    }
    recorder.Clear();
    return texts;
  }

  platform::VirtualClock clock{kRecorderNow};
  HistoryRecorder recorder{{}};
};

TEST_F(Recorder, TakesTheWindowThatWasDueForTheOneThatWasLaunched) {
  Begin({Row(kRecorderNow + 10)});
  Wait(10);
  recorder.NextTimeWindow_Modify(Id(), kRecorderNow + 100);
  ASSERT_EQ(recorder.Entries().size(), 1u);
  EXPECT_EQ(recorder.Entries()[0], (HistoryEntry{kRecorderNow + 10, HistoryKind::kLaunch, Text(), "daily",
                                                 kRecorderNow + 10, kRecorderNow + 100, ""}));
  EXPECT_THAT(Take(), ElementsAre("launch 10 100"));
  Wait(90);
  recorder.NextTimeWindow_Modify(Id(), -1);
  EXPECT_THAT(Take(), ElementsAre("launch 100 end"));
  EXPECT_EQ(recorder.LastLaunch(), kRecorderNow + 100);
  EXPECT_EQ(recorder.NextWindow(), std::nullopt);
}

TEST_F(Recorder, NamesNoWindowWhereNoneWasDue) {
  Begin({Row(kRecorderNow + 10)});
  recorder.NextTimeWindow_Modify(Id(), kRecorderNow + 100);   // ahead of the window that was known
  recorder.NextTimeWindow_Modify(Id(2), kRecorderNow + 200);  // a schedule that nobody told of
  EXPECT_THAT(Take(), ElementsAre("launch - 100", "launch - 200"));
}

TEST_F(Recorder, TellsOfChanges) {
  Begin({Row(kRecorderNow + 10)});
  recorder.Schedule_Add(Id(2));
  recorder.Schedule_Modify(Id());
  recorder.Schedule_Delete(Id());
  EXPECT_THAT(Take(), ElementsAre("added - -", "modified - -", "deleted - -"));
  EXPECT_EQ(recorder.ScheduleCount(), 0u);
  EXPECT_EQ(recorder.Count(HistoryKind::kAdded), 1u);
}

TEST_F(Recorder, ReadsTheListAfterAChangeAndThenRests) {
  Begin({});
  EXPECT_FALSE(recorder.WantsList());
  recorder.Schedule_Add(Id());
  EXPECT_FALSE(recorder.WantsList());
  Wait(2);
  EXPECT_TRUE(recorder.WantsList());
  List({Row(kRecorderNow + 10)});
  EXPECT_FALSE(recorder.WantsList());
  EXPECT_EQ(recorder.NextWindow(), kRecorderNow + 10);
  recorder.Schedule_Add(Id(2));
  recorder.ServiceDown();
  Wait(100);
  EXPECT_FALSE(recorder.WantsList()) << "nobody is there to be asked";
}

TEST_F(Recorder, FindsAWindowThatTheServicePassedOver) {
  Begin({Row(kRecorderNow + 10)});
  Wait(10 + HistoryRecorder::kGraceSeconds - 1);
  EXPECT_FALSE(recorder.WantsList());
  Wait(1);
  EXPECT_TRUE(recorder.WantsList());
  List({Row(kRecorderNow + 100)});
  EXPECT_THAT(Take(), IsEmpty()) << "not yet believed";
  Wait(2);
  recorder.Settle();
  EXPECT_THAT(Take(), ElementsAre("missed 10 100 no launch was heard"));
}

TEST_F(Recorder, KeepsAWindowThatWasPassedOverWhenItsScheduleIsDeletedBeforeThatIsBelieved) {
  Begin({Row(kRecorderNow + 10)});
  Wait(16);
  List({Row(kRecorderNow + 100)});
  recorder.Schedule_Delete(Id());
  EXPECT_THAT(Take(), ElementsAre("missed 10 100 no launch was heard", "deleted - -"));
}

TEST_F(Recorder, DoesNotKnowOfADueWindowWhoseScheduleIsDeleted) {
  Begin({Row(kRecorderNow + 10), Row(kRecorderNow + 11, 2), Row(kRecorderNow - 1, 3)});
  Wait(10);
  for (const std::uint32_t number : {1, 2, 3}) recorder.Schedule_Delete(Id(number));
  EXPECT_THAT(Take(), ElementsAre("unknown 10 - the schedule is gone", "deleted - -", "deleted - -",
                                  "unknown -1 - nobody recorded", "deleted - -"));
}

TEST_F(Recorder, DoesNotKnowOfAPassedWindowWhoseScheduleIsGoneUnheard) {
  Begin({Row(kRecorderNow + 10)});
  Wait(16);
  List({Row(kRecorderNow + 100)});
  List({});
  Wait(5);
  recorder.Settle();
  EXPECT_THAT(Take(), ElementsAre("unknown 10 100 the schedule is gone"));
}

TEST_F(Recorder, BelievesALaunchThatIsHeardBehindTheList) {
  Begin({Row(kRecorderNow + 10)});
  Wait(16);
  List({Row(kRecorderNow + 100)});
  recorder.NextTimeWindow_Modify(Id(), kRecorderNow + 100);
  Wait(5);
  recorder.Settle();
  EXPECT_THAT(Take(), ElementsAre("launch 10 100"));
}

TEST_F(Recorder, TellsAWindowThatWasPassedOverFromTheLaunchOfTheNextOne) {
  Begin({Row(kRecorderNow + 10)});
  Wait(16);
  List({Row(kRecorderNow + 17)});
  Wait(1);
  recorder.NextTimeWindow_Modify(Id(), kRecorderNow + 24);
  EXPECT_THAT(Take(), ElementsAre("missed 10 17 no launch was heard", "launch 17 24"));
}

TEST_F(Recorder, TellsOfEachWindowOfManyThatWerePassedOver) {
  Begin({Row(kRecorderNow + 10)});
  for (std::int64_t window = 17; window < 29; window += 4) {
    Wait(window == 17 ? 16 : 4);
    recorder.BeginList();
    recorder.TakeList({Row(kRecorderNow + window)});
  }
  Wait(2);
  recorder.Settle();
  EXPECT_THAT(Take(), ElementsAre("missed 10 17 no launch was heard", "missed 17 21 no launch was heard",
                                  "missed 21 25 no launch was heard"));
}

TEST_F(Recorder, TakesNoLaunchForAWindowThatPassedBeforeTheServiceCame) {
  Begin({Row(kRecorderNow + 10)});
  Wait(5);
  recorder.ServiceDown();
  Wait(10);
  recorder.ServiceUp(101);
  Wait(1);
  recorder.NextTimeWindow_Modify(Id(), kRecorderNow + 100);  // ahead of the list
  EXPECT_THAT(Take(), ElementsAre("service-down", "service-up", "missed 10 100 the service was down", "launch - 100"));
}

TEST_F(Recorder, DoesNotKnowOfAWindowBehindWhichTheServiceLeft) {
  Begin({Row(kRecorderNow + 10)});
  Wait(16);
  List({Row(kRecorderNow + 100)});
  recorder.ServiceDown();
  EXPECT_THAT(Take(), ElementsAre("unknown 10 100 the service left the bus", "service-down"));
}

TEST_F(Recorder, WaitsWhileAWindowThatIsPastStaysInTheList) {
  Begin({Row(kRecorderNow + 10)});
  Wait(16);
  List({Row(kRecorderNow + 10)});
  Wait(30);
  EXPECT_FALSE(recorder.WantsList());
  Wait(30);
  EXPECT_TRUE(recorder.WantsList());
  recorder.NextTimeWindow_Modify(Id(), kRecorderNow + 100);  // late, but launched
  EXPECT_THAT(Take(), ElementsAre("launch 10 100"));
}

TEST_F(Recorder, TakesAnEventForNewerThanTheListThatItCameWith) {
  Begin({Row(kRecorderNow + 10)});
  Wait(10);
  recorder.BeginList();
  recorder.NextTimeWindow_Modify(Id(), kRecorderNow + 100);
  recorder.TakeList({Row(kRecorderNow + 10)});  // as it was before
  EXPECT_THAT(Take(), ElementsAre("launch 10 100"));
  EXPECT_EQ(recorder.NextWindow(), kRecorderNow + 100);
}

TEST_F(Recorder, KnowsThatWindowsBetweenTwoProcessesWereMissed) {
  Begin({Row(kRecorderNow + 10), Row(kRecorderNow + 500, 2)});
  Wait(5);
  recorder.ServiceDown();
  Wait(10);
  recorder.ServiceUp(101);
  EXPECT_TRUE(recorder.WantsList());
  List({Row(kRecorderNow + 100), Row(kRecorderNow + 500, 2)});
  EXPECT_THAT(Take(), ElementsAre("service-down", "service-up", "missed 10 100 the service was down"));
}

TEST_F(Recorder, DoesNotKnowOfWindowsWhileOneProcessHadNoLink) {
  Begin({Row(kRecorderNow + 10)});
  Wait(5);
  recorder.ServiceDown();
  Wait(10);
  recorder.ServiceUp(100);
  List({Row(kRecorderNow + 100)});
  EXPECT_THAT(Take(), ElementsAre("service-down", "service-up the same process: only its link to the bus was lost",
                                  "unknown 10 100 the service was not on the bus"));
}

TEST_F(Recorder, DoesNotKnowOfTheSecondInWhichTheServiceLeft) {
  Begin({Row(kRecorderNow + 10)});
  Wait(10);
  recorder.ServiceDown();
  Wait(10);
  recorder.ServiceUp(101);
  List({Row(kRecorderNow + 100)});
  EXPECT_THAT(Take(), ElementsAre("service-down", "service-up", "unknown 10 100 the service left the bus"));
}

TEST_F(Recorder, DoesNotKnowWhatPassedWhileNobodyRecorded) {
  HistoryRecorder later(std::map<std::string, KnownSchedule>{{Text(), {"daily", kRecorderNow - 5}},
                                                             {Text(2), {"other", kRecorderNow + 50}}});
  later.BeginHearing();
  later.ServiceUp(100);
  later.BeginList();
  later.TakeList({Row(kRecorderNow + 100), Row(kRecorderNow + 50, 2)});
  ASSERT_EQ(later.Entries().size(), 3u);
  EXPECT_EQ(later.Entries()[2], (HistoryEntry{kRecorderNow, HistoryKind::kUnknown, Text(), "daily", kRecorderNow - 5,
                                              kRecorderNow + 100, "nobody recorded"}));
}

TEST_F(Recorder, DoesNotKnowOfAServiceThatWasNotThereWhenItBegan) {
  recorder = HistoryRecorder(std::map<std::string, KnownSchedule>{{Text(), {"daily", kRecorderNow + 5}}});
  recorder.BeginHearing();
  Wait(10);
  recorder.ServiceUp(100);
  List({Row(kRecorderNow + 100)});
  EXPECT_THAT(Take(), ElementsAre("record-begin", "service-up", "unknown 5 100 the service was not on the bus"));
}

TEST_F(Recorder, MissesTheWindowsThatTheClockJumpedOver) {
  Begin({Row(kRecorderNow + 1000), Row(kRecorderNow + 9000, 2), Row(kRecorderNow + 2000, 3)});
  clock.SetWall(kRecorderNow + 5000);
  recorder.SystemTime_Change(
      2, {platform::GuidText(Id()), platform::GuidText(Id(2))},
      {static_cast<std::int32_t>(kRecorderNow + 87400), static_cast<std::int32_t>(kRecorderNow + 9000)});
  EXPECT_THAT(Take(),
              ElementsAre("clock-change 2 schedules have a window", "missed 1000 87400 the clock or the zone changed",
                          "missed 2000 end the clock or the zone changed"));
  EXPECT_EQ(recorder.NextWindow(), kRecorderNow + 9000);
}

// Whoever may use the service may have it tell of a change of its clock.
TEST_F(Recorder, TakesNoTextForASchedule) {
  Begin({Row(kRecorderNow + 1000)});
  const auto now = static_cast<std::int32_t>(kRecorderNow);
  const std::u16string id = platform::GuidText(Id());
  recorder.SystemTime_Change(4, {u"\x1b[31mred", u"", u"{0}", id}, {now, now, now, now + 1000});
  recorder.SystemTime_Change(1, {id}, {now + 1000});
  EXPECT_THAT(Take(), ElementsAre("clock-change 1 schedules have a window", "clock-change 1 schedules have a window"));
  EXPECT_EQ(recorder.ScheduleCount(), 1u);
}

TEST_F(Recorder, KnowsAScheduleByItsIdInEitherCase) {
  const ScheduleGuid id = {0xABCDEF01, 0, 0x4001, {0x80}};
  const auto row = [](std::int64_t next) {
    ListRow lower = Row(next);
    lower.id = u"{abcdef01-0000-4001-8000-000000000000}";
    return lower;
  };
  Begin({row(kRecorderNow + 10)});
  Wait(10);
  recorder.NextTimeWindow_Modify(id, static_cast<std::int32_t>(kRecorderNow + 100));
  List({row(kRecorderNow + 100)});
  Wait(6);
  List({row(kRecorderNow + 100)});
  EXPECT_THAT(Take(), ElementsAre("launch 10 100"));
  EXPECT_EQ(recorder.ScheduleCount(), 1u);
}

TEST_F(Recorder, HearsWhatComesAfterAClockThatWasSetBack) {
  Begin({Row(kRecorderNow + 1000)});
  clock.SetWall(kRecorderNow - 5000);
  recorder.SystemTime_Change(1, {platform::GuidText(Id())}, {static_cast<std::int32_t>(kRecorderNow - 4900)});
  (void)Take();
  Wait(106);
  List({Row(kRecorderNow + 1000)});
  Wait(2);
  recorder.Settle();
  EXPECT_THAT(Take(), ElementsAre("missed -4900 1000 no launch was heard"));
}

TEST_F(Recorder, TakesNoWindowOfOldRulesForMissed) {
  Begin({Row(kRecorderNow + 10)});
  recorder.Schedule_Modify(Id());
  Wait(20);
  List({Row(kRecorderNow + 500)});
  Wait(2);
  recorder.Settle();
  EXPECT_THAT(Take(), ElementsAre("modified - -"));
}

// A launch would have been heard ahead of the change; but that may have been made ahead of the window.
TEST_F(Recorder, DoesNotKnowOfAWindowThatAChangeIsHeardBehind) {
  Begin({Row(kRecorderNow + 10)});
  Wait(12);
  recorder.Schedule_Modify(Id());
  Wait(1);
  recorder.NextTimeWindow_Modify(Id(), kRecorderNow + 100);  // of a window that no list has told yet
  List({Row(kRecorderNow + 100)});
  Wait(2);
  recorder.Settle();
  EXPECT_THAT(Take(), ElementsAre("unknown 10 - the schedule was changed", "modified - -", "launch - 100"));
}

TEST_F(Recorder, TakesAWindowThatTheListHadPassedAheadOfAChangeForMissed) {
  Begin({Row(kRecorderNow + 10)});
  Wait(15);
  List({Row(kRecorderNow + 100)});
  recorder.Schedule_Modify(Id());
  EXPECT_THAT(Take(), ElementsAre("missed 10 100 no launch was heard", "modified - -"));
}

TEST_F(Recorder, DoesNotLoseAWindowOverAChangeAndAClockThatIsSetBack) {
  Begin({Row(kRecorderNow + 10)});
  recorder.ServiceDown();
  Wait(20);
  recorder.ServiceUp(101);
  recorder.BeginList();
  recorder.Schedule_Modify(Id());
  recorder.TakeList({Row(kRecorderNow + 500)});
  clock.SetWall(kRecorderNow - 5000);
  Wait(2);
  List({Row(kRecorderNow + 500)});
  Wait(2);
  recorder.Settle();
  EXPECT_THAT(Take(), ElementsAre("service-down", "service-up", "missed 10 - the service was down", "modified - -"));
}

TEST_F(Recorder, TellsWhatBecameOfAPastWindowWhoseScheduleIsDeletedAheadOfTheList) {
  Begin({Row(kRecorderNow + 10), Row(kRecorderNow, 2)});
  recorder.ServiceDown();
  Wait(20);
  recorder.ServiceUp(101);
  recorder.Schedule_Delete(Id());
  recorder.Schedule_Delete(Id(2));
  EXPECT_THAT(Take(), ElementsAre("service-down", "service-up", "missed 10 - the service was down", "deleted - -",
                                  "unknown 0 - nobody recorded", "deleted - -"));
}

TEST_F(Recorder, KeepsWhatItKnowsOfADamagedKey) {
  Begin({Row(kRecorderNow + 10)});
  ListRow damaged = Row(kDamagedKey);
  damaged.name.clear();
  List({damaged});
  EXPECT_THAT(Take(), IsEmpty());
  EXPECT_EQ(recorder.NextWindow(), kRecorderNow + 10);
}

TEST_F(Recorder, EndsOnceAndSaysWhy) {
  Begin({Row(kRecorderNow + 10)});
  Wait(16);
  List({Row(kRecorderNow + 100)});
  recorder.EndHearing("the bus was lost");
  recorder.EndHearing("stopped");
  EXPECT_THAT(Take(), ElementsAre("unknown 10 100 the record ended", "record-end the bus was lost"));
  EXPECT_FALSE(recorder.IsUp());
}

TEST_F(Recorder, GivesTheNextOneWhatItKnows) {
  Begin({});
  List({Row(kRecorderNow + 10)});
  EXPECT_EQ(recorder.Changes().at(Text()), (KnownSchedule{"daily", kRecorderNow + 10}));
  recorder.Clear();
  List({Row(kRecorderNow + 10)});
  EXPECT_TRUE(recorder.Changes().empty());
  recorder.ChangeAll();
  EXPECT_EQ(recorder.Changes().size(), 1u);
  recorder.Schedule_Delete(Id());
  EXPECT_EQ(recorder.Changes().at(Text()), std::nullopt);
}

}  // namespace
