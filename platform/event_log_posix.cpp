#include "platform/event_log.h"

#include <syslog.h>
#define SD_JOURNAL_SUPPRESS_LOCATION  // the place in this file says nothing about the event
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>

#include "platform/text.h"

namespace platform {
namespace {

// Where the journal listens (systemd-journald.service(8)).
constexpr const char* kJournalSocket = "/run/systemd/journal/socket";

std::mutex g_sinkMutex;
std::function<void(const LoggedEvent&)>& Sink() {
  static auto* const sink = new std::function<void(const LoggedEvent&)>;  // outlives every thread that may report
  return *sink;
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

bool HasJournal() { return access(kJournalSocket, F_OK) == 0; }

bool WriteToJournal(const LoggedEvent& event) {
  return sd_journal_send("MESSAGE=%s", EventLine(event).c_str(), "PRIORITY=%d", PriorityOf(event.kind), "EVENT_ID=%u",
                         event.number, "SYSLOG_IDENTIFIER=%s", event.source.c_str(), nullptr) == 0;
}

void WriteToSyslog(const LoggedEvent& event) {
  syslog(LOG_DAEMON | PriorityOf(event.kind), "%s: %s", event.source.c_str(), EventLine(event).c_str());
}

}  // namespace

std::string EventLine(const LoggedEvent& event) {
  char number[sizeof "event 0x00000000"];
  std::snprintf(number, sizeof number, "event 0x%08X", static_cast<unsigned>(event.number));
  return event.text.empty() ? std::string(number) : std::string(number) + ": " + event.text;
}

void ReportEvent(std::u16string_view source, EventKind kind, std::uint32_t number, std::u16string_view text) {
  const LoggedEvent event = {Narrow(source), kind, number, Narrow(text)};
  {
    const std::lock_guard lock(g_sinkMutex);
    if (Sink()) return Sink()(event);
  }
  if (!HasJournal() || !WriteToJournal(event)) WriteToSyslog(event);
}

void InstallEventSink(std::function<void(const LoggedEvent&)> sink) {
  const std::lock_guard lock(g_sinkMutex);
  Sink() = std::move(sink);
}

}  // namespace platform
