// tests/node_cluster.h: for tests: several real services, each in a network namespace of its own, joined by a bridge.
//
// Node i (from 0) has the addresses 10.77.0.(i+1) and fd77::(i+1), and the link-local one that the host gives; its
// hosts file names all nodes "nodeA", "nodeB", ... The bridge has an address too: a realm's key distribution centre
// listens there, and what stands between two nodes. Needs root and network namespaces. Threads: one object from one
// thread.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/registry.h"
#include "platform/security.h"
#include "replication/tests/throwaway_realm.h"
#include "tests/file_watch.h"
#include "tests/running_service.h"

namespace qx::testing {

inline constexpr std::uint16_t kClusterPort = 4888;

// How the nodes prove their accounts to each other: by the secret of a credentials file, or by the tickets of a realm.
enum class Mechanism { kNtlm, kKerberos };

inline std::string NameOf(Mechanism mechanism) {
  return mechanism == Mechanism::kNtlm ? "Ntlm" : "Kerberos";
}
inline void PrintTo(Mechanism mechanism, std::ostream* out) {
  *out << NameOf(mechanism);
}

class NodeCluster {
 public:
  // Why this host can't have one; empty when it can.
  static std::string WhyNot(Mechanism mechanism) {
    if (mechanism == Mechanism::kKerberos) {
      if (std::string why = ThrowawayRealm::WhyNot(); !why.empty()) return why;
    }
    if (geteuid() != 0) return "network namespaces need root";
    if (access(kIp, X_OK) != 0) return "the program ip is missing (package iproute2)";
    const std::string probe = "qxprobe" + std::to_string(getpid());
    if (Tool({"netns", "add", probe}) != 0) return "this host allows no network namespaces";
    const bool pair = Tool({"-n", probe, "link", "add", "a0", "type", "bridge"}) == 0;
    (void)Tool({"netns", "del", probe});
    return pair ? "" : "this host has no bridges";
  }

  NodeCluster(int count, Mechanism mechanism) {
    Must({"netns", "add", Hub()});
    Must({"-n", Hub(), "link", "add", "br0", "type", "bridge"});
    Must({"-n", Hub(), "addr", "add", std::string(kHubAddress) + "/24", "dev", "br0"});
    Must({"-n", Hub(), "link", "set", "br0", "up"});
    Must({"-n", Hub(), "link", "set", "lo", "up"});
    if (mechanism == Mechanism::kKerberos) {
      m_realm = std::make_unique<ThrowawayRealm>(
          ThrowawayRealm::Place{kHubAddress, kRealmPort, std::string(kIp) + " netns exec " + Hub()},
          [](const std::vector<std::string>& words) {
            return Child(words[0], {words.begin() + 1, words.end()}, "/dev/null", {"PATH=/usr/bin:/bin"}).Wait();
          });
    }
    for (int i = 0; i < count; ++i) AddNode();
    WriteHosts();
  }
  NodeCluster(const NodeCluster&) = delete;
  NodeCluster& operator=(const NodeCluster&) = delete;
  ~NodeCluster() {
    const auto count = static_cast<int>(m_nodes.size());
    m_nodes.clear();
    for (int i = 0; i < count; ++i) {
      (void)Tool({"netns", "del", Namespace(i)});
      std::error_code ignored;
      std::filesystem::remove_all("/etc/netns/" + Namespace(i), ignored);
    }
    m_realm.reset();
    (void)Tool({"netns", "del", Hub()});
  }

  static constexpr const char* kHubAddress = "10.77.0.250";
  // Runs `act` on a thread of its own among a node's addresses, or on the bridge; sockets and threads that it makes
  // stay there.
  template <class Act>
  static void InNode(int node, Act act) {
    InNamespace(Namespace(node), std::move(act));
  }
  template <class Act>
  static void OnBridge(Act act) {
    InNamespace(Hub(), std::move(act));
  }

  RunningService& operator[](int node) { return *m_nodes[static_cast<std::size_t>(node)]; }
  static std::string Address(int node) { return "10.77.0." + std::to_string(node + 1); }
  static std::string Address6(int node) { return "fd77::" + std::to_string(node + 1); }
  static std::string Name(int node) {
    return "node" + (node < 26 ? std::string(1, static_cast<char>('A' + node)) : std::to_string(node));
  }
  // The link-local address that the host gave.
  std::string LinkLocal(int node) {
    const std::string file = "/tmp/" + Namespace(node) + ".addr";
    {
      Child child(kIp, {"-n", Namespace(node), "-6", "-o", "addr", "show", "dev", "eth0", "scope", "link"}, file, {});
      (void)child.Wait();
    }
    const std::string text = RunningService::ReadFile(file);
    (void)unlink(file.c_str());
    const std::size_t at = text.find("fe80:");
    return at == std::string::npos ? "" : text.substr(at, text.find('/', at) - at);
  }
  void SetLink(int node, bool up) {
    Must({"-n", Hub(), "link", "set", "p" + std::to_string(node), up ? "up" : "down"});
  }
  // Has a node ask anew where its neighbours are, so that one behind a link that is down is found missing within seconds.
  void ForgetNeighbours(int node) { Must({"-n", Namespace(node), "neigh", "flush", "all"}); }
  // Adds a line to the hosts file of one node.
  void AddHost(int node, const std::string& line) {
    std::ofstream("/etc/netns/" + Namespace(node) + "/hosts", std::ios::app) << line << "\n";
  }

  // One common secret for all: the same credentials file, or the realm's key. Or for one node another one.
  void ShareSecret() {
    for (std::size_t i = 0; i < m_nodes.size(); ++i) {
      const std::string secret = Secret(static_cast<int>(i));
      if (m_realm) {
        Replace(m_realm->Keytab(), secret);
      } else if (i != 0) {
        Replace(Secret(0), secret);
      }
    }
  }
  void ChangeSecret(int node) {
    if (m_realm) {
      Replace(m_realm->OldKeytab(), Secret(node));
    } else {
      std::filesystem::remove(Secret(node));
      ASSERT_EQ(platform::MakeCredentialsFile(Secret(node), "CLUSTER", "qxsvc"), 0u);
    }
  }

  // Sets a number among the settings of a node; counts at its next start.
  void SetNumber(int node, std::u16string_view name, std::uint32_t value) {
    EditStore(node, u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules",
              [&](platform::RegistryKey& key) { return platform::SetDword(key, name, value); });
  }

  void StartAll() {
    for (std::size_t i = 0; i < m_nodes.size(); ++i) ASSERT_NO_FATAL_FAILURE(Start(static_cast<int>(i)));
  }
  // Starts a node and waits until it listens.
  void Start(int node) {
    RunningService& service = (*this)[node];
    // The log goes on from an earlier start.
    const std::size_t before = Listenings(service);
    ASSERT_NO_FATAL_FAILURE(service.Start());
    ASSERT_TRUE(FileWatch(service.Root() + "/logs").Until([&] { return Listenings(service) > before; }))
        << service.Log();
  }
  // Has everything logged.
  void SetTraceLevel(int node) {
    EditStore(node, u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\VolumeManager",
              [](platform::RegistryKey& key) { return platform::SetDword(key, u"TraceLevel", 6); });
  }

 private:
  static constexpr const char* kIp = "/usr/sbin/ip";
  static constexpr std::uint16_t kRealmPort = 8888;
  static int Tool(std::vector<std::string> words) {
    Child child(kIp, words, "/dev/null", {});
    return child.Wait();
  }
  static void Must(const std::vector<std::string>& words) {
    std::string line;
    for (const std::string& word : words) line += " " + word;
    EXPECT_EQ(Tool(words), 0) << "ip" << line;
  }
  static std::size_t Listenings(const RunningService& service) {
    const std::string log = service.Log();
    std::size_t count = 0;
    for (std::size_t at = log.find("Listening on port"); at != std::string::npos;
         at = log.find("Listening on port", at + 1)) {
      ++count;
    }
    return count;
  }
  static std::string Hub() { return "qx" + std::to_string(getpid()) + "hub"; }
  static std::string Namespace(int node) { return "qx" + std::to_string(getpid()) + "n" + std::to_string(node); }
  std::string Secret(int node) { return (*this)[node].Root() + (m_realm ? "/keytab" : "/nodes.key"); }
  static void Replace(const std::string& from, const std::string& to) {
    std::filesystem::copy_file(from, to + ".new", std::filesystem::copy_options::overwrite_existing);
    std::filesystem::rename(to + ".new", to);
  }
  template <class Act>
  static void InNamespace(const std::string& name, Act act) {
    std::thread([&] {
      const int space = open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
      ASSERT_GE(space, 0) << name;
      const int entered = setns(space, CLONE_NEWNET);
      close(space);
      ASSERT_EQ(entered, 0) << name;
      act();
    }).join();
  }

  void AddNode() {
    const auto node = static_cast<int>(m_nodes.size());
    const std::string space = Namespace(node), port = "p" + std::to_string(node);
    Must({"netns", "add", space});
    Must({"-n", Hub(), "link", "add", port, "type", "veth", "peer", "name", "eth0", "netns", space});
    Must({"-n", Hub(), "link", "set", port, "master", "br0", "up"});
    Must({"-n", space, "addr", "add", Address(node) + "/24", "dev", "eth0"});
    Must({"-n", space, "-6", "addr", "add", Address6(node) + "/64", "dev", "eth0", "nodad"});
    Must({"-n", space, "link", "set", "lo", "up"});
    Must({"-n", space, "link", "set", "eth0", "up"});
    m_nodes.push_back(std::make_unique<RunningService>());
    RunningService& service = *m_nodes.back();
    service.SetLauncher({kIp, "netns", "exec", space});
    if (m_realm) {
      for (const std::string& assignment : m_realm->Variables(service.Root() + "/keytab", service.Root())) {
        service.AddVariable(assignment);
      }
    } else {
      service.AddVariable("KRB5_CONFIG=/dev/null");
      service.AddVariable("KRB5CCNAME=MEMORY:none");
    }
    service.Register("-Service");
    EditStore(node, u"SYSTEM\\CurrentControlSet\\Services\\QxSchedService",
              [](platform::RegistryKey& key) { return platform::SetString(key, u"ObjectName", u"cluster"); });
    ASSERT_NO_FATAL_FAILURE(ChangeSecret(node));
  }
  void WriteHosts() {
    for (std::size_t i = 0; i < m_nodes.size(); ++i) {
      const std::string directory = "/etc/netns/" + Namespace(static_cast<int>(i));
      std::filesystem::create_directories(directory);
      std::ofstream hosts(directory + "/hosts");
      hosts << "127.0.0.1 localhost\n::1 localhost\n";
      for (std::size_t k = 0; k < m_nodes.size(); ++k) {
        hosts << Address(static_cast<int>(k)) << " " << Name(static_cast<int>(k)) << "\n";
      }
    }
  }
  template <class Edit>
  void EditStore(int node, std::u16string_view path, Edit edit) {
    ASSERT_EQ(platform::OpenRegistryStore((*this)[node].Root() + "/registry.db"), 0u);
    platform::RegistryKey key;
    ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, path, platform::KEY_ALL_ACCESS, key), 0u);
    ASSERT_EQ(edit(key), 0u);
    ASSERT_EQ(key.Close(), 0u);
    ASSERT_EQ(platform::CloseRegistryStore(), 0u);
  }

  std::unique_ptr<ThrowawayRealm> m_realm;  // null for NTLM
  std::vector<std::unique_ptr<RunningService>> m_nodes;
};

// Four nodes of one secret and a client of the first one, once for each mechanism; skipped, loudly, where the host has
// no namespaces or no key distribution centre.
class ClusterTest : public ::testing::TestWithParam<Mechanism> {
 protected:
  static constexpr int kNodes = 4;
  void SetUp() override {
    if (const std::string why = NodeCluster::WhyNot(GetParam()); !why.empty()) {
      GTEST_SKIP() << "NO REAL NODES HERE: " << why
                   << "; one service and scripted peers are tested by replication_tests";
    }
    m_cluster = std::make_unique<NodeCluster>(kNodes, GetParam());
    if (HasFatalFailure()) return;
    m_cluster->ShareSecret();
    for (int i = 0; i < kNodes; ++i) m_cluster->SetTraceLevel(i);
  }
  void StartAll() {
    ASSERT_NO_FATAL_FAILURE(m_cluster->StartAll());
    ASSERT_NO_FATAL_FAILURE(Node(0).Connect(m_client));
  }
  RunningService& Node(int node) { return (*m_cluster)[node]; }
  // "localhost" for the first node, the others by address.
  static NodeNames Addresses(int count = kNodes) {
    NodeNames names = {u"localhost"};
    for (int i = 1; i < count; ++i) names.push_back(platform::WideFromUtf8(NodeCluster::Address(i)));
    return names;
  }
  static std::int64_t FarStart() { return platform::NowSeconds() / 86400 * 86400 + 30 * 86400; }

  Status Create(const NodeNames& names, ScheduleGuid& id) {
    m_results.assign(names.size(), 77);
    return m_client.CreateScheduleOnNodes(Node(0).Job("job", FarStart()), id, static_cast<std::uint32_t>(names.size()),
                                          names, m_results);
  }
  Status Delete(const NodeNames& names, const ScheduleGuid& id) {
    m_results.assign(names.size(), 77);
    return m_client.DeleteScheduleOnNodes(id, static_cast<std::uint32_t>(names.size()), names, m_results);
  }
  Status Perform(const NodeNames& names, const std::string& command) {
    m_results.assign(names.size(), 77);
    return m_client.PerformOperationOnNodes(platform::WideFromUtf8(command), static_cast<std::uint32_t>(names.size()),
                                            names, m_results);
  }
  // What `qxsched reg list` shows of a schedule's key on a node; empty where there is none.
  std::string KeyOn(int node, const ScheduleGuid& id) {
    const std::string output = Node(node).Jobs() + "/reg.out";
    Child child(test_paths::Programs() + "/qxsched",
                {"--root", Node(node).Root(), "reg", "list",
                 "HKLM\\SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules\\" +
                     platform::Utf8FromWide(platform::GuidText(id))},
                output, Node(node).Environment());
    return child.Wait() == 0 ? RunningService::ReadFile(output) : "";
  }

  std::unique_ptr<NodeCluster> m_cluster;
  SchedulerClient m_client;
  NodeResults m_results;
};

// A suite's tests by both mechanisms.
#define QX_BY_EACH_MECHANISM(suite)                                                                   \
  INSTANTIATE_TEST_SUITE_P(                                                                           \
      By, suite, ::testing::Values(qx::testing::Mechanism::kNtlm, qx::testing::Mechanism::kKerberos), \
      [](const auto& made) { return NameOf(made.param); })

}  // namespace qx::testing
