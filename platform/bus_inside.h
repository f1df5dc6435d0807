// platform/bus_inside.h: what the parts of the bus share of the library's messages and results.
// Included by bus_*_sdbus.cpp alone. Threads: those of the message or connection that is passed in.
#pragma once

#include <systemd/sd-bus.h>

#include <string_view>

#include "platform/bus_message.h"
#include "platform/error_codes.h"

namespace platform {

// The way between a reader or a writer and the message that it holds.
struct BusInternals {
  // Takes a reference of its own.
  static MessageReader Reader(sd_bus_message* message) {
    MessageReader reader;
    reader.m_message = sd_bus_message_ref(message);
    return reader;
  }
  // Takes over the caller's reference.
  static MessageWriter Writer(sd_bus_message* message) {
    MessageWriter writer;
    writer.m_message = message;
    return writer;
  }
  static sd_bus_message* Of(const MessageWriter& writer) { return static_cast<sd_bus_message*>(writer.m_message); }
};

namespace detail {

// The code for a result of the library, a negative errno value.
[[nodiscard]] ErrorCode BusCode(int result);

// A text that the library may leave out.
[[nodiscard]] inline std::string_view OrEmpty(const char* text) { return text == nullptr ? std::string_view() : text; }

// A slot of the library, given up on destruction.
class Slot {
 public:
  Slot() = default;
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;
  ~Slot() { sd_bus_slot_unref(m_slot); }
  sd_bus_slot** Out() { return &m_slot; }

 private:
  sd_bus_slot* m_slot = nullptr;
};

}  // namespace detail
}  // namespace platform
