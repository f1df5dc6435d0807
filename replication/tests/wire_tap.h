// replication/tests/wire_tap.h: a relay between initiator and listener that keeps what crosses, by message.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "platform/socket.h"
#include "platform/thread.h"
#include "replication/tests/scripted_connection.h"
#include "replication/wire.h"

namespace qx::testing {

struct TappedMessage {
  bool fromInitiator;
  Bytes header;
  Bytes payload;
  MessageHeader decoded;
};

// Takes one connection and forwards it until either side closes.
class WireTap {
 public:
  // On a port of the host's choice of the loopback network, to another port of it.
  explicit WireTap(std::uint16_t target) : WireTap("127.0.0.1", 0, "127.0.0.1", target) {}
  // On one address, to another one; both IPv4.
  WireTap(const std::string& address, std::uint16_t port, const std::string& targetAddress, std::uint16_t target) {
    EXPECT_EQ(m_listener.Create(platform::AddressFamily::kIpv4), 0);
    EXPECT_EQ(m_listener.SetReuseAddress(), 0);
    EXPECT_EQ(m_listener.Bind(Resolved(address, port)), 0);
    EXPECT_EQ(m_listener.Listen(4), 0);
    EXPECT_EQ(platform::Thread::Start(
                  "WireTap", [this, to = Resolved(targetAddress, target)] { Relay(to); }, m_thread),
              0u);
  }
  WireTap(const WireTap&) = delete;
  WireTap& operator=(const WireTap&) = delete;
  ~WireTap() {
    m_listener.Close();
    m_thread.Join();
  }
  [[nodiscard]] std::uint16_t Port() const { return m_listener.Port(); }

  // What crossed, in order; ends the tap.
  std::vector<TappedMessage> Messages() {
    m_thread.Join();
    std::vector<TappedMessage> messages;
    std::array<Bytes, 2> rest;
    for (const auto& [fromInitiator, bytes] : m_pieces) {
      Bytes& pending = rest[fromInitiator ? 0 : 1];
      pending.insert(pending.end(), bytes.begin(), bytes.end());
      while (pending.size() >= kWireHeaderSize) {
        TappedMessage message{fromInitiator, Bytes(pending.begin(), pending.begin() + kWireHeaderSize), {}, {}};
        EXPECT_EQ(DecodeHeader(ConstWireHeader(message.header), message.decoded), 1);
        const std::size_t whole = kWireHeaderSize + message.decoded.msgLen;
        if (pending.size() < whole) break;
        message.payload.assign(pending.begin() + kWireHeaderSize, pending.begin() + static_cast<std::ptrdiff_t>(whole));
        pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(whole));
        messages.push_back(std::move(message));
      }
    }
    EXPECT_TRUE(rest[0].empty() && rest[1].empty()) << "bytes that are no message";
    return messages;
  }

 private:
  static platform::SocketAddress Resolved(const std::string& address, std::uint16_t port) {
    std::vector<platform::SocketAddress> found;
    EXPECT_EQ(platform::ResolveAddress(address, std::to_string(port), platform::AddressFamily::kIpv4, true, found), 0);
    return found.empty() ? platform::SocketAddress() : found[0];
  }
  void Relay(const platform::SocketAddress& target) {
    platform::Socket initiator, peer;
    bool waiting = false;
    if (m_listener.WaitReadable(waiting) != 0 || m_listener.Accept(initiator) != 0) return;
    if (platform::Socket::Create(target.Family(), peer) != 0 || peer.Connect(target) != 0) return;
    platform::Socket* const ends[] = {&initiator, &peer};
    while (true) {
      std::vector<bool> ready;
      std::size_t count = 0;
      if (platform::WaitForAnyReadable(ends, 60000, ready, count) != 0 || count == 0) return;
      for (std::size_t from = 0; from < 2; ++from) {
        if (!ready[from]) continue;
        Bytes buffer(20000);
        if (ends[from]->ReceiveSome(buffer, count) != 0 || count == 0) return;
        buffer.resize(count);
        m_pieces.emplace_back(from == 0, buffer);
        if (Send(*ends[1 - from], buffer) == 0) return;
      }
    }
  }

  platform::ListeningSocket m_listener;
  platform::Thread m_thread;
  std::vector<std::pair<bool, Bytes>> m_pieces;  // the relay's until it has ended
};

}  // namespace qx::testing
