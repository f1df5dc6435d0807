#include "client/cli_record.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <utility>
#include <vector>

#include "client/cli_session.h"
#include "client/history_metrics.h"
#include "client/history_recorder.h"
#include "client/history_store.h"
#include "client/status_text.h"
#include "client/time_text.h"
#include "platform/clock.h"
#include "platform/event.h"
#include "platform/file.h"
#include "platform/interrupt.h"
#include "platform/public_file.h"
#include "platform/text.h"

namespace qx {
namespace {

using nlohmann::ordered_json;
using platform::ERROR_SUCCESS;
using platform::ErrorCode;

constexpr std::uint32_t kTurnMs = 500;
constexpr std::uint32_t kReconnectMs = 1000;
constexpr std::uint32_t kTrimMs = 60000;
constexpr std::uint32_t kMetricsMs = 15000;
constexpr std::uint32_t kPageRows = 1000;
constexpr std::size_t kMostCandidates = 10;
constexpr std::size_t kFewestDigits = 4;
constexpr const char* kZoneFact = "zone";
constexpr const char* kAliveFact = "recorded_until";
constexpr const char* kHonest =
    "Launches are known, results are not: \"launch\" says that the service came to the start of the job, neither that\n"
    "it started nor how it ended. Jobs that start through run_now raise no event and show as a change.\n";

std::string FileOf(const std::string& given) {
  return given.empty() ? platform::StateDirectory() + "/history.db" : given;
}

// The history of the recorder's unit lies beside the state directory.
std::string FileToShow(const std::string& given) {
  const std::string file = FileOf(given);
  if (!given.empty() || platform::FileExists(file)) return file;
  const std::string state = platform::StateDirectory();
  const std::string ofUnit = state.substr(0, state.rfind('/') + 1) + "qxsched-record/history.db";
  return platform::FileExists(ofUnit) ? ofUnit : file;
}

std::string Sentence(ErrorCode code) {
  return FormatStatus(0x80070000 | code);
}

// The zone of the service, else the local one.
platform::Zone ZoneOf(const std::string& zone) {
  const bool file = !zone.empty() && zone.front() == ':';
  const bool usable = file ? platform::FileExists(zone.substr(1)) : !zone.empty() && IsKnownZone(zone);
  return usable ? platform::Zone::FromTz(zone) : platform::CurrentZone();
}

int FailStore(CliContext& context, const std::string& file, ErrorCode code) {
  switch (code) {
    case platform::ERROR_LOCK_VIOLATION:
      PrintError(context, file + ": another recorder writes this history");
      return kExitFailed;
    case platform::ERROR_BADDB:
      PrintError(context, file + ": is not a history of qxsched, or one of another version; it stays as it is");
      PrintHint(context, "--file names another file");
      return kExitFailed;
    case platform::ERROR_FILE_CORRUPT:
      PrintError(context, file + ": the history is damaged");
      PrintHint(context, "qxsched record sets a damaged file aside and begins a new one");
      return kExitFailed;
    case platform::ERROR_ACCESS_DENIED:
      PrintError(context, file + ": " + Sentence(code));
      return kExitPermission;
    default:
      PrintError(context, file + ": " + Sentence(code));
      return kExitFailed;
  }
}

// --- entries as text ---

std::string WindowText(std::int64_t window, const platform::Zone& zone) {
  return window < 0 ? "none to come" : FormatInstant(window, zone);
}

std::string LineOf(const CliContext& context, const HistoryEntry& entry, const platform::Zone& zone) {
  char kind[24];
  std::snprintf(kind, sizeof kind, "%-12s", HistoryKindText(entry.kind));
  const bool bad = entry.kind == HistoryKind::kMissed;
  std::string line =
      FormatInstant(entry.at, zone) + "  " + Paint(context.colourOut, bad ? Colour::kRed : Colour::kBold, kind);
  if (!entry.schedule.empty()) line += "  " + entry.schedule;
  if (!entry.name.empty()) line += "  \"" + Printable(entry.name) + "\"";
  if (entry.window) line += "  window " + FormatInstant(*entry.window, zone);
  if (entry.next) line += "  next " + WindowText(*entry.next, zone);
  if (!entry.reason.empty()) line += "  (" + Printable(entry.reason) + ")";
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

ordered_json JsonOf(const HistoryEntry& entry) {
  const auto time = [](const std::optional<std::int64_t>& value) {
    return value && *value >= 0 ? ordered_json(*value) : ordered_json(nullptr);
  };
  ordered_json out = ordered_json::object();
  out["time"] = entry.at;
  out["kind"] = HistoryKindText(entry.kind);
  out["id"] = entry.schedule.empty() ? ordered_json(nullptr) : ordered_json(entry.schedule);
  out["name"] = entry.name.empty() ? ordered_json(nullptr) : ordered_json(entry.name);
  out["window"] = time(entry.window);
  out["next_window"] = time(entry.next);
  out["reason"] = entry.reason;
  return out;
}

// --- recording ---

class Recording {
 public:
  Recording(CliContext& context, const OnlineSettings& settings, const RecordArguments& arguments)
      : m_context(context), m_settings(settings), m_arguments(arguments), m_file(FileOf(arguments.file)) {}

  int Run() {
    if (const int exit = Open(); exit != kExitDone) return exit;
    if (const ErrorCode code = m_interrupt.Create(1); code != ERROR_SUCCESS) return FailStore(m_context, m_file, code);
    const platform::InterruptWatch watch(platform::InterruptWatch::kNever, {}, [this] {
      m_stopped = true;
      m_interrupt.Set(0);
    });
    PrintNote(m_context, "recording to " + m_file + ", Ctrl-C ends; launches are known, results are not");
    m_context.err.flush();
    while (!Stopped() && m_exit == kExitDone) {
      if (Connect()) {
        Hear();
        m_link.reset();
      } else {
        Flush();  // the metrics, too, go on
        platform::WaitResult ignored;
        (void)m_interrupt.Wait(kReconnectMs, ignored);
      }
    }
    m_recorder->EndHearing("stopped");
    m_metricsAt.reset();
    Flush();
    return m_exit;
  }

 private:
  bool Stopped() { return m_stopped || !m_context.out || (m_arguments.stop && m_arguments.stop()); }

  ErrorCode OpenStore() {
    std::string aside;
    HistoryBounds bounds;
    bounds.bytes = m_arguments.sizeMib << 20;
    bounds.seconds = std::int64_t{m_arguments.days} * 86400;
    const ErrorCode code = m_store.OpenForWriting(m_file, bounds, aside);
    if (!aside.empty()) {
      PrintError(m_context, m_file + ": the history was damaged; it is set aside as " + aside + ", a new one is begun");
    }
    return code;
  }

  int Open() {
    if (m_arguments.file.empty()) {
      const ErrorCode code = platform::CreateDirectories(platform::StateDirectory());
      if (code != ERROR_SUCCESS) return FailStore(m_context, platform::StateDirectory(), code);
    }
    std::map<std::string, KnownSchedule> known;
    std::optional<HistoryEntry> last;
    std::string alive;
    ErrorCode code = OpenStore();
    if (code == ERROR_SUCCESS) code = m_store.Windows(known);
    if (code == ERROR_SUCCESS) code = m_store.Last(last);
    if (code == ERROR_SUCCESS) code = m_store.Fact(kAliveFact, alive);
    if (code == ERROR_SUCCESS) code = m_store.Fact(kZoneFact, m_zoneText);
    if (code == ERROR_SUCCESS && last && last->kind != HistoryKind::kRecordEnd) {
      HistoryEntry end;
      end.kind = HistoryKind::kRecordEnd;
      end.at = std::max<std::int64_t>(last->at, std::atoll(alive.c_str()));
      end.reason = "the recorder ended without a word";
      code = m_store.Append({end}, {});
    }
    if (code != ERROR_SUCCESS) return FailStore(m_context, m_file, code);
    m_zone = ZoneOf(m_zoneText);
    m_recorder.emplace(std::move(known));
    return kExitDone;
  }

  // Says why not once, until it worked.
  bool Connect() {
    const Session session(m_context, m_settings);
    const ErrorCode code = m_settings.connect(session.Address(), m_link);
    std::uint32_t process = 0;
    std::string why;
    if (code != ERROR_SUCCESS) {
      why = "the bus can't be reached: " + Sentence(code);
    } else {
      m_arrived = false;
      m_listening = false;
      Status status = m_link->WatchService([this](bool present) {
        m_arrived = present;
        if (!present) m_recorder->ServiceDown();
      });
      if (status == kStatusOk) status = m_link->ServiceProcess(process);
      if (status != kStatusOk)
        why = "the service can't be watched: " + FormatStatus(status) + " " + m_link->LastError().text;
    }
    if (why.empty()) {
      m_told.clear();
      m_recorder->BeginHearing();
      if (process != 0) m_arrived = true;
      return true;
    }
    if (m_told != why) PrintError(m_context, why + " (tried again until it can)");
    m_context.err.flush();
    m_told = why;
    m_link.reset();
    return false;
  }

  // The service is there: hears it, and asks who it is.
  void Arrive() {
    std::uint32_t process = 0;
    if (m_link->ServiceProcess(process) != kStatusOk || process == 0) {
      m_arrived = false;  // gone again, which its leaving tells
      return;
    }
    if (!m_listening && m_link->Listen(*m_recorder) != kStatusOk) return;  // tried again in the next turn
    m_listening = true;
    m_arrived = false;
    m_recorder->ServiceUp(process);
    ServiceFacts facts;
    if (m_link->ReadFacts(facts) == kStatusOk && facts.zone != m_zoneText) {
      m_zoneText = facts.zone;
      m_zone = ZoneOf(m_zoneText);
      m_zoneChanged = true;
    }
  }

  void ReadList() {
    std::vector<ListRow> rows;
    m_recorder->BeginList();
    for (std::u16string after;;) {
      std::vector<ListRow> page;
      if (m_link->ListInfo(after, kPageRows, page) != kStatusOk) {
        m_recorder->ListFailed();
        return;
      }
      if (page.empty() || page.back().id == after) break;
      after = page.back().id;
      std::move(page.begin(), page.end(), std::back_inserter(rows));
    }
    // What the service said ahead of its answer, first.
    if (m_link->WaitForEvents(0)) m_recorder->TakeList(rows);
  }

  void Hear() {
    while (!Stopped() && m_exit == kExitDone) {
      if (m_arrived) Arrive();
      if (m_recorder->WantsList()) ReadList();
      m_recorder->Settle();
      Flush();
      if (!m_link->WaitForEvents(kTurnMs)) {
        m_recorder->EndHearing("the bus was lost");
        Flush();
        return;
      }
    }
  }

  ErrorCode Write() {
    ErrorCode code = m_store.Append(m_recorder->Entries(), m_recorder->Changes());
    if (code == ERROR_SUCCESS && m_zoneChanged) code = m_store.SetFact(kZoneFact, m_zoneText);
    if (code == ERROR_SUCCESS) m_zoneChanged = false;
    const std::uint32_t tick = platform::TickCount();
    if (code == ERROR_SUCCESS && (!m_trimmedAt || tick - *m_trimmedAt >= kTrimMs)) {
      m_trimmedAt = tick;
      code = m_store.SetFact(kAliveFact, std::to_string(platform::NowSeconds()));
      if (code == ERROR_SUCCESS) code = m_store.Trim(platform::NowSeconds());
    }
    return code;
  }

  void Flush() {
    ErrorCode code = Write();
    if (code == platform::ERROR_DISK_FULL) {
      // The file's own bound, where many came at once.
      code = m_store.Trim(platform::NowSeconds());
      if (code == ERROR_SUCCESS) code = Write();
    } else if (code == platform::ERROR_FILE_CORRUPT) {
      m_recorder->ChangeAll();
      m_zoneChanged = true;
      code = OpenStore();
      if (code == ERROR_SUCCESS) code = Write();
    }
    if (code != ERROR_SUCCESS) {
      m_exit = FailStore(m_context, m_file, code);
      return;
    }
    if (!m_context.options.quiet) {
      for (const HistoryEntry& entry : m_recorder->Entries()) {
        if (m_context.options.json) {
          WriteJson(m_context.out, JsonOf(entry));
        } else {
          m_context.out << LineOf(m_context, entry, m_zone) << "\n";
        }
      }
      if (!m_recorder->Entries().empty()) m_context.out.flush();
    }
    const bool any = !m_recorder->Entries().empty();
    m_recorder->Clear();
    WriteMetrics(any);
  }

  void WriteMetrics(bool now) {
    const std::uint32_t tick = platform::TickCount();
    if (m_arguments.metrics.empty() || (!now && m_metricsAt && tick - *m_metricsAt < kMetricsMs)) return;
    m_metricsAt = tick;
    std::uint64_t bytes = 0;
    (void)m_store.Size(bytes);
    const std::string text = MetricsText(*m_recorder, m_begun, bytes);
    const ErrorCode code = platform::ReplacePublicFile(m_arguments.metrics, text);
    if (code == m_metricsCode) return;
    // The record goes on without; the reader of the metrics sees their age.
    if (code != ERROR_SUCCESS)
      PrintError(m_context, m_arguments.metrics + ": the metrics can't be written: " + Sentence(code));
    m_metricsCode = code;
  }

  CliContext& m_context;
  const OnlineSettings& m_settings;
  const RecordArguments& m_arguments;
  const std::string m_file;
  const std::int64_t m_begun = platform::NowSeconds();
  HistoryStore m_store;
  std::optional<HistoryRecorder> m_recorder;
  std::unique_ptr<ServiceLink> m_link;
  platform::EventSet m_interrupt;
  std::atomic<bool> m_stopped = false;
  int m_exit = kExitDone;
  bool m_arrived = false;    // the service came and wasn't yet looked at
  bool m_listening = false;  // on this link
  std::string m_told;        // why there was no link
  std::string m_zoneText;
  platform::Zone m_zone = platform::CurrentZone();
  bool m_zoneChanged = false;
  std::optional<std::uint32_t> m_trimmedAt;  // tick counts
  std::optional<std::uint32_t> m_metricsAt;
  ErrorCode m_metricsCode = ERROR_SUCCESS;
};

// --- showing ---

std::string DigitsOf(std::string_view text) {
  std::string digits;
  for (const char c : text) {
    if (c == '{' || c == '}' || c == '-') continue;
    const bool isHex = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
    if (!isHex) return "";
    digits += c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c;
  }
  return digits;
}

// The one recorded schedule that a word names.
int FindRecorded(CliContext& context, const std::map<std::string, std::string>& names, const std::string& word,
                 std::string& id) {
  const std::string digits = DigitsOf(word);
  std::vector<std::pair<std::string, std::string>> found;
  for (const auto& [schedule, name] : names) {
    const bool begins = digits.size() >= kFewestDigits && DigitsOf(schedule).starts_with(digits);
    if (begins || name == word) found.emplace_back(schedule, name);
  }
  if (found.size() == 1) {
    id = found.front().first;
    return kExitDone;
  }
  if (found.empty()) {
    PrintError(context, word + ": no such schedule in the history");
    PrintHint(context, !digits.empty() && digits.size() < kFewestDigits
                           ? "the beginning of an ID needs at least four digits"
                           : "nothing was recorded of it, or the entries were too old; see qxsched list");
    return kExitNotFound;
  }
  PrintError(context, word + ": is ambiguous, " + std::to_string(found.size()) + " schedules answer to it:");
  for (std::size_t i = 0; i < found.size() && i < kMostCandidates; ++i) {
    context.err << "  " << found[i].first << "  " << Printable(found[i].second) << "\n";
  }
  if (found.size() > kMostCandidates) context.err << "  ...\n";
  PrintHint(context, "give more digits of the ID");
  return kExitNotFound;
}

std::optional<std::int64_t> ParseSince(const std::string& text, const platform::Zone& zone) {
  const std::int64_t now = platform::NowSeconds();
  if (const auto back = ParseDuration(text)) return now - *back / static_cast<std::int64_t>(kMillisecondsPerSecond);
  return ParseInstant(text, zone, now);
}

}  // namespace

int RunRecord(CliContext& context, const OnlineSettings& settings, const RecordArguments& arguments) {
  return Recording(context, settings, arguments).Run();
}

int RunHistory(CliContext& context, const HistoryArguments& arguments) {
  const std::string file = FileToShow(arguments.file);
  HistoryStore store;
  std::string zoneText;
  std::map<std::string, KnownSchedule> known;
  std::map<std::string, std::string> names;
  ErrorCode code = store.OpenForReading(file);
  if (code == platform::ERROR_FILE_NOT_FOUND || code == platform::ERROR_PATH_NOT_FOUND) {
    PrintError(context, "no history: " + file);
    PrintHint(context, "qxsched record keeps one, while it runs");
    return kExitNotFound;
  }
  if (code == ERROR_SUCCESS) code = store.Fact(kZoneFact, zoneText);
  if (code == ERROR_SUCCESS) code = store.Windows(known);
  if (code == ERROR_SUCCESS) code = store.Schedules(names);
  if (code != ERROR_SUCCESS) return FailStore(context, file, code);
  for (auto& [schedule, name] : names) {
    if (const auto at = known.find(schedule); at != known.end() && !at->second.name.empty()) name = at->second.name;
  }
  const platform::Zone zone = ZoneOf(zoneText);
  HistoryQuery query;
  query.missed = arguments.missed;
  if (!arguments.since.empty()) {
    query.since = ParseSince(arguments.since, zone);
    if (!query.since) {
      PrintError(context,
                 "--since: not a time: \"" + arguments.since +
                     "\" (allowed: a length of time back from now as 2h or 1d12h, now, a date as 2026-12-01, a "
                     "date and time as 2026-12-01T22:00, with Z or +01:00 behind it where wanted, @SECONDS)");
      return kExitUsage;
    }
  }
  if (!arguments.schedule.empty()) {
    query.schedule.emplace();
    if (const int exit = FindRecorded(context, names, arguments.schedule, *query.schedule); exit != kExitDone)
      return exit;
  }
  std::vector<HistoryEntry> entries;
  if (code = store.Entries(query, entries); code != ERROR_SUCCESS) return FailStore(context, file, code);
  // An entry may be older than the knowledge of the name.
  for (HistoryEntry& entry : entries) {
    if (const auto at = names.find(entry.schedule); entry.name.empty() && at != names.end()) entry.name = at->second;
  }
  if (context.options.json) {
    ordered_json out = ordered_json::array();
    for (const HistoryEntry& entry : entries) out.push_back(JsonOf(entry));
    WriteJson(context.out, out);
    return kExitDone;
  }
  BeginPaged(context);
  for (const HistoryEntry& entry : entries) context.out << LineOf(context, entry, zone) << "\n";
  if (context.options.noLegend) return kExitDone;
  context.out << "\n"
              << entries.size() << (entries.size() == 1 ? " entry" : " entries")
              << "; launches are known, results are not.\n";
  return kExitDone;
}

void AddHistoryCommands(CLI::App& app, CliContext& context, CommandChoice& choice, const OnlineSettings& settings) {
  constexpr const char* kFileHelp = "History file (history.db in the state directory)";
  const auto record = std::make_shared<RecordArguments>();
  CLI::App* recordCommand = app.add_subcommand("record", "Keep a history of launches, changes and missed windows");
  recordCommand->add_option("--file", record->file, kFileHelp)->type_name("FILE");
  recordCommand->add_option("--metrics", record->metrics, "Counts for node exporters, replaced as a whole (FILE.prom)")
      ->type_name("FILE");
  recordCommand->add_option("--max-size", record->sizeMib, "Most MiB of the history; the oldest entries go (64)")
      ->type_name("MIB")
      ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{65536}));
  recordCommand->add_option("--max-age", record->days, "Most days that an entry is kept (90)")
      ->type_name("DAYS")
      ->check(CLI::Range(1u, 36500u));
  recordCommand->footer(
      std::string(kHonest) +
      "A window that passes while the service is down is \"missed\", and so is one that the service passes\n"
      "over. What passes while nothing records is \"unknown\".");
  recordCommand->callback([&context, &choice, &settings, record] {
    choice.run = [&context, &settings, record] { return RunRecord(context, settings, *record); };
  });

  const auto history = std::make_shared<HistoryArguments>();
  CLI::App* historyCommand = app.add_subcommand("history", "Show what was launched, changed and missed, as recorded");
  historyCommand->add_option("SCHEDULE", history->schedule, "ID, the beginning of its digits (4 or more), or name");
  historyCommand->add_option("--since", history->since, "Only from this time on, or so long back: 2h, 2026-12-01T22:00")
      ->type_name("TIME");
  historyCommand->add_flag("--missed", history->missed, "Only missed windows, and those of which nobody knows");
  historyCommand->add_option("--file", history->file, std::string(kFileHelp) + ", else that of the unit qxsched-record")
      ->type_name("FILE");
  historyCommand->footer(kHonest);
  historyCommand->callback(
      [&context, &choice, history] { choice.run = [&context, history] { return RunHistory(context, *history); }; });
}

}  // namespace qx
