// Memory runs out at each allocation of an operation on another node: on the side that asks, on the side that is asked,
// and on the thread that listens. Nobody's service ends of it, and the next operation is done.
#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/testing/fault.h"
#include "platform/testing/refused_memory.h"
#include "replication/tests/noting_service.h"
#include "replication/tests/served_node.h"
#include "service/schedule_store.h"

namespace qx::testing {
namespace {

using platform::ErrorCode;
using platform::FaultPlan;
using platform::Operation;

class NodeMemory : public ServedNode, public ::testing::WithParamInterface<platform::FaultMode> {
 protected:
  void Carry(std::uint32_t type) {
    const NodeNames names = {u"localhost", u"127.0.0.2"};
    m_self.calls.clear();
    m_self.calls.reserve(1);
    m_results.assign(2, 77);
    if (type == MSG_CREATE) {
      m_status = m_operations.CreateScheduleOnNodes(m_self, m_schedule, m_id, 2, names, m_results);
    } else if (type == MSG_DELETE) {
      m_status = m_operations.DeleteScheduleOnNodes(m_self, m_id, 2, names, m_results);
    } else if (type == MSG_MODIFY) {
      m_status = m_operations.ModifyScheduleOnNodes(m_self, m_id, m_schedule, 2, names, m_results);
    } else {
      if (m_self.onCall) m_self.onCall();  // it has no local step
      m_status = m_operations.PerformOperationOnNodes(m_command, 2, names, m_results);
    }
  }
  // One operation of each kind, each of which is done.
  void CarryAll() {
    (void)DeleteRegistry(m_id);
    for (const std::uint32_t type : kTypes) {
      Carry(type);
      EXPECT_EQ(m_status, 0u) << type;
      EXPECT_EQ(m_results[1], 0) << type;
      WaitForChildren();
    }
  }

  static constexpr std::uint32_t kTypes[] = {MSG_CREATE, MSG_MODIFY, MSG_PERFORM, MSG_DELETE};
  NotingService m_self;
  ScheduleGuid m_id = platform::GuidConstant(u"{11111111-2222-3333-4444-555555555555}");
  SCHEDULE_OBJECT m_schedule = Daily();
  BSTR m_command = u"/bin/true";
  NodeResults m_results;
  Status m_status = 0;
};

TEST_P(NodeMemory, TheServingSideBringsWhatItBeganToItsEnd) {
  const std::thread::id asker = std::this_thread::get_id();
  for (const std::uint32_t type : kTypes) {
    for (long ahead = 0;; ++ahead) {
      (void)DeleteRegistry(m_id);
      if (type != MSG_CREATE) {
        ASSERT_EQ(WriteRegistry(m_schedule, m_id), kStatusOk);
      }
      (void)platform::TakeRefusedCount();
      {
        // A child's first call.
        const FaultPlan plan = FaultPlan::Ask([&](int, Operation operation, std::string_view) {
          const bool isChild = operation == Operation::kOpenProcessToken && std::this_thread::get_id() != asker;
          if (isChild) platform::RefuseMemory(ahead, GetParam());
          return ErrorCode{platform::ERROR_SUCCESS};
        });
        Carry(type);
        WaitForChildren();
      }
      EXPECT_EQ(m_results[1], 0) << type << " behind " << ahead;
      if (platform::TakeRefusedCount() != 0) continue;
      EXPECT_GT(ahead, 10) << "the refusals met nobody";
      break;
    }
  }
  CarryAll();
}

// Once the local step is done its result reaches the caller, and with it the identifier of what was created.
TEST_P(NodeMemory, TheAskingSideTellsWhatWasDoneHere) {
  for (const std::uint32_t type : kTypes) {
    for (long ahead = 0;; ++ahead) {
      (void)platform::TakeRefusedCount();
      m_self.onCall = [&] { platform::RefuseMemory(ahead, GetParam()); };
      try {
        Carry(type);
      } catch (const std::bad_alloc&) {
        platform::AllowMemory();
        EXPECT_EQ(type, MSG_PERFORM) << "behind " << ahead;
        EXPECT_EQ(m_results[1], 77) << "behind " << ahead;
      }
      platform::AllowMemory();
      WaitForChildren();
      if (platform::TakeRefusedCount() != 0) continue;
      EXPECT_GT(ahead, 10) << "the refusals met nobody";
      EXPECT_EQ(m_status, 0u) << type;
      EXPECT_EQ(m_results[1], 0) << type;
      break;
    }
  }
  m_self.onCall = nullptr;
  CarryAll();
}

TEST_P(NodeMemory, TheListenerGoesOn) {
  for (long ahead = 0;; ++ahead) {
    (void)platform::TakeRefusedCount();
    {
      // From the first time that it takes a connection to its next wait.
      bool isFirst = true;
      const FaultPlan plan = FaultPlan::Ask([&](int, Operation operation, std::string_view detail) {
        if (operation == Operation::kSocketSelect && detail == "listener") platform::AllowMemory();
        if (operation == Operation::kAllocate && detail == "SocketThread cell" && std::exchange(isFirst, false)) {
          platform::RefuseMemory(ahead, GetParam());
        }
        return ErrorCode{platform::ERROR_SUCCESS};
      });
      Carry(MSG_PERFORM);
      WaitForChildren();
    }
    if (platform::TakeRefusedCount() != 0) continue;
    EXPECT_GT(ahead, 1) << "the refusals met nobody";
    break;
  }
  CarryAll();
}

TEST_P(NodeMemory, AListenerThatFindsNoneForItsSetUpSaysSo) {
  for (long ahead = 0;; ++ahead) {
    (void)platform::TakeRefusedCount();
    CListener listener(PeerKeys());
    const FaultPlan plan = FaultPlan::FailCall(Operation::kSocketSelect, 1, 9, platform::kOnce, "listener");
    platform::RefuseMemory(ahead, GetParam());
    const int ended = listener.SocketThread(0);
    platform::AllowMemory();
    if (platform::TakeRefusedCount() == 0) {
      EXPECT_EQ(ended, 0);
      break;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(OneOrAll, NodeMemory, ::testing::Values(platform::kOnce, platform::kFromThenOn),
                         [](const auto& mode) {
                           return mode.param == platform::kOnce ? "One" : "AllFromThenOn";
                         });

}  // namespace
}  // namespace qx::testing
