#include "replication/node_operations.h"

#include <algorithm>
#include <array>
#include <functional>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "foundation/include/zfclog.h"
#include "platform/automation.h"
#include "platform/fault_point.h"
#include "platform/memory.h"
#include "platform/security.h"
#include "platform/socket.h"
#include "platform/text.h"
#include "replication/message_body.h"
#include "replication/node_address.h"
#include "replication/receive_ack.h"
#include "replication/secure_channel.h"
#include "replication/wire.h"
#include "service/service_account.h"

namespace qx {
namespace {

using platform::AddressFamily;
using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using platform::Socket;
using platform::SocketError;
using ZepFoundation::ForLog;
using ZepFoundation::ServiceLog;

using Bytes = std::vector<std::uint8_t>;

// What a failed step makes of the whole call.
constexpr Status kNotDone = kStatusFailure;

// An array of the caller's, accessed for the length of a call.
ErrorCode AccessArray(std::size_t size, std::uint32_t count, std::string_view name) {
  if (const ErrorCode fault = platform::FaultAt(platform::Operation::kArrayAccessData, name); fault != ERROR_SUCCESS) {
    return fault;
  }
  return size < count ? platform::kArrayInvalidArgument : ERROR_SUCCESS;
}

}  // namespace

// What tells the four operations apart.
struct CNodeOperations::Operation {
  const char16_t* name;
  const char16_t* verb;          // of the local step and of a failed body
  const char16_t* verbPast;
  const char16_t* registryVerb;  // of a failed allocation of the sockets
  const char16_t* contextFailed;
  const char16_t* exchangeFailed;
  std::uint32_t msgType;
};

namespace {

// Deliberate: three operations share the words of the deletion here, whichever of them runs.
constexpr const char16_t* kExchangeFailedOfOthers = u"DeleteScheduleOnNodes: exchange keys with node: %s failed";

}  // namespace

// The working state of one call.
class CNodeOperations::Call {
 public:
  Call(CNodeOperations& owner, const Operation& operation, std::uint32_t nodeCount, const NodeNames& nodeNames,
       NodeResults& results)
      : m_keys(owner.m_keys),
        m_port(owner.m_port),
        m_operation(operation),
        m_count(nodeCount),
        m_names(nodeNames),
        m_results(results) {}

  //   localStep  null for none; its status decides whether anything is sent
  //   build      makes the body; returns its length, 0 on failure
  //   id         asked for once the local step is done
  Status Run(const std::function<Status()>& localStep, const std::function<std::uint32_t(std::u16string&)>& build,
             const std::function<ScheduleGuid()>& id) {
    ServiceLog(4, u"Entered into %s", m_operation.name);
    // Deliberate: without effect, either of them.
    (void)ProbeAddressFamilies();
    (void)GetIpMode();
    if (m_count == 0) {
      ServiceLog(1, u"%s:NodeCount is less than 1", m_operation.name);
      return kStatusNoNodes;
    }
    if (const ErrorCode code = AccessArray(m_results.size(), m_count, "ppsaHRESULT"); code != ERROR_SUCCESS) {
      ServiceLog(1, u"%s:Failed SafeArrayAccessData(ppsaHRES) with error = %x", m_operation.name, code);
      return code;
    }
    if (const ErrorCode code = AccessArray(m_names.size(), m_count, "NodeNames"); code != ERROR_SUCCESS) {
      ServiceLog(1, u"%s:Failed SafeArrayAccessData(ppsaNodeNames) with hr = %x", m_operation.name, code);
      return code;
    }
    std::optional<std::size_t> local;
    for (std::size_t i = 0; i < m_count; ++i) {
      m_results[i] = static_cast<std::int32_t>(kStatusFailure);
      if (m_names[i] == kLocalhost) local = i;
    }
    if (!local) {
      ServiceLog(1, u"%s:Invalid NodeNames: 'localhost' not exists in the list", m_operation.name);
      return kStatusNoLocalhost;
    }
    m_local = *local;
    Status status = localStep ? DoLocalStep(localStep) : kStatusOk;
    if (status == kStatusOk && m_count >= 2) {
      m_id = id();
      // What was done here is told in any case, and with it the identifier of what was created.
      if (!HasMemory([&] { status = CarryToOthers(build); })) status = kNotDone;
    }
    ServiceLog(4, u"Exited from %s", m_operation.name);
    return status;
  }

 private:
  // False, which is logged, where memory ran out in the work.
  template <class Work>
  bool HasMemory(const Work& work) {
    try {
      work();
      return true;
    } catch (const std::bad_alloc&) {
      ServiceLog(1, u"%s: Calloc failed", m_operation.name);
      return false;
    }
  }

  Status DoLocalStep(const std::function<Status()>& localStep) {
    const Status status = localStep();
    m_results[m_local] = static_cast<std::int32_t>(status);
    if (status != kStatusOk) {
      ServiceLog(1, u"%s:Failed to %s the schedule on localhost", m_operation.name, m_operation.verb);
      return kNotDone;
    }
    ServiceLog(3, u"Successfully %s the schedule on localhost", m_operation.verbPast);
    return kStatusOk;
  }

  // Failures end with 1 and leave the local change as it is.
  Status CarryToOthers(const std::function<std::uint32_t(std::u16string&)>& build) {
    if (CheckIfRunningAsLocalSystem()) return kNotDone;
    if (!platform::IsSecurityPackageLoaded()) {
      ServiceLog(1, u"%s: secur32.dll has not been loaded", m_operation.name);
      // Deliberate: these words in all four.
      ServiceLog(1, u"%s: failed to create schedule on far nodes", m_operation.name);
      return kNotDone;
    }
    platform::SecurityCredentials credentials;
    if (const platform::SecurityStatus status = getLuidForProc(credentials, platform::CredentialsUse::kOutbound);
        status != platform::SEC_E_OK) {
      ServiceLog(1, u"%s: AcquireCredentialsHandle failed. Error 0x%x.", m_operation.name, status);
      return kNotDone;
    }
    if (!platform::NamedBuffer<int>(m_count, "m_socket")) {
      ServiceLog(1, u"%s:calloc(m_socket) failed", m_operation.name);
      ServiceLog(1, u"%s:Failed to %s the registry on remote hosts", m_operation.name, m_operation.registryVerb);
      return kNotDone;
    }
    m_sockets.resize(m_count);
    if (!BuildBody(build)) return kNotDone;
    // Each lives to the end of the call.
    std::vector<platform::SecurityContext> contexts(m_count);
    Status status = kStatusOk;
    for (std::size_t node = 0; node < m_count; ++node) {
      bool sent = false;
      if (node == m_local || (HasMemory([&] { sent = SendTo(node, credentials, contexts[node]); }) && sent)) continue;
      m_sockets[node].Close();
      status = kNotDone;
    }
    ServiceLog(3, u"%s:Successfully sent Registry information to %d clients ", m_operation.name,
               static_cast<std::uint32_t>(m_waiting.size()));
    if (m_waiting.empty()) return status;
    const int acknowledged = ReceiveAck(m_keys, m_sockets, m_waiting, m_results, m_names);
    if (acknowledged != 0) {
      ServiceLog(1, u"%s:Failed ReceiveAck with error: %x", m_operation.name, acknowledged);
      status = static_cast<Status>(acknowledged);
    }
    return status;
  }

  // Once for all nodes: wide, then UTF-8 with its final NUL.
  bool BuildBody(const std::function<std::uint32_t(std::u16string&)>& build) {
    std::u16string xml;
    const std::uint32_t length = build(xml);
    if (length == 0) {
      ServiceLog(1, u"%s:Failed CreateXMLString", m_operation.name);
      ServiceLog(1, u"%s:Failed to %s schedule on all remote hosts", m_operation.name, m_operation.verb);
      return false;
    }
    if (!platform::NamedBuffer<char>(length, "OnNodes body")) {
      ServiceLog(1, u"%s: Calloc failed", m_operation.name);
      return false;
    }
    const std::string utf8 = platform::Utf8FromWide(xml);
    m_body.assign(utf8.c_str(), utf8.c_str() + length);
    return true;
  }

  // One node up to its operation; false after a failure, which is logged.
  bool SendTo(std::size_t node, const platform::SecurityCredentials& credentials, platform::SecurityContext& context) {
    const std::u16string& name = m_names[node];
    const std::u16string shown = ForLog(name);
    std::string narrow;
    if (!ConvertName(name, narrow)) return false;
    Socket& socket = m_sockets[node];
    if (const SocketError error = Connect(narrow, socket); !socket) {
      ServiceLog(1, u"%s:Failed to create socket(), NodeName: %s, Error: %d.", m_operation.name, shown, error);
      return false;
    }
    if (createContext(socket, credentials, context, m_id) != 0) {
      ServiceLog(1, m_operation.contextFailed, shown);
      return false;
    }
    if (m_keys.exchangeKey(socket, name, m_id) != 0) {
      ServiceLog(1, m_operation.exchangeFailed, shown);
      return false;
    }
    Bytes cipher;
    if (m_keys.EncryptMsg(name, m_body, cipher) == 0) return false;
    ServiceLog(3, u"%s:original data length: %d", m_operation.name, static_cast<std::uint32_t>(m_body.size()));
    ServiceLog(3, u"%s:encrypted data length: %d", m_operation.name, static_cast<std::uint32_t>(cipher.size()));
    MessageHeader header = {static_cast<std::uint32_t>(cipher.size()), m_operation.msgType, 0, m_id};
    std::array<std::uint8_t, kWireHeaderSize> bytes{};
    if (EncodeHeader(header, bytes) == 0) {
      ServiceLog(1, u"%s:Failed to Encode Header to send", m_operation.name);
      return false;
    }
    if (Send(socket, bytes) == 0) {
      ServiceLog(1, u"%s: Failed to send the msg header to node %s", m_operation.name, shown);
      return false;
    }
    if (Send(socket, cipher) == 0) {
      ServiceLog(1, u"%s: Failed to send the msg to node %s", m_operation.name, shown);
      return false;
    }
    // Deliberate: more than one wait can hold were sent the operation and aren't waited for at first.
    if (m_waiting.size() < kMaxAwaitedSockets) m_waiting.push_back(node);
    return true;
  }

  bool ConvertName(const std::u16string& name, std::string& narrow) {
    ErrorCode error = ERROR_SUCCESS;
    const auto convert = [&](char* out, int bytes) {
      return platform::WideCharToMultiByte(platform::kCodePageUtf8, 0, name.c_str(), -1, out, bytes, nullptr, nullptr,
                                           error);
    };
    const int bytes = convert(nullptr, 0);
    if (bytes <= 0) {
      ServiceLog(1, u"%s:Failed to convert BSTR(NodeName) To char*(NodeName).", m_operation.name);
      return false;
    }
    platform::NamedBuffer<char> buffer(static_cast<std::size_t>(bytes), "tempNodeName");
    if (!buffer) {
      ServiceLog(1, u"%s:Failed calloc(tempNodeName)", m_operation.name);
      return false;
    }
    if (convert(buffer.get(), bytes) <= 0) {
      ServiceLog(1, u"%s:Failed to convert BSTR(NodeName) to char*(NodeName).", m_operation.name);
      return false;
    }
    narrow = buffer.get();
    return true;
  }

  // The first address that takes a connection; the last error, and no socket, when none does.
  SocketError Connect(const std::string& name, Socket& out) {
    AddressFamily family = AddressFamily::kUnspecified;
    const int kind = ClassifyNodeAddress(name.c_str());
    if (kind == kFamilyIpv4) family = AddressFamily::kIpv4;
    if (kind == kFamilyIpv6) family = AddressFamily::kIpv6;
    std::vector<platform::SocketAddress> addresses;
    // A textual address is taken as it is, whatever addresses this host has.
    SocketError error = platform::ResolveAddress(name, std::to_string(m_port), family, kind != 0, addresses);
    if (error != 0) return error;
    for (const platform::SocketAddress& address : addresses) {
      if (address.Family() != AddressFamily::kIpv4 && address.Family() != AddressFamily::kIpv6) continue;
      if (address.IsIpv6LinkLocal()) continue;
      Socket socket;
      error = Socket::Create(address.Family(), socket);
      if (error == 0) error = socket.Connect(address);
      if (error != 0) continue;
      out = std::move(socket);
      return 0;
    }
    return error;
  }

  CKeyManager& m_keys;
  const std::uint16_t m_port;
  const Operation& m_operation;
  const std::uint32_t m_count;
  const NodeNames& m_names;
  NodeResults& m_results;
  std::size_t m_local = 0;
  ScheduleGuid m_id{};
  Bytes m_body;
  std::vector<Socket> m_sockets;       // one a node; empty for "localhost" and for a node that failed
  std::vector<std::size_t> m_waiting;  // nodes whose acknowledgement is waited for
};

Status CNodeOperations::CreateScheduleOnNodes(ISchedulerService& self, const SCHEDULE_OBJECT& schedule,
                                              ScheduleGuid& id, std::uint32_t nodeCount, const NodeNames& nodeNames,
                                              NodeResults& results) {
  static constexpr Operation kCreate = {u"CreateScheduleOnNodes",
                                        u"create",
                                        u"created",
                                        u"modify",  // Deliberate: the word of the modification.
                                        u"CreateScheduleOnNodes: createContext failed",
                                        u"CreateScheduleOnNodes: exchange keys with node: %s failed",
                                        MSG_CREATE};
  const SCHEDULE_OBJECT copy = schedule;
  return Call(*this, kCreate, nodeCount, nodeNames, results)
      .Run([&] { return self.CreateSchedule(copy, id); },
           [&](std::u16string& xml) { return CreateXMLString(copy, id, MSG_CREATE, xml); }, [&] { return id; });
}

Status CNodeOperations::DeleteScheduleOnNodes(ISchedulerService& self, const ScheduleGuid& id, std::uint32_t nodeCount,
                                              const NodeNames& nodeNames, NodeResults& results) {
  static constexpr Operation kDelete = {u"DeleteScheduleOnNodes",
                                        u"delete",
                                        u"deleted",
                                        u"delete",
                                        u"DeleteScheduleOnNodes: createContext with node : %s failed",
                                        kExchangeFailedOfOthers,
                                        MSG_DELETE};
  return Call(*this, kDelete, nodeCount, nodeNames, results)
      .Run([&] { return self.DeleteSchedule(id); },
           [&](std::u16string& xml) { return CreateXMLString(id, MSG_DELETE, xml); }, [&] { return id; });
}

Status CNodeOperations::ModifyScheduleOnNodes(ISchedulerService& self, const ScheduleGuid& id,
                                              const SCHEDULE_OBJECT& schedule, std::uint32_t nodeCount,
                                              const NodeNames& nodeNames, NodeResults& results) {
  static constexpr Operation kModify = {u"ModifyScheduleOnNodes",
                                        u"modify",
                                        u"modified",
                                        u"modify",
                                        u"ModifyScheduleOnNodes: createContext with node: %s failed",
                                        kExchangeFailedOfOthers,
                                        MSG_MODIFY};
  const SCHEDULE_OBJECT copy = schedule;
  return Call(*this, kModify, nodeCount, nodeNames, results)
      .Run([&] { return self.ModifySchedule(id, copy); },
           [&](std::u16string& xml) { return CreateXMLString(copy, id, MSG_MODIFY, xml); }, [&] { return id; });
}

Status CNodeOperations::PerformOperationOnNodes(const BSTR& data, std::uint32_t nodeCount, const NodeNames& nodeNames,
                                                NodeResults& results) {
  static constexpr Operation kPerform = {u"PerformOperationOnNodes",
                                         u"create",  // Deliberate: the word of the creation.
                                         u"created",
                                         u"modify",
                                         u"PerformOperationOnNodes: createContext with node: %s failed",
                                         kExchangeFailedOfOthers,
                                         MSG_PERFORM};
  return Call(*this, kPerform, nodeCount, nodeNames, results)
      .Run(nullptr,
           [&](std::u16string& xml) {
             return CreateXMLString(std::u16string_view(data.value_or(u"")), MSG_PERFORM, xml);
           },
           [] { return ScheduleGuid{}; });
}

}  // namespace qx
