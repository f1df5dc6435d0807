#include "platform/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

#include "platform/descriptor.h"
#include "platform/fault_point.h"
#include "platform/file_state.h"
#include "platform/mutex.h"
#include "platform/state_lock.h"

namespace platform {
namespace {

constexpr mode_t kNewFileMode = 0600;
constexpr mode_t kNewDirectoryMode = 0700;
constexpr std::string_view kOwnDirectory = "/Documents and Settings/";
constexpr std::size_t kReadChunk = 65536;
constexpr int kMaxLinks = 40;  // as many as the kernel follows

Mutex g_stateDirectoryMutex;
std::string g_stateDirectory QX_GUARDED_BY(g_stateDirectoryMutex);

// UTF-8, with lone surrogates in the three-byte form of their number, so that no two texts share a name.
void AppendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

std::string Utf8(std::u16string_view text) {
  std::string out;
  // A name is translated at each call on it, and nearly all of them are ASCII.
  char16_t units = 0;
  for (const char16_t unit : text) units |= unit;
  if (units < 0x80) {
    out.resize(text.size());
    std::transform(text.begin(), text.end(), out.begin(), [](char16_t unit) { return static_cast<char>(unit); });
    return out;
  }
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (c < 0x80) {
      out += static_cast<char>(c);
      continue;
    }
    const bool pair = c >= 0xD800 && c < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000;
    if (pair) c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
    AppendUtf8(out, c);
  }
  return out;
}

bool IsDirectory(const std::string& name) {
  struct stat info {};
  return ::stat(name.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The code of a failed call on `name`: a missing directory is told from a missing file.
ErrorCode CodeForName(int error, const std::string& name) {
  if (error == ENOENT) {
    return !name.empty() && IsDirectory(DirectoryOf(name)) ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
  }
  if (error == ENXIO) return ERROR_ACCESS_DENIED;  // a pipe or a device
  return ErrorCodeFromErrno(error);
}

template <typename Call>
auto Retry(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

// The name of what a symbolic link stands for, also where that doesn't exist yet.
ErrorCode FollowLinks(std::string& name) {
  for (int i = 0; i < kMaxLinks; ++i) {
    struct stat info {};
    if (::lstat(name.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) return ERROR_SUCCESS;
    char target[PATH_MAX];
    const ssize_t length = ::readlink(name.c_str(), target, sizeof target);
    if (length < 0) return CodeForName(errno, name);
    const std::string text(target, static_cast<std::size_t>(length));
    name = !text.empty() && text.front() == '/' ? text : DirectoryOf(name) + "/" + text;
  }
  return ERROR_PATH_NOT_FOUND;
}

// What the file has to hand down to the one that takes its place.
struct Predecessor {
  bool exists = false;
  struct stat info {};
};

ErrorCode LookAtPredecessor(const std::string& name, Predecessor& old) {
  if (::stat(name.c_str(), &old.info) != 0) {
    const ErrorCode rc = CodeForName(errno, name);
    return rc == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : rc;
  }
  old.exists = true;
  // The rename asks for nothing but a writable directory; a file that may not be written is to stay as it is.
  const bool writable = (old.info.st_mode & 0222) != 0 && ::faccessat(AT_FDCWD, name.c_str(), W_OK, AT_EACCESS) == 0;
  return S_ISREG(old.info.st_mode) && writable ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
}

ErrorCode InheritFrom(const Predecessor& old, int descriptor) {
  if (!old.exists) return ERROR_SUCCESS;
  // Only the superuser may give files away; for others the file becomes their own.
  if (old.info.st_uid != ::geteuid() || old.info.st_gid != ::getegid()) {
    [[maybe_unused]] const int ignored = ::fchown(descriptor, old.info.st_uid, old.info.st_gid);
  }
  return ::fchmod(descriptor, old.info.st_mode & 07777) == 0 ? ERROR_SUCCESS : ErrorCodeFromErrno(errno);
}

ErrorCode WriteBytes(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = Retry([&] { return ::write(descriptor, bytes.data(), bytes.size()); });
    if (written < 0) return ErrorCodeFromErrno(errno);
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return ERROR_SUCCESS;
}

//   descriptor  of the new file, not synced; -1 on failure
ErrorCode WriteNewFile(const std::string& name, std::string_view contents, const Predecessor& old, int& descriptor) {
  if (const ErrorCode rc = FaultAt(Operation::kCreateFile, name); rc != ERROR_SUCCESS) return rc;
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW;
  int opened = Retry([&] { return ::open(name.c_str(), kFlags, kNewFileMode); });
  if (opened < 0 && errno == EEXIST && ::unlink(name.c_str()) == 0) {
    opened = Retry([&] { return ::open(name.c_str(), kFlags, kNewFileMode); });
  }
  if (opened < 0) return errno == ENOENT ? ERROR_PATH_NOT_FOUND : CodeForName(errno, name);
  ErrorCode rc = InheritFrom(old, opened);
  if (rc == ERROR_SUCCESS) rc = FaultAt(Operation::kWriteFile, name);
  if (rc == ERROR_SUCCESS) rc = WriteBytes(opened, contents);
  if (rc == ERROR_SUCCESS) {
    descriptor = opened;
  } else {
    ::close(opened);
    ::unlink(name.c_str());
  }
  return rc;
}

// `flags` 0 or RENAME_NOREPLACE. A file system that doesn't know the flag is asked before.
int RenameAtOnce(const std::string& from, const std::string& to, unsigned flags) {
  const int renamed = ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags);
  if (renamed == 0 || flags == 0 || (errno != EINVAL && errno != ENOSYS)) return renamed;
  struct stat info {};
  if (::lstat(to.c_str(), &info) == 0) {
    errno = EEXIST;
    return -1;
  }
  return ::rename(from.c_str(), to.c_str());
}

// Tells those who read files ahead that a name changes.
struct NameChange {
  NameChange() { detail::CountFileChange(); }
  ~NameChange() { detail::CountFileChange(); }
  NameChange(const NameChange&) = delete;
  NameChange& operator=(const NameChange&) = delete;
};

ErrorCode Rename(const std::string& from, const std::string& to, Durable durable, unsigned flags) {
  if (const ErrorCode rc = FaultAt(Operation::kRenameFile, from); rc != ERROR_SUCCESS) return rc;
  const NameChange change;
  if (RenameAtOnce(from, to, flags) != 0) {
    const int error = errno;
    if (error == EEXIST) return ERROR_FILE_EXISTS;
    struct stat info {};
    const bool targetMissing = error == ENOENT && ::lstat(from.c_str(), &info) == 0;
    return targetMissing ? ERROR_PATH_NOT_FOUND : CodeForName(error, from);
  }
  if (durable == Durable::kNo) return ERROR_SUCCESS;
  const ErrorCode rc = SyncDirectory(DirectoryOf(to));
  if (rc != ERROR_SUCCESS || DirectoryOf(from) == DirectoryOf(to)) return rc;
  return SyncDirectory(DirectoryOf(from));
}

int FlagsOf(File::Access access) {
  switch (access) {
    case File::Access::kRead:
      return O_RDONLY;
    case File::Access::kWrite:
      return O_WRONLY;
    case File::Access::kReadWrite:
      return O_RDWR;
    case File::Access::kAppend:
      return O_WRONLY | O_APPEND;
  }
  return O_RDONLY;
}

struct OpenFlags {
  File::Disposition disposition;
  int flags;
};
constexpr OpenFlags kDispositions[] = {
    {File::Disposition::kOpenExisting, 0},
    {File::Disposition::kOpenAlways, O_CREAT},
    {File::Disposition::kCreateAlways, O_CREAT | O_TRUNC},
    {File::Disposition::kCreateNew, O_CREAT | O_EXCL},
    {File::Disposition::kTruncateExisting, O_TRUNC},
};

int FlagsOf(File::Access access, File::Disposition disposition) {
  const int mode = FlagsOf(access);
  int flags = 0;
  for (const OpenFlags& row : kDispositions) {
    if (row.disposition == disposition) flags = row.flags;
  }
  // Not blocking: the open of a pipe would wait for its other end. Regular files don't know the difference.
  return mode | flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
}

struct flock ByteLock(short type, std::uint64_t offset) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = static_cast<off_t>(offset);
  lock.l_len = 1;
  return lock;
}

bool FitsOffset(std::uint64_t offset) { return offset < static_cast<std::uint64_t>(INT64_MAX); }

}  // namespace

// --- names ---

void SetStateDirectory(std::string directory) {
  while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  const MutexLock lock(g_stateDirectoryMutex);
  g_stateDirectory = std::move(directory);
}

std::string StateDirectory() {
  const MutexLock lock(g_stateDirectoryMutex);
  return g_stateDirectory;
}

std::string NativePath(std::u16string_view clientPath) {
  std::string path = Utf8(clientPath);
  if (path.find('\0') != std::string::npos) return {};
  std::replace(path.begin(), path.end(), '\\', '/');
  if (path.starts_with(kOwnDirectory)) return StateDirectory() + path;
  const char letter = path.empty() ? '\0' : static_cast<char>(path.front() | 0x20);
  if (path.size() < 2 || path[1] != ':' || letter < 'a' || letter > 'z') return path;
  const std::string_view rest = std::string_view(path).substr(2);
  std::string drive = StateDirectory() + "/drives/" + letter;
  if (!rest.empty() && rest.front() != '/') drive += '/';
  return drive.append(rest);
}

ErrorCode AbsoluteName(std::string& name) {
  if (name.empty()) return ERROR_PATH_NOT_FOUND;
  std::string absolute = name;
  if (absolute.front() != '/') {
    if (const ErrorCode rc = FaultAt(Operation::kDirectoryExists, "."); rc != ERROR_SUCCESS) return rc;
    const std::unique_ptr<char, decltype(&std::free)> here(getcwd(nullptr, 0), &std::free);
    if (!here) return ErrorCodeFromErrno(errno);
    absolute = std::string(here.get()) + "/" + absolute;
  }
  while (absolute.size() > 1 && absolute.back() == '/') absolute.pop_back();
  name = std::move(absolute);
  return ERROR_SUCCESS;
}

std::string DirectoryOf(const std::string& name) {
  const std::size_t slash = name.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : name.substr(0, slash);
}

// --- whole files and directories ---

bool FileExists(const std::string& name) {
  if (FaultAt(Operation::kFileExists, name) != ERROR_SUCCESS) return false;
  struct stat info {};
  return ::stat(name.c_str(), &info) == 0 && !S_ISDIR(info.st_mode);
}

bool DirectoryExists(const std::string& name) {
  if (FaultAt(Operation::kDirectoryExists, name) != ERROR_SUCCESS) return false;
  return IsDirectory(name);
}

bool AreDifferentFiles(const std::string& a, const std::string& b) {
  if (FaultAt(Operation::kFileExists, a) != ERROR_SUCCESS) return false;
  struct stat first {}, second {};
  if (::stat(a.c_str(), &first) != 0 || ::stat(b.c_str(), &second) != 0) return false;
  return first.st_dev != second.st_dev || first.st_ino != second.st_ino;
}

ErrorCode DeleteFile(const std::string& name, Durable durable) {
  if (const ErrorCode rc = FaultAt(Operation::kDeleteFile, name); rc != ERROR_SUCCESS) return rc;
  const NameChange change;
  if (::unlink(name.c_str()) != 0) return CodeForName(errno, name);
  return durable == Durable::kYes ? SyncDirectory(DirectoryOf(name)) : ERROR_SUCCESS;
}

ErrorCode RenameFile(const std::string& from, const std::string& to, Durable durable) {
  return Rename(from, to, durable, 0);
}

ErrorCode RenameToNewFile(const std::string& from, const std::string& to, Durable durable) {
  return Rename(from, to, durable, RENAME_NOREPLACE);
}

ErrorCode CreateDirectories(const std::string& name) {
  if (const ErrorCode rc = FaultAt(Operation::kCreateDirectory, name); rc != ERROR_SUCCESS) return rc;
  if (name.empty()) return ERROR_PATH_NOT_FOUND;
  for (std::size_t end = name.find('/', 1);; end = name.find('/', end + 1)) {
    const std::string part = name.substr(0, end);
    if (::mkdir(part.c_str(), kNewDirectoryMode) == 0) {
      // What is written there durably must not be lost with the new name. Where the directory above may not be read,
      // that is left to the host.
      const ErrorCode rc = SyncDirectory(DirectoryOf(part));
      if (rc != ERROR_SUCCESS && rc != ERROR_ACCESS_DENIED) {
        (void)::rmdir(part.c_str());
        return rc;
      }
    } else if (!IsDirectory(part)) {
      const int error = errno == EISDIR ? EEXIST : errno;
      return error == ENOENT ? ERROR_PATH_NOT_FOUND : ErrorCodeFromErrno(error);
    }
    if (end == std::string::npos) return ERROR_SUCCESS;
  }
}

ErrorCode ListDirectory(const std::string& name, std::vector<std::string>& names) {
  if (const ErrorCode fault = FaultAt(Operation::kDirectoryExists, name); fault != ERROR_SUCCESS) return fault;
  if (name.empty()) return ERROR_PATH_NOT_FOUND;
  DIR* const directory = ::opendir(name.c_str());
  if (directory == nullptr) return ErrorCodeFromErrno(errno);
  std::vector<std::string> found;
  errno = 0;
  while (const dirent* entry = ::readdir(directory)) {
    const std::string_view entryName = entry->d_name;
    if (entryName != "." && entryName != "..") found.emplace_back(entryName);
    errno = 0;
  }
  const int error = errno;
  ::closedir(directory);
  if (error != 0) return ErrorCodeFromErrno(error);
  std::sort(found.begin(), found.end());
  names = std::move(found);
  return ERROR_SUCCESS;
}

ErrorCode SyncDirectory(const std::string& name) {
  if (const ErrorCode rc = FaultAt(Operation::kSyncFile, name); rc != ERROR_SUCCESS) return rc;
  const Descriptor opened(Retry([&] { return ::open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (opened.IsOpen() && Retry([&] { return ::fsync(opened.Get()); }) == 0) return ERROR_SUCCESS;
  // Some file systems have nothing to sync in a directory and say so.
  if (opened.IsOpen() && errno == EINVAL) return ERROR_SUCCESS;
  return errno == ENOENT ? ERROR_PATH_NOT_FOUND : CodeForName(errno, name);
}

ErrorCode ReadWholeFile(const std::string& name, std::string& contents) {
  File file;
  if (const ErrorCode rc = file.Open(name, File::Access::kRead, File::Disposition::kOpenExisting);
      rc != ERROR_SUCCESS) {
    return rc;
  }
  std::string bytes;
  if (const ErrorCode rc = file.ReadAll(bytes); rc != ERROR_SUCCESS) return rc;
  contents = std::move(bytes);
  return ERROR_SUCCESS;
}

ErrorCode ReplaceWholeFile(const std::string& name, std::string_view contents, Durable durable) {
  FileReplacement replacement;
  const ErrorCode rc = replacement.Begin(name, contents, durable);
  return rc == ERROR_SUCCESS ? replacement.Finish() : rc;
}

// --- replacements ---

ErrorCode FileReplacement::Begin(const std::string& name, std::string_view contents, Durable durable) {
  Discard();
  m_target = name;
  m_durable = durable;
  if (const ErrorCode rc = FollowLinks(m_target); rc != ERROR_SUCCESS) return rc;
  Predecessor old;
  if (const ErrorCode rc = LookAtPredecessor(m_target, old); rc != ERROR_SUCCESS) return rc;
  const std::size_t slash = m_target.rfind('/');
  const std::size_t last = slash == std::string::npos ? 0 : slash + 1;
  m_fresh = m_target.substr(0, last) + "." + m_target.substr(last) + ".new";
  return WriteNewFile(m_fresh, contents, old, m_descriptor);
}

void FileReplacement::HaveDiskBegin() const {
#ifdef SYNC_FILE_RANGE_WRITE
  if (m_descriptor < 0 || m_durable == Durable::kNo) return;
  [[maybe_unused]] const int ignored = ::sync_file_range(m_descriptor, 0, 0, SYNC_FILE_RANGE_WRITE);
#endif
}

bool FileReplacement::IsBegun() const {
  struct stat own {}, named {};
  return m_descriptor >= 0 && ::fstat(m_descriptor, &own) == 0 && ::lstat(m_fresh.c_str(), &named) == 0 &&
         own.st_dev == named.st_dev && own.st_ino == named.st_ino;
}

ErrorCode FileReplacement::LetAllRead() {
  if (m_descriptor < 0) return ERROR_INVALID_HANDLE;
  ErrorCode rc = FaultAt(Operation::kWriteFile, m_fresh);
  if (rc == ERROR_SUCCESS && ::fchmod(m_descriptor, 0644) != 0) rc = ErrorCodeFromErrno(errno);
  if (rc != ERROR_SUCCESS) Discard();
  return rc;
}

ErrorCode FileReplacement::Finish() {
  if (m_descriptor < 0) return ERROR_INVALID_HANDLE;
  ErrorCode rc = ERROR_SUCCESS;
  if (m_durable == Durable::kYes) {
    rc = FaultAt(Operation::kSyncFile, m_fresh);
    if (rc == ERROR_SUCCESS && Retry([&] { return ::fdatasync(m_descriptor); }) != 0) rc = ErrorCodeFromErrno(errno);
  }
  if (rc == ERROR_SUCCESS) rc = RenameFile(m_fresh, m_target);
  if (rc != ERROR_SUCCESS) {
    Discard();
    return rc;
  }
  ::close(std::exchange(m_descriptor, -1));
  return m_durable == Durable::kYes ? SyncDirectory(DirectoryOf(m_target)) : ERROR_SUCCESS;
}

void FileReplacement::Discard() {
  if (m_descriptor < 0) return;
  if (IsBegun()) ::unlink(m_fresh.c_str());
  ::close(std::exchange(m_descriptor, -1));
}

// --- open files ---

File& File::operator=(File&& other) noexcept {
  if (this != &other) {
    Close();
    m_descriptor = std::exchange(other.m_descriptor, -1);
  }
  return *this;
}

ErrorCode File::Open(const std::string& name, Access access, Disposition disposition) {
  Close();
  if (const ErrorCode rc = FaultAt(Operation::kCreateFile, name); rc != ERROR_SUCCESS) return rc;
  const int flags = FlagsOf(access, disposition);
  if ((flags & O_TRUNC) != 0 && access == Access::kRead) return ERROR_INVALID_PARAMETER;
  const int opened = Retry([&] { return ::open(name.c_str(), flags, kNewFileMode); });
  if (opened < 0) {
    if (errno == EEXIST) return ERROR_FILE_EXISTS;
    return CodeForName(errno, name);
  }
  struct stat info {};
  if (::fstat(opened, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(opened);
    return ERROR_ACCESS_DENIED;
  }
  m_descriptor = opened;
  return ERROR_SUCCESS;
}

void File::Close() {
  if (m_descriptor >= 0) ::close(std::exchange(m_descriptor, -1));
}

ErrorCode File::Size(std::uint64_t& bytes) const {
  if (const ErrorCode rc = FaultAt(Operation::kGetFileSize); rc != ERROR_SUCCESS) return rc;
  struct stat info {};
  if (::fstat(m_descriptor, &info) != 0) return ErrorCodeFromErrno(errno);
  bytes = static_cast<std::uint64_t>(info.st_size);
  return ERROR_SUCCESS;
}

ErrorCode File::SeekToEnd(std::uint64_t* offset) {
  if (const ErrorCode rc = FaultAt(Operation::kSetFilePointer); rc != ERROR_SUCCESS) return rc;
  const off_t end = ::lseek(m_descriptor, 0, SEEK_END);
  if (end < 0) return ErrorCodeFromErrno(errno);
  if (offset != nullptr) *offset = static_cast<std::uint64_t>(end);
  return ERROR_SUCCESS;
}

ErrorCode File::SeekTo(std::uint64_t offset) {
  if (const ErrorCode rc = FaultAt(Operation::kSetFilePointer); rc != ERROR_SUCCESS) return rc;
  if (!FitsOffset(offset)) return ERROR_INVALID_PARAMETER;
  return ::lseek(m_descriptor, static_cast<off_t>(offset), SEEK_SET) >= 0 ? ERROR_SUCCESS : ErrorCodeFromErrno(errno);
}

ErrorCode File::WriteAll(std::string_view bytes) {
  if (const ErrorCode rc = FaultAt(Operation::kWriteFile); rc != ERROR_SUCCESS) return rc;
  if (!IsOpen()) return ERROR_INVALID_HANDLE;
  return WriteBytes(m_descriptor, bytes);
}

ErrorCode File::CutBehind(std::uint64_t size) {
  if (const ErrorCode rc = FaultAt(Operation::kWriteFile); rc != ERROR_SUCCESS) return rc;
  if (!FitsOffset(size)) return ERROR_SUCCESS;
  struct stat info {};
  if (::fstat(m_descriptor, &info) != 0) return ErrorCodeFromErrno(errno);
  const auto end = static_cast<off_t>(size);
  if (info.st_size <= end) return ERROR_SUCCESS;
  return Retry([&] { return ::ftruncate(m_descriptor, end); }) == 0 ? ERROR_SUCCESS : ErrorCodeFromErrno(errno);
}

ErrorCode File::Read(std::span<char> buffer, std::size_t& count) {
  if (const ErrorCode rc = FaultAt(Operation::kReadFile); rc != ERROR_SUCCESS) return rc;
  if (!IsOpen()) return ERROR_INVALID_HANDLE;
  std::size_t done = 0;
  while (done < buffer.size()) {
    const ssize_t got = Retry([&] { return ::read(m_descriptor, buffer.data() + done, buffer.size() - done); });
    if (got < 0) return ErrorCodeFromErrno(errno);
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  count = done;
  return ERROR_SUCCESS;
}

ErrorCode File::ReadAll(std::string& bytes) {
  // One byte more than the file has tells its end with the first read.
  struct stat info {};
  const bool isSmall = ::fstat(m_descriptor, &info) == 0 && info.st_size < static_cast<off_t>(kReadChunk);
  std::string chunk(isSmall ? static_cast<std::size_t>(info.st_size) + 1 : kReadChunk, '\0');
  std::string all;
  for (std::size_t count = chunk.size(); count == chunk.size();) {
    if (const ErrorCode rc = Read(chunk, count); rc != ERROR_SUCCESS) return rc;
    all.append(chunk, 0, count);
  }
  bytes += all;
  return ERROR_SUCCESS;
}

ErrorCode File::Sync() {
  if (const ErrorCode rc = FaultAt(Operation::kSyncFile); rc != ERROR_SUCCESS) return rc;
  return Retry([&] { return ::fdatasync(m_descriptor); }) == 0 ? ERROR_SUCCESS : ErrorCodeFromErrno(errno);
}

ErrorCode File::LockByte(std::uint64_t offset) {
  if (const ErrorCode rc = FaultAt(Operation::kLockFile); rc != ERROR_SUCCESS) return rc;
  if (!FitsOffset(offset)) return ERROR_INVALID_PARAMETER;
  struct flock lock = ByteLock(F_WRLCK, offset);
  if (Retry([&] { return ::fcntl(m_descriptor, F_OFD_SETLK, &lock); }) == 0) return ERROR_SUCCESS;
  if (errno != EAGAIN && errno != EACCES) return ErrorCodeFromErrno(errno);
  // A call of its own, which a test hears too.
  if (const ErrorCode rc = FaultAt(Operation::kLockFile, "wait"); rc != ERROR_SUCCESS) return rc;
  return Retry([&] { return ::fcntl(m_descriptor, F_OFD_SETLKW, &lock); }) == 0 ? ERROR_SUCCESS
                                                                               : ErrorCodeFromErrno(errno);
}

ErrorCode File::TryLockByte(std::uint64_t offset) {
  if (const ErrorCode rc = FaultAt(Operation::kLockFile); rc != ERROR_SUCCESS) return rc;
  if (!FitsOffset(offset)) return ERROR_INVALID_PARAMETER;
  struct flock lock = ByteLock(F_WRLCK, offset);
  if (Retry([&] { return ::fcntl(m_descriptor, F_OFD_SETLK, &lock); }) == 0) return ERROR_SUCCESS;
  return errno == EAGAIN || errno == EACCES ? ERROR_LOCK_VIOLATION : ErrorCodeFromErrno(errno);
}

ErrorCode File::UnlockByte(std::uint64_t offset) {
  if (!FitsOffset(offset)) return ERROR_INVALID_PARAMETER;
  struct flock lock = ByteLock(F_UNLCK, offset);
  return ::fcntl(m_descriptor, F_OFD_SETLK, &lock) == 0 ? ERROR_SUCCESS : ErrorCodeFromErrno(errno);
}

ErrorCode LockStateDirectory(File& lock) {
  if (const ErrorCode rc = CreateDirectories(StateDirectory()); rc != ERROR_SUCCESS) return rc;
  File file;
  if (const ErrorCode rc = file.Open(StateLockFile(), File::Access::kWrite, File::Disposition::kOpenAlways);
      rc != ERROR_SUCCESS) {
    return rc;
  }
  if (const ErrorCode rc = file.TryLockByte(0); rc != ERROR_SUCCESS) return rc;
  lock = std::move(file);
  return ERROR_SUCCESS;
}

}  // namespace platform
