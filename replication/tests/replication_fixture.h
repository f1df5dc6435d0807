// replication/tests/replication_fixture.h: a node without a program: store, secret, security package and a listener on
// a port of the host's choice. Every loopback address is this node: 127.0.0.2 is a peer as good as any.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/security.h"
#include "platform/socket.h"
#include "platform/thread.h"
#include "replication/key_manager.h"
#include "replication/listener.h"
#include "replication/message_body.h"
#include "replication/secure_channel.h"
#include "replication/tests/child_threads.h"
#include "replication/tests/scripted_connection.h"
#include "replication/wire.h"
#include "service/tests/service_fixture.h"

namespace qx::testing {

// One pair for the listening side of all tests, one for the other: making them takes long.
inline CKeyManager& PeerKeys() {
  static auto* const keys = new CKeyManager;
  return *keys;
}
inline CKeyManager& OwnKeys() {
  static auto* const keys = new CKeyManager;
  return *keys;
}

// How long a test waits for what other threads are bound to bring about.
inline constexpr std::chrono::minutes kLongestWait{1};

class ReplicationFixture : public ServiceFixture {
 protected:
  void SetUp() override {
    ServiceFixture::SetUp();
    m_credentialsFile = m_folder + "/nodes.key";
    ASSERT_EQ(platform::MakeCredentialsFile(m_credentialsFile, "CLUSTER", "qxsvc"), 0u);
    setenv("NTLM_USER_FILE", m_credentialsFile.c_str(), 1);
    setenv("KRB5_CONFIG", "/dev/null", 1);
    setenv("KRB5CCNAME", "MEMORY:none", 1);
    platform::ErrorCode code = 0;
    ASSERT_EQ(platform::LoadSecurityPackage(code), platform::SecurityLoad::kLoaded);
  }
  void TearDown() override {
    m_listener.Close();
    m_thread.Join();
    EXPECT_TRUE(m_listener.WaitForChildCount(0, kLongestWait)) << "a child is left";
    EXPECT_TRUE(WaitForChildThreads());  // what their ends give up, a check at the process's end would take for a leak
    platform::FreeSecurityPackage();
    for (const char* name : {"NTLM_USER_FILE", "KRB5_CONFIG", "KRB5CCNAME"}) unsetenv(name);
    ServiceFixture::TearDown();
  }

  void Listen() {
    Bytes blob;
    ASSERT_EQ(PeerKeys().ExportPublicKey(blob), 1);
    ASSERT_EQ(OwnKeys().ExportPublicKey(blob), 1);
    m_log.Clear();  // the first test of a process makes the pairs
    ASSERT_EQ(platform::Thread::Start("SocketThread", [this] { m_ended = m_listener.SocketThread(0); }, m_thread), 0u);
    ASSERT_TRUE(m_listener.WaitForPort(kLongestWait)) << "nobody listens";
  }
  // Waits until the children have ended, so that all their lines are in the log.
  void WaitForChildren() { ASSERT_TRUE(m_listener.WaitForChildCount(0, kLongestWait)); }

  static void Connect(std::uint16_t port, platform::Socket& socket) {
    std::vector<platform::SocketAddress> addresses;
    ASSERT_EQ(platform::ResolveAddress("127.0.0.1", std::to_string(port), platform::AddressFamily::kIpv4, true, addresses),
              0);
    ASSERT_EQ(platform::Socket::Create(platform::AddressFamily::kIpv4, socket), 0);
    ASSERT_EQ(socket.Connect(addresses[0]), 0);
  }

  static ScheduleGuid NewId() {
    ScheduleGuid id;
    EXPECT_EQ(platform::CreateGuid(id), 0u);
    return id;
  }
  static Bytes Message(std::uint32_t type, std::uint32_t length, const ScheduleGuid& id = {}) {
    MessageHeader header = {length, type, 0, id};
    Bytes bytes(kWireHeaderSize);
    EXPECT_EQ(EncodeHeader(header, WireHeader(bytes)), 1);
    return bytes;
  }
  // The UTF-8 of a body with its NUL.
  static Bytes Utf8(const std::u16string& xml) {
    const std::string text = Narrow(xml);
    return Bytes(text.c_str(), text.c_str() + text.size() + 1);
  }
  static Bytes CreateBody(const SCHEDULE_OBJECT& schedule, const ScheduleGuid& id, std::uint32_t type = MSG_CREATE) {
    std::u16string xml;
    EXPECT_NE(CreateXMLString(schedule, id, type, xml), 0u);
    return Utf8(xml);
  }
  static Bytes DeleteBody(const ScheduleGuid& id) {
    std::u16string xml;
    EXPECT_NE(CreateXMLString(id, MSG_DELETE, xml), 0u);
    return Utf8(xml);
  }
  static Bytes PerformBody(const std::string& command) {
    std::u16string xml;
    EXPECT_NE(CreateXMLString(std::u16string_view(Wide(command)), MSG_PERFORM, xml), 0u);
    return Utf8(xml);
  }

  // The initiator's steps by hand, up to where a test has its own way.
  struct Caller {
    platform::Socket socket;
    platform::SecurityCredentials credentials;
    platform::SecurityContext context;
    ScheduleGuid id{};

    void Authenticate() {
      ASSERT_EQ(getLuidForProc(credentials, platform::CredentialsUse::kOutbound), 0u);
      ASSERT_EQ(createContext(socket, credentials, context, id), 0);
    }
    void ExchangeKeys() { ASSERT_EQ(OwnKeys().exchangeKey(socket, u"peer", id), 0); }
    void SendBytes(const Bytes& bytes) { ASSERT_EQ(Send(socket, bytes), 1); }
    void SendOperation(std::uint32_t type, const Bytes& body) {
      Bytes cipher;
      ASSERT_EQ(OwnKeys().EncryptMsg(u"peer", body, cipher), 1);
      SendBytes(Message(type, static_cast<std::uint32_t>(cipher.size()), id));
      SendBytes(cipher);
    }
    // The acknowledgement: its type, identifier and result; nothing when the connection ended without one.
    struct Ack {
      std::uint32_t type;
      ScheduleGuid id;
      std::uint32_t result;
      std::size_t cipherSize;
      Bytes text;
    };
    std::optional<Ack> ReceiveAnswer() {
      Bytes bytes(kWireHeaderSize);
      if (Receive(socket, bytes.data(), bytes.size()) == 0) return std::nullopt;
      MessageHeader header;
      EXPECT_EQ(DecodeHeader(ConstWireHeader(bytes), header), 1);
      Bytes cipher(header.msgLen), text;
      if (Receive(socket, cipher.data(), cipher.size()) == 0) return std::nullopt;
      EXPECT_EQ(OwnKeys().DecryptMsg(cipher, text), 1);
      const std::string_view narrow(reinterpret_cast<const char*>(text.data()), text.size());
      return Ack{header.msgType, header.scheduleId, ParseDecimal(narrow), cipher.size(), text};
    }
    // True when the other side has closed without a further byte.
    bool IsClosed() {
      std::uint8_t byte = 0;
      return Receive(socket, &byte, 1) == 0;
    }
  };
  void Call(Caller& caller, const ScheduleGuid& id) {
    caller.id = id;
    Connect(m_listener.Port(), caller.socket);
  }
  // A whole operation; nothing when no acknowledgement came.
  std::optional<Caller::Ack> Perform(std::uint32_t type, const ScheduleGuid& id, const Bytes& body) {
    Caller caller;
    Call(caller, id);
    caller.Authenticate();
    caller.ExchangeKeys();
    caller.SendOperation(type, body);
    auto answer = caller.ReceiveAnswer();
    caller.socket.Close();
    WaitForChildren();
    return answer;
  }

  std::string m_credentialsFile;
  CListener m_listener{PeerKeys()};
  platform::Thread m_thread;
  int m_ended = 77;
};

}  // namespace qx::testing
