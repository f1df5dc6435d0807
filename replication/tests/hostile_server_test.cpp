// What a node that leaves the protocol can do to the node that asks it: its own entry, and nobody else's.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>

#include "platform/service_record.h"
#include "replication/node_operations.h"
#include "replication/tests/hostile_server.h"
#include "replication/tests/replication_fixture.h"
#include "replication/tests/wire_tap.h"
#include "service/service_registration.h"

namespace qx {
namespace {

using platform::FaultPlan;
using platform::Operation;
using platform::Socket;
using testing::Bytes;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::HostileServer;

class HostileServerTest : public testing::ReplicationFixture {
 protected:
  void SetUp() override {
    ReplicationFixture::SetUp();
    (void)platform::DeleteServiceRecord(kServiceName);
    platform::ServiceRecord record;
    record.binaryPath = u"\"/x\"";
    record.account = u"cluster";
    ASSERT_EQ(platform::CreateServiceRecord(kServiceName, record), 0u);
    Listen();
  }
  // An address whose name no test has used: keys are kept by name.
  static std::string NewAddress() {
    static int last = 0;
    ++last;
    return "127.1." + std::to_string(last / 250) + "." + std::to_string(last % 250 + 1);
  }
  // The honest node's: this process' own, so that no other one has taken the port there which the host gave the hostile
  // node.
  static std::string HonestAddress() {
    const int self = ::getpid();
    return "127.2." + std::to_string(self / 250 % 250) + "." + std::to_string(self % 250 + 1);
  }
  // A command on two nodes, the hostile one first; the other one is this test's own listener, reached at the same port.
  struct Outcome {
    Status status = 77;
    NodeResults results;  // of the hostile node, the honest one, this one
    bool wasReached = false;
  };
  //   behind  called when the operation has ended
  Outcome Run(HostileServer& hostile, const std::string& address, const std::string& command = "/bin/true",
              const std::function<void()>& behind = {}) {
    m_log.Clear();
    testing::WireTap honest(HonestAddress(), hostile.Port(), "127.0.0.1", m_listener.Port());
    CNodeOperations operations(testing::OwnKeys());
    operations.SetPort(hostile.Port());
    Outcome outcome;
    outcome.results.assign(3, 77);
    const std::vector<std::u16string> nodes = {testing::Wide(address), testing::Wide(HonestAddress()), u"localhost"};
    outcome.status = operations.PerformOperationOnNodes(testing::Wide(command), 3, nodes, outcome.results);
    if (behind) behind();
    outcome.wasReached = hostile.WasReached();
    WaitForChildren();
    return outcome;
  }
  Outcome Run(HostileServer::Answer at, const HostileServer::Act& act) {
    const std::string address = NewAddress();
    HostileServer hostile(address, testing::PeerKeys(), at, act);
    return Run(hostile, address);
  }
};

// What the hostile node does in the place of an answer.
using Act = HostileServer::Act;

bool Close(Socket&, std::uint32_t, const ScheduleGuid&, const Bytes&) {
  return false;
}

bool CloseInTheHeader(Socket& socket, std::uint32_t, const ScheduleGuid&, const Bytes&) {
  (void)Send(socket, Bytes(20, 0));
  return false;
}

bool SayAnotherType(Socket& socket, std::uint32_t type, const ScheduleGuid& id, const Bytes& payload) {
  return HostileServer::Say(socket, type + 1, id, payload);
}

bool SayAnotherIdentifier(Socket& socket, std::uint32_t type, const ScheduleGuid&, const Bytes& payload) {
  return HostileServer::Say(socket, type, platform::GuidConstant(u"{99999999-9999-9999-9999-999999999999}"), payload);
}

bool SayNoIdentifier(Socket& socket, std::uint32_t type, const ScheduleGuid&, const Bytes& payload) {
  MessageHeader header = {static_cast<std::uint32_t>(payload.size()), type, 0, {}};
  Bytes bytes(kWireHeaderSize);
  (void)EncodeHeader(header, WireHeader(bytes));
  bytes[kWireGuidOffset] = '(';
  return Send(socket, bytes) == 1 && Send(socket, payload) == 1;
}

// A length that nothing comes up to.
template <std::uint32_t length>
bool Claim(Socket& socket, std::uint32_t type, const ScheduleGuid& id, const Bytes&) {
  (void)HostileServer::SayHeader(socket, type, id, length);
  return false;
}

bool CloseInThePayload(Socket& socket, std::uint32_t type, const ScheduleGuid& id, const Bytes& payload) {
  (void)HostileServer::SayHeader(socket, type, id, static_cast<std::uint32_t>(payload.size()));
  (void)Send(socket, std::span(payload).first(payload.size() - 1));
  return false;
}

template <std::size_t size>
bool SayGarbage(Socket& socket, std::uint32_t type, const ScheduleGuid& id, const Bytes&) {
  return HostileServer::Say(socket, type, id, Bytes(size, 0x5A));
}

bool SayNothing(Socket& socket, std::uint32_t type, const ScheduleGuid& id, const Bytes&) {
  return HostileServer::SayHeader(socket, type, id, 0);
}

bool SayByteByByte(Socket& socket, std::uint32_t type, const ScheduleGuid& id, const Bytes& payload) {
  if (!HostileServer::SayHeader(socket, type, id, static_cast<std::uint32_t>(payload.size()))) return false;
  for (const std::uint8_t byte : payload) {
    if (Send(socket, {&byte, 1}) == 0) return false;
  }
  return true;
}

bool SayMore(Socket& socket, std::uint32_t type, const ScheduleGuid& id, const Bytes& payload) {
  return HostileServer::Say(socket, type, id, payload) && Send(socket, Bytes(300, 0x5A)) == 1;
}

constexpr const char* kNoReply = "createContext: Receive Failed";
constexpr const char* kTokenCut = "createContext: Receive contextFailed";
constexpr const char* kNoKeyOfNode = "EncryptMsg: Key Node found for Node:";
constexpr const char* kNoAck = "ReceiveAck: Receive(Header_ACK) failed";
constexpr const char* kAckCut = "ReceiveAck: Failed to receive(ACK)";
constexpr const char* kTokenRefused = "createContext: InitializeSecurityContext Failed with error : 0x8009";

struct MischiefCase {
  int line;
  Act act;
  HostileServer::Answer at;
  std::int32_t entry;  // of the hostile node
  Status status;       // of the whole operation: an answer that can't be read raises no failure, a sending does
  const char* text;    // what the log says; null for nothing
};
const MischiefCase kMischief[] = {
    {__LINE__, Close, HostileServer::kFirstToken, 1, 1, kNoReply},
    {__LINE__, Close, HostileServer::kSecondToken, 1, 1, kNoReply},
    {__LINE__, Close, HostileServer::kKey, 1, 1, "exchangeKey: Receive Failed"},
    {__LINE__, Close, HostileServer::kAck, 1, 0, kNoAck},

    {__LINE__, CloseInTheHeader, HostileServer::kFirstToken, 1, 1, kNoReply},
    {__LINE__, CloseInTheHeader, HostileServer::kSecondToken, 1, 1, kNoReply},
    {__LINE__, CloseInTheHeader, HostileServer::kKey, 1, 1, "exchangeKey: Receive Failed"},
    {__LINE__, CloseInTheHeader, HostileServer::kAck, 1, 0, kNoAck},

    {__LINE__, SayAnotherType, HostileServer::kFirstToken, 1, 1,
     "createContext: received header with wrong message type: 0x21"},
    {__LINE__, SayAnotherType, HostileServer::kSecondToken, 1, 1,
     "createContext: received header with wrong message type: 0x21"},
    {__LINE__, SayAnotherType, HostileServer::kKey, 1, 1,
     "exchangeKey: received header with wrong message type: 0x201"},
    {__LINE__, SayAnotherType, HostileServer::kAck, 0, 0, nullptr},  // not looked at

    {__LINE__, SayAnotherIdentifier, HostileServer::kFirstToken, 0, 0, nullptr},  // not looked at
    {__LINE__, SayAnotherIdentifier, HostileServer::kSecondToken, 0, 0, nullptr},
    {__LINE__, SayAnotherIdentifier, HostileServer::kKey, 0, 0, nullptr},
    {__LINE__, SayAnotherIdentifier, HostileServer::kAck, 0, 0, nullptr},

    {__LINE__, SayNoIdentifier, HostileServer::kFirstToken, 1, 1, "createContext: DecodeHeader Failed"},
    {__LINE__, SayNoIdentifier, HostileServer::kSecondToken, 1, 1, "createContext: DecodeHeader Failed"},
    {__LINE__, SayNoIdentifier, HostileServer::kKey, 1, 1, kNoKeyOfNode},
    {__LINE__, SayNoIdentifier, HostileServer::kAck, 1, 0, "DecodeHeader:Received invalid ScheduleID"},

    {__LINE__, Claim<12001>, HostileServer::kFirstToken, 1, 1,
     "createContext: received header with wrong message length: 12001"},
    {__LINE__, Claim<12001>, HostileServer::kSecondToken, 1, 1,
     "createContext: received header with wrong message length: 12001"},
    {__LINE__, Claim<12001>, HostileServer::kKey, 1, 1,
     "exchangeKey: received header with wrong message length: 12001"},
    {__LINE__, Claim<12001>, HostileServer::kAck, 1, 0, kAckCut},

    {__LINE__, Claim<12000>, HostileServer::kFirstToken, 1, 1, kTokenCut},
    {__LINE__, Claim<12000>, HostileServer::kKey, 1, 1, "exchangeKey: Receive contextFailed"},
    {__LINE__, Claim<5121>, HostileServer::kAck, 1, 0, kAckCut},

    {__LINE__, Claim<0xFFFFFFFF>, HostileServer::kFirstToken, 1, 1,
     "createContext: received header with wrong message length: -1"},
    {__LINE__, Claim<0xFFFFFFFF>, HostileServer::kSecondToken, 1, 1,
     "createContext: received header with wrong message length: -1"},
    {__LINE__, Claim<0xFFFFFFFF>, HostileServer::kKey, 1, 1,
     "exchangeKey: received header with wrong message length: -1"},
    {__LINE__, Claim<0xFFFFFFFF>, HostileServer::kAck, 1, 0, kAckCut},

    {__LINE__, CloseInThePayload, HostileServer::kFirstToken, 1, 1, kTokenCut},
    {__LINE__, CloseInThePayload, HostileServer::kSecondToken, 1, 1, kTokenCut},
    {__LINE__, CloseInThePayload, HostileServer::kKey, 1, 1, "exchangeKey: Receive contextFailed"},
    {__LINE__, CloseInThePayload, HostileServer::kAck, 1, 0, kAckCut},

    {__LINE__, SayGarbage<1>, HostileServer::kFirstToken, 1, 1, kTokenRefused},
    {__LINE__, SayGarbage<300>, HostileServer::kFirstToken, 1, 1, kTokenRefused},
    {__LINE__, SayGarbage<12000>, HostileServer::kFirstToken, 1, 1, kTokenRefused},
    {__LINE__, SayGarbage<12000>, HostileServer::kSecondToken, 1, 1, kTokenRefused},
    {__LINE__, SayGarbage<276>, HostileServer::kKey, 1, 1, "exchangeKey: ImportKey Failed"},
    {__LINE__, SayGarbage<12000>, HostileServer::kKey, 1, 1, kNoKeyOfNode},
    {__LINE__, SayGarbage<256>, HostileServer::kAck, 1, 0, "ReceiveAck: DecryptMsg from node: "},
    {__LINE__, SayGarbage<100>, HostileServer::kAck, 1, 0, "ReceiveAck: DecryptMsg from node: "},
    {__LINE__, SayGarbage<5121>, HostileServer::kAck, 1, 0, "ReceiveAck: DecryptMsg from node: "},

    {__LINE__, SayNothing, HostileServer::kFirstToken, 1, 1, kTokenRefused},
    {__LINE__, SayNothing, HostileServer::kSecondToken, 1, 1, kTokenRefused},
    {__LINE__, SayNothing, HostileServer::kKey, 1, 1, "exchangeKey: ImportKey Failed"},
    {__LINE__, SayNothing, HostileServer::kAck, 1, 0, nullptr},

    {__LINE__, SayByteByByte, HostileServer::kFirstToken, 0, 0, nullptr},
    {__LINE__, SayByteByByte, HostileServer::kSecondToken, 0, 0, nullptr},
    {__LINE__, SayByteByByte, HostileServer::kKey, 0, 0, nullptr},
    {__LINE__, SayByteByByte, HostileServer::kAck, 0, 0, nullptr},

    // What comes ahead of its time is taken for the next answer.
    {__LINE__, SayMore, HostileServer::kFirstToken, 1, 1, "createContext: DecodeHeader Failed"},
    {__LINE__, SayMore, HostileServer::kSecondToken, 1, 1, kNoKeyOfNode},
    {__LINE__, SayMore, HostileServer::kKey, 1, 0, "DecodeHeader:Received invalid ScheduleID"},
    {__LINE__, SayMore, HostileServer::kAck, 0, 0, nullptr},
};

TEST_F(HostileServerTest, CostsItsOwnEntryAndTheOtherNodeIsServed) {
  for (const MischiefCase& c : kMischief) {
    const Outcome outcome = Run(c.at, c.act);
    EXPECT_TRUE(outcome.wasReached) << c.line;
    EXPECT_THAT(outcome.results, ElementsAre(c.entry, 0, 1)) << c.line;  // no local step: the last stays 1
    EXPECT_EQ(outcome.status, c.status) << c.line;
    if (c.text != nullptr) {
      EXPECT_THAT(m_log.texts(), Contains(HasSubstr(c.text))) << c.line;
    }
  }
}

TEST_F(HostileServerTest, ThatGivesNoKeyGetsNoOperationUnderTheKeyOfAnEarlierOne) {
  const std::string address = NewAddress();
  {
    HostileServer honest(address, testing::PeerKeys(), HostileServer::kKey, HostileServer::Say);
    ASSERT_THAT(Run(honest, address).results, ElementsAre(0, 0, 1));
  }
  HostileServer hostile(address, testing::PeerKeys(), HostileServer::kKey, SayNoIdentifier);
  const Outcome outcome = Run(hostile, address);
  EXPECT_TRUE(outcome.wasReached);
  EXPECT_THAT(outcome.results, ElementsAre(1, 0, 1));
  EXPECT_EQ(outcome.status, 1u);
  EXPECT_THAT(m_log.texts(), Contains(HasSubstr(kNoKeyOfNode)));
}

TEST_F(HostileServerTest, ThatClosesBehindAHeaderOfTheInitiatorCostsItsOwnEntry) {
  // Whether the payload or the wait for the answer fails is the host's choice, and with the last message the status.
  for (int message = 0; message < HostileServer::kAnswers; ++message) {
    const std::string address = NewAddress();
    HostileServer hostile(address, testing::PeerKeys(), HostileServer::kAnswers, Close);
    hostile.CloseBehindHeaderOf(static_cast<HostileServer::Answer>(message));
    const Outcome outcome = Run(hostile, address);
    EXPECT_TRUE(outcome.wasReached) << message;
    EXPECT_THAT(outcome.results, ElementsAre(1, 0, 1)) << message;
    if (message != HostileServer::kAck) {
      EXPECT_EQ(outcome.status, 1u) << message;
    }
  }
}

// An answer has no greatest length: what can't be decrypted ends it at its first piece.
TEST_F(HostileServerTest, WhoseAnswerHasNoEndIsGivenUpAtTheFirstPieceThatIsNone) {
  constexpr std::size_t kMegabyte = 1 << 20;
  std::size_t given = 0;
  const Outcome outcome =
      Run(HostileServer::kAck, [&](Socket& socket, std::uint32_t type, const ScheduleGuid& id, const Bytes&) {
        (void)HostileServer::SayHeader(socket, type, id, 0xFFFFFFFF);
        const Bytes piece(kMegabyte, 0x5A);
        while (given < 4096 * kMegabyte && Send(socket, piece) == 1) given += kMegabyte;
        return false;
      });
  EXPECT_LT(given, 64 * kMegabyte) << "it was taken to its end";
  EXPECT_THAT(outcome.results, ElementsAre(1, 0, 1));
  EXPECT_EQ(outcome.status, 0u);
  EXPECT_THAT(m_log.texts(), Contains(HasSubstr("ReceiveAck: DecryptMsg from node: ")));
}

TEST_F(HostileServerTest, WhoseAnswerIsLongIsTakenByItsBeginning) {
  const Outcome outcome =
      Run(HostileServer::kAck, [](Socket& socket, std::uint32_t type, const ScheduleGuid& id, const Bytes& payload) {
        Bytes thousand;
        for (int i = 0; i < 1000; ++i) thousand.insert(thousand.end(), payload.begin(), payload.end());
        return HostileServer::Say(socket, type, id, thousand);
      });
  EXPECT_THAT(outcome.results, ElementsAre(0, 0, 1));
  EXPECT_EQ(outcome.status, 0u);
}

// A connection is given up 60 seconds after the last byte, whichever it is; the seconds are let run out at once.
TEST_F(HostileServerTest, ThatFallsSilentIsGivenUpAtEachPoint) {
  const auto honestly = [](Socket& socket, std::uint32_t type, const ScheduleGuid& id, const Bytes& payload) {
    return HostileServer::Say(socket, type, id, payload);
  };
  constexpr int kWaitsOfAnOperation =
      6;  // headers and payloads of two tokens and a key; then the answers are waited for
  for (int wait = 1; wait <= kWaitsOfAnOperation + 1; ++wait) {
    const std::thread::id initiator = std::this_thread::get_id();
    int seen = 0;
    Outcome outcome;
    {
      const FaultPlan plan =
          FaultPlan::Ask([&](int, Operation operation, std::string_view detail) -> platform::ErrorCode {
            if (std::this_thread::get_id() != initiator) return 0;
            const bool isOne = operation == Operation::kSocketSelect && detail == "one";
            if (wait <= kWaitsOfAnOperation ? isOne && ++seen == wait : operation == Operation::kSocketSelectAny) {
              return platform::ERROR_TIMEOUT;
            }
            return 0;
          });
      outcome = Run(HostileServer::kFirstToken, honestly);
    }
    if (wait <= kWaitsOfAnOperation) {
      EXPECT_THAT(outcome.results, ElementsAre(1, 0, 1)) << wait;
      EXPECT_EQ(outcome.status, 1u) << wait;
      EXPECT_TRUE(m_log.Has(1, "Receive: Did not receive any message for 60 secs, connection timed out.")) << wait;
    } else {
      // The one budget of all answers ends for the honest node too.
      EXPECT_THAT(outcome.results, ElementsAre(1, 1, 1));
      EXPECT_EQ(outcome.status, 0u);
      EXPECT_TRUE(m_log.Has(1, "ReceiveAck: Select returned because time limit expired\n"));
    }
  }
}

// Gives one byte for each wait of the initiator, which costs a second of the virtual clock.
class DrippingServerTest : public HostileServerTest {
 protected:
  //   dripped  called when the last byte has been given
  //   behind   called when the operation has ended
  Outcome RunDripping(HostileServer::Answer at, const std::string& command, const std::function<void()>& dripped = {},
                      const std::function<void()>& behind = {}) {
    const std::thread::id initiator = std::this_thread::get_id();
    int waits = 0;
    const FaultPlan plan =
        FaultPlan::Ask([&](int, Operation operation, std::string_view detail) -> platform::ErrorCode {
          if (std::this_thread::get_id() != initiator) return 0;
          if (operation == Operation::kSocketSelect && detail == "one" && m_dripping) {
            m_clock.Advance(1000);
            const std::lock_guard hold(m_lock);
            ++m_wanted;
            m_changed.notify_all();
          }
          if (operation != Operation::kSocketSelectAny || ++waits != 2 || !m_secondWaitRunsOut) return 0;
          return platform::ERROR_TIMEOUT;
        });
    const std::string address = NewAddress();
    HostileServer hostile(address, testing::PeerKeys(), at,
                          [&](Socket& socket, std::uint32_t type, const ScheduleGuid& id, const Bytes& payload) {
                            MessageHeader header = {static_cast<std::uint32_t>(payload.size()), type, 0, id};
                            Bytes bytes(kWireHeaderSize);
                            (void)EncodeHeader(header, WireHeader(bytes));
                            bytes.insert(bytes.end(), payload.begin(), payload.end());
                            m_dripping = true;
                            // The first byte comes by itself, so that the initiator looks at this connection.
                            if (Send(socket, std::span(bytes).first(1)) == 0) return false;
                            for (std::size_t i = 1; i < bytes.size(); ++i) {
                              {
                                std::unique_lock hold(m_lock);
                                m_changed.wait(hold, [&] { return m_wanted != 0; });
                                --m_wanted;
                              }
                              if (Send(socket, std::span(bytes).subspan(i, 1)) == 0) return false;
                            }
                            m_dripping = false;
                            if (dripped) dripped();
                            return true;
                          });
    return Run(hostile, address, command, behind);
  }
  std::mutex m_lock;
  std::condition_variable m_changed;
  int m_wanted = 0;  // guarded by m_lock
  std::atomic<bool> m_dripping{false};
  bool m_secondWaitRunsOut = false;
};

TEST_F(DrippingServerTest, HoldsUpTheOperationAndIsServedInTheEnd) {
  for (const HostileServer::Answer at :
       {HostileServer::kFirstToken, HostileServer::kSecondToken, HostileServer::kKey}) {
    const std::int64_t begun = platform::NowSeconds();
    const Outcome outcome = RunDripping(at, "/bin/true");
    EXPECT_TRUE(outcome.wasReached);
    EXPECT_THAT(outcome.results, ElementsAre(0, 0, 1)) << at;
    EXPECT_EQ(outcome.status, 0u) << at;
    EXPECT_GT(platform::NowSeconds() - begun, 70) << at;  // each wait has a limit of its own
  }
}

// The time is looked at ahead of the answers that are taken: what a dripping node takes counts from the next wait on.
TEST_F(DrippingServerTest, UsesUpTheBudgetOfTheOtherAnswersFromTheNextWaitOn) {
  // The honest node's command ends when the hostile one's answer has.
  const std::string fifo = m_folder + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const int end = open(fifo.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(end, 0);
  const std::string command = "/bin/sh -c \"read line < " + fifo + "\"";
  const auto release = [end] { EXPECT_EQ(write(end, "go\n", 3), 3); };
  for (const bool inTime : {true, false}) {
    m_secondWaitRunsOut = !inTime;
    const Outcome outcome = inTime ? RunDripping(HostileServer::kAck, command, release, {})
                                   : RunDripping(HostileServer::kAck, command, {}, release);
    EXPECT_THAT(outcome.results, ElementsAre(0, inTime ? 0 : 1, 1));
    EXPECT_EQ(outcome.status, 0u);
    EXPECT_THAT(m_log.texts(),
                Contains(::testing::ContainsRegex("ReceivedAck: Total elapsed time in seconds is:    30[0-9]")));
    EXPECT_EQ(m_log.Has(1, "ReceiveAck: Select returned because time limit expired\n"), !inTime);
  }
  close(end);
}

}  // namespace
}  // namespace qx
