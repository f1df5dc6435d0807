// Every platform call of an operation on another node fails: on the side that asks, and on the side that is asked.
#include "platform/testing/fault_sweep.h"
#include "replication/tests/noting_service.h"
#include "replication/tests/served_node.h"
#include "service/schedule_store.h"
#include "service/tests/stored_state.h"

namespace qx::testing {
namespace {

using platform::Operation;
using ::testing::IsEmpty;
using ::testing::Not;

enum class Which { kCreate, kDelete, kModify, kPerform };
constexpr Which kAll[] = {Which::kCreate, Which::kDelete, Which::kModify, Which::kPerform};
const char* NameOf(Which which) {
  static constexpr const char* kNames[] = {"Create", "Delete", "Modify", "Perform"};
  return kNames[static_cast<int>(which)];
}

class NodeSweep : public ServedNode, public ::testing::WithParamInterface<Which> {
 protected:
  void SetUp() override {
    ServedNode::SetUp();
    m_old = Daily();
    m_new = Daily();
    m_new.bstrParameters = u"-changed";
    m_asker = std::this_thread::get_id();
  }

  // The stores and the command's trace as they are ahead of each run.
  void Prepare() {
    WaitForChildren();
    (void)DeleteRegistry(m_id);
    if (GetParam() == Which::kDelete || GetParam() == Which::kModify) {
      ASSERT_EQ(WriteRegistry(m_old, m_id), kStatusOk);
    }
    std::filesystem::remove_all(m_folder + "/ran");
    m_log.Clear();
  }
  void Carry() {
    const NodeNames names = {u"localhost", u"127.0.0.2"};
    m_results.assign(2, 77);
    switch (GetParam()) {
      case Which::kCreate:
        m_status = m_operations.CreateScheduleOnNodes(m_self, m_new, m_id, 2, names, m_results);
        break;
      case Which::kDelete:
        m_status = m_operations.DeleteScheduleOnNodes(m_self, m_id, 2, names, m_results);
        break;
      case Which::kModify:
        m_status = m_operations.ModifyScheduleOnNodes(m_self, m_id, m_new, 2, names, m_results);
        break;
      case Which::kPerform:
        m_status = m_operations.PerformOperationOnNodes(Wide("/bin/mkdir " + m_folder + "/ran"), 2, names, m_results);
        break;
    }
  }
  // What the other node has of the schedule, and whether the command ran.
  struct Left {
    StoredState stored;
    bool ran = false;
    friend bool operator==(const Left&, const Left&) = default;
  };
  Left Now() {
    WaitForChildren();
    Left left = {ReadStoredState(m_folder), std::filesystem::exists(m_folder + "/ran")};
    EXPECT_EQ(left.stored.failure, "");
    return left;
  }

  // Whether the schedule's key holds values of before and of behind alone, and nothing else has changed.
  bool IsMixture(const StoredState& now) {
    const std::string id = Text(m_id);
    if (Without(now, id) != Without(m_before.stored, id) || !now.keys.contains(id) || !m_done.stored.keys.contains(id)) {
      return false;
    }
    const StoredKey before = m_before.stored.keys.contains(id) ? m_before.stored.keys.at(id) : StoredKey();
    const StoredKey& done = m_done.stored.keys.at(id);
    for (const auto& [name, value] : now.keys.at(id)) {
      const bool isOld = before.contains(name) && before.at(name) == value;
      if (!isOld && !(done.contains(name) && done.at(name) == value)) return false;
    }
    return true;
  }

  void Judge(const platform::SweptFault* fault) {
    const Left now = Now();
    if (fault == nullptr) {
      ASSERT_EQ(m_status, 0u);
      ASSERT_EQ(m_results[1], 0);
      m_done = now;
      return;
    }
    // An answer of 0 is true. Any other leaves the old state or, where only the answer was lost, the new one.
    // Deliberate: values that were written ahead of one that couldn't be stay.
    if (m_results[1] == 0) {
      EXPECT_EQ(m_status, 0u);
      EXPECT_TRUE(now == m_done);
    } else {
      EXPECT_TRUE(now.ran == m_before.ran || now.ran == m_done.ran);
      EXPECT_EQ(now.stored.files, m_before.stored.files);
      EXPECT_TRUE(now == m_before || now == m_done || IsMixture(now.stored)) << "half an operation";
      EXPECT_THAT(m_log.texts(1), Not(IsEmpty()));
    }
    // The next one works.
    Prepare();
    Carry();
    EXPECT_EQ(m_status, 0u);
    EXPECT_EQ(m_results[1], 0);
    EXPECT_TRUE(Now() == m_done);
  }

  void Sweep(const std::string& side, const std::function<bool(Operation)>& isOwn) {
    Prepare();
    m_before = Now();
    platform::RunSweep({
        .name = std::string(NameOf(GetParam())) + " on another node, " + side,
        .prepare = [&] { Prepare(); },
        .operation =
            [&] {
              Carry();
              WaitForChildren();
            },
        .judge = [&](const platform::SweptFault* fault) { Judge(fault); },
        .isOwn = isOwn,
        // Who couldn't send a header waits for the answer all the same; here the minute is over at once.
        .afterwards =
            [](const platform::SweptFault& fault, Operation operation) {
              const bool isWait = operation == Operation::kSocketSelect || operation == Operation::kSocketSelectAny;
              return isWait && fault.operation == Operation::kSocketSend ? platform::ERROR_TIMEOUT
                                                                         : platform::ERROR_SUCCESS;
            },
        .explain =
            [&] {
              std::string text = "status " + std::to_string(m_status) + ", result " + std::to_string(m_results[1]);
              for (const std::string& line : m_log.texts(3)) text += "\n" + line;
              return text;
            },
    });
  }

  NotingService m_self;
  ScheduleGuid m_id = platform::GuidConstant(u"{11111111-2222-3333-4444-555555555555}");
  SCHEDULE_OBJECT m_old, m_new;
  NodeResults m_results;
  Status m_status = 0;
  Left m_before, m_done;
  std::thread::id m_asker;
};

TEST_P(NodeSweep, TheAskingSideTellsTheResultOrAFailure) {
  Sweep("asking", [this](Operation) { return std::this_thread::get_id() == m_asker; });
}

TEST_P(NodeSweep, TheServingSideTellsTheResultOfWhatItDid) {
  // The thread that listens goes round by itself; it has tests of its own.
  std::thread::id listener;
  {
    const auto plan = platform::FaultPlan::Ask([&](int, Operation operation, std::string_view) {
      if (operation == Operation::kSocketAccept) listener = std::this_thread::get_id();
      return platform::ErrorCode{platform::ERROR_SUCCESS};
    });
    Carry();
    WaitForChildren();
  }
  ASSERT_NE(listener, std::thread::id());
  Sweep("serving", [this, listener](Operation) {
    const std::thread::id self = std::this_thread::get_id();
    return self != m_asker && self != listener;
  });
}

INSTANTIATE_TEST_SUITE_P(Operations, NodeSweep, ::testing::ValuesIn(kAll),
                         [](const auto& which) { return std::string(NameOf(which.param)); });

}  // namespace
}  // namespace qx::testing
