// tests/killed_service.h: for tests: the real service is killed in the midst of a change, started anew, and judged.
//
// Each round begins with the same files: a few schedules. A service that can be killed makes one change that is
// acknowledged, then the change in question, in which it is killed at the nth platform call. A service that was started
// the usual way then answers for what is stored. With the variable QX_RELEASE_PROGRAMS (a directory) that one is the
// program found there.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>

#include "platform/registry.h"
#include "platform/testing/kill_switch.h"
#include "service/tests/stored_state.h"
#include "tests/running_service.h"

namespace qx::testing {

enum class Change { kCreate, kModify, kMove, kDelete };  // kMove: a modification that names another directory

inline std::string NameOf(Change change) {
  static constexpr const char* kNames[] = {"create", "modify", "move", "delete"};
  return kNames[static_cast<int>(change)];
}
inline void PrintTo(Change change, std::ostream* out) {
  *out << NameOf(change);
}

// What a change left of the schedule in question.
enum class Outcome { kOld, kNew, kNewKeyOldRules };

class KilledService {
 public:
  KilledService() {
    EXPECT_TRUE(m_switch.IsReady());
    std::filesystem::create_directory(m_service.Jobs() + "/other");
    m_service.Register();
    m_service.Start();
    SchedulerClient client;
    m_service.Connect(client);
    for (const char* name : {"first", "second", "subject", "doomed"}) {
      EXPECT_EQ(client.CreateSchedule(Record(name), m_ids[name]), 0u) << client.LastError().text;
    }
    for (const auto& [name, id] : m_ids) m_records[name] = Read(client, id);
    EXPECT_EQ(m_service.Stop(), 0);
    Copy(Folder("/state"), Folder("/base-state"));
    Copy(Folder("/jobs"), Folder("/base-jobs"));
    m_base = Stored();
    EXPECT_EQ(m_base.keys.size(), 4u) << m_base.failure;
  }

  // Kills at call n (0: lets the change end). False when the change was over before.
  struct Round {
    bool killed = false;
    std::uint32_t calls = 0;
    Status status = 0;  // of the change, when it wasn't killed
    Outcome outcome = Outcome::kOld;
  };
  Round Run(Change change, std::uint32_t n) {
    Copy(Folder("/base-state"), Folder("/state"));
    Copy(Folder("/base-jobs"), Folder("/jobs"));
    Round round;
    ScheduleGuid acknowledged{};
    ScheduleGuid subject = m_ids.at("subject");
    {
      m_service.SetVariables({m_switch.Variable()});
      m_service.Start();
      SchedulerClient client;
      m_service.Connect(client);
      EXPECT_EQ(client.CreateSchedule(Record("acknowledged"), acknowledged), 0u) << client.LastError().text;
      EXPECT_EQ(client.DeleteSchedule(m_ids.at("doomed")), 0u) << client.LastError().text;
      m_switch.Arm(n);
      ScheduleGuid made{};
      round.status = Make(change, client, subject, made);
      round.killed = client.LastError().IsSet();
      round.calls = m_switch.Calls();
      m_switch.Disarm();
      if (change == Change::kCreate) subject = made;  // zero when the call never ended
      // Also where the change ended: what was acknowledged stays.
      if (!round.killed) {
        EXPECT_EQ(round.status, 0u);
      }
      m_service.Process().Signal(SIGKILL);
      EXPECT_EQ(m_service.Process().Wait(), 128 + SIGKILL);
    }
    Judge(change, round, acknowledged, subject);
    return round;
  }
  // The start of a service that finds a file lying aside, as a modification that was killed leaves it, is killed at
  // call n. The next start is judged. False when the first one was over, and answered, before that call.
  bool RunStart(std::uint32_t n) {
    Copy(Folder("/base-state"), Folder("/state"));
    Copy(Folder("/base-jobs"), Folder("/jobs"));
    const std::string file = m_service.Jobs() + "/" + Text(m_ids.at("subject")) + ".ini";
    std::filesystem::rename(file, file + ".old");
    m_service.SetVariables({m_switch.Variable()});
    m_switch.Arm(n);
    m_service.Launch({"--foreground"});
    const bool isOver = m_service.WaitForName() && List() == 0;
    m_service.Process().Signal(SIGKILL);
    EXPECT_EQ(m_service.Process().Wait(), 128 + SIGKILL);
    m_switch.Disarm();
    m_service.SetVariables({});
    m_service.Start();
    EXPECT_EQ(List(), 0) << RunningService::ReadFile(Folder("/qxsched.out"));
    SchedulerClient client;
    m_service.Connect(client);
    for (const auto& [name, id] : m_ids) {
      EXPECT_TRUE(Read(client, id) == m_records.at(name)) << name;
      EXPECT_EQ(Row(client, id).nextWindow, m_start) << name;
    }
    EXPECT_EQ(m_service.Stop(), 0);
    const StoredState now = Stored();
    EXPECT_EQ(now.keys, m_base.keys);
    EXPECT_EQ(now.files, m_base.files);
    return !isOver;
  }
  [[nodiscard]] std::string LastOperation() const { return m_switch.LastOperation(); }

 private:
  std::string Folder(const char* below) const { return m_service.Directory() + below; }
  static void Copy(const std::string& from, const std::string& to) {
    std::filesystem::remove_all(to);
    std::filesystem::copy(from, to, std::filesystem::copy_options::recursive);
  }

  // Starts at one moment of all days that is far from the present.
  SCHEDULE_OBJECT Record(const std::string& name) const {
    SCHEDULE_OBJECT record = m_service.Job(name, m_start);
    record.bUseGUID = 1;
    record.stScheduleRules.alExcludeDates[0] = static_cast<std::int32_t>(m_start + 5 * 86400);
    return record;
  }
  SCHEDULE_OBJECT Modified() const {
    SCHEDULE_OBJECT record = Record("subject");
    record.bstrName = u"modified";
    record.bstrParameters = u"-other";
    record.bstrPostScript = u"/bin/true";
    record.stScheduleRules.dwTimeDuration = 120 * 1000;
    record.stScheduleRules.adwDaysOfMonth[3] = 0;
    return record;
  }
  SCHEDULE_OBJECT Moved() const {
    SCHEDULE_OBJECT record = Modified();
    record.bstrXMLFilePathName = platform::WideFromUtf8(m_service.Jobs() + "/other/job.xml");
    return record;
  }
  Status Make(Change change, SchedulerClient& client, const ScheduleGuid& subject, ScheduleGuid& made) {
    if (change == Change::kCreate) return client.CreateSchedule(Record("created"), made);
    if (change == Change::kModify) return client.ModifySchedule(subject, Modified());
    if (change == Change::kMove) return client.ModifySchedule(subject, Moved());
    return client.DeleteSchedule(subject);
  }

  static std::string Text(const ScheduleGuid& id) { return platform::Utf8FromWide(platform::GuidText(id)); }
  static SCHEDULE_OBJECT Read(SchedulerClient& client, const ScheduleGuid& id) {
    ScheduleInfo info;
    EXPECT_EQ(client.GetScheduleInfo(id, info), 0u) << client.LastError().text;
    return info.size() == 1 ? info.records()[0] : SCHEDULE_OBJECT();
  }
  // The stores of a service that has ended.
  StoredState Stored() const {
    EXPECT_EQ(platform::OpenRegistryStore(m_service.Root() + "/registry.db"), platform::ERROR_SUCCESS);
    StoredState state = ReadStoredState(m_service.Jobs());
    EXPECT_EQ(platform::CloseRegistryStore(), platform::ERROR_SUCCESS);
    EXPECT_EQ(state.failure, "");
    return state;
  }

  // The record that a client gets for what it gave: the service adds the next window and fills some fields.
  static SCHEDULE_OBJECT KeyPart(SCHEDULE_OBJECT record) {
    record.bstrName = record.bstrDescription = std::nullopt;
    record.lNextTimeWindow = 0;
    record.stScheduleRules = {};
    return record;
  }
  static SCHEDULE_OBJECT RulePart(const SCHEDULE_OBJECT& record) {
    SCHEDULE_OBJECT part;
    part.bstrName = record.bstrName;
    part.bstrDescription = record.bstrDescription;
    part.lNextTimeWindow = record.lNextTimeWindow;
    part.stScheduleRules = record.stScheduleRules;
    return part;
  }
  // How the service gives back a record that nobody disturbed; learnt once, by a change that isn't killed.
  SCHEDULE_OBJECT Undisturbed(const std::string& name, const SCHEDULE_OBJECT& record) {
    const auto known = m_records.find(name);
    if (known != m_records.end()) return known->second;
    SchedulerClient client;
    m_service.Connect(client);
    ScheduleGuid id{};
    EXPECT_EQ(client.CreateSchedule(record, id), 0u);
    const SCHEDULE_OBJECT read = Read(client, id);
    EXPECT_EQ(client.DeleteSchedule(id), 0u);
    return m_records[name] = read;
  }

  void Judge(Change change, Round& round, const ScheduleGuid& acknowledged, const ScheduleGuid& knownSubject) {
    ScheduleGuid subject = knownSubject;
    m_service.SetVariables({});
    if (const char* const programs = std::getenv("QX_RELEASE_PROGRAMS")) m_service.SetPrograms(programs);
    m_service.Start();
    m_service.SetPrograms("");
    // The command line's answer first: nobody else has touched the new service yet.
    EXPECT_EQ(List(), 0) << RunningService::ReadFile(Folder("/qxsched.out"));
    SchedulerClient client;
    m_service.Connect(client);
    std::uint32_t count = 0;
    ScheduleList list;
    EXPECT_EQ(client.ListSchedule(count, list), 0u) << client.LastError().text;
    std::set<std::string> listed;
    for (std::size_t i = 0; i < list.size(); ++i) {
      listed.insert(platform::Utf8FromWide(*list.records()[i].bstrScheduleID));
    }
    // Others: the acknowledged changes are there, and each schedule reads as before.
    EXPECT_TRUE(listed.erase(Text(acknowledged)));
    EXPECT_FALSE(listed.contains(Text(m_ids.at("doomed"))));
    EXPECT_TRUE(Read(client, acknowledged) == Undisturbed("acknowledged", Record("acknowledged")));
    for (const char* name : {"first", "second"}) {
      EXPECT_TRUE(listed.erase(Text(m_ids.at(name)))) << name;
      EXPECT_TRUE(Read(client, m_ids.at(name)) == m_records.at(name)) << name;
    }
    if (change == Change::kCreate) {
      EXPECT_TRUE(listed.erase(Text(m_ids.at("subject"))));
      EXPECT_TRUE(Read(client, m_ids.at("subject")) == m_records.at("subject"));
      if (round.killed && !listed.empty()) {
        EXPECT_EQ(platform::ClsidFromString(platform::WideFromUtf8(*listed.begin()), subject), 0u);
      }
    }
    // The schedule in question.
    const bool isThere = listed.erase(Text(subject)) != 0;
    EXPECT_TRUE(listed.empty()) << "a schedule that nobody made: " << *listed.begin();
    const SCHEDULE_OBJECT found = isThere ? Read(client, subject) : SCHEDULE_OBJECT();
    const SCHEDULE_OBJECT fresh = change == Change::kModify ? Undisturbed("modified", Modified())
                                  : change == Change::kMove ? Undisturbed("moved", Moved())
                                                            : Undisturbed("created", Record("created"));
    round.outcome = OutcomeOf(change, isThere, found, fresh);
    if (!round.killed) {
      EXPECT_EQ(round.outcome, Outcome::kNew) << "acknowledged, and gone";
    }
    if (isThere) {
      const auto row = Row(client, subject);
      EXPECT_EQ(row.nextWindow, m_start) << "not in the list of jobs";
    }
    // A further change of the same schedule works.
    if (isThere) {
      EXPECT_EQ(client.DeleteSchedule(subject), 0u) << client.LastError().text;
    }
    EXPECT_EQ(m_service.Stop(), 0) << m_service.Output();
    JudgeFiles(change, subject, acknowledged);
  }

  Outcome OutcomeOf(Change change, bool isThere, const SCHEDULE_OBJECT& found, const SCHEDULE_OBJECT& fresh) {
    if (change == Change::kDelete) {
      if (isThere) {
        EXPECT_TRUE(found == m_records.at("subject"));
      }
      return isThere ? Outcome::kOld : Outcome::kNew;
    }
    if (change == Change::kCreate) {
      if (isThere) {
        EXPECT_EQ(found, fresh);
      }
      return isThere ? Outcome::kNew : Outcome::kOld;
    }
    EXPECT_TRUE(isThere) << "the modified schedule is gone";
    const SCHEDULE_OBJECT& old = m_records.at("subject");
    if (found == old) return Outcome::kOld;
    if (found == fresh) return Outcome::kNew;
    EXPECT_TRUE(KeyPart(found) == KeyPart(fresh));
    EXPECT_TRUE(RulePart(found) == RulePart(old));
    return Outcome::kNewKeyOldRules;
  }

  // Byte by byte: what belongs to others is as it was; of the one in question nothing is left after its deletion but
  // what a kill strands.
  void JudgeFiles(Change change, const ScheduleGuid& subject, const ScheduleGuid& acknowledged) {
    const auto others = [&](const StoredState& state) {
      StoredState rest = state;
      for (const ScheduleGuid& id : {subject, acknowledged, m_ids.at("doomed")}) rest = Without(rest, Text(id));
      return rest;
    };
    const StoredState now = Stored();
    StoredState before = others(m_base);
    StoredState after = others(now);
    if (change == Change::kCreate) {
      // A file without a key may be left of a creation: its name is new.
      std::erase_if(after.files, [&](const auto& file) { return IsStranded(file.first, now); });
    }
    EXPECT_EQ(after.keys, before.keys);
    EXPECT_EQ(after.files, before.files);
    EXPECT_FALSE(now.keys.contains(Text(subject)));
    EXPECT_TRUE(now.keys.contains(Text(acknowledged)));
  }
  // A file that belongs to no key of now and to none of before.
  bool IsStranded(const std::string& file, const StoredState& now) const {
    const std::size_t brace = file.find('{');
    if (brace == std::string::npos) return false;
    const std::string id = file.substr(brace, 38);
    return !now.keys.contains(id) && !m_base.keys.contains(id);
  }

  int List() {
    Child child(test_paths::Programs() + "/qxsched",
                {"--root", m_service.Root(), "--bus", m_service.Bus().Address(), "list"}, Folder("/qxsched.out"),
                m_service.Environment());
    return child.Wait();
  }
  ListRow Row(SchedulerClient& client, const ScheduleGuid& id) {
    std::vector<ListRow> rows;
    EXPECT_EQ(client.ListAll(rows), 0u) << client.LastError().text;
    for (const ListRow& row : rows) {
      if (row.id == platform::GuidText(id)) return row;
    }
    ADD_FAILURE() << "not listed";
    return {};
  }

  RunningService m_service;
  platform::KillSwitch m_switch{m_service.Directory() + "/switch"};
  const std::int64_t m_start = platform::NowSeconds() + 6 * 3600;
  std::map<std::string, ScheduleGuid> m_ids;
  std::map<std::string, SCHEDULE_OBJECT> m_records;
  StoredState m_base;
};

}  // namespace qx::testing
