// platform/testing/crash_disk.h: for tests: what a power cut leaves of a directory tree, as it forgets what was not
// synced.
//
// The program that links this library gets fsync() and fdatasync() of its own, for all its code, SQLite's included;
// they wait for no disk. Below one directory they note what is safe: of a file its contents at the moment of the sync,
// of a directory its names. A cut makes an image of the tree from what is safe and, as the test wishes, from what came
// since.
//
// Modelled: contents and names are lost independently of each other (a name may be there before its contents and
// contents without their name); a file that was never synced may be empty behind its name; of contents since the last
// sync any 512-byte sector may have reached the disk, in any order, the size too; names of one directory reach the disk
// in the order of their changes, each change whole, as far as Look() saw it between two changes (a rename never loses
// both names); what was unlinked comes back where the directory wasn't synced.
// Not modelled: a disk that lies about a sync; damage to sectors that nobody wrote; directories that depend on each
// other's journal; modes, owners and times; symbolic links. sync_file_range() and O_SYNC count for nothing here.
//
// Threads: make, look, cut and destroy on one thread; syncs of any thread are noted. At most one disk at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace platform {

class CrashDisk {
 public:
  // A tree: contents by path below the root; nothing for a directory.
  using Image = std::map<std::string, std::optional<std::string>>;

  enum class Survives {
    kSynced,          // only what was synced
    kSyncedContents,  // all names, contents only as synced
    kSyncedNames,     // names only as synced, all contents
    kSome,            // by chance
    kAll,             // everything, as after a kill
  };

  // Watches the tree below `root`; what is there counts as synced.
  explicit CrashDisk(std::string root);
  CrashDisk(const CrashDisk&) = delete;
  CrashDisk& operator=(const CrashDisk&) = delete;
  ~CrashDisk();

  // Notes the present names, so that a cut can fall between this moment's names and the next.
  void Look();
  // What a cut at this moment leaves.
  //   seed  for kSome: the same seed makes the same choice
  [[nodiscard]] Image AfterPowerCut(Survives survives, std::uint32_t seed = 0);
  // Called in front of each sync below the root, on the syncing thread.
  void OnSync(std::function<void()> call);
  // Syncs below the root so far.
  [[nodiscard]] int Syncs() const;

  // Makes `root` hold exactly the image.
  static void Restore(const Image& image, const std::string& root);

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace platform
