#include "client/cli_log.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string_view>
#include <utility>

#include "client/cli_session.h"
#include "client/json_text.h"
#include "client/status_text.h"
#include "client/terminal_text.h"
#include "platform/clock.h"
#include "platform/event.h"
#include "platform/file.h"
#include "platform/interrupt.h"

namespace qx {
namespace {

using nlohmann::ordered_json;
using platform::ErrorCode;

constexpr std::size_t kLogFiles = 3;
constexpr std::uint32_t kFollowTurnMs = 200;
constexpr std::uint32_t kFollowedLines = 10;
constexpr std::size_t kDateLength = 24;  // "Mon Nov 30 13:00:00 2026"

// The head of a line, or nothing for a line that goes on or is damaged.
struct LineHead {
  std::int64_t when = 0;  // wall clock as seconds, to compare only
  std::string time;       // "2026-11-30 13:00:00"
  std::int64_t pid = 0;
  std::int64_t tid = 0;
  std::size_t text = 0;  // where the text begins
};

bool ReadNumber(std::string_view line, std::size_t& at, std::int64_t& value) {
  while (at < line.size() && line[at] == ' ') ++at;
  const auto [end, error] = std::from_chars(line.data() + at, line.data() + line.size(), value);
  if (error != std::errc()) return false;
  at = static_cast<std::size_t>(end - line.data());
  return true;
}

bool ReadWord(std::string_view line, std::size_t& at, std::string_view word) {
  if (line.substr(at, word.size()) != word) return false;
  at += word.size();
  return true;
}

std::optional<LineHead> ReadLineHead(std::string_view line) {
  static constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
  if (line.size() < kDateLength) return std::nullopt;
  const std::size_t month = kMonths.find(line.substr(4, 3));
  if (month == std::string_view::npos || month % 3 != 0) return std::nullopt;
  std::size_t at = 7;
  std::int64_t day = 0, hour = 0, minute = 0, second = 0, year = 0;
  LineHead head;
  const bool whole = ReadNumber(line, at, day) && ReadWord(line, at, " ") && ReadNumber(line, at, hour) &&
                     ReadWord(line, at, ":") && ReadNumber(line, at, minute) && ReadWord(line, at, ":") &&
                     ReadNumber(line, at, second) && ReadWord(line, at, " ") && ReadNumber(line, at, year) &&
                     ReadWord(line, at, " (PID:") && ReadNumber(line, at, head.pid) && ReadWord(line, at, ", TID:") &&
                     ReadNumber(line, at, head.tid) && ReadWord(line, at, "): ");
  const bool inRange = year >= 1 && year <= 9999 && day >= 1 && day <= 31 && hour >= 0 && hour <= 23 && minute >= 0 &&
                       minute <= 59 && second >= 0 && second <= 60;
  if (!whole || !inRange) return std::nullopt;
  head.text = at;
  head.when = platform::DaysFromCivil(static_cast<int>(year), static_cast<int>(month / 3 + 1), static_cast<int>(day)) *
                  86400 +
              hour * 3600 + minute * 60 + second;
  char time[64];
  std::snprintf(time, sizeof time, "%04d-%02d-%02d %02d:%02d:%02d", static_cast<int>(year),
                static_cast<int>(month / 3 + 1), static_cast<int>(day), static_cast<int>(hour),
                static_cast<int>(minute), static_cast<int>(second));
  head.time = time;
  return head;
}

// Whole lines without their ends, moved out of `text`, which keeps the rest.
std::vector<std::string> TakeLines(std::string& text) {
  std::vector<std::string> lines;
  std::size_t begin = 0;
  for (std::size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
    const std::size_t length = end > begin && text[end - 1] == '\r' ? end - begin - 1 : end - begin;
    lines.emplace_back(text, begin, length);
  }
  text.erase(0, begin);
  return lines;
}

std::string LogFile(std::size_t index) {
  return platform::StateDirectory() + "/logs/SchedService" + std::to_string(index) + ".log";
}

void PrintLine(CliContext& context, const std::string& line) {
  const auto head = ReadLineHead(line);
  if (context.options.json) {
    ordered_json out = ordered_json::object();
    out["time"] = head ? ordered_json(head->time) : ordered_json(nullptr);
    out["pid"] = head ? ordered_json(head->pid) : ordered_json(nullptr);
    out["tid"] = head ? ordered_json(head->tid) : ordered_json(nullptr);
    out["text"] = head ? line.substr(head->text) : line;
    WriteJson(context.out, out);
  } else if (head) {
    context.out << head->time << "  " << Printable(std::string_view(line).substr(head->text)) << "\n";
  } else {
    context.out << Printable(line) << "\n";
  }
}

// What was read of each file so far.
class LogReader {
 public:
  // Reads what is new in each file. A file that has become shorter was begun again.
  ErrorCode Read(std::array<std::string, kLogFiles>& fresh) {
    for (std::size_t i = 0; i < kLogFiles; ++i) {
      platform::File file;
      std::uint64_t size = 0;
      ErrorCode code = file.Open(LogFile(i), platform::File::Access::kRead, platform::File::Disposition::kOpenExisting);
      if (code == platform::ERROR_FILE_NOT_FOUND || code == platform::ERROR_PATH_NOT_FOUND) continue;
      if (code == platform::ERROR_SUCCESS) code = file.Size(size);
      if (code != platform::ERROR_SUCCESS) return code;
      found = true;
      if (size < m_read[i]) {
        m_read[i] = 0;
        m_rest[i].clear();
      }
      if (size == m_read[i]) continue;
      std::string bytes;
      code = file.SeekTo(m_read[i]);
      if (code == platform::ERROR_SUCCESS) code = file.ReadAll(bytes);
      if (code != platform::ERROR_SUCCESS) return code;
      m_read[i] += bytes.size();
      m_rest[i] += bytes;
      const std::size_t end = m_rest[i].rfind('\n');
      if (end == std::string::npos) continue;
      fresh[i] = m_rest[i].substr(0, end + 1);
      m_rest[i].erase(0, end + 1);
    }
    return platform::ERROR_SUCCESS;
  }
  bool found = false;

 private:
  std::array<std::uint64_t, kLogFiles> m_read{};
  std::array<std::string, kLogFiles> m_rest;
};

}  // namespace

std::vector<std::string> MergeLogFiles(const std::vector<std::string>& files) {
  struct Queue {
    std::vector<std::string> lines;
    std::vector<std::int64_t> keys;  // never falling: a clock set back doesn't take a file apart
    std::size_t at = 0;
    [[nodiscard]] bool IsEmpty() const { return at == lines.size(); }
  };
  std::vector<Queue> queues;
  for (std::string text : files) {
    Queue queue;
    queue.lines = TakeLines(text);
    std::int64_t latest = 0;
    for (const std::string& line : queue.lines) {
      if (const auto head = ReadLineHead(line)) latest = std::max(latest, head->when);
      queue.keys.push_back(latest);
    }
    queues.push_back(std::move(queue));
  }
  std::vector<std::string> merged;
  std::size_t present = 0;  // goes on among lines of one second, so that a file isn't taken apart
  while (true) {
    std::size_t next = queues.size();
    for (std::size_t step = 0; step < queues.size(); ++step) {
      const std::size_t i = (present + step) % queues.size();
      if (queues[i].IsEmpty()) continue;
      if (next == queues.size() || queues[i].keys[queues[i].at] < queues[next].keys[queues[next].at]) next = i;
    }
    if (next == queues.size()) return merged;
    merged.push_back(std::move(queues[next].lines[queues[next].at++]));
    present = next;
  }
}

int RunLog(CliContext& context, const LogArguments& arguments) {
  LogReader reader;
  std::array<std::string, kLogFiles> fresh;
  const auto fail = [&](ErrorCode code) {
    PrintError(context, platform::StateDirectory() + "/logs: " + FormatStatus(0x80070000 | code));
    if (code != platform::ERROR_ACCESS_DENIED) return static_cast<int>(kExitFailed);
    PrintHint(context, "the log belongs to the account of the service");
    return static_cast<int>(kExitPermission);
  };
  if (const ErrorCode code = reader.Read(fresh); code != platform::ERROR_SUCCESS) return fail(code);
  if (!reader.found && !arguments.follow) {
    PrintError(context, "no service log: " + LogFile(0));
    PrintHint(context, "--root names the state directory of the service; the log begins with its first start");
    return kExitNotFound;
  }
  std::vector<std::string> lines = MergeLogFiles({fresh.begin(), fresh.end()});
  std::size_t most = arguments.follow ? kFollowedLines : lines.size();
  if (arguments.lines) most = *arguments.lines;
  if (!arguments.follow) BeginPaged(context);
  for (std::size_t i = lines.size() - std::min(most, lines.size()); i < lines.size(); ++i) PrintLine(context, lines[i]);
  if (!arguments.follow) return kExitDone;
  platform::EventSet interrupt;
  if (const ErrorCode code = interrupt.Create(1); code != platform::ERROR_SUCCESS) return fail(code);
  const platform::InterruptWatch watch(platform::InterruptWatch::kNever, {}, [&] { interrupt.Set(0); });
  platform::WaitResult waited;
  context.out.flush();
  while (waited.kind == platform::WaitResult::Kind::kTimeout && context.out && !(arguments.stop && arguments.stop())) {
    fresh = {};
    if (const ErrorCode code = reader.Read(fresh); code != platform::ERROR_SUCCESS) return fail(code);
    lines = MergeLogFiles({fresh.begin(), fresh.end()});
    for (const std::string& line : lines) PrintLine(context, line);
    if (!lines.empty()) context.out.flush();
    (void)interrupt.Wait(kFollowTurnMs, waited);
  }
  return kExitDone;
}

}  // namespace qx
