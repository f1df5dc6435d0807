// Memory runs out at each allocation of an operation: it isn't begun, or done whole, and the next one works.
#include <functional>
#include <new>

#include "platform/testing/counting_launcher.h"
#include "platform/testing/refused_memory.h"
#include "service/scheduler_loop.h"
#include "service/tests/sweep_fixture.h"

namespace qx::testing {
namespace {

using ::testing::SizeIs;

class ServiceMemory : public ServiceSweep, public ::testing::WithParamInterface<platform::FaultMode> {
 protected:
  // Runs the operation with each of its allocations refused in turn.
  //   operation  returns 0 when it was done
  void RefuseInTurn(const std::function<Status()>& operation, const std::function<void(bool isDone)>& judge) {
    bool wasDone = false;
    long refusals = 0;
    for (long ahead = 0;; ++ahead) {
      ASSERT_NO_FATAL_FAILURE(Reset());
      m_isNeverThere = ahead == 0 && GetParam() == platform::kFromThenOn;
      (void)platform::TakeRefusedCount();
      bool isDone = false;
      platform::RefuseMemory(ahead, GetParam());
      try {
        isDone = operation() == kStatusOk;
      } catch (const std::bad_alloc&) {
      }
      platform::AllowMemory();
      const long refused = platform::TakeRefusedCount();
      EXPECT_TRUE(isDone || ahead == 0 || (m_asksTwice && MayRefuseAgain(refusals++, wasDone))) << "begun and not done";
      wasDone = wasDone || isDone;
      judge(isDone);
      LifeGoesOn();
      if (HasFailure()) FAIL() << "the allocation behind " << ahead << "\n" << LogText();
      if (refused == 0) {
        EXPECT_TRUE(isDone);
        EXPECT_GT(ahead, 30) << "the refusals met nobody";
        return;
      }
    }
  }

  void RefuseCreation(const SCHEDULE_OBJECT& schedule) {
    ScheduleGuid id{};
    RefuseInTurn([&] { return m_service.CreateSchedule(schedule, id); },
                 [&](bool isDone) {
                   ExpectOthersUntouched(id);
                   ExpectSubjectUntouched();
                   EXPECT_THAT(m_sink->heard, SizeIs(isDone ? 1 : 0));
                   EXPECT_EQ(ListedIds().size(), isDone ? 4u : 3u);
                   EXPECT_EQ(m_service.Refresh(), kStatusOk);
                   EXPECT_EQ(ListedIds().size(), isDone ? 4u : 3u);
                   if (isDone) (void)m_service.DeleteSchedule(id);
                 });
  }

  void RefuseModification(SCHEDULE_OBJECT schedule) {
    schedule.stScheduleRules.lStartTime += 60;
    schedule.bstrXMLFilePathName = Wide(m_folder + "/other/job.xml");
    RefuseInTurn([&] { return m_service.ModifySchedule(m_subject, schedule); },
                 [&](bool isDone) {
                   ExpectOthersUntouched(m_subject);
                   if (!isDone) ExpectSubjectUntouched();
                   EXPECT_THAT(m_sink->heard, SizeIs(isDone ? 1 : 0));
                   const std::int64_t window = isDone ? kPresent + 3660 : kPresent + 3600;
                   EXPECT_EQ(ListedWindow(m_subject), window);
                   EXPECT_EQ(m_service.Refresh(), kStatusOk);
                   EXPECT_EQ(ListedWindow(m_subject), window);
                 });
  }

  void RefuseDeletion() {
    RefuseInTurn([&] { return m_service.DeleteSchedule(m_subject); },
                 [&](bool isDone) {
                   ExpectOthersUntouched(m_subject);
                   if (!isDone) ExpectSubjectUntouched();
                   EXPECT_THAT(m_sink->heard, SizeIs(isDone ? 1 : 0));
                   EXPECT_EQ(ListedIds().size(), isDone ? 2u : 3u);
                   EXPECT_EQ(m_service.Refresh(), kStatusOk);
                   EXPECT_EQ(ListedIds().size(), isDone ? 2u : 3u);
                 });
  }

  // What asks for memory again, once it knows the old texts, is refused a second time; and as long as there is none.
  static bool MayRefuseAgain(long refusals, bool wasDone) {
    return GetParam() == platform::kOnce ? refusals == 0 : !wasDone;
  }

  // Copies of these texts alone take more than a mebibyte.
  static SCHEDULE_OBJECT Lengthened(SCHEDULE_OBJECT schedule) {
    for (BSTR* text : {&schedule.bstrDescription, &schedule.bstrParameters, &schedule.bstrPreScript}) {
      *text = std::u16string(60'000, u'x');
    }
    return schedule;
  }
  static SCHEDULE_OBJECT Described(SCHEDULE_OBJECT schedule) {
    schedule.bstrDescription = std::u16string(400'000, u'x');
    return schedule;
  }
  void SetSubject(const SCHEDULE_OBJECT& schedule) {
    ASSERT_EQ(m_service.ModifySchedule(m_subject, schedule), kStatusOk);
    m_before = ReadStoredState(m_folder);
    KeepStores();
  }

  bool m_asksTwice = false;     // once it has read the old texts
  bool m_isNeverThere = false;  // nothing was set aside, and nothing comes
};

TEST_P(ServiceMemory, ACreationIsDoneOrNotBegun) { RefuseCreation(Named("created")); }
TEST_P(ServiceMemory, ACreationWithLongTextsIsDoneOrNotBegun) { RefuseCreation(Lengthened(Named("created"))); }

TEST_P(ServiceMemory, AModificationIsDoneOrNotBegun) { RefuseModification(Named("modified")); }
TEST_P(ServiceMemory, AModificationToLongTextsIsDoneOrNotBegun) {
  m_asksTwice = true;
  RefuseModification(Lengthened(Named("modified")));
}
TEST_P(ServiceMemory, AModificationOfLongTextsIsDoneOrNotBegun) {
  m_asksTwice = true;
  SetSubject(Lengthened(Named("subject")));
  RefuseModification(Named("modified"));
}
TEST_P(ServiceMemory, AModificationOfALongTextThatIsInTheFileAloneIsDoneOrNotBegun) {
  m_asksTwice = true;
  SetSubject(Described(Named("subject")));
  RefuseModification(Named("modified"));
}

TEST_P(ServiceMemory, ADeletionIsDoneOrNotBegun) { RefuseDeletion(); }
TEST_P(ServiceMemory, ADeletionOfLongTextsIsDoneOrNotBegun) {
  SetSubject(Lengthened(Named("subject")));
  RefuseDeletion();
}

TEST_P(ServiceMemory, ARefreshLoadsAllOrLeavesTheListAsItWas) {
  RefuseInTurn([&] { return m_service.Refresh(); }, [&](bool) { EXPECT_EQ(ListedIds().size(), 3u); });
}

// The thread's body, up to a sleep. It goes on also where there never is memory: jobs start, and nobody hears of it.
class LoopMemory : public ServiceMemory {
 protected:
  // Ends ahead of the sleep behind `sleeps` others.
  Status RunLoop(int sleeps) {
    CSchedulerLoop loop(m_apartment, m_service);
    loop.SetSleepNotice([&](std::int64_t) {
      if (sleeps-- == 0) g_SchedulerEvents.Set(SHUTDOWN_EVENT);
    });
    return ThreadProcedure(loop);
  }
};

TEST_P(LoopMemory, APassStartsEachDueJobOnceAndTellsOfIt) {
  int started = 0;
  const platform::CountingLauncher launcher([&](std::u16string_view) {
    ++started;
    return platform::ErrorCode{0};
  });
  RefuseInTurn(
      [&] {
        started = 0;
        return RunLoop(1);
      },
      [&](bool isDone) {
        m_clock.SetWall(kPresent);
        EXPECT_TRUE(isDone);
        (void)m_apartment.Step(0);
        EXPECT_EQ(started, 3);
        EXPECT_THAT(m_sink->heard, SizeIs(m_isNeverThere ? 0 : 3));
        for (const ScheduleGuid& id : {m_first, m_subject, m_second}) {
          EXPECT_EQ(ListedWindow(id), kPresent + 3600 + kSecondsOfDay);
        }
      });
}

TEST_P(LoopMemory, AChangeOfTheClockIsFollowed) {
  RefuseInTurn(
      [&] {
        m_clock.SetWall(kPresent + 7200);
        g_SchedulerEvents.Set(SYSTEM_TIME_CHANGED);
        return RunLoop(1);
      },
      [&](bool isDone) {
        m_clock.SetWall(kPresent);
        EXPECT_TRUE(isDone);
        (void)m_apartment.Step(0);
        EXPECT_THAT(m_sink->heard, SizeIs(m_isNeverThere ? 0 : 1));
        for (const ScheduleGuid& id : {m_first, m_subject, m_second}) {
          EXPECT_EQ(ListedWindow(id), kPresent + 3600 + kSecondsOfDay);
        }
      });
}

constexpr auto kModeName = [](const ::testing::TestParamInfo<platform::FaultMode>& which) {
  return which.param == platform::kOnce ? "Once" : "ForGood";
};
INSTANTIATE_TEST_SUITE_P(RunsOut, ServiceMemory, ::testing::Values(platform::kOnce, platform::kFromThenOn), kModeName);
INSTANTIATE_TEST_SUITE_P(RunsOut, LoopMemory, ::testing::Values(platform::kOnce, platform::kFromThenOn), kModeName);

}  // namespace
}  // namespace qx::testing
