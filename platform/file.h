// platform/file.h: files, directories, byte locks, and the kernel's names of clients' paths.
//
// A path that a client gave is text; NativePath alone makes a kernel name of it, and all other functions here take such
// a name (bytes, UTF-8). New directories have mode 0700, new files 0600. Only regular files are opened: a directory,
// device or pipe gives ERROR_ACCESS_DENIED, so that no open blocks.
// Codes that every function may return beside those told: ERROR_FILE_NOT_FOUND (2) for a missing last part of a name,
// ERROR_PATH_NOT_FOUND (3) for a missing directory before it or an empty name, ERROR_ACCESS_DENIED (5),
// ERROR_DISK_FULL (112), and the others of ErrorCodeFromErrno.
// Threads: every function may be called from any thread; a File belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/error_codes.h"

namespace platform {

// --- names ---

// The directory below which the system keeps its own files, an absolute kernel name without a separator at its end.
// Set once at the start of a program (tests: per test); empty until then.
void SetStateDirectory(std::string directory);
[[nodiscard]] std::string StateDirectory();

// The kernel's name for a path in a client's words: "\" counts as "/"; a drive letter with ":" stands for the folder of
// its lower-case name under the state directory's "drives/" (there is no current directory of a drive: "C:x" is
// "C:\x"); a path below "\Documents and Settings\" lies under the state directory. Everything else is taken as it
// stands. Lone surrogates keep a name of their own.
// Empty for an empty text and for one with a NUL, which can name no file.
[[nodiscard]] std::string NativePath(std::u16string_view clientPath);

// Puts the process's current directory in front of a kernel name that is not absolute, and takes separators off its
// end.
//   name     unchanged on failure
//   returns  0; ERROR_PATH_NOT_FOUND (3) for an empty name; the host's code without a current directory
//            (kDirectoryExists)
[[nodiscard]] ErrorCode AbsoluteName(std::string& name);

// The part of a kernel name in front of its last "/": "." for a name without one, "/" for names in the root.
[[nodiscard]] std::string DirectoryOf(const std::string& name);

// --- whole files and directories ---

// Whether a file (anything but a directory) or a directory of that name exists; links are followed. What can't be
// looked at doesn't exist.
[[nodiscard]] bool FileExists(const std::string& name);
[[nodiscard]] bool DirectoryExists(const std::string& name);
// Whether the names lead to two files or directories that both exist and aren't one and the same; links are followed.
// What can't be looked at doesn't differ.
[[nodiscard]] bool AreDifferentFiles(const std::string& a, const std::string& b);

// kYes: the directory is synced too, so that the change survives a power cut; a failed sync is returned though the
// change itself is made.
enum class Durable { kNo, kYes };

[[nodiscard]] ErrorCode DeleteFile(const std::string& name, Durable durable = Durable::kNo);
// Replaces a file `to` that exists, in one step. Both names lie in one file system.
[[nodiscard]] ErrorCode RenameFile(const std::string& from, const std::string& to, Durable durable = Durable::kNo);
// The same for a `to` that doesn't exist, also where another thread makes one meanwhile.
//   returns  ERROR_FILE_EXISTS (80): nothing changed
[[nodiscard]] ErrorCode RenameToNewFile(const std::string& from, const std::string& to, Durable durable = Durable::kNo);
// Creates a directory and those above it that are missing; one that exists is no failure. Each new name is synced,
// unless the directory that holds it may not be read; a directory whose name couldn't be synced is removed again.
[[nodiscard]] ErrorCode CreateDirectories(const std::string& name);
[[nodiscard]] ErrorCode SyncDirectory(const std::string& name);
// The names in a directory, without "." and "..", sorted by their bytes. Asks Operation::kDirectoryExists.
//   names    replaced on success, untouched on failure
[[nodiscard]] ErrorCode ListDirectory(const std::string& name, std::vector<std::string>& names);

//   contents  replaced on success, untouched on failure
[[nodiscard]] ErrorCode ReadWholeFile(const std::string& name, std::string& contents);

// Puts `contents` in the place of a file in one step: a new file ".NAME.new" beside it, then a rename. A symbolic link
// is followed; mode and owner of the old file are kept (0600 for a new one). A leftover of an earlier attempt is
// overwritten. Calls on one name must not overlap in time.
//   durable  kYes: file and directory are synced
//   returns  ERROR_SUCCESS, else the old file is untouched and the new one removed where possible; only a failed sync
//            of the directory leaves the new contents;
//            ERROR_ACCESS_DENIED (5) also for a file without write permission
[[nodiscard]] ErrorCode ReplaceWholeFile(const std::string& name, std::string_view contents, Durable durable);

// ReplaceWholeFile() in two steps, for whoever has other work for the disk in between. Owns the new file until it is in
// place; what isn't finished goes again.
// Threads: one at a time.
class FileReplacement {
 public:
  FileReplacement() = default;
  FileReplacement(const FileReplacement&) = delete;
  FileReplacement& operator=(const FileReplacement&) = delete;
  ~FileReplacement() { Discard(); }

  // Writes the new file beside the old one, which stays as it is.
  //   returns  as ReplaceWholeFile
  [[nodiscard]] ErrorCode Begin(const std::string& name, std::string_view contents, Durable durable);
  // Has the disk begin with the contents of a durable file, without waiting for it: a hint, which a host may not know.
  void HaveDiskBegin() const;
  // False when nothing was begun, or another writer of the name took the new file's name meanwhile.
  [[nodiscard]] bool IsBegun() const;
  // Lets everybody read the new file (mode 0644), whatever the old one's mode is: ahead of Finish(), so that nobody
  // finds it under its name and can't. On failure it goes, as with Discard().
  //   returns  as ReplaceWholeFile; ERROR_INVALID_HANDLE (6) when nothing was begun
  [[nodiscard]] ErrorCode LetAllRead();
  // Puts the new file in place. On failure it goes, as with Discard().
  //   returns  as ReplaceWholeFile; ERROR_INVALID_HANDLE (6) when nothing was begun
  [[nodiscard]] ErrorCode Finish();
  // Takes the new file away; again, or behind Finish(): nothing.
  void Discard();

 private:
  std::string m_target;  // behind all links
  std::string m_fresh;
  int m_descriptor = -1;  // of the new file
  Durable m_durable = Durable::kNo;
};

// --- open files ---

// An open file, closed at the end of its life. Other openers may read, write, rename and delete it meanwhile.
class File {
 public:
  enum class Access {
    kRead,
    kWrite,
    kReadWrite,
    kAppend,  // to write at the end that the file has then, whatever the position
  };
  enum class Disposition {
    kOpenExisting,      // ERROR_FILE_NOT_FOUND (2) when missing
    kOpenAlways,        // created when missing, contents kept
    kCreateAlways,      // created when missing, else emptied
    kCreateNew,         // ERROR_FILE_EXISTS (80) when there
    kTruncateExisting,  // emptied; ERROR_FILE_NOT_FOUND (2) when missing
  };

  File() = default;
  File(File&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
  File& operator=(File&& other) noexcept;
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() { Close(); }

  // Closes what was open and opens `name`; the position is the beginning. On failure the object owns nothing.
  [[nodiscard]] ErrorCode Open(const std::string& name, Access access, Disposition disposition);
  [[nodiscard]] bool IsOpen() const { return m_descriptor >= 0; }
  // Also gives up the locks. No effect on an object that owns nothing.
  void Close();

  // The functions below give ERROR_INVALID_HANDLE (6) when nothing is open.
  [[nodiscard]] ErrorCode Size(std::uint64_t& bytes) const;
  //   offset  when given, gets where the end is
  [[nodiscard]] ErrorCode SeekToEnd(std::uint64_t* offset = nullptr);
  [[nodiscard]] ErrorCode SeekTo(std::uint64_t offset);
  // Writes all bytes at the position and moves it behind them; on failure a part may have been written.
  [[nodiscard]] ErrorCode WriteAll(std::string_view bytes);
  // Takes away what lies behind `size`, as the part of a failed write; a file that is shorter stays as it is. Asks
  // Operation::kWriteFile.
  [[nodiscard]] ErrorCode CutBehind(std::uint64_t size);
  // Reads up to buffer.size() bytes from the position; `count` is less only at the end of the file.
  [[nodiscard]] ErrorCode Read(std::span<char> buffer, std::size_t& count);
  // Appends everything from the position to the end of the file to `bytes`.
  [[nodiscard]] ErrorCode ReadAll(std::string& bytes);
  // Contents and size are on disk afterwards.
  [[nodiscard]] ErrorCode Sync();
  // Waits for the exclusive lock on the byte at `offset`. Locks belong to this opening of the file: a second File on
  // the same name waits, in this process as in another. Asks Operation::kLockFile again, on "wait", when it has to
  // wait.
  [[nodiscard]] ErrorCode LockByte(std::uint64_t offset);
  // The same without waiting: ERROR_LOCK_VIOLATION (33) when somebody else holds it.
  [[nodiscard]] ErrorCode TryLockByte(std::uint64_t offset);
  [[nodiscard]] ErrorCode UnlockByte(std::uint64_t offset);

 private:
  int m_descriptor = -1;
};

// Takes the state directory (created when missing) for this process: its file "lock" stays locked while `lock` lives.
//   returns  ERROR_LOCK_VIOLATION (33): another service works on it
[[nodiscard]] ErrorCode LockStateDirectory(File& lock);

}  // namespace platform
