// Real services on several nodes, each with addresses of its own.
#include <gmock/gmock.h>

#include <algorithm>
#include <memory>

#include "platform/testing/judges_memory.h"
#include "replication/tests/connection_crowd.h"
#include "replication/tests/wire_tap.h"
#include "tests/file_watch.h"
#include "tests/node_cluster.h"

namespace {

using qx::testing::ClusterTest;
using qx::testing::Mechanism;
using qx::testing::NodeCluster;
using qx::testing::RunningService;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

TEST_P(ClusterTest, FourNodesTakeACreationAModificationACommandAndADeletion) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  ScheduleGuid id;
  ASSERT_EQ(Create(Addresses(), id), 0u) << Node(0).Log();
  EXPECT_THAT(m_results, ElementsAre(0, 0, 0, 0));
  for (int i = 0; i < kNodes; ++i) EXPECT_THAT(KeyOn(i, id), HasSubstr("/bin/sh")) << i;

  SCHEDULE_OBJECT changed = Node(0).Job("job", FarStart());
  changed.bstrParameters = u"changed-parameters";
  ASSERT_EQ(m_client.ModifyScheduleOnNodes(id, changed, kNodes, Addresses(), m_results), 0u);
  EXPECT_THAT(m_results, ElementsAre(0, 0, 0, 0));
  for (int i = 0; i < kNodes; ++i) EXPECT_THAT(KeyOn(i, id), HasSubstr("changed-parameters")) << i;

  // Each node's hosts file lies in its own mount namespace, so that the command tells where it ran.
  const std::string mark = Node(0).Jobs() + "/ran.";
  ASSERT_EQ(Perform(Addresses(),
                    "/bin/sh -c \"/usr/sbin/ip -4 -o addr show dev eth0 >> " + mark + "$$; env >> " + mark + "$$\""),
            0u);
  EXPECT_THAT(m_results, ElementsAre(1, 0, 0, 0));  // the command runs on the others only
  std::string ran;
  for (const auto& file : std::filesystem::directory_iterator(Node(0).Jobs())) {
    if (file.path().filename().string().starts_with("ran.")) ran += RunningService::ReadFile(file.path());
  }
  EXPECT_THAT(ran, Not(HasSubstr(NodeCluster::Address(0) + "/")));
  for (int i = 1; i < kNodes; ++i) EXPECT_THAT(ran, HasSubstr(NodeCluster::Address(i) + "/")) << i;
  EXPECT_THAT(ran, HasSubstr("TZ=UTC"));
  EXPECT_THAT(ran, Not(HasSubstr("NTLM_USER_FILE")));  // the place of the secret is the service's business alone

  ASSERT_EQ(Delete(Addresses(), id), 0u);
  EXPECT_THAT(m_results, ElementsAre(0, 0, 0, 0));
  for (int i = 0; i < kNodes; ++i) EXPECT_EQ(KeyOn(i, id), "") << i;
  EXPECT_THAT(Node(1).Log(), HasSubstr("Received FD_CLOSE event"));
}

TEST_P(ClusterTest, TheCommandLineCarriesAChangeToTheNodesAndSaysWhatEachDid) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  ASSERT_EQ(Node(3).Stop(), 0);
  const std::string file = Node(0).Jobs() + "/nightly.toml", output = Node(0).Jobs() + "/qxsched.out";
  std::ofstream(file) << "name = \"nightly\"\n[job]\nwrapper = \"/bin/true\"\n[window]\nstart = \"22:00\"\n"
                         "end = \"23:00\"\n[days]\nevery = [\"sun\", \"mon\"]\n";
  const auto ask = [&](std::vector<std::string> words) {
    words.insert(words.begin(), {"--root", Node(0).Root(), "--bus", Node(0).Bus().Address()});
    qx::testing::Child child(test_paths::Programs() + "/qxsched", words, output, Node(0).Environment());
    return child.Wait();
  };
  EXPECT_EQ(ask({"add", file, "--nodes", "10.77.0.2,nodeC,10.77.0.4"}), 7) << RunningService::ReadFile(output);
  EXPECT_THAT(RunningService::ReadFile(output), HasSubstr("10.77.0.2: done\n"));
  EXPECT_THAT(RunningService::ReadFile(output), HasSubstr("nodeC: done\n"));
  EXPECT_THAT(RunningService::ReadFile(output), HasSubstr("10.77.0.4: no answer"));
  EXPECT_EQ(ask({"rm", "nightly", "-y", "--no-backup", "--nodes", "10.77.0.2,nodeC"}), 0)
      << RunningService::ReadFile(output);
  const std::string mark = Node(0).Jobs() + "/mark";
  EXPECT_EQ(ask({"nodes", "exec", "--nodes", "10.77.0.2", "--", "/usr/bin/touch", mark}), 0);
  EXPECT_TRUE(std::filesystem::exists(mark));
}

TEST_P(ClusterTest, ANodeThatIsDownOrListensElsewhereIsTheOnlyOneWithoutTheChange) {
  m_cluster->SetNumber(2, u"DefaultPort", 5999);
  ASSERT_NO_FATAL_FAILURE(StartAll());
  ASSERT_EQ(Node(1).Stop(), 0);
  ScheduleGuid id;
  EXPECT_EQ(Create(Addresses(), id), 1u);
  EXPECT_THAT(m_results, ElementsAre(0, 1, 1, 0));
  EXPECT_NE(KeyOn(0, id), "");
  EXPECT_EQ(KeyOn(1, id), "");
  EXPECT_EQ(KeyOn(2, id), "");
  EXPECT_NE(KeyOn(3, id), "");
  EXPECT_THAT(Node(0).Log(),
              HasSubstr("CreateScheduleOnNodes:Failed to create socket(), NodeName: 10.77.0.2, Error: 111."));
}

TEST_P(ClusterTest, ANodeOfAnotherSecretIsRefusedAndTheOthersAreServed) {
  ASSERT_NO_FATAL_FAILURE(m_cluster->ChangeSecret(2));
  ASSERT_NO_FATAL_FAILURE(StartAll());
  ScheduleGuid id;
  EXPECT_EQ(Create(Addresses(), id), 1u);
  EXPECT_THAT(m_results, ElementsAre(0, 0, 1, 0));
  EXPECT_EQ(KeyOn(2, id), "");
  EXPECT_THAT(Node(2).Log(), HasSubstr("acceptContext: AcceptSecurityContext Failed with error : 0x8009030c"));
  // The right one counts at once.
  m_cluster->ShareSecret();
  EXPECT_EQ(Delete(Addresses(), id), 0u);
  EXPECT_THAT(m_results, ElementsAre(0, 0, 0, 0));
}

TEST_P(ClusterTest, NodesAreReachedByNamesAndByBothFamiliesButNeverByLinkLocalAddresses) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  const std::string linkLocal = m_cluster->LinkLocal(2);
  ASSERT_NE(linkLocal, "");
  m_cluster->AddHost(0, linkLocal + " nodeX");  // of both kinds: the link-local one is passed over
  m_cluster->AddHost(0, NodeCluster::Address(2) + " nodeX");
  ScheduleGuid id;
  EXPECT_EQ(Create({u"nodeB", u"localhost", u"nodeX", platform::WideFromUtf8(NodeCluster::Address6(3))}, id), 0u)
      << Node(0).Log();
  EXPECT_THAT(m_results, ElementsAre(0, 0, 0, 0));
  for (int i = 0; i < kNodes; ++i) EXPECT_NE(KeyOn(i, id), "") << i;
  EXPECT_EQ(Delete({u"localhost", platform::WideFromUtf8(linkLocal)}, id), 1u);
  EXPECT_THAT(m_results, ElementsAre(0, 1));
  EXPECT_NE(KeyOn(2, id), "");
}

TEST_P(ClusterTest, ANodeStartedAnewBetweenTwoOperationsIsServedAtOnce) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  ScheduleGuid id;
  ASSERT_EQ(Create(Addresses(), id), 0u);
  ASSERT_EQ(Node(1).Stop(), 0);
  ASSERT_NO_FATAL_FAILURE(m_cluster->Start(1));
  EXPECT_EQ(Delete(Addresses(), id), 0u);
  EXPECT_THAT(m_results, ElementsAre(0, 0, 0, 0));
  EXPECT_EQ(KeyOn(1, id), "");
  EXPECT_THAT(Node(0).Log(), HasSubstr("ImportKey::Deleting older key to import new Key for node : 10.77.0.2"));
}

TEST_P(ClusterTest, TheFirstOperationOnNodesMakesTheKeyPairAndNoLaunchOrLocalCallDoes) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  const std::string mark = Node(0).Jobs() + "/launched";
  SCHEDULE_OBJECT schedule = Node(0).Job("job", FarStart(), "touch " + mark);
  schedule.bRunNow = true;
  ScheduleGuid id;
  ASSERT_EQ(m_client.CreateSchedule(schedule, id), 0u);
  EXPECT_TRUE(qx::testing::FileWatch(Node(0).Jobs()).Until([&] { return std::filesystem::exists(mark); }));
  schedule.bstrParameters = u"other";
  EXPECT_EQ(m_client.ModifySchedule(id, schedule), 0u);
  std::uint32_t count = 0;
  ScheduleList list;
  EXPECT_EQ(m_client.ListSchedule(count, list), 0u);
  EXPECT_EQ(m_client.Refresh(), 0u);
  EXPECT_EQ(m_client.DeleteSchedule(id), 0u);
  EXPECT_THAT(Node(0).Log(), Not(HasSubstr("Key successfully generated")));
  EXPECT_THAT(Node(1).Log(), Not(HasSubstr("Key successfully generated")));
  ASSERT_EQ(Create(Addresses(), id), 0u);
  ASSERT_EQ(Delete(Addresses(), id), 0u);
  for (int i = 0; i < kNodes; ++i) {
    const std::string log = Node(i).Log();
    const std::size_t first = log.find("Key successfully generated");
    EXPECT_NE(first, std::string::npos) << i;
    EXPECT_EQ(log.find("Key successfully generated", first + 1), std::string::npos) << i;
  }
}

TEST_P(ClusterTest, TokensAndKeysCrossTheWireAheadOfTheOperation) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  std::unique_ptr<qx::testing::WireTap> tap;
  NodeCluster::OnBridge([&] {
    tap = std::make_unique<qx::testing::WireTap>(NodeCluster::kHubAddress, qx::testing::kClusterPort,
                                                 NodeCluster::Address(1), qx::testing::kClusterPort);
  });
  ScheduleGuid id;
  ASSERT_EQ(Create({u"localhost", platform::WideFromUtf8(NodeCluster::kHubAddress)}, id), 0u) << Node(0).Log();
  EXPECT_NE(KeyOn(1, id), "");
  std::vector<std::uint32_t> types;
  std::size_t longestToken = 0;
  for (const qx::testing::TappedMessage& message : tap->Messages()) {
    EXPECT_EQ(message.decoded.scheduleId, id);
    types.push_back(message.decoded.msgType);
    if (types.back() == qx::MSG_CONTEXT_REQUEST) longestToken = std::max(longestToken, message.payload.size());
    if (types.back() == qx::MSG_PUBLIC_KEY) {
      EXPECT_EQ(message.payload.size(), 276u);
    }
    const std::string_view payload(reinterpret_cast<const char*>(message.payload.data()), message.payload.size());
    EXPECT_EQ(payload.find("/bin/sh"), std::string_view::npos) << types.back();
    if (types.size() == 1) {
      EXPECT_EQ(payload.find("NTLMSSP") != std::string_view::npos, GetParam() == Mechanism::kNtlm);
    }
  }
  // A ticket crosses in one token each way, a challenge and its response in two.
  if (GetParam() == Mechanism::kNtlm) {
    EXPECT_THAT(types, ElementsAre(16, 32, 16, 32, 512, 512, 1, 9));
  } else {
    EXPECT_THAT(types, ElementsAre(16, 32, 512, 512, 1, 9));
    EXPECT_GT(longestToken, 400u);
  }
}

// What a process has of threads and open descriptors, and its memory in KiB.
struct Holdings {
  explicit Holdings(pid_t process) {
    const std::string folder = "/proc/" + std::to_string(process);
    const auto count = [](const std::string& directory) {
      return std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator());
    };
    threads = count(folder + "/task");
    descriptors = count(folder + "/fd");
    const std::string status = RunningService::ReadFile(folder + "/status");
    memory = std::stol(status.substr(status.find("VmRSS:") + 6));
  }
  std::ptrdiff_t threads, descriptors;
  long memory;
};

TEST_P(ClusterTest, ThousandsOfConnectionsTakeThirtyTwoThreadsAndLeaveNothing) {
  constexpr int kHeld = 32;
  const int count = qx::testing::ConnectionCrowd::MostOf(2000);
  ASSERT_GT(count, 4 * kHeld) << "this host allows too few descriptors";
  ASSERT_NO_FATAL_FAILURE(StartAll());
  const NodeNames names = Addresses(2);
  ScheduleGuid id;
  ASSERT_EQ(Create(names, id), 0u);  // the peer has its keys by now
  ASSERT_EQ(Delete(names, id), 0u);
  // A poll: nothing tells another process that a thread of the service has ended.
  const auto settled = [&](std::ptrdiff_t threads) {
    for (int i = 0; i < 60000 && Holdings(Node(1).Process().Id()).threads != threads; ++i) usleep(1000);
    return Holdings(Node(1).Process().Id());
  };
  // As many as a service has that nobody has asked anything.
  const std::ptrdiff_t threads = Holdings(Node(2).Process().Id()).threads;
  ASSERT_EQ(settled(threads).threads, threads);
  Holdings before(Node(1).Process().Id());
  for (int wave = 0; wave < 3; ++wave) {
    std::unique_ptr<qx::testing::ConnectionCrowd> crowd;
    bool closed = false;
    NodeCluster::OnBridge([&] {
      crowd = std::make_unique<qx::testing::ConnectionCrowd>(count, NodeCluster::Address(1), qx::testing::kClusterPort);
      closed = crowd->WaitForClosed(static_cast<std::size_t>(count - kHeld));
    });
    ASSERT_TRUE(closed) << wave;
    EXPECT_EQ(Holdings(Node(1).Process().Id()).threads, threads + kHeld);
    // Its own clients are served all the while, the other node isn't.
    qx::SchedulerClient own;
    ASSERT_NO_FATAL_FAILURE(Node(1).Connect(own));
    std::uint32_t listed = 77;
    ScheduleList list;
    EXPECT_EQ(own.ListSchedule(listed, list), 0u);
    EXPECT_EQ(Create(names, id), 1u);
    EXPECT_THAT(m_results, ElementsAre(0, 1));
    EXPECT_EQ(Delete({u"localhost"}, id), 0u);
    crowd.reset();
    const Holdings now = settled(threads);
    EXPECT_EQ(now.threads, threads) << wave;
    EXPECT_EQ(now.descriptors, before.descriptors) << wave;
    EXPECT_EQ(Create(names, id), 0u) << wave;
    EXPECT_THAT(m_results, ElementsAre(0, 0)) << wave;
    EXPECT_EQ(Delete(names, id), 0u);
    if (wave == 0) {
      before = settled(threads);  // the first wave has made what threads leave for the next ones
    } else if (platform::kJudgesMemory) {  // HostileClients judges what a sanitizer's program holds
      EXPECT_LT(Holdings(Node(1).Process().Id()).memory - before.memory, 2048) << wave;
    }
  }
}

QX_BY_EACH_MECHANISM(ClusterTest);

}  // namespace
