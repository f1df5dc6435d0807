// client/tests/online_fixture.h: the commands that ask a service, against one within the process.
#pragma once

#include <gmock/gmock.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "client/tests/cli_fixture.h"
#include "platform/text.h"

inline ScheduleGuid Id(std::uint32_t first, std::uint16_t second = 0) {
  return {first, second, 0x4001, {0x80}};
}
// Texts of Id(0xAAAA1111) and Id(0xAAAA2222).
inline constexpr const char* kIdA = "{AAAA1111-0000-4001-8000-000000000000}";
inline constexpr const char* kIdB = "{AAAA2222-0000-4001-8000-000000000000}";

// A service within the process: keeps schedules, gives IDs in turn, tells its listeners.
class FakeService : public ISchedulerService {
 public:
  using Event = std::function<void(ISchedulerServiceEvents&)>;

  Status CreateSchedule(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id) override {
    if (during) during();
    if (const Status status = Refusal(); status != kStatusOk) return status;
    id = Id(nextId++);
    schedules[id] = schedule;
    Tell([id](ISchedulerServiceEvents& sink) { sink.Schedule_Add(id); });
    return kStatusOk;
  }
  Status DeleteSchedule(const ScheduleGuid& id) override {
    if (const Status status = Refusal(); status != kStatusOk) return status;
    if (schedules.erase(id) + std::erase(damaged, platform::GuidText(id)) == 0) return kStatusNotFoundForDelete;
    Tell([id](ISchedulerServiceEvents& sink) { sink.Schedule_Delete(id); });
    return kStatusOk;
  }
  Status ModifySchedule(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule) override {
    if (beforeModify) beforeModify();
    if (const Status status = Refusal(); status != kStatusOk) return status;
    const auto at = schedules.find(id);
    if (at == schedules.end()) return kStatusNoSuchKey;
    launched += schedule.bRunNow == 1;
    if (takesBack) return kStatusOk;
    at->second = schedule;
    at->second.bRunNow = 0;
    if (spoil) spoil(at->second);
    Tell([id](ISchedulerServiceEvents& sink) { sink.Schedule_Modify(id); });
    return kStatusOk;
  }
  Status GetScheduleInfo(const ScheduleGuid& id, ScheduleInfo& info) override {
    if (beforeGet) beforeGet();
    const auto at = schedules.find(id);
    if (at == schedules.end()) return kStatusRegistryRead;
    if (unreadable != kStatusOk) return unreadable;
    SCHEDULE_OBJECT* record = nullptr;
    if (info.Create(1, "record") != 0 || info.AccessData(record, "record") != 0) return kStatusFailure;
    *record = at->second;
    return info.UnaccessData("record");
  }
  Status Refresh() override {
    if (const Status status = Refusal(); status != kStatusOk) return status;
    ++refreshed;
    return kStatusOk;
  }
  // What qxsched doesn't use.
  Status ListSchedule(std::uint32_t&, ScheduleList&) override { return kStatusFailure; }
  Status CreateScheduleOnNodes(const SCHEDULE_OBJECT&, ScheduleGuid&, std::uint32_t, const NodeNames&,
                               NodeResults&) override {
    return kStatusFailure;
  }
  Status DeleteScheduleOnNodes(const ScheduleGuid&, std::uint32_t, const NodeNames&, NodeResults&) override {
    return kStatusFailure;
  }
  Status ModifyScheduleOnNodes(const ScheduleGuid&, const SCHEDULE_OBJECT&, std::uint32_t, const NodeNames&,
                               NodeResults&) override {
    return kStatusFailure;
  }
  Status Notify_NextTimeWindow_Modify(const ScheduleGuid&, std::int32_t) override { return kStatusFailure; }
  Status Notify_SystemTime_Change(std::int32_t, const std::vector<std::u16string>&,
                                  const std::vector<std::int32_t>&) override {
    return kStatusFailure;
  }
  Status UpdateList(std::int32_t, const BSTR&, std::uint32_t&, std::vector<std::u16string>&) override {
    return kStatusFailure;
  }
  Status PerformOperationOnNodes(const BSTR&, std::uint32_t, const NodeNames&, NodeResults&) override {
    return kStatusFailure;
  }

  void Tell(Event event) { events.push_back(std::move(event)); }
  // The status that a change is answered with, or the loss of the bus on the way.
  Status Refusal() {
    if (lossOnChange.IsSet()) error = lossOnChange;
    return lossOnChange.IsSet() ? 0x80070000 | platform::ERROR_REQUEST_REFUSED : refusal;
  }

  std::map<ScheduleGuid, SCHEDULE_OBJECT> schedules;
  std::vector<std::u16string> damaged;
  std::deque<Event> events;
  Status refusal = kStatusOk;
  Status unreadable = kStatusOk;  // what a read of a schedule that is there meets
  platform::BusError lossOnChange;
  platform::BusError error;         // what the last call met
  platform::BusError propertiesError;  // what asking for the properties meets
  std::function<void()> during;     // runs within CreateSchedule
  std::function<void()> beforeModify;
  std::function<void()> beforeGet;
  std::function<void(SCHEDULE_OBJECT&)> spoil;  // what becomes of a modified record beside the modification
  bool takesBack = false;                       // a modification fails late and is rolled back
  int launched = 0;
  std::function<bool()> whenQuiet;  // runs when no event is left: whether the bus is still there
  qx::ServiceProperties properties{"1.2.3", "CET-1CEST,M3.5.0,M10.5.0/3", 19810, 3, 1796043600, "/var/lib/qxsvc"};
  std::size_t pageRows = 2;
  int refreshed = 0;
  std::uint32_t process = 4711;         // 0: not on the bus
  std::function<void(bool)> presence;   // who is told of its coming and going
  std::uint32_t nextId = 0xAB120000;
};

class FakeLink : public qx::ServiceLink {
 public:
  explicit FakeLink(FakeService& service) : m_service(service) {}
  ISchedulerService& Service() override {
    m_service.error = {};
    return m_service;
  }
  Status ListInfo(const std::u16string& afterId, std::uint32_t limit, std::vector<qx::ListRow>& rows) override {
    m_service.error = {};
    std::map<std::u16string, qx::ListRow> all;
    for (const auto& [id, record] : m_service.schedules) {
      qx::ListRow row;
      row.id = platform::GuidText(id);
      row.name = record.bstrName.value_or(u"");
      row.application = record.bstrApplication.value_or(u"");
      row.objectId = record.bstrObjectID.value_or(u"");
      row.taskCode = record.dwTaskOpCode;
      row.wrapper = record.bstrWrapperBinaryName.value_or(u"");
      row.xml = record.bstrXMLFilePathName.value_or(u"");
      row.parameters = record.bstrParameters.value_or(u"");
      row.preScript = record.bstrPreScript.value_or(u"");
      row.postScript = record.bstrPostScript.value_or(u"");
      row.passId = record.bUseGUID;
      row.nextWindow = record.lNextTimeWindow;
      all[row.id] = row;
    }
    for (const std::u16string& id : m_service.damaged) {
      all[id].id = id;
      all[id].nextWindow = qx::kDamagedKey;
    }
    const std::size_t most = std::min<std::size_t>(limit, m_service.pageRows);
    for (auto at = all.upper_bound(afterId); at != all.end() && rows.size() < most; ++at) rows.push_back(at->second);
    return kStatusOk;
  }
  Status ReadProperties(qx::ServiceProperties& properties) override {
    m_service.error = m_service.propertiesError;
    if (m_service.error.IsSet()) return 0x80070000 | platform::ERROR_REQUEST_REFUSED;
    properties = m_service.properties;
    return kStatusOk;
  }
  Status Listen(ISchedulerServiceEvents& sink) override {
    m_sink = &sink;
    return kStatusOk;
  }
  bool WaitForEvents(std::uint32_t) override {
    if (m_service.events.empty()) return m_service.whenQuiet && m_service.whenQuiet();
    const auto event = m_service.events.front();
    m_service.events.pop_front();
    event(*m_sink);
    return true;
  }
  Status WatchService(std::function<void(bool)> presence) override {
    m_service.presence = std::move(presence);
    return kStatusOk;
  }
  Status ServiceProcess(std::uint32_t& process) override {
    process = m_service.process;
    return kStatusOk;
  }
  platform::BusError LastError() const override { return m_service.error; }

 private:
  FakeService& m_service;
  ISchedulerServiceEvents* m_sink = nullptr;
};

class CliOnline : public CliTest {
 protected:
  CliOnline() {
    settings.connect = [this](const platform::BusAddress& asked, std::unique_ptr<qx::ServiceLink>& link) {
      address = asked;
      if (connectCode == platform::ERROR_SUCCESS) link = std::make_unique<FakeLink>(service);
      return connectCode;
    };
    settings.confirm = false;
    settings.columns = 0;
  }

  Result Ask(const std::vector<std::string>& words, const std::string& input = "") {
    std::istringstream in(input);
    std::ostringstream out;
    std::ostringstream err;
    const int exit = RunWith(words, in, out, err);
    return {exit, out.str(), err.str()};
  }
  int RunWith(const std::vector<std::string>& words, std::istream& in, std::ostream& out, std::ostream& err) {
    std::vector<const char*> argv = {"qxsched", "--root", m_directory.c_str()};
    for (const std::string& word : words) argv.push_back(word.c_str());
    return qx::RunQxsched(static_cast<int>(argv.size()), argv.data(), in, out, err, settings);
  }

  // A schedule that the service has: daily at 22:00, from the very record that a file gives.
  ScheduleGuid Have(const ScheduleGuid& id, const std::u16string& name, std::int32_t next) {
    SCHEDULE_OBJECT record;
    record.bstrName = name;
    record.bstrApplication = u"app";
    record.bstrObjectID = u"vol-17";
    record.dwTaskOpCode = 4;
    record.bstrWrapperBinaryName = u"/bin/echo";
    record.bstrXMLFilePathName = u"/tmp/x.xml";
    record.bstrParameters = u"-v one";
    record.bUseGUID = 1;
    record.lNextTimeWindow = next;
    record.stScheduleRules.lStartTime = 1795986000;  // 2026-11-29 22:00:00 +0100
    record.stScheduleRules.dwTimeDuration = 7200000;
    record.stScheduleRules.dwDaysOfWeek0.fill(1);
    record.stScheduleRules.dwDaysOfWeek1.fill(1);
    record.stScheduleRules.dwDaysOfWeek2.fill(1);
    record.stScheduleRules.dwDaysOfWeek3.fill(1);
    record.stScheduleRules.dwDaysOfWeek4.fill(1);
    service.schedules[id] = record;
    return id;
  }
  std::vector<std::string> Backups() const {
    std::vector<std::string> files;
    const std::filesystem::path directory = Path("backups");
    if (std::filesystem::exists(directory)) {
      for (const auto& entry : std::filesystem::directory_iterator(directory)) files.push_back(entry.path());
    }
    return files;
  }

  FakeService service;
  platform::BusAddress address;
  platform::ErrorCode connectCode = platform::ERROR_SUCCESS;
  qx::OnlineSettings settings;
  static constexpr std::int32_t kTonight = 1796072400;  // 2026-11-30 22:00:00 +0100
};
