#include "client/scheduler_client.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <memory>
#include <utility>

#include "client/list_walk.h"
#include "common/bus_records.h"
#include "platform/bus.h"
#include "platform/clock.h"

namespace qx {
namespace {

using platform::BusError;
using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using platform::MessageReader;
using platform::MessageWriter;

constexpr std::string_view kBusDaemon = "org.freedesktop.DBus";
constexpr std::string_view kBusDaemonPath = "/org/freedesktop/DBus";
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

struct [[gnu::visibility("hidden")]] SchedulerClient::Impl {
  using Write = std::function<void(MessageWriter&)>;
  using Read = std::function<BusError(MessageReader&)>;
  struct Slot {
    Sink sink;
    std::uint32_t cookie = 0;
  };

  Status Fail(ErrorCode code, BusError refusal);
  Status Request(std::string_view interface, std::string_view member, const Write& write, MessageReader& reply);
  Status Call(std::string_view interface, std::string_view member, const Write& write, const Read& read);
  Status CallService(std::string_view member, const Write& write, const Read& read = {});
  Status Subscribe();
  Status SubscribeToOwner();
  void OnOwner(MessageReader& signal);
  Status AskBus(std::string_view member, MessageReader& reply);
  Status BeginPage(std::string_view after, std::uint32_t limit, MessageWriter& call);
  void OnSignal(MessageReader& signal);
  void Hear(bool ofOwner, MessageReader& signal);
  void Deliver(const std::function<void(ISchedulerServiceEvents&)>& event);

  platform::BusConnection connection;
  BusError lastError;
  std::vector<Slot> slots;
  std::uint32_t lastCookie = 0;
  bool subscribed = false;
  bool watchesOwner = false;  // on this connection
  std::function<void(bool)> presence;
  std::size_t delivered = 0;
  bool waitsForEvents = false;
  // Signals that came while something else was waited for, each with whether it is about the service's name.
  bool keepsSignals = false;
  std::vector<std::pair<bool, MessageReader>> keptSignals;
};

SchedulerClient::SchedulerClient() : m_impl(std::make_unique<Impl>()) {}
SchedulerClient::~SchedulerClient() = default;

const BusError& SchedulerClient::LastError() const {
  return m_impl->lastError;
}

Status SchedulerClient::Connect(const platform::BusAddress& address) {
  m_impl->lastError = {};
  m_impl->subscribed = false;
  m_impl->watchesOwner = false;
  m_impl->keptSignals.clear();
  m_impl->connection.Close();
  if (const ErrorCode rc = m_impl->connection.Open(address); rc != ERROR_SUCCESS) {
    return m_impl->Fail(rc, BusError::Failed("no connection to the message bus"));
  }
  const bool anySink = std::any_of(m_impl->slots.begin(), m_impl->slots.end(),
                                   [](const Impl::Slot& slot) { return slot.sink != nullptr; });
  if (m_impl->presence) {
    if (const Status status = m_impl->SubscribeToOwner(); status != kStatusOk) return status;
  }
  return anySink ? m_impl->Subscribe() : kStatusOk;
}

void SchedulerClient::Disconnect() {
  m_impl->subscribed = false;
  m_impl->watchesOwner = false;
  m_impl->connection.Close();
}

bool SchedulerClient::IsConnected() const {
  return m_impl->connection.IsOpen();
}

Status SchedulerClient::Impl::Fail(ErrorCode code, BusError refusal) {
  lastError = std::move(refusal);
  return platform::StatusFromErrorCode(CodeOf(code, lastError));
}

// Sends a call and waits for its reply.
Status SchedulerClient::Impl::Request(std::string_view interface, std::string_view member, const Write& write,
                                MessageReader& reply) {
  lastError = {};
  MessageWriter call;
  ErrorCode rc = connection.NewCall(kBusName, kBusPath, interface, member, call);
  if (rc != ERROR_SUCCESS) {
    return Fail(rc, {std::string(platform::kBusErrorDisconnected), "not connected to the message bus"});
  }
  if (write) write(call);
  BusError error;
  rc = connection.Call(std::move(call), reply, error, platform::kNoCallLimit);
  return rc == ERROR_SUCCESS ? kStatusOk : Fail(rc, std::move(error));
}

// A call whose reply begins with the service's status; `read` takes what stands behind it.
Status SchedulerClient::Impl::Call(std::string_view interface, std::string_view member, const Write& write,
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

Status SchedulerClient::Impl::CallService(std::string_view member, const Write& write, const Read& read) {
  return Call(kBusServiceInterface, member, write, read);
}

Status SchedulerClient::CreateSchedule(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id) {
  return m_impl->CallService(
      "CreateSchedule", [&](MessageWriter& call) { AppendSchedule(call, schedule); },
      [&](MessageReader& reply) { return ReadScheduleId(reply, "schedule_id", id); });
}

Status SchedulerClient::DeleteSchedule(const ScheduleGuid& id) {
  return m_impl->CallService("DeleteSchedule", [&](MessageWriter& call) { AppendScheduleId(call, id); });
}

Status SchedulerClient::ModifySchedule(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule) {
  return m_impl->CallService("ModifySchedule", [&](MessageWriter& call) {
    AppendScheduleId(call, id);
    AppendSchedule(call, schedule);
  });
}

Status SchedulerClient::ListSchedule(std::uint32_t& count, ScheduleList& schedules) {
  return m_impl->CallService("ListSchedule", {}, [&](MessageReader& reply) {
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
  return m_impl->CallService(
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
  return m_impl->CallService(
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
  return m_impl->CallService(
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
  return m_impl->CallService(
      "ModifyScheduleOnNodes",
      [&](MessageWriter& call) {
        AppendScheduleId(call, id);
        AppendSchedule(call, schedule);
        AppendNodes(call, nodeCount, nodeNames, results);
      },
      [&](MessageReader& reply) { return ReadNumbers(reply, "results", results); });
}

Status SchedulerClient::Refresh() {
  return m_impl->CallService("Refresh", {});
}

Status SchedulerClient::Notify_NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t nextTimeWindow) {
  return m_impl->CallService("Notify_NextTimeWindow_Modify", [&](MessageWriter& call) {
    AppendScheduleId(call, id);
    call.AppendInt32(nextTimeWindow);
  });
}

Status SchedulerClient::Notify_SystemTime_Change(std::int32_t count, const std::vector<std::u16string>& ids,
                                                 const std::vector<std::int32_t>& nextTimeWindows) {
  return m_impl->CallService("Notify_SystemTime_Change", [&](MessageWriter& call) {
    call.AppendInt32(count);
    AppendTexts(call, ids);
    AppendNumbers(call, nextTimeWindows);
  });
}

// Deliberate: both outs stay as they came in, here as in the service.
Status SchedulerClient::UpdateList(std::int32_t type, const BSTR& value, std::uint32_t&, std::vector<std::u16string>&) {
  return m_impl->CallService("UpdateList", [&](MessageWriter& call) {
    call.AppendInt32(type);
    AppendText(call, OrEmpty(value));
  });
}

Status SchedulerClient::PerformOperationOnNodes(const BSTR& data, std::uint32_t nodeCount, const NodeNames& nodeNames,
                                                NodeResults& results) {
  return m_impl->CallService(
      "PerformOperationOnNodes",
      [&](MessageWriter& call) {
        AppendText(call, OrEmpty(data));
        AppendNodes(call, nodeCount, nodeNames, results);
      },
      [&](MessageReader& reply) { return ReadNumbers(reply, "results", results); });
}

// --- events ---

Status SchedulerClient::Advise(Sink sink, std::uint32_t& cookie) {
  m_impl->lastError = {};
  if (!sink) return kStatusNoSink;
  if (const Status status = m_impl->Subscribe(); status != kStatusOk) return status;
  auto& slots = m_impl->slots;
  auto slot = std::find_if(slots.begin(), slots.end(), [](const Impl::Slot& s) { return s.sink == nullptr; });
  if (slot == slots.end()) {
    const std::size_t used = slots.size();
    slots.resize(used == 0 ? 1 : 2 * used);
    slot = slots.begin() + static_cast<std::ptrdiff_t>(used);
  }
  *slot = {std::move(sink), ++m_impl->lastCookie};
  cookie = slot->cookie;
  return kStatusOk;
}

Status SchedulerClient::Unadvise(std::uint32_t cookie) {
  m_impl->lastError = {};
  const auto slot = std::find_if(m_impl->slots.begin(), m_impl->slots.end(),
                                 [&](const Impl::Slot& s) { return s.sink != nullptr && s.cookie == cookie; });
  if (slot == m_impl->slots.end()) return kStatusNoSuchSubscription;
  const Sink gone = std::move(slot->sink);  // released at the end: the last reference runs code of the sink
  return kStatusOk;
}

Status SchedulerClient::Impl::Subscribe() {
  if (subscribed) return kStatusOk;
  const ErrorCode rc = connection.Subscribe(kBusName, kBusPath, kBusEventsInterface, "",
                                            [this](MessageReader& signal) { Hear(false, signal); });
  if (rc != ERROR_SUCCESS) return Fail(rc, BusError::Failed("the service's events can't be subscribed to"));
  subscribed = true;
  // Makes this end a client that a plain server waits for. A service that isn't there yet will send its events.
  (void)Call(kBusManagerInterface, "Subscribe", {}, {});
  lastError = {};
  return kStatusOk;
}

void SchedulerClient::Impl::Hear(bool ofOwner, MessageReader& signal) {
  if (keepsSignals) {
    keptSignals.emplace_back(ofOwner, std::move(signal));
  } else if (ofOwner) {
    OnOwner(signal);
  } else {
    OnSignal(signal);
  }
}

void SchedulerClient::Impl::OnSignal(MessageReader& signal) {
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
void SchedulerClient::Impl::Deliver(const std::function<void(ISchedulerServiceEvents&)>& event) {
  ++delivered;
  const std::size_t count = slots.size();
  for (std::size_t i = 0; i < count; ++i) {
    const Sink sink = slots[i].sink;
    if (sink) (void)platform::RunGuarded("event sink", [&] { event(*sink); });
  }
}

std::size_t SchedulerClient::WaitForEvents(std::uint32_t limitMs) {
  m_impl->delivered = 0;
  const std::uint32_t begun = platform::TickCount();
  const bool nested = std::exchange(m_impl->waitsForEvents, true);
  for (auto& [ofOwner, signal] : std::exchange(m_impl->keptSignals, {})) {
    signal.Rewind();
    m_impl->Hear(ofOwner, signal);
  }
  while (m_impl->connection.IsOpen()) {
    while (m_impl->connection.Process()) {
    }
    const std::uint32_t passed = platform::TickCount() - begun;
    if (m_impl->delivered != 0 || passed >= limitMs) break;
    (void)m_impl->connection.WaitForWork(limitMs - passed);
  }
  m_impl->waitsForEvents = nested;
  return m_impl->delivered;
}

// --- the service's coming and going ---

Status SchedulerClient::Impl::SubscribeToOwner() {
  const ErrorCode rc = connection.Subscribe(kBusDaemon, "", kBusDaemon, "NameOwnerChanged",
                                            [this](MessageReader& signal) { Hear(true, signal); });
  if (rc != ERROR_SUCCESS) return Fail(rc, BusError::Failed("the service's presence can't be watched"));
  watchesOwner = true;
  return kStatusOk;
}

void SchedulerClient::Impl::OnOwner(MessageReader& signal) {
  std::string_view name, before, after;
  if (signal.ReadString(name) != ERROR_SUCCESS || signal.ReadString(before) != ERROR_SUCCESS ||
      signal.ReadString(after) != ERROR_SUCCESS || name != kBusName) {
    return;
  }
  if (!presence) return;
  ++delivered;
  const auto tell = presence;  // it may be replaced from within
  const bool present = !after.empty();
  (void)platform::RunGuarded("presence", [&] { tell(present); });
}

// A question to the bus itself about the service's name.
Status SchedulerClient::Impl::AskBus(std::string_view member, MessageReader& reply) {
  lastError = {};
  MessageWriter call;
  ErrorCode rc = connection.NewCall(kBusDaemon, kBusDaemonPath, kBusDaemon, member, call);
  if (rc != ERROR_SUCCESS) {
    return Fail(rc, {std::string(platform::kBusErrorDisconnected), "not connected to the message bus"});
  }
  call.AppendString(kBusName);
  BusError error;
  rc = connection.Call(std::move(call), reply, error);
  return rc == ERROR_SUCCESS ? kStatusOk : Fail(rc, std::move(error));
}

Status SchedulerClient::WatchService(std::function<void(bool present)> presence) {
  m_impl->lastError = {};
  if (presence && !m_impl->watchesOwner) {
    if (const Status status = m_impl->SubscribeToOwner(); status != kStatusOk) return status;
  }
  m_impl->presence = std::move(presence);
  return kStatusOk;
}

Status SchedulerClient::ServiceProcess(std::uint32_t& process) {
  MessageReader reply;
  std::uint32_t read = 0;
  const Status status = m_impl->AskBus("GetConnectionUnixProcessID", reply);
  if (status != kStatusOk) {
    if (m_impl->lastError.name != platform::kBusErrorNameHasNoOwner) return status;
    m_impl->lastError = {};
  } else if (reply.ReadUint32(read) != ERROR_SUCCESS) {
    return m_impl->Fail(platform::ERROR_INVALID_DATA, BadReply("process"));
  }
  process = read;
  return kStatusOk;
}

// --- the Manager interface ---

Status SchedulerClient::ListInfo(std::u16string_view afterId, std::uint32_t limit, std::vector<ListRow>& rows) {
  return m_impl->Call(
      kBusManagerInterface, "ListInfo",
      [&](MessageWriter& call) {
        AppendText(call, afterId);
        call.AppendUint32(limit);
      },
      [&](MessageReader& reply) { return ReadListRows(reply, rows); });
}

Status SchedulerClient::Impl::BeginPage(std::string_view after, std::uint32_t limit, MessageWriter& call) {
  const ErrorCode rc = connection.NewCall(kBusName, kBusPath, kBusManagerInterface, "ListInfo", call);
  if (rc != ERROR_SUCCESS) {
    return Fail(rc, {std::string(platform::kBusErrorDisconnected), "not connected to the message bus"});
  }
  call.AppendString(after);
  call.AppendUint32(limit);
  return kStatusOk;
}

// --- the whole list ---

Status SchedulerClient::ListAll(SentListRows& list) {
  Impl& impl = *m_impl;
  impl.lastError = {};
  // From within an event the connection answers nothing but a single call.
  ListWalk walk({impl.connection,
                 [&](std::string_view after, std::uint32_t limit, MessageWriter& call) {
                   return impl.BeginPage(after, limit, call);
                 },
                 !impl.waitsForEvents,
                 [&](ErrorCode code, BusError error) { return impl.Fail(code, std::move(error)); }});
  const bool kept = std::exchange(impl.keepsSignals, true);
  const Status status = walk.Run(list);
  impl.keepsSignals = kept;
  return status;
}

Status SchedulerClient::ListAll(std::vector<ListRow>& rows) {
  SentListRows list;
  const Status status = ListAll(list);
  rows.reserve(rows.size() + list.Count());
  list.ForEach([&](const SentListRow& row) { rows.push_back(WideListRow(row)); });
  return status;
}

Status SchedulerClient::Properties(ServiceProperties& properties) {
  MessageReader reply;
  const Status status = m_impl->Request(
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
  if (rc != ERROR_SUCCESS) return m_impl->Fail(platform::ERROR_INVALID_DATA, BadReply("properties as expected"));
  properties = std::move(read);
  return kStatusOk;
}

}  // namespace qx
