// replication/child_session.h: one connection of a peer: who it is, its key, its operation, the answer.
//
// Threads: one object by one thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "interface/records.h"
#include "platform/security.h"
#include "platform/socket.h"
#include "replication/key_manager.h"
#include "replication/wire.h"

namespace qx {

// Carries out what a body asks for, under the service's own account.
//   header   of the message: type and identifier, with which the body has to agree
//   body     wide text, NUL-terminated
//   result   1, or what the operation gave
//   returns  false: body and header differ, the operation is dropped without an answer
[[nodiscard]] bool CarryOutOperation(const MessageHeader& header, const std::u16string& body, std::uint32_t& result);

// The 22 bytes of an acknowledgement: the result as signed decimal text, filled up with NULs.
[[nodiscard]] std::vector<std::uint8_t> AckText(std::uint32_t result);

class CChildSession {
 public:
  // Both are borrowed.
  CChildSession(platform::Socket& socket, CKeyManager& keys) : m_socket(socket), m_keys(keys) {}
  // From the credentials to the end of the lingering. The socket stays open.
  void Run();
  // Gives back what Run() acquired, the socket included.
  void Close();

 private:
  enum class Step { kGoOn, kClose };
  Step Authenticate();
  Step ReceiveHeader(bool first);
  Step ExchangeKeys();
  Step CheckHeader() const;
  Step ReceiveBody(std::u16string& body);
  Step Answer(std::uint32_t result);
  void Linger();

  platform::Socket& m_socket;
  CKeyManager& m_keys;
  platform::SecurityCredentials m_credentials;
  platform::SecurityContext m_context;
  KeyCell m_callerKey;
  MessageHeader m_header;
};

}  // namespace qx
