// platform/profile.h: the text files of schedules (private-profile calls), section by section.
//
// A file is lines "key=value" under lines "[section]", ended by CR LF, in the system code page (text.h); a file that
// begins with a UTF-16LE mark is read and kept as UTF-16LE. Sections and keys compare without regard to case and to
// blanks around them; of duplicates the first counts. Lines that begin with ";" are comments.
// A file is replaced as a whole: a reader sees the old text or the new one, never a part. A symbolic link is followed,
// and the file's mode and owner are kept. Every call looks at the file anew; nothing is remembered between calls,
// except in a ProfileBatch.
//
// Paths are the client's text; only NativePath (file.h) makes a kernel name of it. A section, key or default whose
// data() is null stands for the null pointer of the described system; texts end at their first NUL.
// Threads: every function may be called from any thread. Writers of one process take turns, so that two threads that
// write two keys of a file both succeed; between calls nothing is locked.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "platform/error_codes.h"

namespace platform {

// The longest file that is read: twice what a message of the bus can bring into one.
inline constexpr std::uint64_t kMostProfileBytes = std::uint64_t{256} << 20;

namespace detail {
struct ProfileBatchState;
}

// Reads the integer at the beginning of a value: blanks, a sign, then decimal digits, or digits behind 0x, 0o or 0b
// (lower case only); whatever follows is left out. The result wraps modulo 2^32; a text without digits gives 0.
//   value    always set: the integer; `defaultValue` when the file, the section, the key or its text is missing or the
//            call failed; 0 for a null section or key
//   returns  ERROR_SUCCESS (0), also for a missing section or key;
//            ERROR_FILE_NOT_FOUND (2) or ERROR_PATH_NOT_FOUND (3): no such file or directory;
//            ERROR_ACCESS_DENIED (5): not readable, or no regular file;
//            ERROR_FILE_TOO_LARGE (223): above kMostProfileBytes, more than any call writes
ErrorCode GetProfileInt(std::u16string_view path, std::u16string_view section, std::u16string_view key,
                        std::int32_t defaultValue, std::int32_t& value);

// Reads a value as text: blanks around it are dropped, then one pair of equal quotes (' or ") around all of it.
//   defaultText  what a missing file, section or key gives, less the blanks at its end and one pair of quotes
//   buffer   receives at most size - 1 units and a NUL; an empty buffer stays as it is
//   length   always set: the units in front of that NUL
//   returns  as GetProfileInt; the buffer then holds the default
ErrorCode GetProfileString(std::u16string_view path, std::u16string_view section, std::u16string_view key,
                           std::u16string_view defaultText, std::span<char16_t> buffer, std::uint32_t& length);

// A text less one pair of equal quotes (' or ") around all of it, as a value is read.
[[nodiscard]] std::u16string_view WithoutQuotes(std::u16string_view text);

// What GetProfileSection found.
struct ProfileSectionText {
  std::uint32_t length = 0;         // units in the buffer without the last NUL; size - 2 when the buffer was too small
  std::uint32_t completeLines = 0;  // strings at the buffer's beginning that are whole lines; the next one is cut
};

// Reads all lines of a section but comments and blank lines, in file order, as strings of key, "=", value with one NUL
// behind each and one more at the end. Quotes stay (see WithoutQuotes()), blanks around key and value go, a line without
// "=" comes as it is.
//   buffer   a text that doesn't fit is cut after size - 2 units, inside a line if need be
//   out      always set; nothing found gives 0 and 0
//   returns  as GetProfileInt; the buffer then is empty
ErrorCode GetProfileSection(std::u16string_view path, std::u16string_view section, std::span<char16_t> buffer,
                            ProfileSectionText& out);

// Writes `key` of `section`: in place when the key is there, else behind the section's last line; creates section and
// file when absent (file mode 0600). Lines are written anew as they were understood: blank lines and blanks around "="
// go, every line ends in CR LF. A value's leading blanks go. A write that changes nothing leaves the file alone.
// Not synced: visible to every reader at once, safe from a power cut only by a ProfileBatch.
//   key      null data(): the whole section is removed
//   value    null removes the key (a missing file is created empty); borrowed for the call
//   returns  ERROR_SUCCESS (0);
//            ERROR_PATH_NOT_FOUND (3): no such directory;
//            ERROR_ACCESS_DENIED (5): an empty path, a directory, a read-only file, or this thread's batch on this path
//            is one for loading;
//            ERROR_INVALID_PARAMETER (87): an empty or null section or an empty key;
//            ERROR_DISK_FULL (112) and other codes of the host. After any failure the old file is untouched.
[[nodiscard]] ErrorCode WriteProfileString(std::u16string_view path, std::u16string_view section,
                                           std::u16string_view key, const char16_t* value);

// The same for texts in the system code page, the path included.
[[nodiscard]] ErrorCode WriteProfileStringNarrow(std::string_view path, std::string_view section, std::string_view key,
                                                 const char* value);

// Gathers the profile calls that the making thread makes on one path, until the batch is destroyed. The file is read
// and parsed once, at the latest by the first such call. Calls of other threads, and on other paths, don't see the batch.
// Bound to its thread; batches of one thread end in the reverse order of their beginning. Of two batches on one path
// the younger takes the calls.
class ProfileBatch {
 public:
  enum Purpose {
    kSave,  // writes stay in memory until Commit(); reads see them
    kLoad,  // reads only: writes are refused with ERROR_ACCESS_DENIED
  };

  //   path  the client's text; copied
  ProfileBatch(std::u16string_view path, Purpose purpose);
  // Without a Commit() that succeeded nothing was written, and nothing will be.
  ~ProfileBatch();
  ProfileBatch(const ProfileBatch&) = delete;
  ProfileBatch& operator=(const ProfileBatch&) = delete;

  // Reads the file now instead of at the first call.
  //   returns  ERROR_SUCCESS (0), also for a missing file, which is read as an empty one; codes of files
  [[nodiscard]] ErrorCode Read();
  // The file's bytes as Read() found them; empty before that and for a missing file. Until the next Commit().
  [[nodiscard]] std::string_view Bytes() const;
  // The code of the first call into this batch that failed for another reason than a missing file; 0 when none did.
  // Readers get their default from a failed call: this tells that it wasn't the file's.
  [[nodiscard]] ErrorCode FirstFailure() const;

  // Writes the new file that Commit() will put in place and has the disk begin with it, for whoever has other work for
  // the disk before. A failure is kept for Commit(). A call for more writes takes the file away again.
  void Prepare();

  // Puts all writes so far into the file at once: one new file, synced, renamed, its directory synced. When the file
  // changed since the batch read it, the writes are made again on its present text. The bytes are those that the
  // single calls would have left. Without writes that change something the file is left alone.
  //   returns  ERROR_SUCCESS (0): on disk and safe from a power cut; the batch goes on from the new text;
  //            a code of WriteProfileString: the old file is untouched and the writes are still gathered; only a failed
  //            sync of the directory, the last step, leaves the new text (readers see it; a power cut may bring the old
  //            one back);
  //            the code of the first write into this batch that failed, with nothing written, now and later;
  //            ERROR_INVALID_FUNCTION (1): a batch for loading
  [[nodiscard]] ErrorCode Commit();

 private:
  std::unique_ptr<detail::ProfileBatchState> m_state;
};

// Commit() of the calling thread's youngest batch for saving; ERROR_INVALID_FUNCTION (1) when it has none.
[[nodiscard]] ErrorCode CommitProfiles();

}  // namespace platform
