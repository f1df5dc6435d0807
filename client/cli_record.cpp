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
#include "client/history_text.h"
#include "client/json_text.h"
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
constexpr std::uint32_t kRecordPageRows = 1000;
constexpr const char* kAliveFact = "recorded_until";
std::string Sentence(ErrorCode code) {
  return FormatStatus(0x80070000 | code);
}

class Recording {
 public:
  Recording(CliContext& context, const OnlineSettings& settings, const RecordArguments& arguments)
      : m_context(context), m_settings(settings), m_arguments(arguments), m_file(HistoryFileOf(arguments.file)) {}

  int Run() {
    if (const int exit = Open(); exit != kExitDone) return exit;
    if (const ErrorCode code = m_interrupt.Create(1); code != ERROR_SUCCESS) {
      return FailHistory(m_context, m_file, code);
    }
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
      if (code != ERROR_SUCCESS) return FailHistory(m_context, platform::StateDirectory(), code);
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
    if (code != ERROR_SUCCESS) return FailHistory(m_context, m_file, code);
    m_zone = HistoryZoneOf(m_zoneText);
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
    ServiceProperties properties;
    if (m_link->ReadProperties(properties) == kStatusOk && properties.zone != m_zoneText) {
      m_zoneText = properties.zone;
      m_zone = HistoryZoneOf(m_zoneText);
      m_zoneChanged = true;
    }
  }

  void ReadList() {
    std::vector<ListRow> rows;
    m_recorder->BeginList();
    for (std::u16string after;;) {
      std::vector<ListRow> page;
      if (m_link->ListInfo(after, kRecordPageRows, page) != kStatusOk) {
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

  // May be called again for the same entries, which are appended once.
  ErrorCode Write() {
    ErrorCode code = ERROR_SUCCESS;
    if (!m_isAppended) code = m_store.Append(m_recorder->Entries(), m_recorder->Changes());
    m_isAppended = code == ERROR_SUCCESS;
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
      m_isAppended = false;
      code = OpenStore();
      if (code == ERROR_SUCCESS) code = Write();
    }
    if (code != ERROR_SUCCESS) {
      m_exit = FailHistory(m_context, m_file, code);
      return;
    }
    if (!m_context.options.quiet) {
      for (const HistoryEntry& entry : m_recorder->Entries()) {
        if (m_context.options.json) {
          WriteJson(m_context.out, HistoryJson(entry));
        } else {
          m_context.out << HistoryLine(m_context, entry, m_zone) << "\n";
        }
      }
      if (!m_recorder->Entries().empty()) m_context.out.flush();
    }
    const bool any = !m_recorder->Entries().empty();
    m_recorder->Clear();
    m_isAppended = false;
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
  bool m_isAppended = false;  // what the recorder has to write is in the file
  std::optional<std::uint32_t> m_trimmedAt;  // tick counts
  std::optional<std::uint32_t> m_metricsAt;
  ErrorCode m_metricsCode = ERROR_SUCCESS;
};

}  // namespace

int RunRecord(CliContext& context, const OnlineSettings& settings, const RecordArguments& arguments) {
  return Recording(context, settings, arguments).Run();
}

void AddRecordCommand(CLI::App& app, CliContext& context, CommandChoice& choice, const OnlineSettings& settings) {
  const auto record = std::make_shared<RecordArguments>();
  CLI::App* recordCommand = app.add_subcommand("record", "Keep a history of launches, changes and missed windows");
  recordCommand->add_option("--file", record->file, "History file (history.db in the state directory)")
      ->type_name("FILE");
  recordCommand->add_option("--metrics", record->metrics, "Counts for node exporters, replaced as a whole (FILE.prom)")
      ->type_name("FILE");
  recordCommand->add_option("--max-size", record->sizeMib, "Most MiB of the history; the oldest entries go (64)")
      ->type_name("MIB")
      ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{65536}));
  recordCommand->add_option("--max-age", record->days, "Most days that an entry is kept (90)")
      ->type_name("DAYS")
      ->check(CLI::Range(1u, 36500u));
  recordCommand->footer(
      std::string(kLaunchesAreKnown) +
      "A window that passes while the service is down is \"missed\", and so is one that the service passes\n"
      "over. What passes while nothing records is \"unknown\".");
  recordCommand->callback([&context, &choice, &settings, record] {
    choice.run = [&context, &settings, record] { return RunRecord(context, settings, *record); };
  });
}

}  // namespace qx
