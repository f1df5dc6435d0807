// platform/event_log.h: the system's event log: numbered events under a source's name.
//
// An event goes to the journal with its number in the field EVENT_ID where a journal listens, else to syslog. Writing
// an event never fails for its caller and never waits for a reader: one whose queue is full misses it.
// Threads: any.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/error_codes.h"

namespace platform {

// Kinds of events (winnt.h).
enum class EventKind : std::uint16_t { kError = 1, kWarning = 2, kInformation = 4 };

// The kind that stands in the two top bits of an event number: 0 and 1 information, 2 warning, 3 error.
[[nodiscard]] constexpr EventKind EventKindOf(std::uint32_t number) {
  switch (number >> 30) {
    case 3:
      return EventKind::kError;
    case 2:
      return EventKind::kWarning;
    default:
      return EventKind::kInformation;
  }
}

// An event as it is written.
struct LoggedEvent {
  std::string source;  // UTF-8
  EventKind kind = EventKind::kInformation;
  std::uint32_t number = 0;
  std::string text;  // UTF-8; may be empty
  friend bool operator==(const LoggedEvent&, const LoggedEvent&) = default;
};

// Writes an event; the line for people is "event 0xNUMBER" in eight hexadecimal digits, with ": TEXT" behind it when
// the text isn't empty; of number 0, which stands for none, the text alone. The texts are used up to a NUL.
void ReportEvent(std::u16string_view source, EventKind kind, std::uint32_t number, std::u16string_view text);

// That line.
[[nodiscard]] std::string EventLine(const LoggedEvent& event);

// Takes all events from now on in place of the journal, null for the journal again. Only tests call this.
void InstallEventSink(std::function<void(const LoggedEvent&)> sink);

// The names of the sockets that take the events: the journal's (systemd-journald.service(8)) and a syslog daemon's
// (syslog(3)).
struct EventLogSockets {
  std::string journal = "/run/systemd/journal/socket";
  std::string syslog = "/dev/log";
};

// Installs others for the whole process; returns those before. Only tests call this.
EventLogSockets InstallEventLogSockets(EventLogSockets sockets);

}  // namespace platform
