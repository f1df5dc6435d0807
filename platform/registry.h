// platform/registry.h: keys and typed values, kept in one SQLite file.
//
// Names compare without regard to case and keep the case they were made with. A key path is element names with "\"
// between them, without one in front; doubled and trailing separators count for nothing. A name has 1 to 255
// characters (a value's name 0 to 16383), none of them NUL; keys nest at most 512 deep.
//
// Writing: a thread's first write, also the making of a key, begins a batch; its later writes by any handle join it;
// the close of any handle that wrote commits all of it: then it is safe from a kill and a power cut. Every handle of
// the process sees what was set at once, other processes see it after the commit. While a batch is open, other threads
// and processes wait with their writes: close a handle that wrote as soon as possible, take no lock while one is open.
// A batch that the disk refuses is lost as a whole; every handle that wrote into it then refuses further writes and
// gives the code at its close. So look at the code of Close().
//
// A new store holds the keys "SOFTWARE" and "SYSTEM" of kLocalMachine, "Software" of kCurrentUser, ".DEFAULT" of
// kUsers.
//
// Failures of any call, beside those told at it:
//   ERROR_INVALID_HANDLE (6)       no open key, or one of a store that was closed since; a root that isn't there
//   ERROR_KEY_DELETED (1018)       the key was deleted since it was opened
//   ERROR_BADDB (1009)             no store is open
//   ERROR_DISK_FULL (112), ERROR_BUSY (170: another process kept the file, or another thread one batch open, for 5
//   seconds), ERROR_ACCESS_DENIED (5: the file is read-only), ERROR_REGISTRY_CORRUPT (1015),
//   ERROR_REGISTRY_IO_FAILED (1016; also of a commit when the file or its log was removed or replaced since the store
//   was opened: nobody would find there what is written), ERROR_NOT_ENOUGH_MEMORY (8)
// Outputs stay untouched on failure unless told otherwise.
// Threads: any function on any; one lock is held per call, never between calls. A RegistryKey is one's at a time.
//
// Types, access rights and codes have the values of the published headers (winnt.h, winerror.h, winreg.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error_codes.h"

namespace platform {

// Value types.
inline constexpr std::uint32_t REG_NONE = 0;
inline constexpr std::uint32_t REG_SZ = 1;         // UTF-16, little end first, with a terminator
inline constexpr std::uint32_t REG_EXPAND_SZ = 2;  // as REG_SZ
inline constexpr std::uint32_t REG_BINARY = 3;
inline constexpr std::uint32_t REG_DWORD = 4;     // 32 bits, little end first
inline constexpr std::uint32_t REG_MULTI_SZ = 7;  // strings each with a terminator, then one more

// Access rights of an open key.
inline constexpr std::uint32_t KEY_QUERY_VALUE = 0x1;
inline constexpr std::uint32_t KEY_SET_VALUE = 0x2;
inline constexpr std::uint32_t KEY_CREATE_SUB_KEY = 0x4;
inline constexpr std::uint32_t KEY_ENUMERATE_SUB_KEYS = 0x8;
inline constexpr std::uint32_t KEY_NOTIFY = 0x10;
inline constexpr std::uint32_t KEY_READ = 0x20019;
inline constexpr std::uint32_t KEY_WRITE = 0x20006;
inline constexpr std::uint32_t KEY_ALL_ACCESS = 0xF003F;

inline constexpr std::size_t kMaxKeyNameLength = 255;      // characters
inline constexpr std::size_t kMaxValueNameLength = 16383;  // characters
inline constexpr std::uint32_t kMaxKeyDepth = 512;         // elements below a root

// The roots, by their published numbers. Each is a tree of its own in the one store. kPerformanceData and kDynData are
// never there.
enum class Hive : std::uint32_t {
  kClassesRoot = 0x80000000,
  kCurrentUser = 0x80000001,
  kLocalMachine = 0x80000002,
  kUsers = 0x80000003,
  kPerformanceData = 0x80000004,
  kCurrentConfig = 0x80000005,
  kDynData = 0x80000006,
};

// --- The store ---

// Opens the process's store and makes it when absent (mode 0600).
//   nativePath  the file; its directory must exist
//   why         when given, gets a sentence about a failure, with the file's name
//   returns     ERROR_PATH_NOT_FOUND (3): no such directory; ERROR_BUSY (170): a store is open already, or another
//               process keeps the file; ERROR_NOT_SUPPORTED (50): written by a newer version of this program, left
//               unchanged; ERROR_REGISTRY_CORRUPT (1015): damaged, or no store of ours
[[nodiscard]] ErrorCode OpenRegistryStore(const std::string& nativePath, std::string* why = nullptr);

// Closes the store, whatever the code; keys that are still open become invalid. This thread's batch is committed, that
// of another waited for, and lost when that takes too long: ERROR_BUSY (170). ERROR_BADDB (1009): no store is open.
ErrorCode CloseRegistryStore();

[[nodiscard]] bool IsRegistryStoreOpen();

// Reads the whole file, open or not, and checks its structure. `where` gets what was found first, one a line.
//   returns  ERROR_FILE_NOT_FOUND (2), ERROR_PATH_NOT_FOUND (3) and other codes of files; ERROR_NOT_SUPPORTED (50):
//            written by a newer version of this program; ERROR_REGISTRY_CORRUPT (1015): damaged, or no store of ours
[[nodiscard]] ErrorCode CheckRegistryStore(const std::string& nativePath, std::string& where);

// Copies a damaged store and its write-ahead log beside it ("registry.db.damaged", then "registry.db.damaged.2" and so
// on); an equal copy that is there already is taken. The store itself stays as it is.
//   copyPath  gets the copy's name
//   returns   ERROR_BUSY (170) while a store is open; codes of files
[[nodiscard]] ErrorCode KeepDamagedCopy(const std::string& nativePath, std::string& copyPath);

// Reads "HKLM\SOFTWARE\...": a root's long or short name in any case, then nothing or "\" and the sub key's path.
// False for any other text.
[[nodiscard]] bool ParseKeyPath(std::u16string_view text, Hive& hive, std::u16string& subKey);

// --- Keys ---

namespace detail {
struct RegistryKeyState;
}

// An open key. Empty by default; the destructor closes and drops the code, so close explicitly after writing.
class RegistryKey {
 public:
  RegistryKey() noexcept;
  RegistryKey(RegistryKey&& other) noexcept;
  RegistryKey& operator=(RegistryKey&& other) noexcept;  // closes what it held
  RegistryKey(const RegistryKey&) = delete;
  RegistryKey& operator=(const RegistryKey&) = delete;
  ~RegistryKey();

  // Closes the key; when it wrote, commits the open batch. The key is empty afterwards, whatever the code.
  //   returns  ERROR_INVALID_HANDLE (6) when empty; the code of the failed commit or of the lost batch, of which
  //            nothing remains
  ErrorCode Close();

  [[nodiscard]] bool IsOpen() const { return m_state != nullptr; }
  explicit operator bool() const { return IsOpen(); }

 private:
  friend struct detail::RegistryKeyState;
  std::unique_ptr<detail::RegistryKeyState> m_state;
};

// Opens a key that exists. An empty path opens the parent once more.
//   access   KEY_ rights of the new handle
//   out      may be the parent itself; what it held is closed; empty after a failure
//   returns  ERROR_FILE_NOT_FOUND (2): no such key; ERROR_BAD_PATHNAME (161): a separator in front;
//            ERROR_INVALID_PARAMETER (87): a name too long or with a NUL
[[nodiscard]] ErrorCode OpenKey(Hive parent, std::u16string_view subKey, std::uint32_t access, RegistryKey& out);
[[nodiscard]] ErrorCode OpenKey(const RegistryKey& parent, std::u16string_view subKey, std::uint32_t access,
                                RegistryKey& out);

// Opens a key, makes it and those above it when absent: all of them or none.
//   created  when given: whether the last key is new; an empty path says so too, though it only opens the parent
//   returns  as OpenKey(); ERROR_INVALID_PARAMETER (87) also for a new direct child of kLocalMachine or kUsers and for
//            a key nested too deep
[[nodiscard]] ErrorCode CreateKey(Hive parent, std::u16string_view subKey, std::uint32_t access, RegistryKey& out,
                                  bool* created = nullptr);
[[nodiscard]] ErrorCode CreateKey(const RegistryKey& parent, std::u16string_view subKey, std::uint32_t access,
                                  RegistryKey& out, bool* created = nullptr);

struct KeyInfo {  // what a key holds, in numbers
  std::uint32_t subKeyCount = 0;
  std::uint32_t maxSubKeyLength = 0;  // characters, without a terminator
  std::uint32_t valueCount = 0;
  std::uint32_t maxValueNameLength = 0;  // characters, without a terminator
  std::uint32_t maxValueLength = 0;      // bytes
};
// ERROR_ACCESS_DENIED (5) without KEY_QUERY_VALUE.
[[nodiscard]] ErrorCode QueryInfoKey(const RegistryKey& key, KeyInfo& out);

// Deletes one key with its values. The rights of `parent` don't matter. With a handle the deletion belongs to the
// batch of that handle; with a root it is committed at once.
//   subKey   an empty path is the parent itself; a view without data (nullptr) is refused
//   returns  ERROR_FILE_NOT_FOUND (2); ERROR_ACCESS_DENIED (5): it has sub keys, or is a root;
//            ERROR_INVALID_PARAMETER (87): no data; ERROR_BAD_PATHNAME (161)
[[nodiscard]] ErrorCode DeleteKey(Hive parent, std::u16string_view subKey);
[[nodiscard]] ErrorCode DeleteKey(const RegistryKey& parent, std::u16string_view subKey);

// Deletes a key with all below it: all or nothing. Otherwise as DeleteKey().
[[nodiscard]] ErrorCode DeleteTree(Hive parent, std::u16string_view subKey);
[[nodiscard]] ErrorCode DeleteTree(const RegistryKey& parent, std::u16string_view subKey);

// --- Values. The default value's name is empty. ---

// Reads a value into the caller's buffer.
//   type     when given, gets the type, also with ERROR_MORE_DATA
//   data     null asks for the size only
//   size     in: bytes at `data`; out: bytes of the value, also with ERROR_MORE_DATA
//   returns  ERROR_FILE_NOT_FOUND (2): no such value; ERROR_MORE_DATA (234): buffer too small, untouched;
//            ERROR_INVALID_PARAMETER (87): data without size; ERROR_ACCESS_DENIED (5) without KEY_QUERY_VALUE
[[nodiscard]] ErrorCode QueryValue(const RegistryKey& key, std::u16string_view name, std::uint32_t* type, void* data,
                                   std::uint32_t* size);
// The same, whatever the size.
[[nodiscard]] ErrorCode QueryValueBytes(const RegistryKey& key, std::u16string_view name, std::uint32_t& type,
                                        std::vector<std::byte>& data);

// Sets a value of any type. Text (REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ) of a whole number of characters, at least one,
// that doesn't end with a terminator gets one behind it; nothing else is looked at.
//   returns  ERROR_ACCESS_DENIED (5) without KEY_SET_VALUE; ERROR_NOACCESS (998): null data with a size;
//            ERROR_INVALID_PARAMETER (87): a name too long or with a NUL
[[nodiscard]] ErrorCode SetValue(const RegistryKey& key, std::u16string_view name, std::uint32_t type, const void* data,
                                 std::uint32_t size);
[[nodiscard]] ErrorCode SetValue(const RegistryKey& key, std::u16string_view name, std::uint32_t type,
                                 std::span<const std::byte> data);
// The same without the added terminator: the bytes are stored as they are.
[[nodiscard]] ErrorCode SetRawValue(const RegistryKey& key, std::u16string_view name, std::uint32_t type,
                                    std::span<const std::byte> data);
// REG_SZ with its terminator.
[[nodiscard]] ErrorCode SetString(const RegistryKey& key, std::u16string_view name, std::u16string_view value);
[[nodiscard]] ErrorCode SetDword(const RegistryKey& key, std::u16string_view name, std::uint32_t value);

// ERROR_FILE_NOT_FOUND (2): no such value; ERROR_ACCESS_DENIED (5) without KEY_SET_VALUE.
[[nodiscard]] ErrorCode DeleteValue(const RegistryKey& key, std::u16string_view name);

// Reads a text with the check that every reader of a text needs: REG_SZ, REG_EXPAND_SZ or REG_MULTI_SZ, a whole number
// of characters, a terminator at the end (REG_MULTI_SZ: two, so at least four bytes).
//   out      the characters before the first terminator
//   returns  ERROR_INVALID_DATA (13) when the check fails; else as QueryValue()
[[nodiscard]] ErrorCode ReadRegistryString(const RegistryKey& key, std::u16string_view name, std::u16string& out);
// Reads a number. ERROR_INVALID_DATA (13): not REG_DWORD, or shorter than 4 bytes; ERROR_MORE_DATA (234): longer.
[[nodiscard]] ErrorCode ReadRegistryDword(const RegistryKey& key, std::u16string_view name, std::uint32_t& out);

// --- Enumeration: in order of names, from index 0 until ERROR_NO_MORE_ITEMS (259). Rising by one it costs the same at
// every step while nothing changes; after a change each index counts in the new order. ---

// Name of a sub key.
//   name     gets the name with a terminator
//   length   in: characters at `name`; out: characters without the terminator, unchanged on failure
//   returns  ERROR_MORE_DATA (234): too small; ERROR_ACCESS_DENIED (5) without KEY_ENUMERATE_SUB_KEYS
[[nodiscard]] ErrorCode EnumKey(const RegistryKey& key, std::uint32_t index, char16_t* name, std::uint32_t* length);
[[nodiscard]] ErrorCode EnumKey(const RegistryKey& key, std::uint32_t index, std::u16string& name);

// Name, type and data of a value. type, data and size as in QueryValue(): with too little room for the data the name,
// the type and the size are given; with too little room for the name nothing is.
//   returns  ERROR_MORE_DATA (234): too small; ERROR_ACCESS_DENIED (5) without KEY_QUERY_VALUE
[[nodiscard]] ErrorCode EnumValue(const RegistryKey& key, std::uint32_t index, char16_t* name, std::uint32_t* length,
                                  std::uint32_t* type, void* data, std::uint32_t* size);
[[nodiscard]] ErrorCode EnumValue(const RegistryKey& key, std::uint32_t index, std::u16string& name,
                                  std::uint32_t& type, std::vector<std::byte>& data);

}  // namespace platform
