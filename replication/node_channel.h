// replication/node_channel.h: the service's way to other nodes and back: listener, operations and keys in one object.
//
// Threads: as service/node_channel.h says.
#pragma once

#include <cstdint>
#include <string>

#include "replication/key_manager.h"
#include "replication/listener.h"
#include "replication/node_operations.h"
#include "service/node_channel.h"

namespace qx {

// The file of the nodes' common secret in a state directory: the same on every node.
inline constexpr std::string_view kCredentialsFileName = "nodes.key";

class CNodeChannel final : public INodeChannel {
 public:
  CNodeChannel() = default;

  // Looks at the credentials file of the state directory first: one that others may read isn't used, which is logged.
  [[nodiscard]] Security LoadSecurityLibrary(platform::ErrorCode& code) override;
  // Connections that run keep the library to their end.
  void FreeSecurityLibrary() override;
  [[nodiscard]] platform::ErrorCode StartSockets() override { return platform::ERROR_SUCCESS; }
  void SetPort(std::uint16_t port) override { m_operations.SetPort(port); }
  void Serve(std::uint16_t port) override { (void)m_listener.SocketThread(port); }
  void CloseListener() override { m_listener.Close(); }
  void CleanUpSockets() override {}

  Status CreateScheduleOnNodes(ISchedulerService& self, const SCHEDULE_OBJECT& schedule, ScheduleGuid& id,
                               std::uint32_t nodeCount, const NodeNames& nodeNames, NodeResults& results) override {
    return m_operations.CreateScheduleOnNodes(self, schedule, id, nodeCount, nodeNames, results);
  }
  Status DeleteScheduleOnNodes(ISchedulerService& self, const ScheduleGuid& id, std::uint32_t nodeCount,
                               const NodeNames& nodeNames, NodeResults& results) override {
    return m_operations.DeleteScheduleOnNodes(self, id, nodeCount, nodeNames, results);
  }
  Status ModifyScheduleOnNodes(ISchedulerService& self, const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule,
                               std::uint32_t nodeCount, const NodeNames& nodeNames, NodeResults& results) override {
    return m_operations.ModifyScheduleOnNodes(self, id, schedule, nodeCount, nodeNames, results);
  }
  Status PerformOperationOnNodes(ISchedulerService&, const BSTR& data, std::uint32_t nodeCount,
                                 const NodeNames& nodeNames, NodeResults& results) override {
    return m_operations.PerformOperationOnNodes(data, nodeCount, nodeNames, results);
  }

 private:
  CKeyManager m_keys;
  CListener m_listener{m_keys};
  CNodeOperations m_operations{m_keys};
};

}  // namespace qx
