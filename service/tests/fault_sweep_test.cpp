// Every platform call of an operation fails, one after the other: once, and from then on.
#include <functional>
#include <iostream>
#include <map>
#include <set>

#include "service/scheduler_loop.h"
#include "service/tests/service_fixture.h"
#include "service/tests/stored_state.h"

namespace qx::testing {
namespace {

using platform::ErrorCode;
using platform::FaultMode;
using platform::FaultPlan;
using platform::Operation;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The codes that a call may well fail with.
std::vector<ErrorCode> FittingCodes(Operation operation) {
  using enum Operation;
  switch (operation) {
    case kAllocate:
    case kArrayCreate:
    case kArrayAccessData:
    case kGetRecordInfo:
    case kCreateEvent:
      return {platform::ERROR_NOT_ENOUGH_MEMORY};
    case kRegSetValue:
    case kRegCreateKey:
    case kRegDeleteKey:
    case kRegCloseKey:
      return {platform::ERROR_DISK_FULL, platform::ERROR_REGISTRY_IO_FAILED};
    case kRegOpenKey:
    case kRegQueryInfoKey:
    case kRegQueryValue:
    case kRegEnumKey:
      return {platform::ERROR_ACCESS_DENIED, platform::ERROR_REGISTRY_CORRUPT};
    case kWriteProfileString:
    case kCommitProfiles:
    case kWriteFile:
    case kSyncFile:
      return {platform::ERROR_DISK_FULL, platform::ERROR_IO_DEVICE};
    case kCreateFile:
      return {platform::ERROR_TOO_MANY_OPEN_FILES, platform::ERROR_ACCESS_DENIED};
    case kCreateProcess:
      return {platform::ERROR_FILE_NOT_FOUND, platform::ERROR_NO_PROC_SLOTS};
    case kConvertText:
      return {};  // nothing asks for a strict conversion here, and no other kind fails
    default:
      return {platform::ERROR_ACCESS_DENIED};
  }
}

struct Fault {
  int call = 0;
  Operation operation = Operation::kCount;
  std::string detail;
  ErrorCode code = 0;
  FaultMode mode = platform::kOnce;
};
std::ostream& operator<<(std::ostream& out, const Fault& fault) {
  return out << "call " << fault.call << ", " << OperationName(fault.operation) << "(" << fault.detail
             << ") fails with " << fault.code << (fault.mode == platform::kOnce ? " once" : " from then on");
}

int OpenDescriptors() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

class FaultSweep : public ServiceFixture {
 protected:
  void SetUp() override {
    ServiceFixture::SetUp();
    m_first = Create(Named("first"));
    m_subject = Create(Named("subject"));
    m_second = Create(Named("second"));
    m_before = ReadStoredState(m_folder);
    ASSERT_EQ(m_before.failure, "");
    for (const ScheduleGuid& id : {m_first, m_subject, m_second}) m_records[id] = Record(id);
    m_keep = m_folder + "-kept";
    std::filesystem::create_directory(m_folder + "/other");
    DoCleanUp();
    ASSERT_EQ(platform::CloseRegistryStore(), 0u);
    std::filesystem::copy(m_folder, m_keep, std::filesystem::copy_options::recursive);
    ASSERT_EQ(platform::OpenRegistryStore(m_folder + "/registry.db"), 0u);
  }
  void TearDown() override {
    ServiceFixture::TearDown();
    std::filesystem::remove_all(m_keep);
  }

  SCHEDULE_OBJECT Named(const std::string& name) const {
    SCHEDULE_OBJECT schedule = Daily();
    schedule.bstrName = Wide(name);
    schedule.bUseGUID = 1;
    schedule.stScheduleRules.alExcludeDates[0] = schedule.stScheduleRules.lStartTime + 5 * 86400;
    return schedule;
  }
  SCHEDULE_OBJECT Record(const ScheduleGuid& id) {
    ScheduleInfo info;
    EXPECT_EQ(m_service.GetScheduleInfo(id, info), kStatusOk);
    return info.size() == 1 ? info.records()[0] : SCHEDULE_OBJECT();
  }

  // Everything as at the beginning: the files, the list, no event set, nothing heard.
  void Reset(bool populated = true) {
    (void)m_apartment.Step(0);
    DoCleanUp();
    ASSERT_EQ(platform::CloseRegistryStore(), 0u);
    std::filesystem::remove_all(m_folder);
    std::filesystem::copy(m_keep, m_folder, std::filesystem::copy_options::recursive);
    ASSERT_EQ(platform::OpenRegistryStore(m_folder + "/registry.db"), 0u);
    m_clock.SetWall(kPresent);
    if (populated) {
      ASSERT_EQ(PopulateJobList(), kStatusOk);
    }
    while (TakeEvent() >= 0) {
    }
    m_sink->heard.clear();
    m_log.Clear();
  }

  // Runs `operation` once untouched to see its calls, then once for each fault. Each time `judge` looks at what it
  // left, with the faults gone.
  void Sweep(const std::function<void()>& operation, const std::function<void(const Fault* fault)>& judge,
             bool populated = true) {
    std::vector<Fault> calls;
    Reset(populated);
    {
      const FaultPlan plan = FaultPlan::Ask([&](int call, Operation asked, std::string_view detail) {
        calls.push_back({call, asked, std::string(detail)});
        return ErrorCode{platform::ERROR_SUCCESS};
      });
      operation();
    }
    judge(nullptr);
    ASSERT_FALSE(HasFailure()) << "untouched";
    const int descriptors = OpenDescriptors();
    int faults = 0;
    std::map<Operation, int> met;
    for (const FaultMode mode : {platform::kOnce, platform::kFromThenOn}) {
      for (const Fault& call : calls) {
        for (const ErrorCode code : FittingCodes(call.operation)) {
          Fault fault = call;
          fault.code = code;
          fault.mode = mode;
          Reset(populated);
          {
            const FaultPlan plan = FaultPlan::Ask([&](int n, Operation asked, std::string_view) -> ErrorCode {
              if (n == fault.call) return fault.code;
              if (n < fault.call || mode == platform::kOnce) return platform::ERROR_SUCCESS;
              const std::vector<ErrorCode> codes = FittingCodes(asked);
              return codes.empty() ? ErrorCode{platform::ERROR_SUCCESS} : codes.front();
            });
            operation();
          }
          judge(&fault);
          ++faults;
          ++met[fault.operation];
          LifeGoesOn();
          EXPECT_EQ(OpenDescriptors(), descriptors);
          ASSERT_FALSE(HasFailure()) << fault << "\nlog:\n" << LogText();
        }
      }
    }
    std::cout << calls.size() << " calls, " << faults << " faults\n";
    EXPECT_GT(met.size(), 2u);
  }

  // The next operation works as if nothing had been.
  void LifeGoesOn() {
    const ScheduleGuid next = Create(Named("next"));
    EXPECT_GT(ListedWindow(next), 0);
    EXPECT_EQ(m_service.DeleteSchedule(next), kStatusOk);
    EXPECT_FALSE(std::filesystem::exists(IniFile(next)));
  }

  std::string LogText() const {
    std::string text;
    for (const std::string& line : m_log.texts(3)) text += line + "\n";
    return text;
  }
  bool LogHas(std::string_view begin) const {
    for (const std::string& line : m_log.texts(2)) {
      if (line.starts_with(begin)) return true;
    }
    return false;
  }
  // A failure has said so.
  void ExpectTold() const { EXPECT_THAT(m_log.texts(2), ::testing::Not(IsEmpty())); }

  // The others are as they were, on disk and in the list.
  void ExpectOthersUntouched(const ScheduleGuid& subject) const {
    const StoredState now = ReadStoredState(m_folder);
    const StoredState before = Without(m_before, Text(subject));
    EXPECT_EQ(Without(now, Text(subject)).keys, before.keys);
    for (const auto& [name, text] : before.files) EXPECT_EQ(now.files.at(name), text) << name;
    for (const ScheduleGuid& id : {m_first, m_second}) EXPECT_EQ(ListedWindow(id), kPresent + 3600);
  }
  void ExpectSubjectUntouched() const {
    const StoredState now = ReadStoredState(m_folder);
    const std::string id = Text(m_subject);
    EXPECT_TRUE(now.keys.contains(id) && now.keys.at(id) == m_before.keys.at(id));
    EXPECT_EQ(FileText(IniFile(m_subject)), m_before.files.at(id + ".ini"));
    EXPECT_EQ(ListedWindow(m_subject), kPresent + 3600);
  }

  ScheduleGuid m_first{}, m_subject{}, m_second{};
  StoredState m_before;
  std::map<ScheduleGuid, SCHEDULE_OBJECT> m_records;
  std::string m_keep;
};

TEST_F(FaultSweep, CreateMakesAWholeScheduleOrSaysThatItFailed) {
  ScheduleGuid id{};
  Status status = 0;
  SCHEDULE_OBJECT expected;
  Sweep(
      [&] {
        id = {};
        status = m_service.CreateSchedule(Named("created"), id);
      },
      [&](const Fault* fault) {
        ExpectOthersUntouched(id);
        ExpectSubjectUntouched();
        // Told so: the refused memory of the directory ends it with status 0 and nothing created.
        const bool nothingTold = LogHas("Failed calloc(wcConfigPath)");
        if (status == kStatusOk && !nothingTold) {
          const SCHEDULE_OBJECT record = Record(id);
          if (fault == nullptr) expected = record;
          EXPECT_TRUE(record == expected);
          EXPECT_EQ(ListedWindow(id), kPresent + 3600);
          EXPECT_EQ(TakeEvent(), CREATE_EVENT);
          EXPECT_THAT(m_sink->heard, ElementsAre("add " + Text(id)));
          // It is in the files too, not only in the list.
          EXPECT_EQ(m_service.Refresh(), kStatusOk);
          EXPECT_EQ(ListedWindow(id), kPresent + 3600);
          EXPECT_TRUE(Record(id) == expected);
          return;
        }
        ASSERT_NE(fault, nullptr);
        ExpectTold();
        EXPECT_EQ(ListedWindow(id), -2);
        EXPECT_THAT(m_sink->heard, IsEmpty());
        EXPECT_EQ(TakeEvent(), -1);
        if (HasKey(id)) {
          EXPECT_TRUE(LogHas("CreateSchedule: Failed to write into registry"));
        }
        if (std::filesystem::exists(IniFile(id))) {
          // A file stays only where it couldn't be removed, or where the list refused the job.
          EXPECT_TRUE(LogHas("CreateSchedule: Failed to delete the ini file") || LogHas("Failed to add the job node") ||
                      LogHas("CreateSchedule:Failed to save schedule to file"));
        }
        // The stores agree with the list after a start: what failed doesn't come back as a job.
        EXPECT_EQ(m_service.Refresh(), kStatusOk);
        EXPECT_EQ(ListedIds().size(), 3u);
      });
}

TEST_F(FaultSweep, CreateWithARunAtOnceStartsTheJobAtMostOnce) {
  ScheduleGuid id{};
  Status status = 0;
  SCHEDULE_OBJECT schedule = Named("created");
  schedule.bRunNow = 1;
  Sweep([&] { status = m_service.CreateSchedule(schedule, id); },
        [&](const Fault* fault) {
          ExpectOthersUntouched(id);
          ExpectSubjectUntouched();
          EXPECT_LE(m_log.Count(3, "Launched the schedule: " + Text(id)), 1);
          const bool listed = ListedWindow(id) == kPresent + 3600;
          EXPECT_EQ(listed, status == kStatusOk && !LogHas("Failed calloc(wcConfigPath)"));
          if (!listed) {
            EXPECT_NE(fault, nullptr);
            ExpectTold();
          }
        });
}

TEST_F(FaultSweep, DeleteRemovesTheScheduleOrLeavesItWhole) {
  Status status = 0;
  Sweep([&] { status = m_service.DeleteSchedule(m_subject); },
        [&](const Fault* fault) {
          ExpectOthersUntouched(m_subject);
          if (status != kStatusOk) {
            ASSERT_NE(fault, nullptr);
            ExpectTold();
            ExpectSubjectUntouched();
            EXPECT_THAT(m_sink->heard, IsEmpty());
            return;
          }
          EXPECT_FALSE(HasKey(m_subject));
          EXPECT_EQ(ListedWindow(m_subject), -2);
          EXPECT_EQ(TakeEvent(), DELETE_EVENT);
          EXPECT_THAT(m_sink->heard, ElementsAre("delete " + Text(m_subject)));
          // A file that can't be removed changes nothing, and is told.
          if (std::filesystem::exists(IniFile(m_subject))) {
            EXPECT_TRUE(LogHas("DeleteSchedule:Failed to delete the ini file"));
          }
          EXPECT_EQ(m_service.Refresh(), kStatusOk);
          EXPECT_EQ(ListedIds().size(), 2u);
        });
}

// The one directory, or another one for the new file.
class FaultSweepOfAModification : public FaultSweep, public ::testing::WithParamInterface<const char*> {};

TEST_P(FaultSweepOfAModification, MakesTheChangeOrPutsTheOldScheduleBack) {
  Status status = 0;
  SCHEDULE_OBJECT changed = Named("changed");
  changed.bstrParameters = u"-changed";
  changed.bstrXMLFilePathName = Wide(m_folder + GetParam() + "/job.xml");
  changed.stScheduleRules.lStartTime += 60;
  SCHEDULE_OBJECT expected;
  const auto withoutKey = [](SCHEDULE_OBJECT record) {
    record.bstrParameters = record.bstrXMLFilePathName = std::nullopt;
    return record;
  };
  Sweep([&] { status = m_service.ModifySchedule(m_subject, changed); },
        [&](const Fault* fault) {
          ExpectOthersUntouched(m_subject);
          const SCHEDULE_OBJECT& old = m_records.at(m_subject);
          if (!m_sink->heard.empty()) {
            EXPECT_THAT(m_sink->heard, ElementsAre("modify " + Text(m_subject)));
            EXPECT_EQ(status, kStatusOk);
            EXPECT_EQ(TakeEvent(), MODIFY_EVENT);
            if (fault == nullptr) expected = Record(m_subject);
            for (int round = 0; round < 2; ++round) {  // in the list, and in the stores
              EXPECT_EQ(ListedWindow(m_subject), kPresent + 3660);
              EXPECT_TRUE(Record(m_subject) == expected);
              EXPECT_EQ(m_service.Refresh(), kStatusOk);
            }
            return;
          }
          // No event: the change wasn't made, whether the status says so or, after a rollback, is 0.
          ASSERT_NE(fault, nullptr);
          ExpectTold();
          EXPECT_EQ(TakeEvent(), -1);
          if (fault->mode == platform::kOnce) {
            EXPECT_EQ(ListedWindow(m_subject), kPresent + 3600);
            EXPECT_TRUE(Record(m_subject) == old);
            EXPECT_EQ(FileText(IniFile(m_subject)), m_before.files.at(Text(m_subject) + ".ini"));
          }
          // Never none: after a start it is the old schedule. Where the way back was barred too it may be old rules
          // beside new values, or the new schedule, whose very last step failed.
          EXPECT_EQ(m_service.Refresh(), kStatusOk);
          const SCHEDULE_OBJECT found = Record(m_subject);
          const bool isNew = found == expected;
          EXPECT_EQ(ListedWindow(m_subject), isNew ? kPresent + 3660 : kPresent + 3600);
          EXPECT_TRUE(isNew || withoutKey(found) == withoutKey(old));
          EXPECT_TRUE(found == old || (fault->mode == platform::kFromThenOn && status != kStatusOk));
        });
}

INSTANTIATE_TEST_SUITE_P(Directories, FaultSweepOfAModification, ::testing::Values("", "/other"),
                         [](const auto& directory) { return directory.index == 0 ? "Same" : "Other"; });

TEST_F(FaultSweep, LoadTakesEachScheduleWholeOrSkipsItWithALine) {
  Sweep([&] { EXPECT_EQ(PopulateJobList(), kStatusOk); },
        [&](const Fault* fault) {
          const StoredState now = ReadStoredState(m_folder);
          EXPECT_EQ(now.keys, m_before.keys);
          EXPECT_EQ(now.files, m_before.files);
          // Deliberate: what the rules library can't get memory for while it loads is an empty text or an empty list,
          // and the load goes on.
          const bool goesOnWithout = fault != nullptr && fault->operation == Operation::kAllocate &&
                                     (fault->detail == "ZepUtf8ToWcs" || fault->detail.starts_with("Property"));
          int loaded = 0;
          for (const ScheduleGuid& id : {m_first, m_subject, m_second}) {
            if (ListedWindow(id) == -2) continue;
            ++loaded;
            if (goesOnWithout) continue;
            EXPECT_EQ(ListedWindow(id), kPresent + 3600);
            EXPECT_TRUE(Record(id) == m_records.at(id)) << "loaded with other rules";
          }
          EXPECT_EQ(ListedIds().size(), static_cast<std::size_t>(loaded));
          if (loaded < 3) {
            ASSERT_NE(fault, nullptr);
            ExpectTold();
          }
          if (fault != nullptr && fault->mode == platform::kOnce && loaded < 2) {
            // One fault costs one schedule, except in front of all.
            EXPECT_TRUE(LogHas("Failed to open HKEY_LOCAL_MACHINE") ||
                        LogHas("Failed to create\\open the Schedules key") ||
                        LogHas("Failed to query the 'schedules' key"));
          }
          // The next load finds everything.
          EXPECT_EQ(m_service.Refresh(), kStatusOk);
          EXPECT_EQ(ListedIds().size(), 3u);
          for (const ScheduleGuid& id : {m_first, m_subject, m_second}) EXPECT_TRUE(Record(id) == m_records.at(id));
        },
        false);
}

TEST_F(FaultSweep, ALaunchPassGoesOnWithTheListWhateverFails) {
  platform::ClockWatch watch;
  CSchedulerLoop loop(m_apartment, m_service, &watch);
  bool goesOn = true;
  Sweep(
      [&] {
        goesOn = loop.Step();  // all three fall due
        (void)m_apartment.Step(0);
      },
      [&](const Fault* fault) {
        const StoredState now = ReadStoredState(m_folder);
        EXPECT_EQ(now.keys, m_before.keys);
        EXPECT_EQ(now.files, m_before.files);
        if (!goesOn) {
          ASSERT_NE(fault, nullptr);
          EXPECT_TRUE(LogHas("Wait error: "));  // told so: the loop ends
          return;
        }
        EXPECT_EQ(platform::NowSeconds(), kPresent + 3600);
        for (const ScheduleGuid& id : {m_first, m_subject, m_second}) {
          EXPECT_EQ(ListedWindow(id), kPresent + 3600 + kSecondsOfDay);
          EXPECT_EQ(m_log.Count(3, "Launched the schedule: " + Text(id)), 1);
        }
        if (fault != nullptr && fault->operation == Operation::kCreateProcess) {
          EXPECT_TRUE(LogHas("Launch (Create process) failed with error : "));
        }
        // The windows are told, unless there was no way to tell them.
        if (fault == nullptr || fault->operation == Operation::kCreateProcess) {
          EXPECT_EQ(m_sink->heard.size(), 3u);
        }
        m_log.Clear();
        m_sink->heard.clear();
        EXPECT_TRUE(loop.Step());  // the day after
        (void)m_apartment.Step(0);
        EXPECT_EQ(m_sink->heard.size(), 3u);
        EXPECT_EQ(m_log.Count(3, "Launched the schedule: " + Text(m_subject)), 1);
      });
}

TEST_F(FaultSweep, AQueryAnswersWholeOrFails) {
  Status listStatus = 0;
  Status infoStatus = 0;
  std::uint32_t count = 0;
  ScheduleList list;
  ScheduleInfo info;
  Sweep(
      [&] {
        count = 0;
        list = {};
        info = {};
        listStatus = m_service.ListSchedule(count, list);
        infoStatus = m_service.GetScheduleInfo(m_subject, info);
      },
      [&](const Fault*) {
        ExpectOthersUntouched(m_subject);
        ExpectSubjectUntouched();
        if (listStatus == kStatusOk) {
          ASSERT_EQ(list.size(), 3u);
          for (std::size_t i = 0; i < 3; ++i) EXPECT_TRUE(list.records()[i].bstrPostScript.has_value());
        } else {
          ExpectTold();
        }
        if (infoStatus == kStatusOk) {
          ASSERT_EQ(info.size(), 1u);
          EXPECT_TRUE(info.records()[0] == m_records.at(m_subject));
        } else {
          ExpectTold();
        }
      });
}

}  // namespace
}  // namespace qx::testing
