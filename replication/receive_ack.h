// replication/receive_ack.h: the initiator's single collection of all nodes' answers.
//
// Threads: any; the arguments belong to the caller's thread.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "interface/ISchedulerService.h"
#include "platform/socket.h"
#include "replication/key_manager.h"

namespace qx {

inline constexpr std::size_t kMaxAwaitedSockets = 64;  // that one wait can hold
inline constexpr std::int64_t kAckBudgetSeconds = 60;  // for all nodes together

// Waits for the acknowledgements. A node that stays silent, closes or sends what can't be read keeps its result and
// raises no failure. All sockets are closed at the end.
//   sockets  one a node; empty ones are passed over
//   waiting  the nodes' indices whose sockets are waited for first, at most 64
//   results  one a node: receives what its acknowledgement says
//   names    for the log
//   returns  0; 1: a node told a failure, or `waiting` is empty
[[nodiscard]] int ReceiveAck(CKeyManager& keys, std::vector<platform::Socket>& sockets,
                             std::vector<std::size_t> waiting, std::span<std::int32_t> results,
                             std::span<const std::u16string> names);

}  // namespace qx
