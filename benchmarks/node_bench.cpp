// Figures of operations on nodes: one over loopback against the sum of its bare parts, and several at once against one.
#include <stdlib.h>

#include <array>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/figure.h"
#include "common/service_install.h"
#include "foundation/include/zfclog.h"
#include "platform/file.h"
#include "platform/registry.h"
#include "platform/security.h"
#include "platform/service_record.h"
#include "platform/socket.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "replication/child_session.h"
#include "replication/key_manager.h"
#include "replication/listener.h"
#include "replication/message_body.h"
#include "replication/node_operations.h"
#include "replication/wire.h"
#include "service/schedule_store.h"

namespace qx::bench {
namespace {

using Bytes = std::vector<std::uint8_t>;
using platform::Socket;

constexpr int kOperationsARound = 20;
constexpr int kPeersAtOnce = 8;
constexpr int kManyNodes = 16;

void Demand(bool good, const char* what) {
  if (!good) throw std::runtime_error(what);
}

std::vector<platform::SocketAddress> Loopback(std::uint16_t port) {
  std::vector<platform::SocketAddress> addresses;
  Demand(platform::ResolveAddress("127.0.0.1", std::to_string(port), platform::AddressFamily::kIpv4, true, addresses) == 0,
         "no loopback");
  return addresses;
}

// A store, a secret and a listener in this process; its local step is nothing.
class Node : public ISchedulerService {
 public:
  Node() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qx-bench-XXXXXX").string();
    Demand(mkdtemp(pattern.data()) != nullptr, "no directory");
    m_directory = pattern;
    platform::SetStateDirectory(m_directory);
    Demand(platform::OpenRegistryStore(m_directory + "/registry.db") == 0, "no store");
    for (const std::u16string_view path : {kVolumeManagerKey, kSchedulesKey}) {
      platform::RegistryKey key;
      Demand(platform::CreateKey(platform::Hive::kLocalMachine, path, platform::KEY_ALL_ACCESS, key) == 0 && key.Close() == 0,
             "no key");
    }
    platform::ServiceRecord record;
    record.binaryPath = u"\"/x\"";
    record.account = u"cluster";
    Demand(platform::CreateServiceRecord(kServiceName, record) == 0, "no record");
    const std::string secret = m_directory + "/nodes.key";
    Demand(platform::MakeCredentialsFile(secret, "CLUSTER", "qxsvc") == 0, "no secret");
    setenv("NTLM_USER_FILE", secret.c_str(), 1);
    setenv("KRB5_CONFIG", "/dev/null", 1);
    setenv("KRB5CCNAME", "MEMORY:none", 1);
    ZepFoundation::SetServiceLogWriter(ZepFoundation::NullServiceLogWriter());
    platform::ErrorCode code = 0;
    Demand(platform::LoadSecurityPackage(code) == platform::SecurityLoad::kLoaded, "no security package");
    Demand(platform::Thread::Start("SocketThread", [this] { (void)m_listener.SocketThread(0); }, m_thread) == 0, "no thread");
    Demand(m_listener.WaitForPort(std::chrono::minutes(1)), "nobody listens");
    m_operations.SetPort(m_listener.Port());
    Create();  // the pairs are made
  }
  ~Node() override {
    m_listener.Close();
    m_thread.Join();
    (void)m_listener.WaitForChildCount(0, std::chrono::minutes(1));
    platform::FreeSecurityPackage();
    (void)platform::CloseRegistryStore();
    platform::SetStateDirectory({});
    std::filesystem::remove_all(m_directory);
  }

  // One operation on one other node: a creation.
  void Create() {
    NodeResults results(2, 1);
    ScheduleGuid id;
    Demand(m_operations.CreateScheduleOnNodes(*this, Record(), id, 2, {u"localhost", u"127.0.0.1"}, results) == 0 &&
               results[1] == 0,
           "an operation failed");
  }
  // A deletion of what no node has, on so many: every address of the loopback network is this one, and its one store
  // would take a creation only once.
  void Delete(int count) {
    NodeNames names = {u"localhost"};
    for (int i = 0; i < count; ++i) names.push_back(platform::WideFromUtf8("127.0.0." + std::to_string(1 + i)));
    NodeResults results(names.size(), 1);
    Demand(m_operations.DeleteScheduleOnNodes(*this, ScheduleGuid{}, static_cast<std::uint32_t>(names.size()), names,
                                              results) == 0,
           "an operation failed");
  }
  static SCHEDULE_OBJECT Record() {
    SCHEDULE_OBJECT schedule;
    schedule.bstrApplication = u"snapshot";
    schedule.bstrObjectID = u"vol-17";
    schedule.bstrWrapperBinaryName = u"/usr/bin/wrapper";
    schedule.bstrXMLFilePathName = u"/var/lib/jobs/job.xml";
    return schedule;
  }
  CNodeOperations& Operations() { return m_operations; }
  CKeyManager& PeerKeys() { return m_peerKeys; }
  [[nodiscard]] std::uint16_t Port() const { return m_listener.Port(); }

  Status CreateSchedule(const SCHEDULE_OBJECT&, ScheduleGuid& id) override {
    return platform::CreateGuid(id) == 0 ? kStatusOk : kStatusFailure;
  }
  Status DeleteSchedule(const ScheduleGuid&) override { return kStatusOk; }
  Status ModifySchedule(const ScheduleGuid&, const SCHEDULE_OBJECT&) override { return kStatusOk; }
  Status ListSchedule(std::uint32_t&, ScheduleList&) override { return kStatusOk; }
  Status GetScheduleInfo(const ScheduleGuid&, ScheduleInfo&) override { return kStatusOk; }
  Status CreateScheduleOnNodes(const SCHEDULE_OBJECT&, ScheduleGuid&, std::uint32_t, const NodeNames&,
                               NodeResults&) override {
    return kStatusOk;
  }
  Status DeleteScheduleOnNodes(const ScheduleGuid&, std::uint32_t, const NodeNames&, NodeResults&) override {
    return kStatusOk;
  }
  Status ModifyScheduleOnNodes(const ScheduleGuid&, const SCHEDULE_OBJECT&, std::uint32_t, const NodeNames&,
                               NodeResults&) override {
    return kStatusOk;
  }
  Status Refresh() override { return kStatusOk; }
  Status Notify_NextTimeWindow_Modify(const ScheduleGuid&, std::int32_t) override { return kStatusOk; }
  Status Notify_SystemTime_Change(std::int32_t, const std::vector<std::u16string>&,
                                  const std::vector<std::int32_t>&) override {
    return kStatusOk;
  }
  Status UpdateList(std::int32_t, const BSTR&, std::uint32_t&, std::vector<std::u16string>&) override { return kStatusOk; }
  Status PerformOperationOnNodes(const BSTR&, std::uint32_t, const NodeNames&, NodeResults&) override { return kStatusOk; }

 private:
  std::string m_directory;
  CKeyManager m_keys, m_peerKeys;
  CListener m_listener{m_peerKeys};
  CNodeOperations m_operations{m_keys};
  platform::Thread m_thread;
};

// What one operation is made of, each done by itself in a plain way.
class BareParts {
 public:
  BareParts() {
    platform::CryptoProvider provider;
    Demand(platform::CryptoProvider::AcquireContext(platform::kEnhancedProvider, platform::PROV_RSA_FULL,
                                                    platform::CRYPT_VERIFYCONTEXT, provider) == 0 &&
               platform::CryptoKey::Generate(provider, platform::CALG_RSA_KEYX, 0x08000001, m_pair) == 0,
           "no key");
    m_provider = provider;
    m_blob.resize(276);
    std::uint32_t size = 0;
    Demand(m_pair.ExportPublic(m_blob, size) == 0, "no blob");
    Demand(m_listener.Create(platform::AddressFamily::kIpv4) == 0 && m_listener.Bind(Loopback(0)[0]) == 0 &&
               m_listener.Listen(32) == 0,
           "no echo");
    Demand(platform::Thread::Start("echo", [this] { Echo(); }, m_thread) == 0, "no thread");
  }
  ~BareParts() {
    m_listener.Close();
    m_thread.Join();
  }
  void One() {
    Trips();
    Tokens();
    Keys();
    Transaction();
  }

 private:
  // Payloads there and back, each behind a header in a send of its own as the protocol has it: tokens, tokens, keys,
  // operation and answer.
  static constexpr std::array<std::pair<std::size_t, std::size_t>, 4> kTrips = {
      {{74, 156}, {309, 29}, {276, 276}, {512, 256}}};
  static bool Give(Socket& socket, std::size_t payload) {
    return Send(socket, Bytes(kWireHeaderSize)) == 1 && Send(socket, Bytes(payload)) == 1;
  }
  static bool Take(Socket& socket, std::size_t payload) {
    Bytes header(kWireHeaderSize), bytes(payload);
    return Receive(socket, header.data(), header.size()) == 1 && Receive(socket, bytes.data(), bytes.size()) == 1;
  }

  // A thread for each connection, as the listener has it.
  void Echo() {
    while (true) {
      bool ready = false;
      auto socket = std::make_shared<Socket>();
      if (m_listener.WaitReadable(ready) != 0 || m_listener.Accept(*socket) != 0) return;
      (void)platform::StartThread("echo", [socket] {
        for (const auto& [there, back] : kTrips) {
          if (!Take(*socket, there) || !Give(*socket, back)) return;
        }
      });
    }
  }
  void Trips() {
    Socket socket;
    Demand(Socket::Create(platform::AddressFamily::kIpv4, socket) == 0 && socket.Connect(Loopback(m_listener.Port())[0]) == 0,
           "no connection");
    for (const auto& [there, back] : kTrips) {
      Demand(Give(socket, there) && Take(socket, back), "no echo");
    }
  }
  static void Tokens() {
    platform::SecurityCredentials outbound, inbound;
    Demand(platform::SecurityCredentials::Acquire(platform::CredentialsUse::kOutbound, 0, outbound) == 0 &&
               platform::SecurityCredentials::Acquire(platform::CredentialsUse::kInbound, 0, inbound) == 0,
           "no credentials");
    platform::SecurityContext initiator, acceptor;
    Bytes there, back;
    std::uint32_t attributes = 0;
    while (true) {
      const auto status = initiator.Initialize(outbound, u"Client", platform::ISC_REQ_CONFIDENTIALITY, back, 12000, there);
      Demand(!platform::SecurityFailed(status), "no token");
      if (status == platform::SEC_E_OK) return;
      Demand(!platform::SecurityFailed(acceptor.Accept(inbound, there, 0, 12000, back, attributes)), "refused");
    }
  }
  // Both sides' imports and exports, the three blocks there and back.
  void Keys() {
    for (int side = 0; side < 2; ++side) {
      platform::CryptoKey peer;
      std::uint32_t size = 0;
      Demand(m_pair.ExportPublic(m_blob, size) == 0 &&
                 platform::CryptoKey::Import(m_provider, m_blob, platform::CRYPT_EXPORTABLE, peer) == 0,
             "no import");
      for (int block = 0; block < (side == 0 ? 2 : 1); ++block) {
        Bytes bytes(256);
        std::uint32_t length = side == 0 ? 245 : 22;
        Demand(peer.Encrypt(true, bytes, length) == 0 && m_pair.Decrypt(true, bytes, length) == 0, "no block");
      }
    }
  }
  static void Transaction() {
    ScheduleGuid id;
    int failed = 0;
    Demand(platform::CreateGuid(id) == 0 && RegistryExists(id, failed) == 0 && WriteRegistry(Node::Record(), id) == 0,
           "nothing written");
  }

  platform::CryptoProvider m_provider;
  platform::CryptoKey m_pair;
  Bytes m_blob;
  platform::ListeningSocket m_listener;
  platform::Thread m_thread;
};

// Microseconds for one of `count` calls.
template <class Call>
double Each(int count, Call call) {
  const double begun = SteadyNanoseconds();
  for (int i = 0; i < count; ++i) call();
  return (SteadyNanoseconds() - begun) / 1000 / count;
}

// The same in processor time of the whole process, which other work on the machine changes less.
template <class Call>
double EachOfProcessor(int count, Call call) {
  const std::clock_t begun = std::clock();
  for (int i = 0; i < count; ++i) call();
  return static_cast<double>(std::clock() - begun) * 1e6 / CLOCKS_PER_SEC / count;
}

}  // namespace

std::vector<Figure> NodeFigures() {
  // Made when a figure runs: listing them costs nothing.
  struct Fixture {
    Node node;
    BareParts parts;
  };
  const auto fixture = std::make_shared<std::unique_ptr<Fixture>>();
  const auto made = [fixture]() -> Fixture& {
    if (!*fixture) *fixture = std::make_unique<Fixture>();
    return **fixture;
  };
  const auto one = [made] {
    Fixture& f = made();
    return Each(kOperationsARound, [&] { f.node.Create(); });
  };
  const auto several = [made] {
    Fixture& f = made();
    const double begun = SteadyNanoseconds();
    std::vector<std::thread> peers;
    for (int peer = 0; peer < kPeersAtOnce; ++peer) {
      peers.emplace_back([&f, peer] {
        // The pair that is there already: a service makes its own once, which isn't counted. Names are the peers' own.
        CNodeOperations operations(f.node.PeerKeys());
        operations.SetPort(f.node.Port());
        for (int i = 0; i < kOperationsARound; ++i) {
          NodeResults results(2, 1);
          ScheduleGuid id;
          Demand(operations.CreateScheduleOnNodes(f.node, Node::Record(), id, 2,
                                                  {u"localhost", platform::WideFromUtf8("127.0.0." + std::to_string(2 + peer))},
                                                  results) == 0,
                 "an operation failed");
        }
      });
    }
    for (std::thread& peer : peers) peer.join();
    return (SteadyNanoseconds() - begun) / 1000 / (kPeersAtOnce * kOperationsARound);
  };
  return {
      {"nodes/one-creation", "connect, the same trips, tokens, keys and one transaction", "us", 1.3, one,
       [made] {
         Fixture& f = made();
         return Each(kOperationsARound, [&] { f.parts.One(); });
       },
       7},
      {"nodes/one-creation-processor", "the same parts; both in processor time of all threads", "us", 1.3,
       [made] {
         Fixture& f = made();
         return EachOfProcessor(kOperationsARound, [&] { f.node.Create(); });
       },
       [made] {
         Fixture& f = made();
         return EachOfProcessor(kOperationsARound, [&] { f.parts.One(); });
       },
       7},
      {"nodes/sixteen-nodes-for-each", "the same on one node", "us", 1.1,
       [made] {
         Fixture& f = made();
         return Each(kOperationsARound / 4, [&] { f.node.Delete(kManyNodes); }) / kManyNodes;
       },
       [made] {
         Fixture& f = made();
         return Each(kOperationsARound, [&] { f.node.Delete(1); });
       },
       7},
      {"nodes/eight-peers-at-once", "the same by one peer alone", "us", 1 / 1.5, several, one, 7},
  };
}

}  // namespace qx::bench
