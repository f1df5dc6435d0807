#include "platform/testing/crash_disk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <filesystem>
#include <fstream>
#include <random>
#include <utility>
#include <vector>

#include "platform/mutex.h"

namespace platform {
namespace {

constexpr std::size_t kSector = 512;

using Inode = std::pair<dev_t, ino_t>;
using Names = std::map<std::string, Inode>;

// The inode stays pinned: its number isn't given to another file, and it can be read after its last name went.
struct Node {
  int pin = -1;
  bool isDirectory = false;
  std::string synced;        // a file's contents; empty until the first sync
  std::vector<Names> names;  // a directory's: as synced, then each later state in order
};

std::string ReadPinned(int descriptor) {
  std::ifstream in("/proc/self/fd/" + std::to_string(descriptor), std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Some sectors of the one, some of the other; either size.
std::string Mix(const std::string& before, const std::string& now, std::mt19937& chance) {
  std::string mixed(chance() % 2 == 0 ? before.size() : now.size(), '\0');
  for (std::size_t at = 0; at < mixed.size(); at += kSector) {
    const std::string& source = chance() % 2 == 0 ? before : now;
    if (at >= source.size()) continue;
    const std::size_t length = std::min({kSector, source.size() - at, mixed.size() - at});
    std::copy_n(source.begin() + static_cast<std::ptrdiff_t>(at), length,
                mixed.begin() + static_cast<std::ptrdiff_t>(at));
  }
  return mixed;
}

struct Tree {
  std::string root;  // never changes, like rootInode
  Mutex mutex;
  std::map<Inode, Node> nodes QX_GUARDED_BY(mutex);
  Inode rootInode;
  std::function<void()> onSync QX_GUARDED_BY(mutex);
  int syncs QX_GUARDED_BY(mutex) = 0;

  ~Tree() {
    for (auto& [inode, node] : nodes) ::close(node.pin);
  }

  // Pins what `name` stands for; nothing when it went meanwhile.
  std::optional<Inode> Pin(const std::string& name, bool isSafe) QX_REQUIRES(mutex) {
    const int pin = ::open(name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    struct stat info {};
    if (pin < 0 || ::fstat(pin, &info) != 0) return std::nullopt;
    const Inode inode{info.st_dev, info.st_ino};
    const auto [at, isNew] = nodes.try_emplace(inode);
    if (!isNew) {
      ::close(pin);
      return inode;
    }
    at->second.pin = pin;
    at->second.isDirectory = S_ISDIR(info.st_mode);
    if (at->second.isDirectory) at->second.names.emplace_back();  // safe: nothing in it
    if (isSafe && !at->second.isDirectory) at->second.synced = ReadPinned(pin);
    return inode;
  }

  // Notes the names of a directory and of those below it.
  void Walk(const std::string& name, const Inode& directory, bool isSafe) QX_REQUIRES(mutex) {
    Names present;
    if (DIR* const stream = ::opendir(name.c_str())) {
      while (const dirent* const entry = ::readdir(stream)) {
        const std::string file = entry->d_name;
        if (file == "." || file == "..") continue;
        if (const auto inode = Pin(name + "/" + file, isSafe)) present[file] = *inode;
      }
      ::closedir(stream);
    }
    for (const auto& [file, inode] : present) {
      if (nodes.at(inode).isDirectory) Walk(name + "/" + file, inode, isSafe);
    }
    std::vector<Names>& states = nodes.at(directory).names;
    if (isSafe) states = {present};
    if (states.back() != present) states.push_back(std::move(present));
  }

  void Sync(int descriptor) {
    struct stat info {};
    if (::fstat(descriptor, &info) != 0) return;
    const Inode inode{info.st_dev, info.st_ino};
    std::function<void()> call;
    {
      const MutexLock lock(mutex);
      Walk(root, rootInode, false);
      if (!nodes.contains(inode)) return;
      ++syncs;
      call = onSync;
    }
    if (call) call();
    const MutexLock lock(mutex);
    Node& node = nodes.at(inode);
    if (node.isDirectory) {
      node.names.erase(node.names.begin(), node.names.end() - 1);
    } else {
      node.synced = ReadPinned(node.pin);
    }
  }

  void Collect(const std::string& name, const Inode& directory, CrashDisk::Survives survives, std::mt19937& chance,
               CrashDisk::Image& image) QX_REQUIRES(mutex) {
    const std::vector<Names>& states = nodes.at(directory).names;
    using enum CrashDisk::Survives;
    const bool onlySyncedNames = survives == kSynced || survives == kSyncedNames;
    const std::size_t chosen = onlySyncedNames ? 0 : survives == kSome ? chance() % states.size() : states.size() - 1;
    for (const auto& [file, inode] : states[chosen]) {
      const Node& node = nodes.at(inode);
      const std::string path = name.empty() ? file : name + "/" + file;
      if (node.isDirectory) {
        image[path] = std::nullopt;
        Collect(path, inode, survives, chance, image);
      } else if (survives == kSynced || survives == kSyncedContents) {
        image[path] = node.synced;
      } else if (survives == kSome) {
        const std::uint32_t how = chance() % 3;
        image[path] = how == 0   ? node.synced
                      : how == 1 ? ReadPinned(node.pin)
                                 : Mix(node.synced, ReadPinned(node.pin), chance);
      } else {
        image[path] = ReadPinned(node.pin);
      }
    }
  }
};

std::atomic<Tree*> g_watched{nullptr};

int SyncFile(int descriptor) {
  if (Tree* const tree = g_watched.load()) tree->Sync(descriptor);
  struct stat info {};
  return ::fstat(descriptor, &info);  // no less than a bad descriptor fails
}

}  // namespace

struct CrashDisk::State : Tree {};

CrashDisk::CrashDisk(std::string root) : m_state(std::make_unique<State>()) {
  assert(g_watched.load() == nullptr && "one disk at a time");
  m_state->root = std::move(root);
  const std::optional<Inode> inode = m_state->Pin(m_state->root, true);
  assert(inode && "the root is a directory that exists");
  m_state->rootInode = *inode;
  m_state->Walk(m_state->root, *inode, true);
  g_watched.store(m_state.get());
}

CrashDisk::~CrashDisk() {
  g_watched.store(nullptr);
}

void CrashDisk::Look() {
  const MutexLock lock(m_state->mutex);
  m_state->Walk(m_state->root, m_state->rootInode, false);
}

CrashDisk::Image CrashDisk::AfterPowerCut(Survives survives, std::uint32_t seed) {
  Look();
  const MutexLock lock(m_state->mutex);
  std::mt19937 chance(seed);
  Image image;
  m_state->Collect("", m_state->rootInode, survives, chance, image);
  return image;
}

void CrashDisk::OnSync(std::function<void()> call) {
  const MutexLock lock(m_state->mutex);
  m_state->onSync = std::move(call);
}

int CrashDisk::Syncs() const {
  const MutexLock lock(m_state->mutex);
  return m_state->syncs;
}

void CrashDisk::Restore(const Image& image, const std::string& root) {
  for (const auto& entry : std::filesystem::directory_iterator(root)) std::filesystem::remove_all(entry.path());
  for (const auto& [name, contents] : image) {  // a directory comes before what is in it
    const std::string path = root + "/" + name;
    if (!contents) {
      std::filesystem::create_directory(path);
    } else {
      std::ofstream(path, std::ios::binary) << *contents;
    }
  }
}

}  // namespace platform

// In the place of the C library's.
extern "C" int fsync(int descriptor) {
  return platform::SyncFile(descriptor);
}
extern "C" int fdatasync(int descriptor) {
  return platform::SyncFile(descriptor);
}
