// foundation/src/service_log.cpp
#include "foundation/include/zfclog.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <optional>
#include <utility>
#include <vector>

#include "foundation/src/now_text.h"
#include "platform/clock.h"
#include "platform/error_codes.h"
#include "platform/file.h"
#include "platform/host.h"
#include "platform/mutex.h"
#include "platform/registry.h"
#include "platform/text.h"
#include "platform/thread.h"

namespace ZepFoundation {
namespace {

using platform::ERROR_FILE_NOT_FOUND;
using platform::ERROR_MORE_DATA;
using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using platform::File;
using platform::MutexLock;

constexpr char16_t kInstallKey[] = u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\VolumeManager";
constexpr char16_t kSchedulesKey[] = u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules";
constexpr std::size_t kInstallDirRoom = 512;           // bytes
constexpr std::uint32_t kInstallDirReported = 256;     // bytes that the first query is told of
constexpr std::uint32_t kInstallDirGrowth = 8;         // times the reported size for the second query
constexpr std::size_t kHeaderRoom = 128;               // bytes, longer than any header

// What the log keeps between calls. The byte lock orders the writers of one file only, so memory has a lock of its own;
// it is never held across a file operation.
struct State {
  platform::Mutex lock;
  std::string path QX_GUARDED_BY(lock);
  std::string line QX_GUARDED_BY(lock);
  std::vector<File> abandoned QX_GUARDED_BY(lock);  // handles that calls left open, with their byte locks
  platform::RegistryKey schedulesKey QX_GUARDED_BY(lock);
};

State& TheState() {
  static State* const state = new State;  // outlives every thread that logs at the end of the process
  return *state;
}

std::atomic<ServiceLogWriter*> g_writer{nullptr};

class NullWriter final : public ServiceLogWriter {
 public:
  void Write(std::uint32_t, std::string_view) override {}
};

ErrorCode OpenLog(File& file, const std::string& path, File::Disposition disposition) {
  return file.Open(platform::NativePath(platform::WideFromSystem(path)), File::Access::kWrite, disposition);
}

std::u16string ReadInstallDir(const platform::RegistryKey& key) {
  std::vector<char16_t> buffer(kInstallDirRoom / sizeof(char16_t));
  std::uint32_t size = kInstallDirReported;
  ErrorCode rc = platform::QueryValue(key, u"INSTALLDIR", nullptr, buffer.data(), &size);
  if (rc == ERROR_MORE_DATA) {
    size *= kInstallDirGrowth;
    buffer.assign(size / sizeof(char16_t), u'\0');
    rc = platform::QueryValue(key, u"INSTALLDIR", nullptr, buffer.data(), &size);
  }
  if (rc != ERROR_SUCCESS) return {};
  const std::u16string text(buffer.data(), std::min<std::size_t>(size / sizeof(char16_t), buffer.size()));
  return text.substr(0, text.find(u'\0'));
}

// The digit in front of the last "." becomes the new index.
std::optional<std::string> RotatedPath(const std::string& path, std::uint32_t index) {
  const std::size_t dot = path.rfind('.');
  if (dot == std::string::npos || dot == 0) return std::nullopt;
  return path.substr(0, dot - 1) + std::to_string(index) + path.substr(dot);
}

// The next file, emptied or new; `file` owns nothing afterwards when that fails.
// A file is emptied under its byte lock, so that no writer is in the middle of a line there.
void Rotate(File& file) {
  file.Close();
  std::string path;
  {
    State& state = TheState();
    const MutexLock hold(state.lock);
    // Deliberate: threads that met the full file together step on one behind the other.
    const std::uint32_t index = (ServiceLogIndex + 1) % kServiceLogFileCount;
    ServiceLogIndex = index;
    std::optional<std::string> rotated = RotatedPath(state.path, index);
    if (!rotated) return;
    state.path = path = std::move(*rotated);
  }
  File guard;
  if (OpenLog(guard, path, File::Disposition::kOpenExisting) == ERROR_SUCCESS) {
    if (guard.LockByte(0) != ERROR_SUCCESS) return;
  }
  if (OpenLog(file, path, File::Disposition::kTruncateExisting) == ERROR_FILE_NOT_FOUND) {
    (void)OpenLog(file, path, File::Disposition::kCreateNew);  // step on without a handle when that fails too
  }
}

void Abandon(File file) {
  State& state = TheState();
  const MutexLock hold(state.lock);
  state.abandoned.push_back(std::move(file));
}

void RememberLine(std::string_view line) {
  State& state = TheState();
  const MutexLock hold(state.lock);
  state.line = line;
}

std::string HeaderText() {
  const std::string now = detail::NowText();
  const LogArgument parts[] = {now, platform::CurrentProcessId(), platform::CurrentThreadId()};
  std::string header;
  FormatLogText(header, kHeaderRoom, "%s (PID:%5ld, TID:%5ld): ", parts);
  return header;
}

// The first expansion as narrow text; nothing when it ends the call.
std::optional<std::string> FirstExpansion(const char16_t* format, std::span<const LogArgument> arguments) {
  if (format == nullptr) return std::nullopt;
  std::array<char16_t, kServiceLogTextSize> wide;
  const int length = FormatLogText(wide, format, arguments);
  if (length < 0) return std::nullopt;
  std::u16string_view text(wide.data(), static_cast<std::size_t>(length));
  text = text.substr(0, text.find(u'\0'));
  std::string narrow = platform::SystemFromWide(text);
  if (narrow.size() + 1 > kServiceLogTextSize) return std::nullopt;  // the terminator counts
  return narrow;
}

struct SecondExpansion {
  std::string text;
  bool tooLong = false;
};
// Deliberate: the expanded text is a format once more; a percent sign in an argument acts as one.
SecondExpansion ExpandAgain(const std::string& format, std::span<const LogArgument> arguments) {
  std::array<char, kServiceLogTextSize> buffer;
  bool overflow = false;
  const int length = FormatLogText(std::span<char>(buffer), format, arguments, &overflow);
  if (length <= 0) return {{}, overflow};
  return {std::string(buffer.data(), static_cast<std::size_t>(length)), false};
}

void WriteLine(File& file, const std::string& format, std::span<const LogArgument> arguments) {
  if (file.LockByte(0) != ERROR_SUCCESS) return;
  std::uint64_t end = 0;
  if (file.SeekToEnd(&end) != ERROR_SUCCESS) return;
  std::string line = HeaderText();
  const SecondExpansion second = ExpandAgain(format, arguments);
  if (!second.text.empty()) line += second.text + "\r\n";
  // In one piece: a reader or a kill never meets half a line, and a full disk leaves none. There's nobody to tell.
  if (file.WriteAll(line) != ERROR_SUCCESS) (void)file.CutBehind(end);
  RememberLine(second.text.empty() ? line : second.text);
  // Deliberate: too long a second expansion keeps the file open and its byte locked.
  if (second.tooLong) Abandon(std::move(file));
}

void WriteToFile(const std::string& text, std::span<const LogArgument> arguments) {
  File file;
  if (OpenLog(file, ServiceLogPath(), File::Disposition::kOpenAlways) != ERROR_SUCCESS) {
    platform::TellOnStandardOutput("Could not create the log file.\n");
    return;
  }
  std::uint64_t size = 0;
  if (file.Size(size) != ERROR_SUCCESS) {
    Abandon(std::move(file));  // Deliberate: the handle stays open.
    return;
  }
  if (size >= static_cast<std::uint64_t>(kServiceLogRotationSize)) Rotate(file);
  if (file.IsOpen()) WriteLine(file, text, arguments);
}

// What ends a line, moves the cursor or starts a terminal's sequence: C0, DEL and C1 of ISO 6429.
bool IsControl(char16_t unit) { return unit < 0x20 || (unit >= 0x7F && unit < 0xA0); }

bool IsPair(std::u16string_view text) {
  return text.size() >= 2 && (text[0] & 0xFC00) == 0xD800 && (text[1] & 0xFC00) == 0xDC00;
}

}  // namespace

namespace detail {

std::string NowText() {
  static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::tm now{};
  if (!platform::LocalBreakdown(platform::NowSeconds(), now)) return {};
  const LogArgument parts[] = {kDays[now.tm_wday], kMonths[now.tm_mon], now.tm_mday,        now.tm_hour,
                               now.tm_min,         now.tm_sec,          now.tm_year + 1900};
  std::string text;
  FormatLogText(text, kHeaderRoom, "%s %s%3d %02d:%02d:%02d %d", parts);
  return text;
}

}  // namespace detail

std::atomic<std::uint32_t> ServiceLogLevel{0};
std::atomic<std::uint32_t> ServiceLogIndex{0};

std::string ServiceLogPath() {
  State& state = TheState();
  const MutexLock hold(state.lock);
  return state.path;
}

std::string ServiceLogLine() {
  State& state = TheState();
  const MutexLock hold(state.lock);
  return state.line;
}

int InitServiceLog() {
  platform::RegistryKey installKey;
  if (platform::OpenKey(platform::Hive::kLocalMachine, kInstallKey, platform::KEY_READ, installKey) != ERROR_SUCCESS) {
    return 0;
  }
  const std::u16string installDir = ReadInstallDir(installKey);
  installKey.Close();
  // In the code page in which the file calls read a narrow path.
  std::string path = platform::SystemFromWide(installDir) + "logs" + "\\SchedService0.log";
  if (path.size() >= kServiceLogPathSize) return 0;

  std::uint32_t level = kServiceLogDefaultLevel;
  platform::RegistryKey schedulesKey;
  if (platform::OpenKey(platform::Hive::kLocalMachine, kSchedulesKey, platform::KEY_READ, schedulesKey) ==
      ERROR_SUCCESS) {
    std::uint32_t size = sizeof level;
    std::uint32_t value = 0;
    if (platform::QueryValue(schedulesKey, u"TraceLevel", nullptr, &value, &size) == ERROR_SUCCESS &&
        size == sizeof value) {
      level = value;
    }
  }
  State& state = TheState();
  {
    const MutexLock hold(state.lock);
    state.path = std::move(path);
    state.schedulesKey = std::move(schedulesKey);  // Deliberate: the key is left open.
  }
  ServiceLogIndex = 0;
  ServiceLogLevel = level;
  return 1;
}

void ServiceLogArguments(std::uint32_t level, const char16_t* format, std::span<const LogArgument> arguments) {
  ServiceLogWriter* const writer = g_writer.load(std::memory_order_acquire);
  if (writer != nullptr && writer == NullServiceLogWriter()) return;
  if (writer == nullptr && level > ServiceLogLevel.load(std::memory_order_relaxed)) return;
  try {
    const std::optional<std::string> text = FirstExpansion(format, arguments);
    if (!text) return;
    if (writer != nullptr) {
      writer->Write(level, ExpandAgain(*text, arguments).text);
      return;
    }
    WriteToFile(*text, arguments);
  } catch (...) {  // no failure of the log reaches a caller; the file is closed by now
  }
}

std::u16string ForLog(std::u16string_view text) {
  // One byte in every code page, and no character of a format.
  const auto isPlain = [](char16_t unit) { return unit >= 0x20 && unit < 0x7F && unit != u'%'; };
  std::u16string out;
  std::size_t bytes = 0;
  for (std::size_t at = 0; at < text.size();) {
    const std::u16string_view rest = text.substr(at, kForLogBytes - bytes);
    const auto plain = std::find_if_not(rest.begin(), rest.end(), isPlain) - rest.begin();
    if (plain != 0) {
      out.append(rest.substr(0, static_cast<std::size_t>(plain)));
      bytes += static_cast<std::size_t>(plain);
      at += static_cast<std::size_t>(plain);
      continue;
    }
    std::u16string_view character = text.substr(at, IsPair(text.substr(at)) ? 2 : 1);
    if (IsControl(character.front())) character = u" ";
    const std::string narrow = platform::SystemFromWide(character);
    const bool percent = narrow == "%";  // also what is one by the code page's best fit
    const std::size_t more = percent ? 2 * narrow.size() : narrow.size();
    if (bytes + more > kForLogBytes) break;
    out += character;
    if (percent) out += character;
    bytes += more;
    at += character.size();
  }
  return out;
}

ServiceLogWriter* SetServiceLogWriter(ServiceLogWriter* writer) {
  return g_writer.exchange(writer, std::memory_order_acq_rel);
}

ServiceLogWriter* NullServiceLogWriter() {
  static NullWriter writer;
  return &writer;
}

void ResetServiceLog() {
  State& state = TheState();
  const MutexLock hold(state.lock);
  ServiceLogLevel = 0;
  ServiceLogIndex = 0;
  state.path.clear();
  state.line.clear();
  state.abandoned.clear();
  state.schedulesKey = {};
}

}  // namespace ZepFoundation
