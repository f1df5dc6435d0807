#include "platform/socket.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/testing/fault.h"
#include "platform/testing/virtual_clock.h"
#include "platform/thread.h"

namespace platform {
namespace {

using Bytes = std::vector<std::uint8_t>;

// A connection over loopback.
struct SocketPair {
  explicit SocketPair(AddressFamily family = AddressFamily::kIpv4) {
    const bool wide = family == AddressFamily::kIpv6;
    std::vector<SocketAddress> addresses;
    EXPECT_EQ(ResolveAddress(wide ? "::1" : "127.0.0.1", "0", family, true, addresses), 0);
    EXPECT_EQ(listener.Create(family), 0);
    EXPECT_EQ(listener.SetReuseAddress(), 0);
    if (wide) {
      EXPECT_EQ(listener.TakeBothFamilies(), 0);
    }
    EXPECT_EQ(listener.Bind(addresses[0]), 0);
    EXPECT_EQ(listener.Listen(32), 0);
    EXPECT_EQ(listener.SetNonBlocking(), 0);
    EXPECT_EQ(ResolveAddress(wide ? "::1" : "127.0.0.1", std::to_string(listener.Port()), family, true, addresses), 0);
    EXPECT_EQ(Socket::Create(family, client), 0);
    EXPECT_EQ(client.Connect(addresses[0]), 0);
    bool ready = false;
    EXPECT_EQ(listener.WaitReadable(ready), 0);
    EXPECT_TRUE(ready);
    EXPECT_EQ(listener.Accept(server), 0);
  }
  ListeningSocket listener;
  Socket client;
  Socket server;
};

SocketError SendText(Socket& socket, const std::string& text) {
  std::size_t count = 0;
  return socket.SendSome({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, count);
}

TEST(Socket, CarriesBytesBothWays) {
  for (const AddressFamily family : {AddressFamily::kIpv4, AddressFamily::kIpv6}) {
    SocketPair pair(family);
    ASSERT_EQ(SendText(pair.client, "there"), 0);
    bool ready = false;
    ASSERT_EQ(pair.server.WaitReadable(60000, ready), 0);
    ASSERT_TRUE(ready);
    Bytes buffer(100);
    std::size_t count = 0;
    ASSERT_EQ(pair.server.ReceiveSome(buffer, count), 0);
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(count)), "there");
    ASSERT_EQ(SendText(pair.server, "back"), 0);
    ASSERT_EQ(pair.client.ReceiveSome(buffer, count), 0);
    EXPECT_EQ(count, 4u);
  }
}

TEST(Socket, AcceptedOnesDoNotBlock) {
  SocketPair pair;
  Bytes buffer(1);
  std::size_t count = 0;
  EXPECT_EQ(KindOf(pair.server.ReceiveSome(buffer, count)), SocketFailure::kWouldBlock);
  Bytes much(1 << 20);
  SocketError error = 0;
  while (error == 0) error = pair.server.SendSome(much, count);
  EXPECT_EQ(KindOf(error), SocketFailure::kWouldBlock);
}

TEST(Socket, ReadsNothingWhereTheOtherSideHasClosed) {
  SocketPair pair;
  pair.client.Close();
  bool ready = false;
  ASSERT_EQ(pair.server.WaitReadable(60000, ready), 0);
  Bytes buffer(1);
  std::size_t count = 7;
  EXPECT_EQ(pair.server.ReceiveSome(buffer, count), 0);
  EXPECT_EQ(count, 0u);
}

TEST(Socket, WaitEndsWithItsLimit) {
  SocketPair pair;
  bool ready = true;
  EXPECT_EQ(pair.server.WaitReadable(1, ready), 0);
  EXPECT_FALSE(ready);
}

TEST(Socket, TellsDataFromTheEnd) {
  Socket::LingerEnd end = Socket::LingerEnd::kClosed;
  SocketPair quiet, talking, closing, both;
  EXPECT_EQ(quiet.server.WaitForClose(1, end), 0);
  EXPECT_EQ(end, Socket::LingerEnd::kTimeout);
  ASSERT_EQ(SendText(talking.client, "x"), 0);
  EXPECT_EQ(talking.server.WaitForClose(60000, end), 0);
  EXPECT_EQ(end, Socket::LingerEnd::kReadOnly);
  closing.client.Close();
  EXPECT_EQ(closing.server.WaitForClose(60000, end), 0);
  EXPECT_EQ(end, Socket::LingerEnd::kClosed);
}

TEST(Socket, SeveralAreWaitedForAtOnce) {
  SocketPair one, two, three;
  ASSERT_EQ(SendText(two.client, "x"), 0);
  Socket* const sockets[] = {&one.server, &two.server, &three.server};
  std::vector<bool> ready;
  std::size_t count = 0;
  ASSERT_EQ(WaitForAnyReadable(sockets, 60000, ready, count), 0);
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(ready, (std::vector<bool>{false, true, false}));
  Socket* const idle[] = {&one.server};
  ASSERT_EQ(WaitForAnyReadable(idle, 1, ready, count), 0);
  EXPECT_EQ(count, 0u);
}

TEST(ListeningSocket, IsClosedUnderItsWaiter) {
  ListeningSocket listener;
  std::vector<SocketAddress> addresses;
  ASSERT_EQ(ResolveAddress("127.0.0.1", "0", AddressFamily::kIpv4, true, addresses), 0);
  ASSERT_EQ(listener.Create(AddressFamily::kIpv4), 0);
  ASSERT_EQ(listener.Bind(addresses[0]), 0);
  ASSERT_EQ(listener.Listen(32), 0);
  const std::uint16_t port = listener.Port();
  SocketError result = 0;
  bool ready = true;
  std::thread waiter([&] { result = listener.WaitReadable(ready); });
  listener.Close();
  waiter.join();
  EXPECT_EQ(result, EBADF);
  EXPECT_FALSE(ready);
  EXPECT_EQ(listener.Create(AddressFamily::kIpv4), EBADF);
  Socket late;
  ASSERT_EQ(Socket::Create(AddressFamily::kIpv4, late), 0);
  ASSERT_EQ(ResolveAddress("127.0.0.1", std::to_string(port), AddressFamily::kIpv4, true, addresses), 0);
  EXPECT_EQ(late.Connect(addresses[0]), ECONNREFUSED);
}

TEST(ResolveAddress, GivesAddressesWithTheirFamilyAndPort) {
  std::vector<SocketAddress> addresses;
  ASSERT_EQ(ResolveAddress("localhost", "4888", AddressFamily::kUnspecified, false, addresses), 0);
  ASSERT_FALSE(addresses.empty());
  EXPECT_EQ(addresses[0].Port(), 4888);
  ASSERT_EQ(ResolveAddress("::", "1", AddressFamily::kIpv6, true, addresses), 0);
  EXPECT_EQ(addresses[0].Family(), AddressFamily::kIpv6);
  EXPECT_EQ(addresses[0].Bytes().size(), 16u);
  ASSERT_EQ(ResolveAddress("10.1.2.3", "1", AddressFamily::kIpv4, true, addresses), 0);
  EXPECT_EQ(Bytes(addresses[0].Bytes().begin(), addresses[0].Bytes().end()), (Bytes{10, 1, 2, 3}));
  EXPECT_NE(ResolveAddress("not an address", "1", AddressFamily::kIpv4, true, addresses), 0);
  EXPECT_EQ(addresses.size(), 1u);
}

TEST(SocketAddress, KnowsLinkLocalAddresses) {
  struct Case {
    const char* text;
    bool linkLocal;
  };
  const Case kCases[] = {{"fe80::1", true},  {"fe90::1", true},  {"febf::1", true}, {"fec0::1", false},
                         {"fe7f::1", false}, {"ff80::1", false}, {"::1", false},    {"2001:db8::1", false}};
  for (const Case& c : kCases) {
    std::vector<SocketAddress> addresses;
    ASSERT_EQ(ResolveAddress(c.text, "1", AddressFamily::kIpv6, true, addresses), 0) << c.text;
    EXPECT_EQ(addresses[0].IsIpv6LinkLocal(), c.linkLocal) << c.text;
  }
}

TEST(SocketAddress, TextsAreToldApart) {
  EXPECT_TRUE(IsIpv4Text("10.0.0.1"));
  EXPECT_FALSE(IsIpv4Text("10.0.1"));
  EXPECT_FALSE(IsIpv4Text("::1"));
  EXPECT_TRUE(IsIpv6Text("fe80::1"));
  EXPECT_FALSE(IsIpv6Text("fe80::1%eth0"));
  EXPECT_FALSE(IsIpv6Text(""));
}

TEST(Socket, FailsByTheSeam) {
  SocketPair pair;
  Socket made;
  ListeningSocket listener;
  std::vector<SocketAddress> addresses;
  ASSERT_EQ(ResolveAddress("127.0.0.1", "1", AddressFamily::kIpv4, true, addresses), 0);
  Bytes buffer(1);
  std::size_t count = 0;
  bool ready = false;
  std::vector<bool> flags;
  Socket::LingerEnd end{};
  Socket* const sockets[] = {&pair.server};
  const struct {
    Operation operation;
    std::function<SocketError()> call;
  } kCalls[] = {
      {Operation::kSocketCreate, [&] { return Socket::Create(AddressFamily::kIpv4, made); }},
      {Operation::kSocketCreate, [&] { return listener.Create(AddressFamily::kIpv4); }},
      {Operation::kSocketConnect, [&] { return pair.client.Connect(addresses[0]); }},
      {Operation::kSocketReceive, [&] { return pair.client.ReceiveSome(buffer, count); }},
      {Operation::kSocketSend, [&] { return pair.client.SendSome(buffer, count); }},
      {Operation::kSocketSelect, [&] { return pair.client.WaitReadable(1, ready); }},
      {Operation::kSocketSelectAny, [&] { return WaitForAnyReadable(sockets, 1, flags, count); }},
      {Operation::kSocketSelect, [&] { return pair.listener.WaitReadable(ready); }},
      {Operation::kSocketEvents, [&] { return pair.client.WaitForClose(1, end); }},
      {Operation::kSocketOption, [&] { return pair.listener.SetReuseAddress(); }},
      {Operation::kSocketOption, [&] { return pair.listener.TakeBothFamilies(); }},
      {Operation::kSocketOption, [&] { return pair.listener.SetNonBlocking(); }},
      {Operation::kSocketBind, [&] { return pair.listener.Bind(addresses[0]); }},
      {Operation::kSocketListen, [&] { return pair.listener.Listen(1); }},
      {Operation::kSocketAccept, [&] { return pair.listener.Accept(made); }},
      {Operation::kResolveAddress,
       [&] { return ResolveAddress("127.0.0.1", "1", AddressFamily::kIpv4, true, addresses); }},
  };
  for (const auto& c : kCalls) {
    const FaultPlan plan = FaultPlan::FailCall(c.operation, 1, ENOBUFS);
    EXPECT_EQ(c.call(), ENOBUFS) << OperationName(c.operation);
  }
  EXPECT_FALSE(made);
}

TEST(PauseThread, LetsATestsClockRunOn) {
  VirtualClock clock(1000);
  PauseThread(10000);
  EXPECT_EQ(NowSeconds(), 1010);
}

}  // namespace
}  // namespace platform
