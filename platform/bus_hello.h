// platform/bus_hello.h: how long a daemon of the bus may take to admit a connection.
//
// For bus_sdbus.cpp, and for tests of it. Threads: any.
#pragma once

#include <atomic>
#include <cstdint>

namespace platform::detail {

// Milliseconds, as long as the library waits for the answer to a call. Its own limit ahead of a connection is 90
// seconds, as long as a service manager waits for the start of the service.
inline std::atomic<std::uint32_t> g_busHelloLimitMs{25000};

}  // namespace platform::detail
