#include "replication/listener.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "replication/tests/replication_fixture.h"

namespace qx {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using platform::FaultPlan;
using platform::Operation;
using testing::Bytes;

class Listener : public testing::ReplicationFixture {};

TEST_F(Listener, SaysWhereItListensAndEndsWhenItsSocketIsClosed) {
  Listen();
  EXPECT_TRUE(m_log.Has(3, "Listening on port " + std::to_string(m_listener.Port())));
  m_listener.Close();
  m_thread.Join();
  EXPECT_EQ(m_ended, 0);
  EXPECT_TRUE(m_log.Has(1, "select failed 9\n"));
  EXPECT_EQ(m_log.texts().back(), "Return from SocketThread");
  EXPECT_EQ(m_listener.Port(), 0);
}

TEST_F(Listener, ClosedBeforeItBeganItDoesNotListen) {
  m_listener.Close();
  EXPECT_EQ(m_listener.SocketThread(0), -1);
  EXPECT_FALSE(m_log.Has(3, "Return from SocketThread"));
}

TEST_F(Listener, WithoutTheSecurityLibraryItDoesNotListen) {
  platform::FreeSecurityPackage();
  EXPECT_EQ(m_listener.SocketThread(0), -1);
  EXPECT_THAT(m_log.texts(), ::testing::ElementsAre("SocketThread: LoadSecurityLibrary failed"));
}

TEST_F(Listener, EachStepOfTheSetUpCanFail) {
  const struct {
    Operation operation;
    const char* detail;
    const char* step;
  } kCases[] = {
      {Operation::kResolveAddress, "", "getaddrinfo"},
      {Operation::kSocketCreate, "listener", "socket"},
      {Operation::kSocketOption, "reuse", "setsockopt(SO_REUSEADDR)"},
      {Operation::kSocketOption, "both families", "setsockopt(IPV6_V6ONLY)"},
      {Operation::kSocketBind, "", "bind"},
      {Operation::kSocketListen, "", "listen"},
      {Operation::kSocketOption, "non-blocking", "ioctlsocket"},
  };
  for (const auto& c : kCases) {
    const FaultPlan plan = FaultPlan::FailCall(c.operation, 1, 98, platform::kOnce, c.detail);
    CListener listener(testing::PeerKeys());
    EXPECT_EQ(listener.SocketThread(0), -1) << c.step;
    EXPECT_TRUE(m_log.Has(0, std::string("SocketThread: ") + c.step +
                                 " failed with error: 98; nothing can be received from other nodes"))
        << c.step;
  }
  const FaultPlan plan = FaultPlan::FailCall(Operation::kSocketCreate, 1, 97, platform::kFromThenOn);
  EXPECT_EQ(m_listener.SocketThread(0), -1);
}

TEST_F(Listener, WhoeverCallsBehindAFailedSetUpIsRefused) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kSocketOption, 1, 98, platform::kOnce, "non-blocking");
  ASSERT_EQ(m_listener.SocketThread(0), -1);
  constexpr std::string_view kListening = "Listening on port ";
  const std::vector<std::string> lines = m_log.texts(3);
  const auto line =
      std::find_if(lines.begin(), lines.end(), [&](const auto& text) { return text.starts_with(kListening); });
  ASSERT_NE(line, lines.end());
  std::vector<platform::SocketAddress> addresses;
  ASSERT_EQ(platform::ResolveAddress("127.0.0.1", line->substr(kListening.size()), platform::AddressFamily::kIpv4, true,
                                     addresses),
            0);
  platform::Socket socket;
  ASSERT_EQ(platform::Socket::Create(platform::AddressFamily::kIpv4, socket), 0);
  EXPECT_EQ(socket.Connect(addresses[0]), ECONNREFUSED);
}

TEST_F(Listener, WithIpv4AloneItListensThere) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kSocketCreate, 1, 97, platform::kFromThenOn, "IPv6");
  Listen();
  EXPECT_TRUE(Perform(MSG_PERFORM, {}, PerformBody("/bin/true")));
}

TEST_F(Listener, TakesBothFamiliesOnOneSocket) {
  Listen();
  // On a host without IPv6 the one family is left.
  if (platform::Socket socket; platform::Socket::Create(platform::AddressFamily::kIpv6, socket) == 0) {
    std::vector<platform::SocketAddress> addresses;
    ASSERT_EQ(platform::ResolveAddress("::1", std::to_string(m_listener.Port()), platform::AddressFamily::kIpv6, true,
                                       addresses),
              0);
    EXPECT_EQ(socket.Connect(addresses[0]), 0);
  }
  platform::Socket other;
  Connect(m_listener.Port(), other);
}

TEST_F(Listener, AFailedWaitEndsItWithZeroAndAFailedAcceptWithMinusOne) {
  {
    const FaultPlan plan =
        FaultPlan::FailCall(Operation::kSocketSelect, 1, 22, platform::kOnce, "listener");
    CListener listener(testing::PeerKeys());
    EXPECT_EQ(listener.SocketThread(0), 0);
    EXPECT_TRUE(m_log.Has(1, "select failed 22\n"));
  }
  {
    const FaultPlan plan =
        FaultPlan::FailCall(Operation::kSocketSelect, 1, platform::ERROR_TIMEOUT, platform::kOnce, "listener");
    CListener listener(testing::PeerKeys());
    EXPECT_EQ(listener.SocketThread(0), 0);
    EXPECT_TRUE(m_log.Has(1, "Select returned no fds ready\n"));
  }
  Listen();
  const FaultPlan plan = FaultPlan::FailCall(Operation::kSocketAccept, 1, EAGAIN);
  platform::Socket socket;
  Connect(m_listener.Port(), socket);
  m_thread.Join();
  EXPECT_EQ(m_ended, -1);
  EXPECT_TRUE(m_log.Has(0, "SocketThread: Accept failed with error: 11\n"));
}

TEST_F(Listener, The33rdConnectionIsClosedAtOnceWithoutAMessage) {
  Listen();
  std::vector<platform::Socket> sockets(kMaxChildren);
  for (platform::Socket& socket : sockets) Connect(m_listener.Port(), socket);
  ASSERT_TRUE(m_listener.WaitForChildCount(kMaxChildren, testing::kLongestWait));
  platform::Socket extra;
  Connect(m_listener.Port(), extra);
  std::uint8_t byte = 0;
  EXPECT_EQ(Receive(extra, &byte, 1), 0);
  EXPECT_EQ(m_listener.ChildCount(), kMaxChildren);
  EXPECT_EQ(m_log.Count(1, "SocketThread: Crossed maximum limit of child threads"), 1);
  EXPECT_TRUE(m_log.WaitFor(6, "SocketThread: Closing the socket"));
  sockets.clear();
  WaitForChildren();
  EXPECT_TRUE(Perform(MSG_PERFORM, {}, PerformBody("/bin/true")));  // there is room again
}

TEST_F(Listener, AChildThatCannotStartIsNotCounted) {
  Listen();
  {
    const FaultPlan plan =
        FaultPlan::FailCall(Operation::kCreateThread, 1, 89, platform::kOnce, "ChildSocketThread");
    platform::Socket socket;
    Connect(m_listener.Port(), socket);
    std::uint8_t byte = 0;
    EXPECT_EQ(Receive(socket, &byte, 1), 0);
  }
  EXPECT_EQ(m_listener.ChildCount(), 0);
  EXPECT_TRUE(m_log.Has(1, "SocketThread: createThread failed"));
  EXPECT_TRUE(Perform(MSG_PERFORM, {}, PerformBody("/bin/true")));
}

TEST_F(Listener, AConnectionWithoutMemoryIsTakenLater) {
  Listen();
  const FaultPlan plan =
      FaultPlan::FailCall(Operation::kAllocate, 1, 8, platform::kOnce, "SocketThread cell");
  EXPECT_TRUE(Perform(MSG_PERFORM, {}, PerformBody("/bin/true")));
  EXPECT_EQ(plan.hits(), 1);
}

TEST_F(Listener, AChildWithoutASocketDoesNothing) {
  EXPECT_EQ(m_listener.ChildSocketThread(nullptr), -1);
  EXPECT_EQ(m_listener.ChildCount(), 0);
  EXPECT_THAT(m_log.texts(), ::testing::ElementsAre("ChildSocketThread: NULL input SOCKET pointer"));
}

TEST_F(Listener, HundredsOfConnectionsLeaveNothingBehind) {
  Listen();
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
  };
  ASSERT_TRUE(Perform(MSG_PERFORM, {}, PerformBody("/bin/true")));
  const auto before = descriptors();
  m_log.Clear();
  constexpr int kRounds = 8, kRoundSize = 25;  // fewer at once than wait to be taken, and than are held
  for (int round = 0; round < kRounds; ++round) {
    std::vector<platform::Socket> sockets(kRoundSize);
    for (platform::Socket& socket : sockets) {
      Connect(m_listener.Port(), socket);
      (void)Send(socket, Bytes(static_cast<std::size_t>(round * 13 + 1), 0x5A));
    }
    sockets.clear();
    ASSERT_TRUE(m_log.WaitFor(6, "ChildSocketThread: closing the socket", kRoundSize * (round + 1))) << round;
  }
  WaitForChildren();
  EXPECT_EQ(m_log.Count(6, "ChildSocketThread: closing the socket"), kRoundSize * kRounds);
  EXPECT_TRUE(Perform(MSG_PERFORM, {}, PerformBody("/bin/true")));
  EXPECT_EQ(descriptors(), before);
}

TEST_F(Listener, OthersAreServedWhileOneIsSilent) {
  Listen();
  platform::Socket silent;
  Connect(m_listener.Port(), silent);
  ASSERT_TRUE(m_listener.WaitForChildCount(1, testing::kLongestWait));
  Caller caller;
  const ScheduleGuid id = NewId();
  Call(caller, id);
  caller.Authenticate();
  caller.ExchangeKeys();
  caller.SendOperation(MSG_CREATE, CreateBody(Daily(), id));
  EXPECT_EQ(caller.ReceiveAnswer()->result, 0u);
}

}  // namespace
}  // namespace qx
