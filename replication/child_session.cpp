#include "replication/child_session.h"

#include <array>
#include <string_view>
#include <utility>

#include "foundation/include/zfclog.h"
#include "platform/memory.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "replication/message_body.h"
#include "replication/secure_channel.h"
#include "service/run_command.h"
#include "service/schedule_store.h"

namespace qx {
namespace {

using platform::Socket;
using ZepFoundation::ForLog;
using ZepFoundation::ServiceLog;

constexpr std::uint32_t kLingerMs = 10000;

std::u16string IdText(const MessageHeader& header) { return platform::GuidText(header.scheduleId); }

// Body and header have to name one schedule and one operation; the comparison of the texts is exact.
bool Agrees(const MessageHeader& header, const BSTR& id, std::uint32_t msgType) {
  const std::u16string expected = IdText(header);
  if (*id == expected && msgType == header.msgType) return true;
  ServiceLog(1, u"ChildSocketThread: Data modified, ID in header: %s, in string: %s", expected, ForLog(*id));
  ServiceLog(1, u"ChildSocketThread: Data modified, msgType in header: %d, in string: %d", header.msgType, msgType);
  return false;
}

// What an operation on the registry finds: whether the key is there, when that could be seen.
enum class Entry { kUnknown, kMissing, kThere };
Entry FindEntry(const ScheduleGuid& id) {
  int failed = 0;
  const int exists = RegistryExists(id, failed);
  if (failed != 0) return Entry::kUnknown;
  return exists != 0 ? Entry::kThere : Entry::kMissing;
}

bool CarryOutOnRegistry(const MessageHeader& header, const std::u16string& body, std::uint32_t& result) {
  SCHEDULE_OBJECT schedule;
  BSTR id;
  std::uint32_t msgType = 0;
  const std::uint32_t parsed = header.msgType == MSG_DELETE ? ParseXMLContent(body.c_str(), &id, msgType)
                                                            : ParseXMLContent(body.c_str(), schedule, &id, msgType);
  // A text that no parser takes leaves the identifier unset: it is answered like any failed parse.
  if (parsed != 0 || !id) return true;
  if (!Agrees(header, id, msgType)) return false;
  const Entry entry = FindEntry(header.scheduleId);
  if (entry == Entry::kUnknown) return true;
  const bool wanted = (header.msgType == MSG_CREATE) == (entry == Entry::kMissing);
  if (!wanted) {
    result = kStatusOk;  // it is there already, or isn't there to be changed
  } else if (header.msgType == MSG_CREATE) {
    result = WriteRegistry(schedule, header.scheduleId);
  } else if (header.msgType == MSG_DELETE) {
    result = DeleteRegistry(header.scheduleId);
  } else {
    result = ModifyRegistry(header.scheduleId, schedule);
  }
  return true;
}

void CarryOutCommand(const std::u16string& body, std::uint32_t& result) {
  const auto data = FindOperationData(body);
  if (!data) {
    ServiceLog(1, u"ChildSocketThread: Did not find <OpData> in XML : %s", ForLog(body));
    return;
  }
  ServiceLog(3, u"ChildSocketThread: wsData Command size : %d ", static_cast<std::uint32_t>(data->size()));
  std::uint32_t exitCode = 0;
  result = RunCommand(platform::SystemFromWide(*data), &exitCode);
  // Deliberate: a command that ran and failed is a success of this operation.
  ServiceLog(3, u"ChildSocketThread: RunCommand return code : 0x%x", exitCode);
}

}  // namespace

bool CarryOutOperation(const MessageHeader& header, const std::u16string& body, std::uint32_t& result) {
  result = kStatusFailure;
  switch (header.msgType) {
    case MSG_CREATE:
      ServiceLog(3, u"ChildSocketThread: Requested to create the registry entries of the schedule %s", IdText(header));
      break;
    case MSG_DELETE:
      ServiceLog(3, u"ChildSocketThread: Requested to deleted the registry entries of the schedule %s",
                 IdText(header));
      break;
    case MSG_MODIFY:
      ServiceLog(3, u"SocketThread: Requested to modify the registry entries of the schedule %s", IdText(header));
      break;
    default:
      CarryOutCommand(body, result);
      return true;
  }
  return CarryOutOnRegistry(header, body, result);
}

std::vector<std::uint8_t> AckText(std::uint32_t result) {
  const std::string text = std::to_string(static_cast<std::int32_t>(result));
  std::vector<std::uint8_t> block(text.begin(), text.end());
  block.resize(kAckTextSize);
  return block;
}

CChildSession::Step CChildSession::Authenticate() {
  if (const platform::SecurityStatus status = getLuidForProc(m_credentials, platform::CredentialsUse::kInbound);
      status != platform::SEC_E_OK) {
    ServiceLog(1, u"ChildSocketThread: AcquireCredentialsHandle failed. Error 0x%x.", status);
    return Step::kClose;
  }
  if (const int result = acceptContext(m_socket, m_credentials, m_context); result != 0) {
    ServiceLog(1, u"ChildSocketThread: acceptContext returned with error ox%x", result);
    return Step::kClose;
  }
  return Step::kGoOn;
}

CChildSession::Step CChildSession::ReceiveHeader(bool first) {
  std::array<std::uint8_t, kWireHeaderSize> bytes{};
  if (Receive(m_socket, bytes.data(), bytes.size()) == 0) {
    ServiceLog(1, u"ChildSocketThread: Failed to receive header");
    return Step::kClose;
  }
  if (DecodeHeader(bytes, m_header) != 0) return Step::kGoOn;
  // Deliberate: of the first header nothing is said.
  if (!first) ServiceLog(1, u"ChildSocketThread: Decode Header failed");
  return Step::kClose;
}

CChildSession::Step CChildSession::ExchangeKeys() {
  ServiceLog(3, u"ChildSocketThread: public key recevied from client");
  if (m_header.msgLen == 0) {
    ServiceLog(1, u"ChildSocketThread: Large invalid message length received: %d", m_header.msgLen);
  } else {
    std::vector<std::uint8_t> blob;
    // A failed allocation ends like a failed receive.
    if (ReceivePayload(m_socket, m_header.msgLen, "ChildSocketThread key", kKeptBlobSize, blob) !=
        PayloadResult::kDone) {
      return Step::kClose;
    }
    m_callerKey = m_keys.ImportKey(blob, u"");
    if (!m_callerKey) {
      ServiceLog(1, u"ChildSocketThread: ImportKey Failed");
      return Step::kClose;
    }
    if (m_keys.ExportPublicKey(blob) == 0) {
      ServiceLog(1, u"ChildSocketThread :Failed ExportPublicKey");
      return Step::kClose;
    }
    MessageHeader reply = {static_cast<std::uint32_t>(blob.size()), MSG_PUBLIC_KEY, m_header.reserved,
                           m_header.scheduleId};
    std::array<std::uint8_t, kWireHeaderSize> bytes{};
    // A reply that can't be sent is only logged; the wait for the operation then runs out.
    if (EncodeHeader(reply, bytes) == 0 || Send(m_socket, bytes) == 0) {
      ServiceLog(1, u"ChildSocketThread: Failed to send keyheader msgLen: %d", static_cast<std::uint32_t>(blob.size()));
    } else if (Send(m_socket, blob) == 0) {
      ServiceLog(1, u"ChildSocketThread: Failed to send key data msgLen: %d", static_cast<std::uint32_t>(blob.size()));
    }
  }
  ServiceLog(3, u"ChildSocketThread: Key exchanged sucesfully. Receiveing actual data header");
  m_header = {};
  return ReceiveHeader(false);
}

CChildSession::Step CChildSession::CheckHeader() const {
  if (m_header.msgType != MSG_CREATE && m_header.msgType != MSG_DELETE && m_header.msgType != MSG_MODIFY &&
      m_header.msgType != MSG_PERFORM) {
    ServiceLog(1, u"ChildSocketThread: Invalid Message Type : %d", m_header.msgType);
    return Step::kClose;
  }
  if (m_header.msgLen > kMaxOperationSize) {
    ServiceLog(1, u"ChildSocketThread: Large invalid message length received: %d", m_header.msgLen);
    return Step::kClose;
  }
  return Step::kGoOn;
}

CChildSession::Step CChildSession::ReceiveBody(std::u16string& body) {
  std::vector<std::uint8_t> cipher, text;
  if (ReceivePayload(m_socket, m_header.msgLen, "ChildSocketThread body", m_header.msgLen, cipher) !=
      PayloadResult::kDone) {
    ServiceLog(1, u"ChildSocketThread: Failed to receive data message");
    return Step::kClose;
  }
  if (m_keys.DecryptMsg(cipher, text) == 0) {
    ServiceLog(1, u"ChildSocketThread:DecryptMsg failed");
    return Step::kClose;
  }
  // The plain text ends with at least the NUL that decryption puts there.
  const char* const narrow = reinterpret_cast<const char*>(text.data());
  platform::ErrorCode error = platform::ERROR_SUCCESS;
  const auto convert = [&](char16_t* out, int units) {
    return platform::MultiByteToWideChar(platform::kCodePageUtf8, 0, narrow, -1, out, units, error);
  };
  int units = convert(nullptr, 0);
  if (units > 0) {
    body.resize(static_cast<std::size_t>(units));
    units = convert(body.data(), units);
  }
  if (units <= 0) {
    ServiceLog(1, u"ChildSocketThread, MultiByteToWideChar failed with error: %d", error);
    return Step::kClose;
  }
  body.resize(static_cast<std::size_t>(units) - 1);
  return Step::kGoOn;
}

CChildSession::Step CChildSession::Answer(std::uint32_t result) {
  if (!m_callerKey) {
    // An operation that came without an exchange of keys: it is done, and there is nobody to answer.
    ServiceLog(1, u"ChildSocketThread: there is no key of the caller to answer with");
    return Step::kClose;
  }
  std::vector<std::uint8_t> cipher;
  if (m_keys.EncryptMsg(*m_callerKey, AckText(result), cipher) == 0) return Step::kClose;
  MessageHeader header = {static_cast<std::uint32_t>(cipher.size()), m_header.msgType | ACK_FLAG, 0,
                          m_header.scheduleId};
  std::array<std::uint8_t, kWireHeaderSize> bytes{};
  if (EncodeHeader(header, bytes) == 0 || Send(m_socket, bytes) == 0) return Step::kClose;
  ServiceLog(3, u"Successfully sent the header of ACK");
  if (Send(m_socket, cipher) == 0) return Step::kClose;
  ServiceLog(3, u"ChildSocketThread: Successfully sent the ACK");
  return Step::kGoOn;
}

void CChildSession::Linger() {
  Socket::LingerEnd end = Socket::LingerEnd::kTimeout;
  if (const platform::SocketError error = m_socket.WaitForClose(kLingerMs, end); error != 0) {
    ServiceLog(1, u"ChildSocketThread: the wait for the other side to close failed with error: %d", error);
    return;
  }
  switch (end) {
    case Socket::LingerEnd::kClosed:
      ServiceLog(3, u"Received FD_CLOSE event");
      break;
    case Socket::LingerEnd::kReadOnly:
      ServiceLog(3, u"Some Extra data has been received");
      platform::PauseThread(kLingerMs);
      break;
    case Socket::LingerEnd::kTimeout:
      ServiceLog(3, u"WSAWaitForMultipleEvents returned with WSA_WAIT_TIMEOUT");
      ServiceLog(3, u"Seems like the Ack is not reached to the other end");
      break;
  }
}

void CChildSession::Run() {
  if (Authenticate() == Step::kClose) return;
  if (ReceiveHeader(true) == Step::kClose) return;
  if (m_header.msgType == MSG_PUBLIC_KEY && ExchangeKeys() == Step::kClose) return;
  if (CheckHeader() == Step::kClose) return;
  std::u16string body;
  if (ReceiveBody(body) == Step::kClose) return;
  std::uint32_t result = kStatusFailure;
  if (!CarryOutOperation(m_header, body, result)) return;
  if (Answer(result) == Step::kClose) return;
  Linger();
}

void CChildSession::Close() {
  if (m_callerKey) (void)CKeyManager::DestroyKey(m_callerKey);
  m_socket.Close();
  ServiceLog(6, u"ChildSocketThread: closing the socket");
  m_context.Delete();
  m_credentials = {};
}

}  // namespace qx
