#include "client/scheduler_client.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "platform/clock.h"

namespace qx {
namespace {

using platform::BusError;
using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using platform::MessageReader;
using platform::MessageWriter;

constexpr std::string_view kPropertiesInterface = "org.freedesktop.DBus.Properties";

// The codes of refusals that a caller tells apart.
struct RefusalCode {
  std::string_view name;
  ErrorCode code;
};
constexpr RefusalCode kRefusals[] = {
    {platform::kBusErrorInvalidArgs, platform::ERROR_INVALID_PARAMETER},
    {platform::kBusErrorAccessDenied, platform::ERROR_ACCESS_DENIED},
    {platform::kBusErrorLimitsExceeded, platform::ERROR_MORE_DATA},
    {platform::kBusErrorServiceUnknown, platform::ERROR_NOT_CONNECTED},
    {platform::kBusErrorNameHasNoOwner, platform::ERROR_NOT_CONNECTED},
    {kBusErrorNotSupported, platform::ERROR_NOT_SUPPORTED},
};

ErrorCode CodeOf(ErrorCode code, const BusError& error) {
  if (code != platform::ERROR_REQUEST_REFUSED) return code;
  const auto row = std::find_if(std::begin(kRefusals), std::end(kRefusals),
                                [&](const RefusalCode& refusal) { return refusal.name == error.name; });
  return row == std::end(kRefusals) ? code : row->code;
}

BusError BadReply(std::string_view what) {
  return BusError::InvalidArgs("the service's answer has no " + std::string(what));
}

// An array of records out of values that were read.
template <class Record>
BusError MakeArray(std::vector<Record>& records, platform::RecordArray<Record>& array) {
  platform::RecordArray<Record> made;
  Record* data = nullptr;
  if (made.Create(records.size(), "client") != 0 || made.AccessData(data, "client") != 0) {
    return BusError::Failed("not enough memory for the service's answer");
  }
  std::move(records.begin(), records.end(), data);
  (void)made.UnaccessData("client");  // the array is whole
  array = std::move(made);
  return {};
}

// Reads an array of structs or dictionaries element by element.
template <class Record, class ReadOne>
BusError ReadRecords(MessageReader& reply, std::string_view elementType, std::vector<Record>& records,
                     const ReadOne& readOne) {
  if (reply.EnterArray(elementType) != ERROR_SUCCESS) return BadReply("array");
  while (!reply.AtEnd()) {
    if (BusError error = readOne(records.emplace_back()); error.IsSet()) return error;
  }
  return reply.Exit() == ERROR_SUCCESS ? BusError() : BadReply("end of its array");
}

std::u16string_view OrEmpty(const BSTR& text) {
  return text ? std::u16string_view(*text) : std::u16string_view();
}

void AppendNodes(MessageWriter& call, std::uint32_t count, const NodeNames& names, const NodeResults& results) {
  call.AppendUint32(count);
  AppendTexts(call, names);
  AppendNumbers(call, results);
}

}  // namespace

SchedulerClient::SchedulerClient() = default;
SchedulerClient::~SchedulerClient() = default;

Status SchedulerClient::Connect(const platform::BusAddress& address) {
  m_error = {};
  m_subscribed = false;
  m_connection.Close();
  if (const ErrorCode rc = m_connection.Open(address); rc != ERROR_SUCCESS) {
    return Fail(rc, BusError::Failed("no connection to the message bus"));
  }
  const bool anySink =
      std::any_of(m_slots.begin(), m_slots.end(), [](const Slot& slot) { return slot.sink != nullptr; });
  return anySink ? Subscribe() : kStatusOk;
}

void SchedulerClient::Disconnect() {
  m_subscribed = false;
  m_connection.Close();
}

bool SchedulerClient::IsConnected() const {
  return m_connection.IsOpen();
}

Status SchedulerClient::Fail(ErrorCode code, BusError error) {
  m_error = std::move(error);
  return platform::StatusFromErrorCode(CodeOf(code, m_error));
}

// Sends a call and waits for its reply.
Status SchedulerClient::Request(std::string_view interface, std::string_view member, const Write& write,
                                MessageReader& reply) {
  m_error = {};
  MessageWriter call;
  ErrorCode rc = m_connection.NewCall(kBusName, kBusPath, interface, member, call);
  if (rc != ERROR_SUCCESS) {
    return Fail(rc, {std::string(platform::kBusErrorDisconnected), "not connected to the message bus"});
  }
  if (write) write(call);
  BusError error;
  rc = m_connection.Call(std::move(call), reply, error, platform::kNoCallLimit);
  return rc == ERROR_SUCCESS ? kStatusOk : Fail(rc, std::move(error));
}

// A call whose reply begins with the service's status; `read` takes what stands behind it.
Status SchedulerClient::Call(std::string_view interface, std::string_view member, const Write& write,
                             const Read& read) {
  MessageReader reply;
  if (const Status status = Request(interface, member, write, reply); status != kStatusOk) return status;
  std::int32_t status = 0;
  if (reply.ReadInt32(status) != ERROR_SUCCESS) return Fail(platform::ERROR_INVALID_DATA, BadReply("status"));
  if (read) {
    if (BusError error = read(reply); error.IsSet()) return Fail(platform::ERROR_INVALID_DATA, std::move(error));
  }
  return static_cast<Status>(status);
}

Status SchedulerClient::CallService(std::string_view member, const Write& write, const Read& read) {
  return Call(kBusServiceInterface, member, write, read);
}

Status SchedulerClient::CreateSchedule(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id) {
  return CallService(
      "CreateSchedule", [&](MessageWriter& call) { AppendSchedule(call, schedule); },
      [&](MessageReader& reply) { return ReadScheduleId(reply, "schedule_id", id); });
}

Status SchedulerClient::DeleteSchedule(const ScheduleGuid& id) {
  return CallService("DeleteSchedule", [&](MessageWriter& call) { AppendScheduleId(call, id); });
}

Status SchedulerClient::ModifySchedule(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule) {
  return CallService("ModifySchedule", [&](MessageWriter& call) {
    AppendScheduleId(call, id);
    AppendSchedule(call, schedule);
  });
}

Status SchedulerClient::ListSchedule(std::uint32_t& count, ScheduleList& schedules) {
  return CallService("ListSchedule", {}, [&](MessageReader& reply) {
    std::uint32_t read = 0;
    if (reply.ReadUint32(read) != ERROR_SUCCESS) return BadReply("count");
    std::vector<SCHEDULE_OBJECT_EX> records;
    BusError error = ReadRecords(reply, "(" + std::string(kScheduleExContents) + ")", records,
                                 [&](SCHEDULE_OBJECT_EX& record) { return ReadScheduleEx(reply, record); });
    if (!error.IsSet() && !records.empty()) error = MakeArray(records, schedules);
    if (!error.IsSet()) count = read;
    return error;
  });
}

Status SchedulerClient::GetScheduleInfo(const ScheduleGuid& id, ScheduleInfo& schedule) {
  return CallService(
      "GetScheduleInfo", [&](MessageWriter& call) { AppendScheduleId(call, id); },
      [&](MessageReader& reply) {
        std::vector<SCHEDULE_OBJECT> records;
        BusError error = ReadRecords(reply, kScheduleType, records, [&](SCHEDULE_OBJECT& record) {
          return ReadSchedule(reply, Reading::kReply, record);
        });
        if (!error.IsSet() && !records.empty()) error = MakeArray(records, schedule);
        return error;
      });
}

Status SchedulerClient::CreateScheduleOnNodes(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id,
                                              std::uint32_t nodeCount, const NodeNames& nodeNames,
                                              NodeResults& results) {
  return CallService(
      "CreateScheduleOnNodes",
      [&](MessageWriter& call) {
        AppendSchedule(call, schedule);
        AppendNodes(call, nodeCount, nodeNames, results);
      },
      [&](MessageReader& reply) {
        BusError error = ReadScheduleId(reply, "schedule_id", id);
        return error.IsSet() ? error : ReadNumbers(reply, "results", results);
      });
}

Status SchedulerClient::DeleteScheduleOnNodes(const ScheduleGuid& id, std::uint32_t nodeCount,
                                              const NodeNames& nodeNames, NodeResults& results) {
  return CallService(
      "DeleteScheduleOnNodes",
      [&](MessageWriter& call) {
        AppendScheduleId(call, id);
        AppendNodes(call, nodeCount, nodeNames, results);
      },
      [&](MessageReader& reply) { return ReadNumbers(reply, "results", results); });
}

Status SchedulerClient::ModifyScheduleOnNodes(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule,
                                              std::uint32_t nodeCount, const NodeNames& nodeNames,
                                              NodeResults& results) {
  return CallService(
      "ModifyScheduleOnNodes",
      [&](MessageWriter& call) {
        AppendScheduleId(call, id);
        AppendSchedule(call, schedule);
        AppendNodes(call, nodeCount, nodeNames, results);
      },
      [&](MessageReader& reply) { return ReadNumbers(reply, "results", results); });
}

Status SchedulerClient::Refresh() {
  return CallService("Refresh", {});
}

Status SchedulerClient::Notify_NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t nextTimeWindow) {
  return CallService("Notify_NextTimeWindow_Modify", [&](MessageWriter& call) {
    AppendScheduleId(call, id);
    call.AppendInt32(nextTimeWindow);
  });
}

Status SchedulerClient::Notify_SystemTime_Change(std::int32_t count, const std::vector<std::u16string>& ids,
                                                 const std::vector<std::int32_t>& nextTimeWindows) {
  return CallService("Notify_SystemTime_Change", [&](MessageWriter& call) {
    call.AppendInt32(count);
    AppendTexts(call, ids);
    AppendNumbers(call, nextTimeWindows);
  });
}

// Deliberate: both outs stay as they came in, here as in the service.
Status SchedulerClient::UpdateList(std::int32_t type, const BSTR& value, std::uint32_t&, std::vector<std::u16string>&) {
  return CallService("UpdateList", [&](MessageWriter& call) {
    call.AppendInt32(type);
    AppendText(call, OrEmpty(value));
  });
}

Status SchedulerClient::PerformOperationOnNodes(const BSTR& data, std::uint32_t nodeCount, const NodeNames& nodeNames,
                                                NodeResults& results) {
  return CallService(
      "PerformOperationOnNodes",
      [&](MessageWriter& call) {
        AppendText(call, OrEmpty(data));
        AppendNodes(call, nodeCount, nodeNames, results);
      },
      [&](MessageReader& reply) { return ReadNumbers(reply, "results", results); });
}

// --- events ---

Status SchedulerClient::Advise(Sink sink, std::uint32_t& cookie) {
  m_error = {};
  if (!sink) return kStatusNoSink;
  if (const Status status = Subscribe(); status != kStatusOk) return status;
  auto slot = std::find_if(m_slots.begin(), m_slots.end(), [](const Slot& s) { return s.sink == nullptr; });
  if (slot == m_slots.end()) slot = m_slots.insert(slot, Slot());
  *slot = {std::move(sink), ++m_lastCookie};
  cookie = m_lastCookie;
  return kStatusOk;
}

Status SchedulerClient::Unadvise(std::uint32_t cookie) {
  m_error = {};
  const auto slot = std::find_if(m_slots.begin(), m_slots.end(),
                                 [&](const Slot& s) { return s.sink != nullptr && s.cookie == cookie; });
  if (slot == m_slots.end()) return kStatusNoSuchSubscription;
  slot->sink.reset();
  return kStatusOk;
}

Status SchedulerClient::Subscribe() {
  if (m_subscribed) return kStatusOk;
  const ErrorCode rc = m_connection.Subscribe(kBusName, kBusPath, kBusEventsInterface, "",
                                              [this](MessageReader& signal) { OnSignal(signal); });
  if (rc != ERROR_SUCCESS) return Fail(rc, BusError::Failed("the service's events can't be subscribed to"));
  m_subscribed = true;
  // Makes this end a client that a plain server waits for. A service that isn't there yet will send its events.
  (void)Call(kBusManagerInterface, "Subscribe", {}, {});
  m_error = {};
  return kStatusOk;
}

void SchedulerClient::OnSignal(MessageReader& signal) {
  using Event = void (ISchedulerServiceEvents::*)(const ScheduleGuid&);
  static constexpr std::pair<std::string_view, Event> kPlainEvents[] = {
      {"Schedule_Add", &ISchedulerServiceEvents::Schedule_Add},
      {"Schedule_Modify", &ISchedulerServiceEvents::Schedule_Modify},
      {"Schedule_Delete", &ISchedulerServiceEvents::Schedule_Delete}};
  ScheduleGuid id;
  for (const auto& [name, event] : kPlainEvents) {
    if (signal.Member() != name) continue;
    if (ReadScheduleId(signal, "schedule_id", id).IsSet()) return;
    return Deliver([&, call = event](ISchedulerServiceEvents& sink) { (sink.*call)(id); });
  }
  if (signal.Member() == "NextTimeWindow_Modify") {
    std::int32_t window = 0;
    if (ReadScheduleId(signal, "schedule_id", id).IsSet() || signal.ReadInt32(window) != ERROR_SUCCESS) return;
    return Deliver([&](ISchedulerServiceEvents& sink) { sink.NextTimeWindow_Modify(id, window); });
  }
  if (signal.Member() == "SystemTime_Change") {
    std::int32_t count = 0;
    std::vector<std::u16string> ids;
    std::vector<std::int32_t> windows;
    if (signal.ReadInt32(count) != ERROR_SUCCESS || ReadTexts(signal, Reading::kReply, "schedule_ids", ids).IsSet() ||
        ReadNumbers(signal, "next_windows", windows).IsSet()) {
      return;
    }
    Deliver([&](ISchedulerServiceEvents& sink) { sink.SystemTime_Change(count, ids, windows); });
  }
}

// The number of slots is read once; a sink may advise and unadvise meanwhile.
void SchedulerClient::Deliver(const std::function<void(ISchedulerServiceEvents&)>& event) {
  ++m_delivered;
  const std::size_t count = m_slots.size();
  for (std::size_t i = 0; i < count; ++i) {
    const Sink sink = m_slots[i].sink;
    if (sink) (void)platform::RunGuarded("event sink", [&] { event(*sink); });
  }
}

std::size_t SchedulerClient::WaitForEvents(std::uint32_t limitMs) {
  m_delivered = 0;
  const std::uint32_t begun = platform::TickCount();
  while (m_connection.IsOpen()) {
    while (m_connection.Process()) {
    }
    const std::uint32_t passed = platform::TickCount() - begun;
    if (m_delivered != 0 || passed >= limitMs) break;
    (void)m_connection.WaitForWork(limitMs - passed);
  }
  return m_delivered;
}

// --- the Manager interface ---

Status SchedulerClient::ListInfo(std::u16string_view afterId, std::uint32_t limit, std::vector<ListRow>& rows) {
  return Call(
      kBusManagerInterface, "ListInfo",
      [&](MessageWriter& call) {
        AppendText(call, afterId);
        call.AppendUint32(limit);
      },
      [&](MessageReader& reply) {
        std::vector<ListRow> page;
        BusError error = ReadRecords(reply, "(" + std::string(kListRowContents) + ")", page,
                                     [&](ListRow& row) { return ReadListRow(reply, row); });
        if (!error.IsSet()) std::move(page.begin(), page.end(), std::back_inserter(rows));
        return error;
      });
}

Status SchedulerClient::ListAll(std::vector<ListRow>& rows) {
  std::u16string last;
  while (true) {
    std::vector<ListRow> page;
    if (const Status status = ListInfo(last, 0, page); status != kStatusOk) return status;
    if (page.empty()) return kStatusOk;
    last = page.back().id;
    std::move(page.begin(), page.end(), std::back_inserter(rows));
  }
}

Status SchedulerClient::Properties(ServiceProperties& properties) {
  MessageReader reply;
  const Status status = Request(
      kPropertiesInterface, "GetAll", [](MessageWriter& call) { call.AppendString(kBusManagerInterface); }, reply);
  if (status != kStatusOk) return status;
  ServiceProperties read;
  const auto text = [&](std::string& value) {
    std::string_view view;
    const ErrorCode rc = reply.ReadString(view);
    value = view;
    return rc;
  };
  struct Property {
    std::string_view name;
    std::string_view type;
    std::function<ErrorCode()> get;
  };
  const Property known[] = {
      {"Version", "s", [&] { return text(read.version); }},
      {"Zone", "s", [&] { return text(read.zone); }},
      {"Port", "q", [&] { return reply.ReadUint16(read.port); }},
      {"TraceLevel", "u", [&] { return reply.ReadUint32(read.traceLevel); }},
      {"NextWakeUp", "x", [&] { return reply.ReadInt64(read.nextWakeUp); }},
      {"StateDirectory", "s", [&] { return text(read.stateDirectory); }},
  };
  ErrorCode rc = reply.EnterArray("{sv}");
  while (rc == ERROR_SUCCESS && !reply.AtEnd()) {
    std::string_view name;
    rc = reply.EnterDictEntry("sv");
    if (rc == ERROR_SUCCESS) rc = reply.ReadString(name);
    const auto property =
        std::find_if(std::begin(known), std::end(known), [&](const Property& p) { return p.name == name; });
    if (rc == ERROR_SUCCESS && property != std::end(known)) {
      rc = reply.EnterVariant(property->type);
      if (rc == ERROR_SUCCESS) rc = property->get();
      if (rc == ERROR_SUCCESS) rc = reply.Exit();
    }
    if (rc == ERROR_SUCCESS) rc = reply.Exit();
  }
  if (rc != ERROR_SUCCESS) return Fail(platform::ERROR_INVALID_DATA, BadReply("properties as expected"));
  properties = std::move(read);
  return kStatusOk;
}

}  // namespace qx
