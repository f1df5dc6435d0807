#include "service/service_bus.h"

#include <utility>
#include <vector>

#include "common/bus_records.h"
#include "foundation/include/zfclog.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/text.h"
#include "service/job_list.h"
#include "service/scheduler_service.h"

namespace qx {
namespace {

using platform::BusArgument;
using platform::BusConnection;
using platform::BusError;
using platform::BusInterface;
using platform::BusMethod;
using platform::BusProperty;
using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using platform::MessageReader;
using platform::MessageWriter;
using ZepFoundation::ServiceLog;

// Taken at a stop: a client that goes on and on by the unique name must not hold it up.
constexpr int kMostLastMessages = 1000;

// Arguments that several methods share.
const BusArgument kStatus = {"i", "status"};
const BusArgument kId = {"s", "schedule_id"};
const BusArgument kSchedule = {"a{sv}", "schedule"};
const BusArgument kNodeCount = {"u", "node_count"};
const BusArgument kNodeNames = {"as", "node_names"};
const BusArgument kResults = {"ai", "results"};
const BusArgument kWindow = {"i", "next_window"};

// Reads a call's arguments one after the other; behind the first refusal the rest stays unread.
class CallArguments {
 public:
  explicit CallArguments(MessageReader& call) : m_call(call) {}
  CallArguments& Schedule(SCHEDULE_OBJECT& schedule) {
    if (!m_error.IsSet()) m_error = ReadSchedule(m_call, Reading::kRequest, schedule);
    return *this;
  }
  CallArguments& Id(ScheduleGuid& id) {
    if (!m_error.IsSet()) m_error = ReadScheduleId(m_call, kId.name, id);
    return *this;
  }
  CallArguments& Text(std::string_view name, std::u16string& text) {
    if (!m_error.IsSet()) m_error = ReadText(m_call, Reading::kRequest, name, text);
    return *this;
  }
  CallArguments& Texts(std::string_view name, std::vector<std::u16string>& texts) {
    if (!m_error.IsSet()) m_error = ReadTexts(m_call, Reading::kRequest, name, texts);
    return *this;
  }
  CallArguments& Numbers(std::string_view name, std::vector<std::int32_t>& numbers) {
    if (!m_error.IsSet()) m_error = ReadNumbers(m_call, name, numbers);
    return *this;
  }
  CallArguments& Number(std::string_view name, std::int32_t& number) {
    return Note(name, m_error.IsSet() ? ERROR_SUCCESS : m_call.ReadInt32(number));
  }
  CallArguments& Number(std::string_view name, std::uint32_t& number) {
    return Note(name, m_error.IsSet() ? ERROR_SUCCESS : m_call.ReadUint32(number));
  }
  [[nodiscard]] const BusError& Error() const { return m_error; }

 private:
  CallArguments& Note(std::string_view name, ErrorCode rc) {
    if (rc != ERROR_SUCCESS) m_error = BusError::InvalidArgs("key '" + std::string(name) + "' can't be read");
    return *this;
  }
  MessageReader& m_call;
  BusError m_error;
};

// The nodes that an operation goes to, and what comes back of each.
struct NodeArguments {
  std::uint32_t count = 0;
  NodeNames names;
  NodeResults results;

  void ReadFrom(CallArguments& arguments) {
    arguments.Number(kNodeCount.name, count).Texts(kNodeNames.name, names).Numbers(kResults.name, results);
  }
};

// The first out argument, or the error in place of the whole reply.
BusError AppendStatus(MessageWriter& reply, Status status) {
  if (status == kStatusNotSupported) {
    return {std::string(kBusErrorNotSupported), "this service doesn't carry out the operation"};
  }
  reply.AppendInt32(static_cast<std::int32_t>(status));
  return {};
}

std::int64_t NextWakeUp() {
  const platform::CriticalSectionGuard guard(g_JobListLock);
  return g_JobList.Begin() == g_JobList.End() ? -1 : g_JobList.Begin()->NextTimeWindow;
}

}  // namespace

// The bus as one of those who hear of the service's events.
class CServiceBus::SignalSink : public ISchedulerServiceEvents {
 public:
  explicit SignalSink(CServiceBus& bus) : m_bus(bus) {}

  void Schedule_Add(const ScheduleGuid& id) override {
    Send("Schedule_Add", [&](MessageWriter& signal) { AppendScheduleId(signal, id); });
  }
  void Schedule_Modify(const ScheduleGuid& id) override {
    Send("Schedule_Modify", [&](MessageWriter& signal) { AppendScheduleId(signal, id); });
  }
  void Schedule_Delete(const ScheduleGuid& id) override {
    Send("Schedule_Delete", [&](MessageWriter& signal) { AppendScheduleId(signal, id); });
  }
  void NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t nextTimeWindow) override {
    Send("NextTimeWindow_Modify", [&](MessageWriter& signal) {
      AppendScheduleId(signal, id);
      signal.AppendInt32(nextTimeWindow);
    });
  }
  void SystemTime_Change(std::int32_t count, const std::vector<std::u16string>& ids,
                         const std::vector<std::int32_t>& nextTimeWindows) override {
    Send("SystemTime_Change", [&](MessageWriter& signal) {
      signal.AppendInt32(count);
      AppendTexts(signal, ids);
      AppendNumbers(signal, nextTimeWindows);
    });
  }

 private:
  void Send(std::string_view name, const std::function<void(MessageWriter&)>& write) {
    BusConnection* const connection = m_bus.m_presence.Connection();
    if (connection == nullptr) return;
    MessageWriter signal;
    ErrorCode rc = connection->NewSignal(kBusPath, kBusEventsInterface, name, signal);
    if (rc == ERROR_SUCCESS) {
      write(signal);
      // A bus daemon would throw the service off the bus for it.
      rc = CheckReplySize(signal, m_bus.m_replyLimit).IsSet() ? platform::ERROR_MORE_DATA
                                                              : connection->Send(std::move(signal));
    }
    if (rc != ERROR_SUCCESS) ServiceLog(1, u"Bus: the signal %S could not be sent, error = %x", name, rc);
  }

  CServiceBus& m_bus;
};

CServiceBus::CServiceBus(platform::Apartment& apartment, ISchedulerService& service,
                         CProxyISchedulerServiceEvents& events)
    : m_apartment(apartment), m_service(service), m_events(events), m_presence(apartment), m_replyLimit(ReplyLimit()) {
  (void)m_events.Advise(std::make_shared<SignalSink>(*this), m_cookie);  // refuses null sinks only
}

CServiceBus::~CServiceBus() {
  Stop();
  (void)m_events.Unadvise(m_cookie);
}

ErrorCode CServiceBus::Start(Options options) {
  m_options = std::move(options);
  platform::BusPresence::Options presence;
  presence.address = m_options.address;
  presence.setUp = [this](BusConnection& connection) { return SetUp(connection); };
  presence.lost = [this](ErrorCode code) {
    if (m_options.lost) m_options.lost(code);
    // From the queue: when the first attempt fails the log isn't there yet.
    m_apartment.Post([code] { ServiceLog(1, u"Bus: not connected, error = %x; trying again", code); });
    ForgetAllClients();
  };
  presence.restored = [] { ServiceLog(1, u"Bus: connected again"); };
  return m_presence.Start(std::move(presence));
}

// Behind the release of the name the bus passes no call on any more; those that it had are still answered.
void CServiceBus::Stop() {
  if (BusConnection* const connection = m_presence.Connection()) connection->ReleaseName(kBusName);
  for (int i = 0; i < kMostLastMessages; ++i) {
    BusConnection* const connection = m_presence.Connection();
    if (connection == nullptr || !connection->Process()) break;
  }
  m_presence.Stop();
}

ErrorCode CServiceBus::SetUp(BusConnection& connection) {
  if (const ErrorCode rc = Export(connection); rc != ERROR_SUCCESS) return rc;
  // Ahead of the name: no client can come and go unseen.
  const ErrorCode rc = connection.WatchDepartures([this](std::string_view name) { ForgetClient(name); });
  return rc != ERROR_SUCCESS ? rc : connection.RequestName(kBusName);
}

ErrorCode CServiceBus::Export(BusConnection& connection) {
  for (BusInterface interface : {ServiceInterface(), EventsInterface(), ManagerInterface()}) {
    if (const ErrorCode rc = connection.Export(kBusPath, std::move(interface)); rc != ERROR_SUCCESS) return rc;
  }
  return ERROR_SUCCESS;
}

void CServiceBus::NoteClient(std::string_view name) {
  if (!name.empty()) m_clients.emplace(name);
}

void CServiceBus::ForgetClient(std::string_view name) {
  const auto at = m_clients.find(name);
  if (at == m_clients.end()) return;
  m_clients.erase(at);
  if (!m_clients.empty()) return;
  // Behind the calls that have come with it: a server that ended then would leave a client that just made itself one.
  (void)m_apartment.StartTimer(0, [self = std::weak_ptr(m_self)] {
    const auto bus = self.lock();
    if (bus && (*bus)->m_clients.empty() && (*bus)->m_options.lastClientLeft) (*bus)->m_options.lastClientLeft();
  });
}

void CServiceBus::ForgetAllClients() {
  const bool any = !m_clients.empty();
  m_clients.clear();
  if (any && m_options.lastClientLeft) m_options.lastClientLeft();
}

BusMethod CServiceBus::Method(std::string name, std::vector<BusArgument> in, std::vector<BusArgument> out,
                              platform::BusMethodHandler handler) {
  return {std::move(name), std::move(in), std::move(out),
          [this, handler = std::move(handler)](MessageReader& call, MessageWriter& reply) {
            if (const auto left = m_left.lock()) left->End();  // of a change just ahead: this call may take long
            NoteClient(call.Sender());
            BusError error = handler(call, reply);
            return error.IsSet() ? error : CheckReplySize(reply, m_replyLimit);
          }};
}

BusMethod CServiceBus::ChangeMethod(std::string name, std::vector<BusArgument> in, std::vector<BusArgument> out,
                                    platform::BusMethodHandler handler) {
  return Method(std::move(name), std::move(in), std::move(out),
                [this, handler = std::move(handler)](MessageReader& call, MessageWriter& reply) {
                  auto left = std::make_shared<platform::AfterAnswer>();
                  m_left = left;
                  BusError error = handler(call, reply);
                  // The timer has the last hold on it. It comes behind the reply, ahead of the notices that are queued.
                  if (!m_apartment.HasEnded()) (void)m_apartment.StartTimer(0, [left = std::move(left)] {});
                  return error;
                });
}

// Who reads a property is a client too: a server that the bus starts for it ends with him.
BusProperty CServiceBus::Property(std::string name, std::string type, std::function<void(MessageWriter&)> get) {
  return {std::move(name), std::move(type),
          [this, get = std::move(get)](std::string_view reader, MessageWriter& value) {
            NoteClient(reader);
            get(value);
          }};
}

BusInterface CServiceBus::ServiceInterface() {
  BusInterface served;
  served.name = kBusServiceInterface;
  std::vector<BusMethod>& methods = served.methods;
  methods.push_back(ChangeMethod("CreateSchedule", {kSchedule}, {kStatus, kId}, [this](auto& call, auto& reply) {
    SCHEDULE_OBJECT schedule;
    CallArguments arguments(call);
    if (arguments.Schedule(schedule).Error().IsSet()) return arguments.Error();
    ScheduleGuid id;
    BusError error = AppendStatus(reply, m_service.CreateSchedule(schedule, id));
    if (!error.IsSet()) AppendScheduleId(reply, id);
    return error;
  }));
  methods.push_back(ChangeMethod("DeleteSchedule", {kId}, {kStatus}, [this](auto& call, auto& reply) {
    ScheduleGuid id;
    CallArguments arguments(call);
    if (arguments.Id(id).Error().IsSet()) return arguments.Error();
    return AppendStatus(reply, m_service.DeleteSchedule(id));
  }));
  methods.push_back(ChangeMethod("ModifySchedule", {kId, kSchedule}, {kStatus}, [this](auto& call, auto& reply) {
    ScheduleGuid id;
    SCHEDULE_OBJECT schedule;
    CallArguments arguments(call);
    if (arguments.Id(id).Schedule(schedule).Error().IsSet()) return arguments.Error();
    return AppendStatus(reply, m_service.ModifySchedule(id, schedule));
  }));
  methods.push_back(Method("ListSchedule", {}, {kStatus, {"u", "count"}, {std::string(kScheduleListType), "schedules"}},
                           [this](auto&, auto& reply) {
                             std::uint32_t count = 0;
                             ScheduleList schedules;
                             BusError error = AppendStatus(reply, m_service.ListSchedule(count, schedules));
                             if (error.IsSet()) return error;
                             reply.AppendUint32(count);
                             reply.OpenArray("(" + std::string(kScheduleExContents) + ")");
                             for (const SCHEDULE_OBJECT_EX& schedule : schedules.records()) {
                               AppendScheduleEx(reply, schedule);
                               error = CheckReplySize(reply, m_replyLimit);
                               if (error.IsSet()) return error;
                             }
                             reply.Close();
                             return error;
                           }));
  methods.push_back(Method("GetScheduleInfo", {kId}, {kStatus, {std::string(kScheduleInfoType), "schedules"}},
                           [this](auto& call, auto& reply) {
                             ScheduleGuid id;
                             CallArguments arguments(call);
                             if (arguments.Id(id).Error().IsSet()) return arguments.Error();
                             ScheduleInfo info;
                             BusError error = AppendStatus(reply, m_service.GetScheduleInfo(id, info));
                             if (error.IsSet()) return error;
                             reply.OpenArray(kScheduleType);
                             for (const SCHEDULE_OBJECT& schedule : info.records()) AppendSchedule(reply, schedule);
                             reply.Close();
                             return error;
                           }));
  methods.push_back(Method("CreateScheduleOnNodes", {kSchedule, kNodeCount, kNodeNames, kResults},
                           {kStatus, kId, kResults}, [this](auto& call, auto& reply) {
                             SCHEDULE_OBJECT schedule;
                             NodeArguments nodes;
                             CallArguments arguments(call);
                             nodes.ReadFrom(arguments.Schedule(schedule));
                             if (arguments.Error().IsSet()) return arguments.Error();
                             ScheduleGuid id;
                             BusError error =
                                 AppendStatus(reply, m_service.CreateScheduleOnNodes(schedule, id, nodes.count,
                                                                                     nodes.names, nodes.results));
                             if (error.IsSet()) return error;
                             AppendScheduleId(reply, id);
                             AppendNumbers(reply, nodes.results);
                             return error;
                           }));
  methods.push_back(Method("DeleteScheduleOnNodes", {kId, kNodeCount, kNodeNames, kResults}, {kStatus, kResults},
                           [this](auto& call, auto& reply) {
                             ScheduleGuid id;
                             NodeArguments nodes;
                             CallArguments arguments(call);
                             nodes.ReadFrom(arguments.Id(id));
                             if (arguments.Error().IsSet()) return arguments.Error();
                             BusError error = AppendStatus(
                                 reply, m_service.DeleteScheduleOnNodes(id, nodes.count, nodes.names, nodes.results));
                             if (!error.IsSet()) AppendNumbers(reply, nodes.results);
                             return error;
                           }));
  methods.push_back(Method("ModifyScheduleOnNodes", {kId, kSchedule, kNodeCount, kNodeNames, kResults},
                           {kStatus, kResults}, [this](auto& call, auto& reply) {
                             ScheduleGuid id;
                             SCHEDULE_OBJECT schedule;
                             NodeArguments nodes;
                             CallArguments arguments(call);
                             nodes.ReadFrom(arguments.Id(id).Schedule(schedule));
                             if (arguments.Error().IsSet()) return arguments.Error();
                             BusError error =
                                 AppendStatus(reply, m_service.ModifyScheduleOnNodes(id, schedule, nodes.count,
                                                                                     nodes.names, nodes.results));
                             if (!error.IsSet()) AppendNumbers(reply, nodes.results);
                             return error;
                           }));
  methods.push_back(Method("Refresh", {}, {kStatus},
                           [this](auto&, auto& reply) { return AppendStatus(reply, m_service.Refresh()); }));
  methods.push_back(Method("Notify_NextTimeWindow_Modify", {kId, kWindow}, {kStatus}, [this](auto& call, auto& reply) {
    ScheduleGuid id;
    std::int32_t window = 0;
    CallArguments arguments(call);
    if (arguments.Id(id).Number(kWindow.name, window).Error().IsSet()) return arguments.Error();
    return AppendStatus(reply, m_service.Notify_NextTimeWindow_Modify(id, window));
  }));
  methods.push_back(
      Method("Notify_SystemTime_Change", {{"i", "count"}, {"as", "schedule_ids"}, {"ai", "next_windows"}}, {kStatus},
             [this](auto& call, auto& reply) {
               std::int32_t count = 0;
               std::vector<std::u16string> ids;
               std::vector<std::int32_t> windows;
               CallArguments arguments(call);
               arguments.Number("count", count).Texts("schedule_ids", ids).Numbers("next_windows", windows);
               if (arguments.Error().IsSet()) return arguments.Error();
               return AppendStatus(reply, m_service.Notify_SystemTime_Change(count, ids, windows));
             }));
  methods.push_back(Method("UpdateList", {{"i", "parameter_type"}, {"s", "parameter_value"}},
                           {kStatus, {"u", "count"}, {"as", "schedule_ids"}}, [this](auto& call, auto& reply) {
                             std::int32_t type = 0;
                             std::u16string value;
                             CallArguments arguments(call);
                             arguments.Number("parameter_type", type).Text("parameter_value", value);
                             if (arguments.Error().IsSet()) return arguments.Error();
                             std::uint32_t count = 0;
                             std::vector<std::u16string> ids;
                             BusError error = AppendStatus(reply, m_service.UpdateList(type, value, count, ids));
                             if (error.IsSet()) return error;
                             reply.AppendUint32(count);
                             AppendTexts(reply, ids);
                             return error;
                           }));
  methods.push_back(Method("PerformOperationOnNodes", {{"s", "data"}, kNodeCount, kNodeNames, kResults},
                           {kStatus, kResults}, [this](auto& call, auto& reply) {
                             std::u16string data;
                             NodeArguments nodes;
                             CallArguments arguments(call);
                             nodes.ReadFrom(arguments.Text("data", data));
                             if (arguments.Error().IsSet()) return arguments.Error();
                             BusError error = AppendStatus(reply, m_service.PerformOperationOnNodes(
                                                                      data, nodes.count, nodes.names, nodes.results));
                             if (!error.IsSet()) AppendNumbers(reply, nodes.results);
                             return error;
                           }));
  return served;
}

BusInterface CServiceBus::EventsInterface() {
  BusInterface served;
  served.name = kBusEventsInterface;
  served.signals = {{"Schedule_Add", {kId}},
                    {"Schedule_Modify", {kId}},
                    {"Schedule_Delete", {kId}},
                    {"NextTimeWindow_Modify", {kId, kWindow}},
                    {"SystemTime_Change", {{"i", "count"}, {"as", "schedule_ids"}, {"ai", "next_windows"}}}};
  return served;
}

BusInterface CServiceBus::ManagerInterface() {
  BusInterface served;
  served.name = kBusManagerInterface;
  served.methods.push_back(Method("ListInfo", {{"s", "after_id"}, {"u", "limit"}},
                                  {kStatus, {std::string(kListRowsType), "rows"}},
                                  [this](auto& call, auto& reply) { return ListPage(call, reply); }));
  served.methods.push_back(
      Method("Subscribe", {}, {kStatus}, [](auto&, auto& reply) { return AppendStatus(reply, kStatusOk); }));
  served.properties = {
      Property("Version", "s", [this](MessageWriter& value) { value.AppendString(m_options.version); }),
      Property("Zone", "s",
               [](MessageWriter& value) { AppendText(value, platform::WideFromUtf8(platform::CurrentZoneName())); }),
      Property("Port", "q",
               [this](MessageWriter& value) { value.AppendUint16(m_options.port ? m_options.port() : 0); }),
      Property("TraceLevel", "u", [](MessageWriter& value) { value.AppendUint32(ZepFoundation::ServiceLogLevel); }),
      Property("NextWakeUp", "x", [](MessageWriter& value) { value.AppendInt64(NextWakeUp()); }),
      Property("StateDirectory", "s",
               [](MessageWriter& value) { AppendText(value, platform::WideFromUtf8(platform::StateDirectory())); }),
  };
  return served;
}

BusError CServiceBus::ListPage(MessageReader& call, MessageWriter& reply) {
  std::u16string afterId;
  std::uint32_t limit = 0;
  CallArguments arguments(call);
  if (arguments.Text("after_id", afterId).Number("limit", limit).Error().IsSet()) return arguments.Error();
  if (!afterId.empty()) {
    ScheduleGuid id;
    if (!ParseScheduleId(platform::Utf8FromWide(afterId), id)) {
      return BusError::InvalidArgs("key 'after_id' is no identifier in braces");
    }
    afterId = platform::GuidText(id);
  }
  bool begun = false;
  const auto begin = [&](Status status) {
    if (std::exchange(begun, true)) return;
    reply.AppendInt32(static_cast<std::int32_t>(status));
    reply.OpenArray("(" + std::string(kListRowContents) + ")");
  };
  const Status status = m_list.Page(afterId, limit, [&](const SentListRow& row) {
    begin(kStatusOk);
    AppendListRow(reply, row);
    return reply.BytesSoFar() <= m_replyLimit / 2;  // the next page goes on behind it
  });
  begin(status);
  reply.Close();
  return {};
}

}  // namespace qx
