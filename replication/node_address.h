// replication/node_address.h: which address families a node has, and what a node's name is.
//
// Threads: any.
#pragma once

#include <cstdint>

namespace qx {

// Published numbers of the address families, which the settings and results below carry.
inline constexpr int kFamilyIpv4 = 2;
inline constexpr int kFamilyIpv6 = 23;

// Opens and closes a socket of each family.
//   returns  0: both can be opened; 2: IPv4 alone; 23: IPv6 alone; -1: neither, or the socket library can't start
[[nodiscard]] int ProbeAddressFamilies();

// The setting "IP_MODE": 23, or 2 for any other value and without one.
// Deliberate: whoever calls it makes no use of its result.
int GetIpMode();

//   returns  23: an IPv6 address; 2: an IPv4 address; 0: neither; -2: null
[[nodiscard]] int ClassifyNodeAddress(const char* name);

}  // namespace qx
