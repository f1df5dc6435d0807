#include "replication/secure_channel.h"

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "foundation/include/zfclog.h"
#include "platform/host.h"
#include "platform/memory.h"
#include "replication/wire.h"

namespace qx {
namespace {

using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using platform::IConnection;
using platform::SecurityContext;
using platform::SecurityCredentials;
using platform::SecurityStatus;
using ZepFoundation::ForLog;
using ZepFoundation::ServiceLog;

constexpr std::size_t kTargetUnits = 260;  // of the buffer for the target's name
constexpr std::u16string_view kDefaultTarget = u"Client";

bool IsContinued(SecurityStatus status) {
  return status == platform::SEC_I_CONTINUE_NEEDED || status == platform::SEC_I_COMPLETE_AND_CONTINUE;
}

bool IsToBeCompleted(SecurityStatus status) {
  return status == platform::SEC_I_COMPLETE_NEEDED || status == platform::SEC_I_COMPLETE_AND_CONTINUE;
}

// The code alone says little: what the package says stands beside it.
void LogPackageText(const char16_t* format) {
  const std::u16string text = platform::LastSecurityErrorText();
  if (!text.empty()) ServiceLog(1, format, ForLog(text));
}

// What a variable names as the place of secrets.
std::u16string NameInForce(std::u16string_view variable) {
  const auto value = platform::EnvironmentVariable(variable);
  return std::u16string(variable) + u" is " + (value ? ForLog(*value) : u"not set");
}

// Finds the session; the failure is logged.
ErrorCode FindLogonId(std::uint64_t& logonId) {
  platform::ProcessToken token;
  if (const ErrorCode code = platform::ProcessToken::Open(token); code != ERROR_SUCCESS) {
    ServiceLog(1, u"getLuidForProc: Couldn't retrieve handle for the process's access token: 0x%08x", code);
    return code;
  }
  std::uint32_t size = 0;
  if (const ErrorCode code = token.Statistics({}, size); code != platform::ERROR_INSUFFICIENT_BUFFER) {
    ServiceLog(1, u"getLuidForProc: Couldn't get the required buffer size value for token privileges: 0x%08x", code);
    return platform::ERROR_INVALID_FUNCTION;
  }
  platform::NamedBuffer<std::uint8_t> statistics(size, "getLuidForProc");
  if (!statistics) {
    ServiceLog(1, u"getLuidForProc: Failed to allocate memory");
    return platform::ERROR_NOT_ENOUGH_MEMORY;
  }
  if (const ErrorCode code = token.Statistics(statistics.span(), size); code != ERROR_SUCCESS) {
    ServiceLog(1, u"getLuidForProc: Couldn't retrieve the token privileges: 0x%08x", code);
    return code;
  }
  std::memcpy(&logonId, statistics.get() + platform::kLogonIdOffset, sizeof logonId);
  return ERROR_SUCCESS;
}

// One side's token on its way: header and payload. A header that can't be sent goes unnoticed, the token then stays.
enum class TokenSent { kDone, kNotEncoded, kFailed };
TokenSent SendToken(IConnection& connection, std::uint32_t type, const ScheduleGuid& id,
                    const std::vector<std::uint8_t>& token) {
  MessageHeader header = {static_cast<std::uint32_t>(token.size()), type, 0, id};
  std::array<std::uint8_t, kWireHeaderSize> bytes{};
  if (EncodeHeader(header, bytes) == 0) return TokenSent::kNotEncoded;
  // Deliberate: the wait for the answer then runs out.
  if (Send(connection, bytes) == 0) return TokenSent::kDone;
  return Send(connection, token) == 0 ? TokenSent::kFailed : TokenSent::kDone;
}

// The initiator's side of one reply; false after a failure, which is logged.
bool ReceiveReply(IConnection& connection, std::vector<std::uint8_t>& token) {
  std::array<std::uint8_t, kWireHeaderSize> bytes{};
  if (Receive(connection, bytes.data(), bytes.size()) == 0) {
    ServiceLog(1, u"createContext: Receive Failed");
    return false;
  }
  MessageHeader header;
  if (DecodeHeader(bytes, header) == 0) {
    ServiceLog(1, u"createContext: DecodeHeader Failed");
    return false;
  }
  if (header.msgType != MSG_CONTEXT_REPLY) {
    ServiceLog(1, u"createContext: received header with wrong message type: 0x%x", header.msgType);
    return false;
  }
  if (header.msgLen > kMaxTokenSize) {
    ServiceLog(1, u"createContext: received header with wrong message length: %d", header.msgLen);
    return false;
  }
  switch (ReceivePayload(connection, header.msgLen, "createContext token", kMaxTokenSize, token)) {
    case PayloadResult::kDone:
      return true;
    case PayloadResult::kNoMemory:
      ServiceLog(1, u"createContext: memory allocation failed");
      return false;
    case PayloadResult::kFailed:
      break;
  }
  ServiceLog(1, u"createContext: Receive contextFailed");
  return false;
}

int InitiatorPasses(IConnection& connection, const SecurityCredentials& credentials, SecurityContext& context,
                    const ScheduleGuid& id) {
  if (!platform::NamedBuffer<std::uint8_t>(kMaxTokenSize, "createContext output")) return 1;
  // Deliberate: the target is the initiator's own account, not the peer's.
  std::u16string target(kDefaultTarget);
  if (const ErrorCode code = credentials.UserName(kTargetUnits - 1, target); code != ERROR_SUCCESS) {
    ServiceLog(1, u"createContext: GetUserNameExW failed. Error 0x%x.", code);
  }
  std::vector<std::uint8_t> received, output;
  while (true) {
    const SecurityStatus status = context.Initialize(credentials, target, platform::ISC_REQ_CONFIDENTIALITY, received,
                                                     kMaxTokenSize, output);
    if (platform::SecurityFailed(status)) {
      ServiceLog(1, u"createContext: InitializeSecurityContext Failed with error : 0x%x", status);
      LogPackageText(u"createContext: the security package says: %s");
      return 1;
    }
    received.clear();
    if (IsToBeCompleted(status)) {
      if (const SecurityStatus completed = context.CompleteToken(); platform::SecurityFailed(completed)) {
        ServiceLog(1, u"createContext: CompleteAuthToken failed. Error 0x%x", completed);
        return 1;
      }
    }
    if (!output.empty()) {
      switch (SendToken(connection, MSG_CONTEXT_REQUEST, id, output)) {
        case TokenSent::kDone:
          break;
        case TokenSent::kNotEncoded:
          ServiceLog(1, u"createContext:Failed to Encode Header to be send");
          return 1;
        case TokenSent::kFailed:
          ServiceLog(1, u"createContext: Failed sendMessage");
          return 1;
      }
    }
    if (!IsContinued(status)) return 0;
    if (!output.empty() && !ReceiveReply(connection, received)) return 1;
  }
}

// The accepting side's token of one pass; false after a failure, which is logged.
bool ReceiveRequest(IConnection& connection, MessageHeader& header, std::vector<std::uint8_t>& token) {
  std::array<std::uint8_t, kWireHeaderSize> bytes{};
  if (Receive(connection, bytes.data(), bytes.size()) == 0) {
    ServiceLog(1, u"acceptContext: Failed to receive header of context");
    return false;
  }
  if (DecodeHeader(bytes, header) == 0) {
    ServiceLog(1, u"acceptContext: Decode Header failed");
    return false;
  }
  if (header.msgType != MSG_CONTEXT_REQUEST) {
    ServiceLog(1, u"acceptContext: Invalid message type : %d", header.msgType);
    return false;
  }
  if (header.msgLen > kMaxTokenSize) {
    ServiceLog(1, u"acceptContext: Invalid message length : %d", header.msgLen);
    return false;
  }
  token.clear();
  if (header.msgLen == 0) return true;
  switch (ReceivePayload(connection, header.msgLen, "acceptContext token", kMaxTokenSize, token)) {
    case PayloadResult::kDone:
      return true;
    case PayloadResult::kNoMemory:
      ServiceLog(1, u"acceptContext: Failed to allocate memory");
      return false;
    case PayloadResult::kFailed:
      break;
  }
  ServiceLog(1, u"acceptContext: Receive context information failed");
  return false;
}

bool AcceptorPasses(IConnection& connection, const SecurityCredentials& credentials, SecurityContext& context) {
  if (!platform::NamedBuffer<std::uint8_t>(kMaxTokenSize, "acceptContext output")) {
    ServiceLog(1, u"acceptContext: Failed to allocate memory");
    return false;
  }
  std::vector<std::uint8_t> received, output;
  std::uint32_t attributes = 0;
  while (true) {
    MessageHeader header;
    if (!ReceiveRequest(connection, header, received)) return false;
    // Deliberate: what the last pass returned as attributes is asked for in the next one.
    const SecurityStatus status =
        context.Accept(credentials, received, attributes, kMaxTokenSize, output, attributes);
    if (platform::SecurityFailed(status)) {
      ServiceLog(1, u"acceptContext: AcceptSecurityContext Failed with error : 0x%x", status);
      LogPackageText(u"acceptContext: the security package says: %s");
      return false;
    }
    if (IsToBeCompleted(status)) {
      if (const SecurityStatus completed = context.CompleteToken(); platform::SecurityFailed(completed)) {
        ServiceLog(1, u"acceptContext: CompleteAuthToken failed. Error 0x%x", completed);
        return false;
      }
    }
    if (!output.empty()) {
      switch (SendToken(connection, MSG_CONTEXT_REPLY, header.scheduleId, output)) {
        case TokenSent::kDone:
          break;
        case TokenSent::kNotEncoded:
          ServiceLog(1, u"acceptContext:Failed to Encode Header to be send");
          return false;
        case TokenSent::kFailed:
          ServiceLog(1, u"acceptContext: Failed sendMessage");
          return false;
      }
    }
    if (!IsContinued(status)) return true;
  }
}

// A finding of the caller's account that is told at the end, with its code where it has one.
struct Finding {
  const char16_t* format = nullptr;
  std::uint32_t code = 0;
};

Finding FindAnonymous(SecurityContext& context) {
  if (const SecurityStatus status = context.Impersonate(); status != platform::SEC_E_OK) {
    return {u"acceptContext: Impersonation failed 0x%x", status};
  }
  platform::AnonymousSid anonymous;
  if (const ErrorCode code = platform::AnonymousSid::Allocate(anonymous); code != ERROR_SUCCESS) {
    return {u"acceptContext: SID initialization failed. Error 0x%x.", code};
  }
  bool member = false;
  if (const ErrorCode code = anonymous.IsMember(context, member); code != ERROR_SUCCESS) {
    return {u"acceptContext: Cannot verify token membership. Error 0x%x.", code};
  }
  return {member ? u"acceptContext: NULL Session Logon" : nullptr};
}

}  // namespace

SecurityStatus getLuidForProc(SecurityCredentials& credentials, platform::CredentialsUse use) {
  std::uint64_t logonId = 0;
  if (FindLogonId(logonId) != ERROR_SUCCESS) {
    ServiceLog(1, u"acquireCredentialHandle: Failed to get LUID");
    return platform::SEC_E_INTERNAL_ERROR;
  }
  const SecurityStatus status = SecurityCredentials::Acquire(use, logonId, credentials);
  if (status != platform::SEC_E_OK) {
    ServiceLog(1, u"AcquireCredHandle: AcquireCredentialsHandle failed. Error 0x%x.", status);
    LogPackageText(u"AcquireCredHandle: the security package says: %s");
    if (status == platform::SEC_E_NO_CREDENTIALS) {
      ServiceLog(1, u"AcquireCredHandle: no credentials file and no keytab: %s, %s", NameInForce(u"NTLM_USER_FILE"),
                 NameInForce(u"KRB5_CLIENT_KTNAME"));
    }
  }
  return status;
}

int createContext(IConnection& connection, const SecurityCredentials& credentials, SecurityContext& context,
                  const ScheduleGuid& id) {
  ServiceLog(4, u"createContext: Entered");
  const int result = InitiatorPasses(connection, credentials, context, id);
  if (result != 0) context.Delete();
  ServiceLog(4, u"createContext: Exited");
  return result;
}

int acceptContext(IConnection& connection, const SecurityCredentials& credentials, SecurityContext& context) {
  ServiceLog(4, u"acceptContext: Entered");
  bool accepted = AcceptorPasses(connection, credentials, context);
  if (accepted) {
    const Finding finding = FindAnonymous(context);
    (void)context.Revert();
    if (finding.format != nullptr) {
      accepted = false;
      ServiceLog(1, finding.format, finding.code);
    }
  }
  if (!accepted) context.Delete();
  ServiceLog(4, u"acceptContext: Exited");
  return accepted ? 0 : 1;
}

}  // namespace qx
