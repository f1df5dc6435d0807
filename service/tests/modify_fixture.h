// service/tests/modify_fixture.h: modifications: what stores and list hold before and after.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "common/ini_recovery.h"
#include "service/job_node.h"
#include "service/modify_schedule.h"
#include "service/tests/service_fixture.h"

namespace qx::testing {

// A whole record that a failing test prints.
struct Record : SCHEDULE_OBJECT {};
inline void PrintTo(const Record& s, std::ostream* out) {
  for (const BSTR& text : {s.bstrName, s.bstrDescription, s.bstrApplication, s.bstrObjectID, s.bstrWrapperBinaryName,
                           s.bstrXMLFilePathName, s.bstrParameters, s.bstrPreScript, s.bstrPostScript}) {
    *out << (text ? "'" + Narrow(*text) + "' " : "null ");
  }
  const SCHEDULE_RULE& r = s.stScheduleRules;
  *out << "code " << s.dwTaskOpCode << " now " << s.bRunNow << " id " << s.bUseGUID << " next " << s.lNextTimeWindow
       << " start " << r.lStartTime << " end " << r.lEndTime << " duration " << r.dwTimeDuration << " effective "
       << r.bEffectiveDate << "," << r.lEffectiveDate << " restart " << r.bRestartInterval << "," << r.dwRestartInterval
       << " repeat " << r.bRepeatInterval << "," << r.dwRepeatInterval << "," << r.lAnchorDate;
  const auto list = [out](const char* name, const auto& values) {
    *out << " " << name;
    for (std::size_t i = 0; i < values.size(); ++i) {
      if (values[i] != 0) *out << " " << i << ":" << values[i];
    }
  };
  list("month", r.adwDaysOfMonth);
  list("weeks", r.dwDaysOfWeek0);
  list("/", r.dwDaysOfWeek1);
  list("/", r.dwDaysOfWeek2);
  list("/", r.dwDaysOfWeek3);
  list("/", r.dwDaysOfWeek4);
  list("include", r.alIncludeDates);
  list("exclude", r.alExcludeDates);
}

// Everything that is kept of one schedule, but for the time and kind of the last operation.
struct Kept {
  SCHEDULE_OBJECT key;                       // the registry's part
  std::map<std::string, std::string> files;  // name below the folder, contents: .ini files and their copies
  std::int64_t window = -2;                  // of the listed job, -2 when it isn't listed
  std::string launchPath;
  SCHEDULE_OBJECT listed;  // what the listed job's rule object gives
  friend bool operator==(const Kept&, const Kept&) = default;
};

inline std::ostream& operator<<(std::ostream& out, const Kept& kept) {
  out << "window " << kept.window << ", launch path '" << kept.launchPath << "', wrapper '"
      << Narrow(kept.key.bstrWrapperBinaryName.value_or(u"(null)")) << "', XML path '"
      << Narrow(kept.key.bstrXMLFilePathName.value_or(u"(null)")) << "', listed name '"
      << Narrow(kept.listed.bstrName.value_or(u"(null)")) << "'";
  for (const auto& [name, text] : kept.files) out << "\n--- " << name << "\n" << text;
  return out;
}

class ModifyFixture : public ServiceFixture {
 protected:
  using ServiceFixture::ServiceFixture;
  void SetUp() override {
    ServiceFixture::SetUp();
    ASSERT_TRUE(std::filesystem::create_directory(m_folder + "/a"));
    ASSERT_TRUE(std::filesystem::create_directory(m_folder + "/b"));
  }

  // The schedule before: its files in "a".
  SCHEDULE_OBJECT Before() const {
    SCHEDULE_OBJECT s = Daily(3600);
    s.bstrXMLFilePathName = Wide(m_folder + "/a/job.xml");
    s.bstrParameters = u"-old";
    s.bstrPreScript = u"pre";
    s.bstrPostScript = u"post";
    return s;
  }
  // What it is changed to: another job, other rules; the files stay in `directory`.
  SCHEDULE_OBJECT After(const std::string& directory = "a") const {
    SCHEDULE_OBJECT s = Before();
    s.bstrName = u"other name";
    s.bstrDescription = u"other text";
    s.bstrWrapperBinaryName = u"/bin/echo";
    s.bstrXMLFilePathName = Wide(m_folder + "/" + directory + "/other.xml");
    s.bstrParameters = u"-new";
    s.bstrPreScript = u"";
    s.bstrPostScript = u"last";
    SCHEDULE_RULE& rules = s.stScheduleRules;
    rules.lStartTime = static_cast<std::int32_t>(kPresent + 7200);
    rules.dwTimeDuration = 3600 * 1000;
    rules.alExcludeDates[0] = static_cast<std::int32_t>(kPresent + 2 * kSecondsOfDay);
    return s;
  }
  // Creates a schedule and forgets what was told of it.
  ScheduleGuid CreateQuietly(const SCHEDULE_OBJECT& schedule) {
    const ScheduleGuid id = Create(schedule);
    Quiet();
    return id;
  }
  void Quiet() {
    while (TakeEvent() != -1) {
    }
    m_sink->heard.clear();
    m_log.Clear();
  }
  // Takes the job out of the list, as after its last window.
  static void Unlist(const ScheduleGuid& id) {
    const platform::CriticalSectionGuard guard(g_JobListLock);
    const CJobList::Position at = g_JobList.Find(id);
    ASSERT_FALSE(at == g_JobList.End());
    at->ReleaseScheduler();
    g_JobList.Erase(at);
  }

  std::map<std::string, std::string> Files() const {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_folder)) {
      const std::string name = std::filesystem::relative(entry.path(), m_folder).string();
      if (!entry.is_regular_file() || name.starts_with("registry.db")) continue;
      files[name] = FileText(entry.path().string());
    }
    return files;
  }
  std::vector<std::string> FileNames() const {
    std::vector<std::string> names;
    for (const auto& [name, text] : Files()) names.push_back(name);
    return names;
  }
  static std::string LaunchPathOf(const ScheduleGuid& id) {
    const platform::CriticalSectionGuard guard(g_JobListLock);
    const CJobList::Position at = g_JobList.Find(id);
    return at == g_JobList.End() ? std::string() : Narrow(at->LaunchPath.view());
  }
  Kept Keep(const ScheduleGuid& id) const {
    Kept kept;
    EXPECT_EQ(ReadRegistry(id, kept.key), kStatusOk);
    kept.files = Files();
    kept.window = ListedWindow(id);
    kept.launchPath = LaunchPathOf(id);
    const platform::CriticalSectionGuard guard(g_JobListLock);
    const CJobList::Position at = g_JobList.Find(id);
    if (at != g_JobList.End()) {
      EXPECT_EQ(at->ScheduleObj.LoadScheduleFromPropBag(&kept.listed), kStatusOk);
    }
    return kept;
  }
  // The whole record, read back through key and file by a node of its own. Moves a file that lies aside back.
  static Record Stored(const ScheduleGuid& id) {
    Record record;
    EXPECT_EQ(ReadRegistry(id, record), kStatusOk);
    CJobNode node;
    node.ScheduleID = id;
    EXPECT_EQ(node.InitializeScheduler(), kStatusOk);
    (void)node.SetConfigFilePath(IniPath(id, record.bstrXMLFilePathName.value_or(u"")));
    (void)RestoreOldIniFile(node.ScheduleObj.m_IniFilePath.view());
    EXPECT_TRUE(platform::FileExists(platform::NativePath(node.ScheduleObj.m_IniFilePath.view())));
    EXPECT_EQ(node.LoadScheduleFromFile(record), kStatusOk);
    node.ReleaseScheduler();
    return record;
  }
  // The same from the key and the listed job's rule object.
  static Record Listed(const ScheduleGuid& id) {
    Record record;
    EXPECT_EQ(ReadRegistry(id, record), kStatusOk);
    const platform::CriticalSectionGuard guard(g_JobListLock);
    const CJobList::Position at = g_JobList.Find(id);
    EXPECT_FALSE(at == g_JobList.End());
    if (at != g_JobList.End()) {
      EXPECT_EQ(at->ScheduleObj.LoadScheduleFromPropBag(&record), kStatusOk);
    }
    return record;
  }
  // What a schedule of these rules reads as: as the rules library takes them, with the job fields as they were given.
  static Record ReadsAs(const SCHEDULE_OBJECT& given, std::uint32_t useGuid) {
    Record record;
    record.bstrApplication = given.bstrApplication.value_or(u"");
    record.bstrObjectID = given.bstrObjectID.value_or(u"");
    record.dwTaskOpCode = given.dwTaskOpCode;
    record.bstrWrapperBinaryName = given.bstrWrapperBinaryName.value_or(u"");
    record.bstrXMLFilePathName = given.bstrXMLFilePathName.value_or(u"");
    record.bstrParameters = given.bstrParameters.value_or(u"");
    record.bstrPreScript = given.bstrPreScript.value_or(u"");
    record.bstrPostScript = given.bstrPostScript.value_or(u"");
    record.bUseGUID = useGuid;
    CJobNode node;
    EXPECT_EQ(node.InitializeScheduler(), kStatusOk);
    (void)node.ValidateScheduleRules(given);
    EXPECT_EQ(node.ScheduleObj.LoadScheduleFromPropBag(&record), kStatusOk);
    node.ReleaseScheduler();
    return record;
  }
  static std::uint32_t LastOperation(const ScheduleGuid& id) {
    platform::RegistryKey key = OpenScheduleKey(id);
    std::uint32_t value = 99;
    EXPECT_EQ(platform::ReadRegistryDword(key, u"LastOperation", value), 0u);
    return value;
  }

  // Nobody was told, and no event is set.
  void ExpectSilence(int line) {
    EXPECT_EQ(TakeEvent(), -1) << line;
    EXPECT_THAT(m_sink->heard, ::testing::IsEmpty()) << line;
  }
  // The scheduler thread and the clients were told once.
  void ExpectTold(const ScheduleGuid& id, int line) {
    EXPECT_EQ(TakeEvent(), MODIFY_EVENT) << line;
    EXPECT_THAT(m_sink->heard, ::testing::ElementsAre("modify " + Text(id))) << line;
    EXPECT_TRUE(m_log.Has(2, "Successfully Modified the Schedule: " + Text(id) + " on local host")) << line;
  }
  std::string WithId(std::string text, const ScheduleGuid& id) const {
    for (std::size_t at = text.find("{ID}"); at != std::string::npos; at = text.find("{ID}")) {
      text.replace(at, 4, Text(id));
    }
    return text;
  }
};

}  // namespace qx::testing
