// Thousands of connections at once: 32 are held, the others are closed, and nothing is left of them.
#include <filesystem>
#include <iterator>
#include <string>

#include "platform/testing/judges_memory.h"
#include "replication/tests/connection_crowd.h"
#include "replication/tests/replication_fixture.h"

namespace qx {
namespace {

using testing::Bytes;
using testing::ConnectionCrowd;
using testing::WaitForChildThreads;

constexpr int kCrowd = 4000;

std::ptrdiff_t EntriesOf(const char* directory) {
  return std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator());
}
std::ptrdiff_t Descriptors() {
  return EntriesOf("/proc/self/fd");
}
std::ptrdiff_t Threads() {
  return EntriesOf("/proc/self/task");
}

class HostileClients : public testing::ReplicationFixture {
 protected:
  void SetUp() override {
    ReplicationFixture::SetUp();
    Listen();
    ASSERT_TRUE(Perform(MSG_PERFORM, {}, PerformBody("/bin/true")));  // the reaper and the libraries are there
    ASSERT_TRUE(WaitForChildThreads());
  }
};

TEST_F(HostileClients, ThirtyTwoOfThousandsAreHeldAndNothingIsLeftOfTheOthers) {
  const int count = ConnectionCrowd::MostOf(kCrowd);
  ASSERT_GT(count, 4 * kMaxChildren) << "this host allows too few descriptors";
  const std::ptrdiff_t threads = Threads(), descriptors = Descriptors();
  std::size_t allocated = 0;
  for (int wave = 0; wave < 3; ++wave) {
    m_log.Clear();
    {
      ConnectionCrowd crowd(count, "127.0.0.1", m_listener.Port());
      // They fall silent: the first 32 to be taken stay.
      ASSERT_TRUE(crowd.WaitForClosed(count - kMaxChildren));
      EXPECT_EQ(m_listener.ChildCount(), kMaxChildren);
      EXPECT_GE(m_log.Count(1, "SocketThread: Crossed maximum limit of child threads"), count - kMaxChildren);
      EXPECT_EQ(Threads(), threads + kMaxChildren);
      // Nobody else is served meanwhile, and every caller hears so at once.
      platform::Socket another;
      Connect(m_listener.Port(), another);
      std::uint8_t byte = 0;
      EXPECT_EQ(Receive(another, &byte, 1), 0);
    }
    WaitForChildren();
    EXPECT_TRUE(Perform(MSG_PERFORM, {}, PerformBody("/bin/true"))) << wave;
    EXPECT_TRUE(WaitForChildThreads());
    EXPECT_EQ(Threads(), threads);
    EXPECT_EQ(Descriptors(), descriptors);
    m_log.Clear();
    const std::size_t now = platform::HeldBytes();
    // The first wave makes what every thread keeps for the next ones.
    if (wave > 0) {
      EXPECT_LT(static_cast<std::ptrdiff_t>(now) - static_cast<std::ptrdiff_t>(allocated), 100000) << wave;
    }
    allocated = now;
  }
}

// Gives one byte at a time.
class SlowConnection final : public platform::IConnection {
 public:
  explicit SlowConnection(platform::Socket& socket) : m_socket(socket) {}
  platform::SocketError WaitReadable(std::int64_t limitMs, bool& ready) override {
    return m_socket.WaitReadable(limitMs, ready);
  }
  platform::SocketError ReceiveSome(std::span<std::uint8_t> buffer, std::size_t& count) override {
    return m_socket.ReceiveSome(buffer, count);
  }
  platform::SocketError SendSome(std::span<const std::uint8_t> bytes, std::size_t& count) override {
    return m_socket.SendSome(bytes.first(1), count);
  }

 private:
  platform::Socket& m_socket;
};

TEST_F(HostileClients, ACallerThatSendsByteByByteIsServedLikeAnyOther) {
  const ScheduleGuid id = NewId();
  Caller caller;
  Call(caller, id);
  SlowConnection slow(caller.socket);
  ASSERT_EQ(getLuidForProc(caller.credentials, platform::CredentialsUse::kOutbound), 0u);
  ASSERT_EQ(createContext(slow, caller.credentials, caller.context, id), 0);
  ASSERT_EQ(testing::OwnKeys().exchangeKey(slow, u"peer", id), 0);
  Bytes cipher;
  ASSERT_EQ(testing::OwnKeys().EncryptMsg(u"peer", CreateBody(Daily(), id), cipher), 1);
  ASSERT_EQ(Send(slow, Message(MSG_CREATE, static_cast<std::uint32_t>(cipher.size()), id)), 1);
  ASSERT_EQ(Send(slow, cipher), 1);
  const auto answer = caller.ReceiveAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->result, 0u);
  EXPECT_TRUE(HasKey(id));
}

TEST_F(HostileClients, ThousandsThatSpeakNonsenseLeaveNothing) {
  const std::ptrdiff_t descriptors = Descriptors();
  const auto speak = [&](int count) {
    for (int i = 0; i < count; ++i) {
      platform::Socket socket;
      Connect(m_listener.Port(), socket);
      Bytes nonsense = Message(MSG_CONTEXT_REQUEST, 300);
      switch (i % 4) {
        case 0:  // a token that is none
          nonsense.resize(nonsense.size() + 300, static_cast<std::uint8_t>(i));
          break;
        case 1:  // half of it
          nonsense.resize(nonsense.size() + 150, 0x60);
          break;
        case 2:  // a length of 4 GiB
          std::fill_n(nonsense.begin(), 4, std::uint8_t{0xFF});
          break;
        default:  // no header
          std::fill(nonsense.begin(), nonsense.end(), static_cast<std::uint8_t>(i));
      }
      ASSERT_EQ(Send(socket, nonsense), 1);
      if (i % 4 == 1) {
        socket.Close();
      } else {
        std::uint8_t byte = 0;
        ASSERT_EQ(Receive(socket, &byte, 1), 0) << i;
      }
    }
    WaitForChildren();
    m_log.Clear();
  };
  speak(2000);
  const std::size_t before = platform::HeldBytes();
  speak(2000);
  // 50 bytes for each would be 100000.
  EXPECT_LT(static_cast<std::ptrdiff_t>(platform::HeldBytes()) - static_cast<std::ptrdiff_t>(before), 60000);
  EXPECT_EQ(Descriptors(), descriptors);
  EXPECT_TRUE(Perform(MSG_PERFORM, {}, PerformBody("/bin/true")));
}

}  // namespace
}  // namespace qx
