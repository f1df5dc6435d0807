// replication/node_operations.h: one change carried to every node: here first, then to the others one after the other.
//
// There is no transaction. When the local step fails no peer hears of the change; when it succeeds it stays, whatever
// happens to the peers. All sends are done before the first answer is read. An entry of the results is 0 for a node
// that did it, 1 for one that never answered, else the node's own result; the returned status is 1 when the local step,
// a sending or an answer failed, so that a caller looks at the entries: a node that stays silent raises no failure.
// Threads: the apartment's thread, which a call blocks for its whole length.
#pragma once

#include <cstdint>

#include "interface/ISchedulerService.h"
#include "replication/key_manager.h"

namespace qx {

inline constexpr Status kStatusNoNodes = 0x80040211;      // the count of nodes is 0
inline constexpr Status kStatusNoLocalhost = 0x80040212;  // no name is "localhost"

class CNodeOperations {
 public:
  explicit CNodeOperations(CKeyManager& keys) : m_keys(keys) {}
  CNodeOperations(const CNodeOperations&) = delete;
  CNodeOperations& operator=(const CNodeOperations&) = delete;

  // The port that every node listens on.
  void SetPort(std::uint16_t port) { m_port = port; }

  //   self       the service's object, whose own methods do the local step
  //   nodeCount  entries of names and results; exactly one name, the last "localhost", is this node
  //   results    has at least nodeCount entries
  //   returns    0; 1; kStatusNoNodes; kStatusNoLocalhost; 0x80070057 when an array is shorter than nodeCount
  // Every entry is 1 but where something was heard, also on kStatusNoLocalhost; on kStatusNoNodes none is touched.
  Status CreateScheduleOnNodes(ISchedulerService& self, const SCHEDULE_OBJECT& schedule, ScheduleGuid& id,
                               std::uint32_t nodeCount, const NodeNames& nodeNames, NodeResults& results);
  Status DeleteScheduleOnNodes(ISchedulerService& self, const ScheduleGuid& id, std::uint32_t nodeCount,
                               const NodeNames& nodeNames, NodeResults& results);
  Status ModifyScheduleOnNodes(ISchedulerService& self, const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule,
                               std::uint32_t nodeCount, const NodeNames& nodeNames, NodeResults& results);
  // Deliberate: no local step, so that the entry of "localhost" stays 1.
  Status PerformOperationOnNodes(const BSTR& data, std::uint32_t nodeCount, const NodeNames& nodeNames,
                                 NodeResults& results);

 private:
  struct Operation;
  class Call;

  CKeyManager& m_keys;
  std::uint16_t m_port = 0;
};

}  // namespace qx
