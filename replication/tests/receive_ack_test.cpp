#include "replication/receive_ack.h"

#include <string>

#include "replication/child_session.h"
#include "replication/tests/replication_fixture.h"

namespace qx {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using platform::FaultPlan;
using platform::Operation;
using platform::Socket;
using testing::Bytes;
using testing::BytesOf;

// Nodes whose other ends the test holds.
class ReceiveAckTest : public testing::ReplicationFixture {
 protected:
  void SetUp() override {
    ReplicationFixture::SetUp();
    std::vector<platform::SocketAddress> addresses;
    ASSERT_EQ(platform::ResolveAddress("127.0.0.1", "0", platform::AddressFamily::kIpv4, true, addresses), 0);
    ASSERT_EQ(m_server.Create(platform::AddressFamily::kIpv4), 0);
    ASSERT_EQ(m_server.Bind(addresses[0]), 0);
    ASSERT_EQ(m_server.Listen(100), 0);
    Bytes blob;
    ASSERT_EQ(testing::OwnKeys().ExportPublicKey(blob), 1);
    m_key = testing::PeerKeys().ImportKey(blob, u"");
  }
  void AddNodes(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      Socket mine, theirs;
      Connect(m_server.Port(), mine);
      ASSERT_EQ(m_server.Accept(theirs), 0);
      m_names.push_back(u"node" + testing::Wide(std::to_string(m_sockets.size())));
      m_waiting.push_back(m_sockets.size());
      m_sockets.push_back(std::move(mine));
      m_peers.push_back(std::move(theirs));
      m_results.push_back(1);
    }
  }
  void Acknowledge(std::size_t node, std::uint32_t result) { Say(node, AckText(result)); }
  void Say(std::size_t node, const Bytes& text) {
    Bytes cipher;
    ASSERT_EQ(testing::PeerKeys().EncryptMsg(*m_key, text, cipher), 1);
    ASSERT_EQ(Send(m_peers[node], Message(9, static_cast<std::uint32_t>(cipher.size()))), 1);
    ASSERT_EQ(Send(m_peers[node], cipher), 1);
  }
  int Collect() {
    m_log.Clear();
    return ReceiveAck(testing::OwnKeys(), m_sockets, m_waiting, m_results, m_names);
  }
  bool AllClosed() const {
    return std::none_of(m_sockets.begin(), m_sockets.end(), [](const Socket& socket) { return static_cast<bool>(socket); });
  }

  platform::ListeningSocket m_server;
  KeyCell m_key;
  std::vector<Socket> m_sockets, m_peers;
  std::vector<std::size_t> m_waiting;
  std::vector<std::int32_t> m_results;
  std::vector<std::u16string> m_names;
};

TEST_F(ReceiveAckTest, TakesEachNodesResult) {
  AddNodes(3);
  Acknowledge(0, 0);
  Acknowledge(1, 0x80040213);
  Acknowledge(2, 0);
  EXPECT_EQ(Collect(), 1);
  EXPECT_THAT(m_results, ElementsAre(0, static_cast<std::int32_t>(0x80040213), 0));
  EXPECT_TRUE(m_log.Has(1, "ReceiveAck: ACK received is 80040213"));
  EXPECT_TRUE(m_log.Has(1, "ReceiveAck: Failed to do the requested operation on node: node1"));
  EXPECT_TRUE(m_log.Has(3, "ReceiveAck: Number of connections still remained to recv is: 0"));
  EXPECT_TRUE(m_log.Has(3, "ReceivedAck: Total elapsed time in seconds is:      0"));
  EXPECT_TRUE(AllClosed());
}

TEST_F(ReceiveAckTest, WithoutFailuresItIsZero) {
  AddNodes(2);
  Acknowledge(0, 0);
  Acknowledge(1, 0);
  EXPECT_EQ(Collect(), 0);
  EXPECT_THAT(m_results, ElementsAre(0, 0));
}

TEST_F(ReceiveAckTest, WithoutASocketItIsOne) {
  EXPECT_EQ(Collect(), 1);
  EXPECT_THAT(m_log.texts(), ElementsAre("No valid sockets to receive the ACK"));
}

TEST_F(ReceiveAckTest, ASilentNodeKeepsItsResultAndRaisesNoFailure) {
  AddNodes(2);
  Acknowledge(1, 0);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kSocketSelectAny, 2, platform::ERROR_TIMEOUT);
  EXPECT_EQ(Collect(), 0);
  EXPECT_THAT(m_results, ElementsAre(1, 0));
  EXPECT_TRUE(m_log.Has(1, "ReceiveAck: Select returned because time limit expired\n"));
  EXPECT_TRUE(AllClosed());
}

// The time of this test's clock that passes in the wait for one node is lost to the others.
TEST_F(ReceiveAckTest, TheSixtySecondsAreOneBudgetForAllNodes) {
  for (const int seconds : {59, 60}) {
    m_sockets.clear(), m_peers.clear(), m_waiting.clear(), m_results.clear(), m_names.clear();
    AddNodes(2);
    Acknowledge(0, 0);
    std::vector<std::string> limits;  // of the waits, in milliseconds
    const FaultPlan plan = FaultPlan::Ask([&](int, Operation operation, std::string_view limit) {
      if (operation != Operation::kSocketSelectAny) return platform::ERROR_SUCCESS;
      limits.emplace_back(limit);
      if (limits.size() > 1) return platform::ERROR_TIMEOUT;
      m_clock.Advance(static_cast<std::uint64_t>(seconds) * 1000);
      return platform::ERROR_SUCCESS;
    });
    EXPECT_EQ(Collect(), 0);
    EXPECT_THAT(m_results, ElementsAre(0, 1));
    EXPECT_EQ(limits, seconds == 59 ? (std::vector<std::string>{"60000", "1000"}) : std::vector<std::string>{"60000"});
    EXPECT_EQ(m_log.Count(1, "ReceiveAck: Select returned because time limit expired\n"), seconds == 59 ? 1 : 0);
    EXPECT_TRUE(m_log.Has(3, "ReceivedAck: Total elapsed time in seconds is:     " + std::to_string(seconds)));
    EXPECT_TRUE(AllClosed());
  }
}

TEST_F(ReceiveAckTest, AFailedWaitEndsIt) {
  AddNodes(1);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kSocketSelectAny, 1, 9);
  EXPECT_EQ(Collect(), 0);
  EXPECT_THAT(m_results, ElementsAre(1));
  EXPECT_TRUE(m_log.Has(1, "ReceiveAck: Select failed with error: 9\n"));
}

TEST_F(ReceiveAckTest, AnAnswerThatCannotBeReadLeavesTheResult) {
  const struct {
    const char* text;
    std::function<void(ReceiveAckTest&, Socket&)> act;
  } kCases[] = {
      {"ReceiveAck: Receive(Header_ACK) failed", [](auto&, Socket& s) { s.Close(); }},
      {"DecodeHeader:Received invalid ScheduleID",
       [](auto&, Socket& s) {
         Bytes bytes = Message(9, 256);
         bytes[12] = 'x';
         ASSERT_EQ(Send(s, bytes), 1);
       }},
      {"ReceiveAck: Failed to receive(ACK)",
       [](auto&, Socket& s) {
         ASSERT_EQ(Send(s, Message(9, 256)), 1);
         s.Close();
       }},
      {"ReceiveAck: DecryptMsg from node: node0 failed",
       [](auto&, Socket& s) {
         ASSERT_EQ(Send(s, Message(9, 256)), 1);
         ASSERT_EQ(Send(s, Bytes(256, 1)), 1);
       }},
  };
  for (const auto& c : kCases) {
    m_sockets.clear(), m_peers.clear(), m_waiting.clear(), m_results.clear(), m_names.clear();
    AddNodes(1);
    c.act(*this, m_peers[0]);
    EXPECT_EQ(Collect(), 0) << c.text;
    EXPECT_THAT(m_results, ElementsAre(1));
    EXPECT_THAT(m_log.texts(), Contains(c.text));
    EXPECT_TRUE(AllClosed());
  }
}

TEST_F(ReceiveAckTest, AnEmptyAnswerLeavesTheResult) {
  AddNodes(1);
  ASSERT_EQ(Send(m_peers[0], Message(9, 0)), 1);
  EXPECT_EQ(Collect(), 0);
  EXPECT_THAT(m_results, ElementsAre(1));
}

TEST_F(ReceiveAckTest, RefusedMemoryLeavesTheResult) {
  AddNodes(1);
  Acknowledge(0, 0);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kAllocate, 1, 8, platform::kOnce, "ReceiveAck");
  EXPECT_EQ(Collect(), 0);
  EXPECT_THAT(m_results, ElementsAre(1));
  EXPECT_TRUE(m_log.Has(1, "ReceiveAck: calloc(msgLen) failed, msgLen: 256"));
}

TEST_F(ReceiveAckTest, TheTypeOfAnAnswerIsNotLookedAt) {
  AddNodes(1);
  Bytes cipher;
  ASSERT_EQ(testing::PeerKeys().EncryptMsg(*m_key, BytesOf("42"), cipher), 1);
  ASSERT_EQ(Send(m_peers[0], Message(77, 256)), 1);
  ASSERT_EQ(Send(m_peers[0], cipher), 1);
  EXPECT_EQ(Collect(), 1);
  EXPECT_THAT(m_results, ElementsAre(42));
}

TEST_F(ReceiveAckTest, NodesBeyondTheSixtyFourthComeInAsOthersAreDone) {
  AddNodes(70);
  m_waiting.resize(kMaxAwaitedSockets);
  for (std::size_t i = 0; i < 70; ++i) Acknowledge(i, i == 69 ? 7 : 0);
  EXPECT_EQ(Collect(), 1);
  EXPECT_EQ(std::count(m_results.begin(), m_results.end(), 0), 69);
  EXPECT_EQ(m_results[69], 7);
}

}  // namespace
}  // namespace qx
