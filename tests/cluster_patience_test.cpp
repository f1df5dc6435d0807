// Nodes that fall silent: what takes its whole minute.
#include <gmock/gmock.h>

#include <thread>

#include "tests/file_watch.h"
#include "tests/node_cluster.h"

namespace {

using qx::testing::ClusterTest;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST_P(ClusterTest, ANodeThatIsStoppedCostsAMinuteAndTheOthersAreServed) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  Node(1).Process().Signal(SIGSTOP);
  ScheduleGuid id;
  EXPECT_EQ(Create(Addresses(), id), 1u);
  EXPECT_THAT(m_results, ElementsAre(0, 1, 0, 0));
  Node(1).Process().Signal(SIGCONT);
  EXPECT_THAT(Node(0).Log(), HasSubstr("Receive: Did not receive any message for 60 secs, connection timed out."));
}

TEST_P(ClusterTest, ANodeThatIsCutOffInTheMiddleKeepsItsEntryAndRaisesNoFailure) {
  ASSERT_NO_FATAL_FAILURE(StartAll());
  const std::string mark = Node(1).Jobs() + "/runs";
  std::thread cutter([&] {
    EXPECT_TRUE(qx::testing::FileWatch(Node(1).Jobs()).Until([&] { return std::filesystem::exists(mark); }));
    m_cluster->SetLink(1, false);
  });
  EXPECT_EQ(Perform({u"localhost", platform::WideFromUtf8(qx::testing::NodeCluster::Address(1))},
                    "/bin/sh -c \"touch " + mark + "; sleep 2\""),
            0u);
  cutter.join();
  EXPECT_THAT(m_results, ElementsAre(1, 1));
  EXPECT_THAT(Node(0).Log(), HasSubstr("ReceiveAck: Select returned because time limit expired"));
  m_cluster->SetLink(1, true);
}

QX_BY_EACH_MECHANISM(ClusterTest);

}  // namespace
