// platform/profile_read_ahead.h: private-profile files, read ahead on a few threads.
//
// For somebody who is about to load many files one after the other, as the service does at its start. While the object
// lives, a ProfileBatch for loading takes a file that was read ahead, when the file still is the one that was read: the
// same device, inode, size and times of change. Any other file it reads itself. A file is taken once.
// Threads: Want() from any thread; made and destroyed by one. One object at a time; a second one reads nothing ahead.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

namespace platform {

namespace detail {
struct ProfileReadAheadState;
}

class ProfileReadAhead {
 public:
  //   readers  threads; those that can't be started are missing, and without any nothing is read ahead
  explicit ProfileReadAhead(std::size_t readers);
  // Ends the threads and drops what wasn't taken.
  ~ProfileReadAhead();
  ProfileReadAhead(const ProfileReadAhead&) = delete;
  ProfileReadAhead& operator=(const ProfileReadAhead&) = delete;

  // Has a file read, soon; never waits. What wasn't taken when kMostKept newer ones are there is dropped.
  //   path  the client's text
  void Want(std::u16string_view path);

  // Waits until everything that was wanted has been read; for tests.
  void WaitUntilRead();
  // Files that batches took so far.
  [[nodiscard]] std::size_t Taken() const;

  static constexpr std::size_t kMostKept = 4096;

 private:
  std::shared_ptr<detail::ProfileReadAheadState> m_state;  // null where nothing is read ahead
};

}  // namespace platform
