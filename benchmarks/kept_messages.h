// benchmarks/kept_messages.h: a bare server that gives messages back as they came, byte by byte.
//
// It is the yardstick of what travels over the bus: the same bus library and the same bytes, and nothing else.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

#include "platform/bus.h"

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
  // One call, whose reply has the kept contents. They are received, not read.
  void Move(std::uint32_t number);

 private:
  std::uint32_t m_count = 0;
  pid_t m_process = -1;
  platform::BusConnection m_client;
};

}  // namespace qx::bench
