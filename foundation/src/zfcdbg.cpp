// foundation/src/zfcdbg.cpp
#include "foundation/include/zfcdbg.h"

#include <algorithm>
#include <ctime>
#include <memory>
#include <streambuf>
#include <string>
#include <utility>

#include "foundation/include/zfclogformat.h"
#include "foundation/include/zfcregistry.h"
#include "foundation/include/zfcsync.h"
#include "foundation/src/now_text.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/host.h"
#include "platform/text.h"

namespace ZepFoundation {
namespace {

using platform::ERROR_SUCCESS;
using platform::File;

constexpr char16_t kTraceKey[] = u"\\HKLM\\Software\\brelmont\\debugstream";
constexpr char16_t kStreamName[] = u"debugstream";
constexpr std::uint32_t kShortHeader = 1;  // bit 0 of the filter
constexpr std::size_t kPendingSize = 1024;
constexpr std::string_view kMarker = "@@@";
constexpr std::string_view kStatementPrefix = "SS ";
constexpr std::uint32_t kAllLevels = 0x7FFFFFFEu;

constexpr std::string_view kLevelWords[] = {"[ERROR]   ", "[WARNING] ", "[INFORM]  ", "[DEBUG]   "};
constexpr std::string_view kUnknownLevelWord = "[UNKNOWN] ";

bool EndsInMarker(std::string_view text) { return text.size() >= kMarker.size() && text.ends_with(kMarker); }

template <class C>
class Scheddebugstreambuf;

// The shared buffer over the trace file.
template <>
class Scheddebugstreambuf<char> : public std::streambuf {
 public:
  Scheddebugstreambuf(std::string filePath, std::uint32_t filterFlags, std::uint32_t maxFileBytes)
      : m_filePath(std::move(filePath)), m_maxFileBytes(maxFileBytes), m_filterFlags(filterFlags) {}

  [[nodiscard]] std::uint32_t filterFlags() const { return m_filterFlags; }
  // A statement begins: an earlier failure to open the file is forgotten.
  void ClearFailure() {
    const CZepGateKeeper hold(m_lock);
    m_failed = false;
  }

 protected:
  int_type overflow(int_type c) override {
    const CZepGateKeeper hold(m_lock);
    if (!Ready() || c == traits_type::eof()) return 1;
    const char one = static_cast<char>(c);
    if (m_pendingCount < kPendingSize) {
      m_pending[m_pendingCount++] = one;
    } else {
      FlushPending();
      WriteThrough(std::string_view(&one, 1));
    }
    return 1;
  }

  std::streamsize xsputn(const char* text, std::streamsize n) override {
    const CZepGateKeeper hold(m_lock);
    if (!Ready() || n <= 0) return n;
    const std::string_view chunk(text, static_cast<std::size_t>(n));
    const bool chunkOpen = !EndsInMarker(chunk);
    const bool bufferOpen = !EndsInMarker(Pending());
    if (chunk.size() + m_pendingCount < kPendingSize && chunkOpen && bufferOpen) {
      Append(chunk);
      return n;
    }
    FlushPending();
    if (m_fileBytes >= m_maxFileBytes) RollOver();
    // Deliberate: a chunk that ends in the marker is dropped whole.
    if (!chunkOpen) return n;
    if (chunk.size() < kPendingSize) {
      Append(chunk);
    } else {
      WriteThrough(chunk);
    }
    return n;
  }

  // Deliberate: what is pending stays so; only the marker ends a record. The file has no buffer of its own.
  int sync() override { return 0; }

  // Opens the file to append to it, since other processes may trace there too; without a path it does nothing.
  virtual void OpenFile() QX_REQUIRES(m_lock) {
    if (m_filePath.empty()) return;
    std::uint64_t size = 0;
    if (m_file.Open(NativeName(m_filePath), File::Access::kAppend, File::Disposition::kOpenAlways) != ERROR_SUCCESS) {
      m_failed = true;
      return;
    }
    if (m_file.Size(size) != ERROR_SUCCESS) size = 0;
    m_fileBytes = static_cast<std::uint32_t>(size);
    m_rollSequence = 0;
    m_pendingCount = 0;
  }

 private:
  [[nodiscard]] static std::string NativeName(const std::string& path) {
    return platform::NativePath(platform::WideFromSystem(path));
  }
  // Opens the file when needed; false where a statement's text goes nowhere. A failure holds to the next statement.
  bool Ready() QX_REQUIRES(m_lock) {
    if (!m_failed && !m_file.IsOpen()) OpenFile();
    return m_file.IsOpen() && !m_failed;
  }
  [[nodiscard]] std::string_view Pending() const QX_REQUIRES(m_lock) { return {m_pending, m_pendingCount}; }
  void Append(std::string_view text) QX_REQUIRES(m_lock) {
    std::copy(text.begin(), text.end(), m_pending + m_pendingCount);
    m_pendingCount += static_cast<std::uint32_t>(text.size());
  }
  void WriteThrough(std::string_view text) QX_REQUIRES(m_lock) {
    (void)m_file.WriteAll(text);  // a full disk loses the text; there is nobody to tell
    m_fileBytes += static_cast<std::uint32_t>(text.size());
  }
  void FlushPending() QX_REQUIRES(m_lock) {
    std::string_view record = Pending();
    if (EndsInMarker(record)) record.remove_suffix(kMarker.size());
    if (!record.empty()) WriteThrough(record);
    m_pendingCount = 0;
  }

  void RollOver() QX_REQUIRES(m_lock) {
    m_file.Close();
    std::string candidate;
    for (bool taken = true; taken;) {  // ends: the sequence meets a name that no file has
      ++m_rollSequence;
      candidate = NativeName(CandidateName());
      File probe;
      taken = probe.Open(candidate, File::Access::kReadWrite, File::Disposition::kOpenExisting) == ERROR_SUCCESS;
    }
    (void)platform::RenameFile(NativeName(m_filePath), candidate);  // begun anew all the same
    if (m_file.Open(NativeName(m_filePath), File::Access::kWrite, File::Disposition::kCreateAlways) != ERROR_SUCCESS) {
      m_failed = true;
    }
    m_fileBytes = 0;
    m_pendingCount = 0;
  }

  [[nodiscard]] std::string CandidateName() const QX_REQUIRES(m_lock) {
    std::tm now{};
    (void)platform::LocalBreakdown(platform::NowSeconds(), now);
    const std::size_t dot = m_filePath.rfind('.');
    const std::string base = m_filePath.substr(0, dot);
    const std::string extension = dot == std::string::npos ? "" : m_filePath.substr(dot);
    return base + "_" + std::to_string(now.tm_mday) + "_" + std::to_string(now.tm_mon + 1) + "_" +
           std::to_string(now.tm_year + 1900) + "_" + std::to_string(m_rollSequence) + extension;
  }

  const std::string m_filePath;
  const std::uint32_t m_maxFileBytes;
  const std::uint32_t m_filterFlags;

  CZepOSCriticalSection m_lock;
  std::uint32_t m_fileBytes QX_GUARDED_BY(m_lock) = 0;
  std::uint32_t m_rollSequence QX_GUARDED_BY(m_lock) = 0;
  char m_pending[kPendingSize] QX_GUARDED_BY(m_lock);
  std::uint32_t m_pendingCount QX_GUARDED_BY(m_lock) = 0;
  File m_file QX_GUARDED_BY(m_lock);
  bool m_failed QX_GUARDED_BY(m_lock) = false;  // the failed state that the file gives to every thread's stream
};

using TraceBuffer = Scheddebugstreambuf<char>;

// The one stream of the process: made once, replaced by ResetDebugTrace() only.
struct Stream {
  CZepOSCriticalSection header;  // held while a header is written, ahead of the buffer's lock
  CZepOSCriticalSection lock;
  std::unique_ptr<TraceBuffer> buffer QX_GUARDED_BY(lock);
};
Stream& TheStream() {
  static Stream* const stream = new Stream;  // outlives every thread that traces at the end of the process
  return *stream;
}
std::atomic<TraceBuffer*> g_buffer{nullptr};
std::atomic<DebugTraceSink*> g_sink{nullptr};

void PublishFlags() {
  const TraceBuffer* const buffer = g_buffer;
  detail::g_traceFlags = g_sink.load() != nullptr ? kAllLevels : buffer != nullptr ? buffer->filterFlags() : 0;
}

// A setting of the stream; what can't be read keeps its default.
template <class T>
T Setting(const char16_t* name) {
  CPath path(kTraceKey);
  path += CPathElement(kStreamName);
  path += CPathElement(name);
  T value{};
  (void)CRegistry::Instance().FetchValue(path, value);
  return value;
}

std::unique_ptr<TraceBuffer> MakeBuffer() {
  return std::make_unique<TraceBuffer>(platform::SystemFromWide(Setting<wcstring>(u"logFilePath").view()),
                                       Setting<std::uint32_t>(u"logFileFilterFlag"),
                                       Setting<std::uint32_t>(u"LogFileSize") << 10);
}

TraceBuffer& TheBuffer() {
  if (TraceBuffer* const made = g_buffer.load(std::memory_order_acquire)) return *made;
  Stream& stream = TheStream();
  const CZepGateKeeper hold(stream.lock);
  if (stream.buffer == nullptr) {
    stream.buffer = MakeBuffer();
    g_buffer.store(stream.buffer.get(), std::memory_order_release);
    PublishFlags();
  }
  return *stream.buffer;
}

// The program's file name, lower-cased.
std::string ProcessName() {
  std::u16string path;
  if (platform::ProgramFilePath(path) != ERROR_SUCCESS) return {};
  std::u16string name = path.substr(path.find_last_of(u"/\\") + 1);
  std::transform(name.begin(), name.end(), name.begin(), platform::ToLowerSimple);
  return platform::SystemFromWide(name);
}

// Collects a statement for the sink.
class SinkBuffer : public std::streambuf {
 public:
  void Begin(std::uint16_t level) {
    m_level = level;
    m_text.clear();
  }

 protected:
  int_type overflow(int_type c) override {
    if (c != traits_type::eof()) m_text += static_cast<char>(c);
    return 1;
  }
  std::streamsize xsputn(const char* text, std::streamsize n) override {
    const std::string_view chunk(text, static_cast<std::size_t>(n));
    if (EndsInMarker(chunk)) {
      Deliver();
    } else {
      m_text += chunk;
    }
    return n;
  }

 private:
  void Deliver() {
    std::string_view text = m_text;
    if (text.starts_with(kStatementPrefix)) text.remove_prefix(kStatementPrefix.size());
    if (text.ends_with('\n')) text.remove_suffix(1);
    if (DebugTraceSink* const sink = g_sink.load(std::memory_order_acquire)) sink->Write(m_level, text);
    m_text.clear();
  }

  std::uint16_t m_level = 0;
  std::string m_text;
};

// One thread's formatting.
struct Front {
  SinkBuffer sink;
  std::ostream stream{nullptr};
};

void WriteHeader(std::ostream& out, std::uint32_t flags, std::uint16_t level, const char* file, std::uint32_t line) {
  const bool full = (flags & kShortHeader) == 0;
  if (full) {
    const std::string name = ProcessName();
    out << name << ' ' << name << ' ';  // the module's name is the process's too
  }
  out << detail::NowText() << ' ';
  if (full && file != nullptr && line != 0) out << file << " (" << std::dec << line << ") ";
  out << ": " << (level < std::size(kLevelWords) ? kLevelWords[level] : kUnknownLevelWord);
}

}  // namespace

namespace detail {
std::atomic<std::uint32_t> g_traceFlags{0};
}

void ConfigureDebugTrace() { (void)TheBuffer(); }

std::ostream& DebugTrace(std::uint32_t /*area*/, std::uint16_t level, const char* file, std::uint32_t line) {
  thread_local Front front;
  front.stream.flags(std::ios_base::skipws | std::ios_base::dec);  // nothing of the last statement carries over
  front.stream.width(0);
  if (g_sink.load(std::memory_order_acquire) != nullptr) {
    front.sink.Begin(level);
    front.stream.rdbuf(&front.sink);
    return front.stream;
  }
  TraceBuffer& buffer = TheBuffer();
  front.stream.rdbuf(&buffer);
  if (level >= 31 || (buffer.filterFlags() >> (level + 1) & 1u) == 0) {
    front.stream.setstate(std::ios_base::failbit);
    return front.stream;
  }
  const CZepGateKeeper hold(TheStream().header);  // ahead of the lock that each part of it takes
  buffer.ClearFailure();
  WriteHeader(front.stream, buffer.filterFlags(), level, file, line);
  return front.stream;
}

DebugTraceSink* SetDebugTraceSink(DebugTraceSink* sink) {
  DebugTraceSink* const before = g_sink.exchange(sink, std::memory_order_acq_rel);
  PublishFlags();
  return before;
}

void ResetDebugTrace() {
  Stream& stream = TheStream();
  const CZepGateKeeper hold(stream.lock);
  g_buffer = nullptr;
  stream.buffer.reset();
  PublishFlags();
}

}  // namespace ZepFoundation
