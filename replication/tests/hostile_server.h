// replication/tests/hostile_server.h: a node that listens, knows the protocol and leaves it at one point.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/security.h"
#include "platform/socket.h"
#include "platform/thread.h"
#include "replication/child_session.h"
#include "replication/key_manager.h"
#include "replication/secure_channel.h"
#include "replication/tests/scripted_connection.h"
#include "replication/wire.h"

namespace qx::testing {

// Takes one connection on an address of its own and answers what the initiator sends, but for one answer.
class HostileServer {
 public:
  // The answers of a connection, in order: to the first and second token, to the key, and the acknowledgement.
  enum Answer : int { kFirstToken, kSecondToken, kKey, kAck, kAnswers };
  // Gives an answer that is due in its own way; the connection goes on while it returns true.
  //   type, payload  of the right answer
  using Act =
      std::function<bool(platform::Socket& socket, std::uint32_t type, const ScheduleGuid& id, const Bytes& payload)>;

  HostileServer(const std::string& address, CKeyManager& keys, Answer at, Act act)
      : m_keys(keys), m_at(at), m_act(std::move(act)) {
    std::vector<platform::SocketAddress> own;
    EXPECT_EQ(platform::ResolveAddress(address, "0", platform::AddressFamily::kIpv4, true, own), 0);
    EXPECT_EQ(m_listener.Create(platform::AddressFamily::kIpv4), 0);
    EXPECT_EQ(m_listener.Bind(own[0]), 0);
    EXPECT_EQ(m_listener.Listen(1), 0);
    EXPECT_EQ(platform::Thread::Start(
                  "HostileServer", [this] { Serve(); }, m_thread),
              0u);
  }
  HostileServer(const HostileServer&) = delete;
  HostileServer& operator=(const HostileServer&) = delete;
  ~HostileServer() {
    m_listener.Close();
    m_thread.Join();
  }
  [[nodiscard]] std::uint16_t Port() const { return m_listener.Port(); }
  // Closes the connection behind the header of the message that this answer is due to. Called ahead of the connection.
  void CloseBehindHeaderOf(Answer answer) { m_headerOnly = answer; }
  // Whether the answer was given; ends the server.
  [[nodiscard]] bool WasReached() {
    m_thread.Join();
    return m_reached;
  }

  // A message, header and payload in a piece each.
  static bool Say(platform::Socket& socket, std::uint32_t type, const ScheduleGuid& id, const Bytes& payload) {
    return SayHeader(socket, type, id, static_cast<std::uint32_t>(payload.size())) && Send(socket, payload) == 1;
  }
  static bool SayHeader(platform::Socket& socket, std::uint32_t type, const ScheduleGuid& id, std::uint32_t length) {
    MessageHeader header = {length, type, 0, id};
    Bytes bytes(kWireHeaderSize);
    return EncodeHeader(header, WireHeader(bytes)) == 1 && Send(socket, bytes) == 1;
  }

 private:
  void Serve() {
    platform::Socket socket;
    bool ready = false;
    if (m_listener.WaitReadable(ready) != 0 || m_listener.Accept(socket) != 0) return;
    platform::SecurityCredentials credentials;
    EXPECT_EQ(getLuidForProc(credentials, platform::CredentialsUse::kInbound), 0u);
    platform::SecurityContext context;
    for (int answer = kFirstToken; answer < kAnswers; ++answer) {
      MessageHeader header;
      Bytes received, payload;
      if (answer == m_headerOnly) {
        Bytes bytes(kWireHeaderSize);
        m_reached = Receive(socket, bytes.data(), bytes.size()) == 1;
        return;
      }
      if (!Take(socket, header, received)) return;
      std::uint32_t type = 0;
      if (answer <= kSecondToken) {
        std::uint32_t attributes = 0;
        if (platform::SecurityFailed(context.Accept(credentials, received, 0, kMaxTokenSize, payload, attributes))) {
          return;
        }
        type = MSG_CONTEXT_REPLY;
      } else if (answer == kKey) {
        m_initiator = m_keys.ImportKey(received, u"");
        if (m_keys.ExportPublicKey(payload) == 0) return;
        type = MSG_PUBLIC_KEY;
      } else {
        if (!m_initiator || m_keys.EncryptMsg(*m_initiator, AckText(0), payload) == 0) return;
        type = header.msgType | ACK_FLAG;
      }
      const bool goOn = answer != m_at ? Say(socket, type, header.scheduleId, payload)
                                       : (m_reached = true, m_act(socket, type, header.scheduleId, payload));
      if (!goOn) return;
    }
    // The initiator closes.
    std::uint8_t byte = 0;
    (void)Receive(socket, &byte, 1);
  }
  static bool Take(platform::Socket& socket, MessageHeader& header, Bytes& payload) {
    Bytes bytes(kWireHeaderSize);
    if (Receive(socket, bytes.data(), bytes.size()) == 0 || DecodeHeader(ConstWireHeader(bytes), header) == 0) {
      return false;
    }
    payload.resize(header.msgLen);
    return payload.empty() || Receive(socket, payload.data(), payload.size()) == 1;
  }

  CKeyManager& m_keys;
  const Answer m_at;
  const Act m_act;
  std::atomic<int> m_headerOnly{-1};
  bool m_reached = false;  // the server's until it has ended
  KeyCell m_initiator;
  platform::ListeningSocket m_listener;
  platform::Thread m_thread;
};

}  // namespace qx::testing
