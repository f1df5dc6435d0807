#include "platform/profile_read_ahead.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/fault_point.h"
#include "platform/file.h"
#include "platform/profile_ahead.h"
#include "platform/thread.h"

namespace platform {
namespace detail {

struct ProfileReadAheadState {
  // Which file a name stands for, and in which state.
  struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t modified = 0;  // nanoseconds since 1970
    std::int64_t changed = 0;

    friend bool operator==(const Identity&, const Identity&) = default;
  };
  struct Entry {
    enum Stage { kWanted, kReading, kRead, kUnreadable } stage = kWanted;
    Identity identity;
    ProfileText text;
  };

  std::mutex lock;
  std::condition_variable wanted;
  std::condition_variable read;
  std::unordered_map<std::string, std::shared_ptr<Entry>> entries;
  std::deque<std::string> waiting;   // names that nobody reads yet
  std::deque<std::string> inOrder;   // all names, the oldest first; some of them were taken
  std::size_t idle = 0;              // readers that wait
  std::size_t reading = 0;           // names that are being read
  std::size_t taken = 0;
  bool stopped = false;
  std::vector<Thread> readers;

  void Read();
};

namespace {

constexpr std::size_t kNamesAtATime = 32;
constexpr off_t kLargestFile = 1 << 20;  // bytes
constexpr std::int64_t kNanoseconds = 1'000'000'000;

std::mutex g_lock;
std::shared_ptr<ProfileReadAheadState> g_ahead;  // under g_lock

using Identity = ProfileReadAheadState::Identity;
using Entry = ProfileReadAheadState::Entry;

Identity IdentityOf(const struct stat& info) {
  return {info.st_dev, info.st_ino, info.st_size, info.st_mtim.tv_sec * kNanoseconds + info.st_mtim.tv_nsec,
          info.st_ctim.tv_sec * kNanoseconds + info.st_ctim.tv_nsec};
}

// What isn't a small file of its full size is left to the calls themselves, which know every case.
bool ReadEntry(const std::string& name, Entry& entry) {
  const int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return false;
  struct stat info {};
  std::string bytes;
  bool good = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size <= kLargestFile;
  if (good) {
    bytes.resize(static_cast<std::size_t>(info.st_size) + 1);  // one more tells the end
    good = ::read(fd, bytes.data(), bytes.size()) == info.st_size;
    bytes.resize(static_cast<std::size_t>(info.st_size));
  }
  ::close(fd);
  if (!good) return false;
  entry.identity = IdentityOf(info);
  entry.text = ProfileText(std::move(bytes));
  return true;
}

std::shared_ptr<ProfileReadAheadState> Current() {
  const std::lock_guard hold(g_lock);
  return g_ahead;
}

}  // namespace

// A reader's life.
void ProfileReadAheadState::Read() {
  std::vector<std::pair<std::string, std::shared_ptr<Entry>>> mine;
  std::unique_lock hold(lock);
  while (!stopped) {
    if (waiting.empty()) {
      ++idle;
      wanted.wait(hold, [this] { return stopped || !waiting.empty(); });
      --idle;
      continue;
    }
    mine.clear();
    while (!waiting.empty() && mine.size() < kNamesAtATime) {
      const auto found = entries.find(waiting.front());
      if (found != entries.end() && found->second->stage == Entry::kWanted) {
        found->second->stage = Entry::kReading;
        mine.emplace_back(*found);
      }
      waiting.pop_front();
    }
    reading += mine.size();
    hold.unlock();
    std::vector<bool> good;
    for (const auto& [name, entry] : mine) {
      try {
        good.push_back(ReadEntry(name, *entry));
      } catch (const std::exception&) {
        good.push_back(false);
      }
    }
    hold.lock();
    for (std::size_t i = 0; i < mine.size(); ++i) mine[i].second->stage = good[i] ? Entry::kRead : Entry::kUnreadable;
    reading -= mine.size();
    read.notify_all();
  }
}

bool TakeReadAhead(const std::string& name, ProfileText& text) {
  // A test that makes calls fail means the calls of the thread that loads.
  if (g_faultSeamArmed.load(std::memory_order_relaxed)) return false;
  const std::shared_ptr<ProfileReadAheadState> ahead = Current();
  if (!ahead) return false;
  std::shared_ptr<Entry> entry;
  {
    std::unique_lock hold(ahead->lock);
    const auto found = ahead->entries.find(name);
    if (found == ahead->entries.end()) return false;
    entry = std::move(found->second);
    ahead->entries.erase(found);
    // What nobody began to read is faster read at once.
    if (entry->stage == Entry::kWanted) return false;
    ahead->read.wait(hold, [&] { return entry->stage != Entry::kReading; });
    if (entry->stage != Entry::kRead) return false;
  }
  struct stat info {};
  if (::stat(name.c_str(), &info) != 0 || IdentityOf(info) != entry->identity) return false;
  text = std::move(entry->text);
  const std::lock_guard hold(ahead->lock);
  ++ahead->taken;
  return true;
}

}  // namespace detail

using detail::g_ahead;
using detail::g_lock;
using detail::ProfileReadAheadState;

ProfileReadAhead::ProfileReadAhead(std::size_t readers) {
  const std::lock_guard hold(g_lock);
  if (g_ahead) return;
  auto state = std::make_shared<ProfileReadAheadState>();
  for (std::size_t i = 0; i < readers; ++i) {
    Thread thread;
    if (Thread::Start("profile-ahead", [ahead = state.get()] { ahead->Read(); }, thread) != ERROR_SUCCESS) break;
    state->readers.push_back(std::move(thread));
  }
  if (state->readers.empty()) return;
  g_ahead = state;
  m_state = std::move(state);
}

ProfileReadAhead::~ProfileReadAhead() {
  if (!m_state) return;
  {
    const std::lock_guard hold(g_lock);
    g_ahead.reset();
  }
  {
    const std::lock_guard hold(m_state->lock);
    m_state->stopped = true;
    m_state->wanted.notify_all();
  }
  for (Thread& reader : m_state->readers) reader.Join();
}

void ProfileReadAhead::Want(std::u16string_view path) {
  if (!m_state) return;
  std::string name = NativePath(path);
  if (name.empty()) return;
  const std::lock_guard hold(m_state->lock);
  if (!m_state->entries.try_emplace(name, std::make_shared<detail::Entry>()).second) return;
  m_state->waiting.push_back(name);
  m_state->inOrder.push_back(std::move(name));
  if (m_state->inOrder.size() > kMostKept) {
    m_state->entries.erase(m_state->inOrder.front());
    m_state->inOrder.pop_front();
  }
  // Waking a reader for less costs more than it saves; what is left at the end is read by those who load.
  if (m_state->idle > 0 && m_state->waiting.size() >= detail::kNamesAtATime) m_state->wanted.notify_one();
}

void ProfileReadAhead::WaitUntilRead() {
  if (!m_state) return;
  std::unique_lock hold(m_state->lock);
  m_state->wanted.notify_all();
  m_state->read.wait(hold, [this] { return m_state->waiting.empty() && m_state->reading == 0; });
}

std::size_t ProfileReadAhead::Taken() const {
  if (!m_state) return 0;
  const std::lock_guard hold(m_state->lock);
  return m_state->taken;
}

}  // namespace platform
