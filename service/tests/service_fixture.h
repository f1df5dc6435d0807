// service/tests/service_fixture.h: a service without a host: a fresh state directory with its store and keys, a clock
// that stands, a zone, the service's object in an apartment that the test turns.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/testing/captured_log.h"
#include "platform/apartment.h"
#include "platform/file.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"
#include "platform/testing/virtual_clock.h"
#include "platform/text.h"
#include "service/ini_path.h"
#include "service/job_list.h"
#include "service/populate.h"
#include "service/schedule_store.h"
#include "service/scheduler_events.h"
#include "service/scheduler_service.h"

namespace qx::testing {

inline constexpr std::int64_t kSecondsOfDay = 86400;
// Wednesday, 2025-01-01 08:00:00 UTC.
inline constexpr std::int64_t kPresent = 1735718400;

inline std::string Narrow(std::u16string_view text) { return platform::Utf8FromWide(text); }
inline std::u16string Wide(std::string_view text) { return platform::WideFromUtf8(text); }

// What a sink heard, one text an event: "add {ID}", "window {ID} 5", "time 2".
class RecordingSink : public ISchedulerServiceEvents {
 public:
  void Schedule_Add(const ScheduleGuid& id) override { Note("add", id); }
  void Schedule_Modify(const ScheduleGuid& id) override { Note("modify", id); }
  void Schedule_Delete(const ScheduleGuid& id) override { Note("delete", id); }
  void NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t window) override {
    heard.push_back("window " + Narrow(platform::GuidText(id)) + " " + std::to_string(window));
  }
  void SystemTime_Change(std::int32_t count, const std::vector<std::u16string>& ids,
                         const std::vector<std::int32_t>& windows) override {
    std::string text = "time " + std::to_string(count);
    for (std::size_t i = 0; i < ids.size(); ++i) text += " " + Narrow(ids[i]) + "=" + std::to_string(windows[i]);
    heard.push_back(text);
  }
  std::vector<std::string> heard;

 private:
  void Note(const char* what, const ScheduleGuid& id) {
    heard.push_back(std::string(what) + " " + Narrow(platform::GuidText(id)));
  }
};

class ServiceFixture : public ::testing::Test {
 protected:
  explicit ServiceFixture(const std::string& zone = "UTC", std::int64_t present = kPresent)
      : m_zone(zone), m_clock(present) {}

  void SetUp() override {
    platform::SetStateDirectory(m_folder);
    ASSERT_EQ(platform::OpenRegistryStore(m_folder + "/registry.db"), 0u);
    MakeKey(kVolumeManagerKey);
    MakeKey(kProviderKey);
    MakeKey(kSchedulesKey);
    ASSERT_EQ(g_SchedulerEvents.Create(kSchedulerEventCount), 0u);
    ASSERT_EQ(m_service.Advise(m_sink, m_cookie), 0u);
  }
  void TearDown() override {
    EXPECT_TRUE(platform::WaitForAllChildren(60000));
    DoCleanUp();
    g_SchedulerEvents = {};
    (void)platform::CloseRegistryStore();
    platform::SetStateDirectory({});
  }

  static void MakeKey(std::u16string_view path) {
    platform::RegistryKey key;
    ASSERT_EQ(platform::CreateKey(platform::Hive::kLocalMachine, path, platform::KEY_ALL_ACCESS, key), 0u);
    ASSERT_EQ(key.Close(), 0u);
  }
  static platform::RegistryKey OpenScheduleKey(const ScheduleGuid& id) {
    platform::RegistryKey key;
    EXPECT_EQ(platform::OpenKey(platform::Hive::kLocalMachine,
                                std::u16string(kSchedulesKey) + u"\\" + platform::GuidText(id),
                                platform::KEY_ALL_ACCESS, key),
              0u);
    return key;
  }
  static bool HasKey(const ScheduleGuid& id) {
    platform::RegistryKey key;
    return platform::OpenKey(platform::Hive::kLocalMachine,
                             std::u16string(kSchedulesKey) + u"\\" + platform::GuidText(id), platform::KEY_READ,
                             key) == 0;
  }
  static void SetText(const ScheduleGuid& id, std::u16string_view name, std::u16string_view text) {
    platform::RegistryKey key = OpenScheduleKey(id);
    ASSERT_EQ(platform::SetString(key, name, text), 0u);
    ASSERT_EQ(key.Close(), 0u);
  }
  static void SetNumber(const ScheduleGuid& id, std::u16string_view name, std::uint32_t value) {
    platform::RegistryKey key = OpenScheduleKey(id);
    ASSERT_EQ(platform::SetDword(key, name, value), 0u);
    ASSERT_EQ(key.Close(), 0u);
  }
  static void RemoveValue(const ScheduleGuid& id, std::u16string_view name) {
    platform::RegistryKey key = OpenScheduleKey(id);
    ASSERT_EQ(platform::DeleteValue(key, name), 0u);
    ASSERT_EQ(key.Close(), 0u);
  }

  // A schedule of every day whose window begins `secondsAhead` after the present, its files in the fixture's folder.
  SCHEDULE_OBJECT Daily(std::int64_t secondsAhead = 3600) const {
    SCHEDULE_OBJECT s;
    s.bstrName = u"daily";
    s.bstrDescription = u"every day";
    s.bstrApplication = u"snapshot";
    s.bstrObjectID = u"vol-17";
    s.dwTaskOpCode = 4;
    s.bstrWrapperBinaryName = u"/bin/true";
    s.bstrXMLFilePathName = Wide(m_folder + "/job.xml");
    s.stScheduleRules.lStartTime = static_cast<std::int32_t>(platform::NowSeconds() + secondsAhead);
    s.stScheduleRules.dwTimeDuration = 30 * 60 * 1000;
    for (auto* week : {&s.stScheduleRules.dwDaysOfWeek0, &s.stScheduleRules.dwDaysOfWeek1,
                       &s.stScheduleRules.dwDaysOfWeek2, &s.stScheduleRules.dwDaysOfWeek3,
                       &s.stScheduleRules.dwDaysOfWeek4}) {
      week->fill(1);
    }
    return s;
  }
  // One that runs once, today.
  SCHEDULE_OBJECT Once(std::int64_t secondsAhead = 3600) const {
    SCHEDULE_OBJECT s = Daily(secondsAhead);
    SCHEDULE_RULE& rules = s.stScheduleRules;
    for (auto* week : {&rules.dwDaysOfWeek0, &rules.dwDaysOfWeek1, &rules.dwDaysOfWeek2, &rules.dwDaysOfWeek3,
                       &rules.dwDaysOfWeek4}) {
      week->fill(0);
    }
    rules.alIncludeDates[0] = rules.lStartTime;
    return s;
  }

  ScheduleGuid Create(const SCHEDULE_OBJECT& schedule) {
    ScheduleGuid id{};
    EXPECT_EQ(m_service.CreateSchedule(schedule, id), kStatusOk);
    return id;
  }
  // The whole record, as a client reads it; an empty one, told as a failure, where it can't be read.
  SCHEDULE_OBJECT ReadBack(const ScheduleGuid& id) {
    ScheduleInfo info;
    EXPECT_EQ(m_service.GetScheduleInfo(id, info), kStatusOk);
    return info.size() == 1 ? info.records()[0] : SCHEDULE_OBJECT();
  }
  std::string IniFile(const ScheduleGuid& id) const { return m_folder + "/" + Text(id) + ".ini"; }
  static std::string Text(const ScheduleGuid& id) { return Narrow(platform::GuidText(id)); }
  static std::string FileText(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }
  // The window of a listed job, -2 when there is none.
  static std::int64_t ListedWindow(const ScheduleGuid& id) {
    const platform::CriticalSectionGuard guard(g_JobListLock);
    const CJobList::Position at = g_JobList.Find(id);
    return at == g_JobList.End() ? -2 : at->NextTimeWindow;
  }
  static std::vector<std::string> ListedIds() {
    const platform::CriticalSectionGuard guard(g_JobListLock);
    std::vector<std::string> ids;
    for (auto at = g_JobList.Begin(); at != g_JobList.End(); ++at) ids.push_back(Narrow(at->IdText()));
    return ids;
  }
  // The index of the one event that is set, taken; -1 for none.
  static int TakeEvent() {
    platform::WaitResult result;
    EXPECT_EQ(g_SchedulerEvents.Wait(0, result), 0u);
    return result.kind == platform::WaitResult::Kind::kEvent ? static_cast<int>(result.index) : -1;
  }
  std::vector<std::string> ErrorLines() const { return m_log.texts(1); }

  platform::ScopedZone m_zone;
  platform::VirtualClock m_clock;
  ZepFoundation::CapturedServiceLog m_log;
  const platform::TemporaryFolder m_temporary{"qxservice"};
  const std::string m_folder = m_temporary.Path();
  platform::Apartment m_apartment;
  CSchedulerService m_service;
  std::shared_ptr<RecordingSink> m_sink = std::make_shared<RecordingSink>();
  std::uint32_t m_cookie = 0;
};

}  // namespace qx::testing
