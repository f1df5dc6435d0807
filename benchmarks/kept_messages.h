// benchmarks/kept_messages.h: a bare server that answers calls with messages which it has kept, byte by byte.
//
// It is the yardstick of what travels over the bus: a call and, as its answer, the same bytes, marshalled once
// beforehand and read by nobody.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

#include "platform/bus.h"

struct sd_bus;

namespace qx::bench {

// The server, in a process of its own, and a client of it. Failures throw std::runtime_error.
class KeptMessages {
 public:
  explicit KeptMessages(const std::string& address);
  KeptMessages(const KeptMessages&) = delete;
  KeptMessages& operator=(const KeptMessages&) = delete;
  ~KeptMessages();

  // Lets the server keep what `write` appends; returns its number.
  std::uint32_t Keep(const std::function<void(platform::MessageWriter&)>& write);
  // One call, and the kept contents as its reply. They are received, not read.
  void Move(std::uint32_t number);

 private:
  std::uint32_t m_count = 0;
  pid_t m_process = -1;
  sd_bus* m_client = nullptr;
  platform::BusConnection m_writer;
};

}  // namespace qx::bench
