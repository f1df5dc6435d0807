#include "platform/event_log.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "platform/mutex.h"
#include "platform/text.h"

namespace platform {
namespace {

// What stands here outlives every thread that may report.
Mutex g_sinkMutex;
std::function<void(const LoggedEvent&)>& Sink() QX_REQUIRES(g_sinkMutex) {
  static auto* const sink = new std::function<void(const LoggedEvent&)>;
  return *sink;
}
EventLogSockets& Sockets() QX_REQUIRES(g_sinkMutex) {
  static auto* const sockets = new EventLogSockets;
  return *sockets;
}

std::string Narrow(std::u16string_view text) { return Utf8FromWide(text.substr(0, text.find(u'\0'))); }

int PriorityOf(EventKind kind) {
  switch (kind) {
    case EventKind::kError:
      return LOG_ERR;
    case EventKind::kWarning:
      return LOG_WARNING;
    case EventKind::kInformation:
      break;
  }
  return LOG_INFO;
}

// One datagram, without waiting for a reader whose queue is full, as the libraries of journal and syslog would: false
// only when nobody listens there.
bool SendTo(std::string_view socketName, const std::string& datagram) {
  const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (sender < 0) return true;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  socketName.copy(address.sun_path, sizeof address.sun_path - 1);
  const ssize_t sent = sendto(sender, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const bool nobody = sent < 0 && (errno == ENOENT || errno == ECONNREFUSED || errno == ENOTDIR);
  close(sender);
  return !nobody;
}

// A field as the journal takes it (systemd.io, "Journal Native Protocol"): of several lines with its size, 64 bits with
// the lowest byte first.
void AppendField(std::string& datagram, std::string_view name, const std::string& value) {
  datagram += name;
  if (value.find('\n') == std::string::npos) {
    datagram += '=';
  } else {
    datagram += '\n';
    for (unsigned shift = 0; shift < 64; shift += 8) {
      datagram += static_cast<char>(static_cast<std::uint64_t>(value.size()) >> shift & 0xFF);
    }
  }
  datagram += value + '\n';
}

bool WriteToJournal(const std::string& socketName, const LoggedEvent& event) {
  std::string datagram;
  AppendField(datagram, "MESSAGE", EventLine(event));
  AppendField(datagram, "PRIORITY", std::to_string(PriorityOf(event.kind)));
  AppendField(datagram, "EVENT_ID", std::to_string(event.number));
  AppendField(datagram, "SYSLOG_IDENTIFIER", event.source);
  return SendTo(socketName, datagram);
}

// Without a time: the daemon takes that of the arrival.
void WriteToSyslog(const std::string& socketName, const LoggedEvent& event) {
  (void)SendTo(socketName, "<" + std::to_string(LOG_DAEMON | PriorityOf(event.kind)) + ">" + event.source + ": " +
                               EventLine(event));
}

}  // namespace

std::string EventLine(const LoggedEvent& event) {
  if (event.number == 0) return event.text;
  char number[sizeof "event 0x00000000"];
  std::snprintf(number, sizeof number, "event 0x%08X", static_cast<unsigned>(event.number));
  return event.text.empty() ? std::string(number) : std::string(number) + ": " + event.text;
}

void ReportEvent(std::u16string_view source, EventKind kind, std::uint32_t number, std::u16string_view text) {
  const LoggedEvent event = {Narrow(source), kind, number, Narrow(text)};
  EventLogSockets sockets;
  {
    const MutexLock lock(g_sinkMutex);
    if (Sink()) return Sink()(event);
    sockets = Sockets();
  }
  if (!WriteToJournal(sockets.journal, event)) WriteToSyslog(sockets.syslog, event);
}

void InstallEventSink(std::function<void(const LoggedEvent&)> sink) {
  const MutexLock lock(g_sinkMutex);
  Sink() = std::move(sink);
}

EventLogSockets InstallEventLogSockets(EventLogSockets sockets) {
  const MutexLock lock(g_sinkMutex);
  return std::exchange(Sockets(), std::move(sockets));
}

}  // namespace platform
