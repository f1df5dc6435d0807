// A service with three schedules whose stores are put back ahead of each run of a sweep.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "platform/testing/fault_sweep.h"
#include "service/tests/service_fixture.h"
#include "service/tests/stored_state.h"

namespace qx::testing {

using Fault = platform::SweptFault;

class ServiceSweep : public ServiceFixture {
 protected:
  void SetUp() override {
    ServiceFixture::SetUp();
    m_first = Create(Named("first"));
    m_subject = Create(Named("subject"));
    m_second = Create(Named("second"));
    m_before = ReadStoredState(m_folder);
    ASSERT_EQ(m_before.failure, "");
    for (const ScheduleGuid& id : {m_first, m_subject, m_second}) m_records[id] = ReadBack(id);
    m_keep = m_folder + "-kept";
    std::filesystem::create_directory(m_folder + "/other");
    KeepStores();
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

  // Takes the stores as they are for those that each run begins with.
  void KeepStores() {
    DoCleanUp();
    ASSERT_EQ(platform::CloseRegistryStore(), 0u);
    std::filesystem::remove_all(m_keep);
    std::filesystem::copy(m_folder, m_keep, std::filesystem::copy_options::recursive);
    ASSERT_EQ(platform::OpenRegistryStore(m_folder + "/registry.db"), 0u);
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

  void Sweep(const std::string& name, const std::function<void()>& operation,
             const std::function<void(const Fault* fault)>& judge, bool populated = true) {
    const platform::SweepNumbers numbers = platform::RunSweep({
        .name = name,
        .prepare = [&] { Reset(populated); },
        .operation = operation,
        .judge =
            [&](const Fault* fault) {
              judge(fault);
              LifeGoesOn();
            },
        .explain = [&] { return "log:\n" + LogText(); },
    });
    EXPECT_GT(numbers.met.size(), 2u);
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
  void ExpectTold() const { EXPECT_THAT(m_log.texts(2), ::testing::Not(::testing::IsEmpty())); }

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
  bool m_registers = false;  // whether the service is to be registered behind a run
};

}  // namespace qx::testing
