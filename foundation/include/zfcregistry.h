// foundation/include/zfcregistry.h: CRegistry, registry keys and values by paths.
//
// A registry path is a rooted CPath with "\" as separator: the name of a root, then keys; for a value operation its
// last element is the value's name. Root names match exactly: "HKEY_CLASSES_ROOT" or "HKCR", "HKEY_CURRENT_USER" or
// "HKCU", "HKEY_LOCAL_MACHINE" or "HKLM", "HKEY_USERS" or "HKU", "HKEY_CURRENT_CONFIG" or "HKCC",
// "HKEY_PERFORMANCE_DATA", "HKEY_DYN_DATA". The store itself is that of platform/registry.h and must be open
// (ERROR_BADDB (1009) otherwise).
//
// Nothing is thrown on a failure: every operation gives an OsError by value. Codes beside those told at an operation:
//   161 (bad path name)  a path without elements, without a root in front, or with a root name that doesn't exist
//   2 (file not found)   no such key or value
//   the others of platform/registry.h
// Targets stay untouched on failure unless told otherwise. What was written is safe when the code is 0.
// Threads: any; the path belongs to the caller's thread.
#pragma once

#include <cstdint>
#include <type_traits>
#include <variant>
#include <vector>

#include "foundation/include/zfcabsolutepath.h"
#include "foundation/include/zfcexport.h"
#include "foundation/include/zfcpath.h"
#include "foundation/include/zfcstring.h"
#include "foundation/include/zfcxplat.h"
#include "platform/error_codes.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

// How an operation ended.
struct OsError {
  XPlat::OSID m_platform = XPlat::GetOSID();
  platform::ErrorCode m_code = platform::ERROR_SUCCESS;
  wcstring m_text;  // always empty

  [[nodiscard]] bool Succeeded() const { return m_code == platform::ERROR_SUCCESS; }
};

// One sub key.
struct KeyValue {
  wcstring m_name;
  wcstring m_value;  // its default value; empty when there is none or it is no text
};

// One value. Of a type that the record has no form for the number is 0.
struct RegValue {
  static constexpr std::size_t kNameSize = 260;   // characters, with the terminator
  static constexpr std::size_t kBytesSize = 255;  // of binary data
  struct Bytes {  // a binary value
    std::uint16_t m_length = 0;
    unsigned char m_data[kBytesSize] = {};
  };

  std::uint32_t m_type = 0;         // 1 text, 3 binary, 4 double word, other types by their number
  char16_t m_name[kNameSize] = {};  // empty for the default value
  std::variant<std::uint32_t, wcstring, Bytes> m_data;
};

class CRegistry {  // the key store by paths
 public:
  // The one of the process; made by the first call, lives to the process's end.
  static CRegistry& Instance();
  CRegistry(const CRegistry&) = delete;
  CRegistry& operator=(const CRegistry&) = delete;

  // Makes the key and those above it when absent.
  //   keyClass  given to the last key; the store keeps no classes, so it has no effect
  OsError CreateKey(const CPath& path, const wcstring& keyClass);

  // Deliberate: fetches nothing. EnumerateKeys tells default values.
  //   value    untouched
  //   returns  120 where the path's root is one, 161 (bad path) where it isn't; the key itself isn't looked at
  OsError FetchKeyValue(const CPath& path, wcstring& value);

  // Deletes the value of that name where there is one, else the key; neither where the store can't tell.
  //   recursive  with all keys below it; the first failure ends the operation, and what was deleted so far stays so
  //   returns    5 (access denied): a key with keys below it and not `recursive`
  OsError RemoveKey(const CPath& path, bool recursive);
  // RemoveKey(path, false).
  OsError RemoveValue(const CPath& path);

  // Sets a value of the type double word, text (with its terminator) or binary; makes the key when absent.
  OsError SetValue(const CPath& path, std::uint32_t value);
  OsError SetValue(const CPath& path, const wcstring& value);
  OsError SetValue(const CPath& path, const void* data, std::uint32_t size);
  // A flag or a character is no value; a text literal is text.
  template <class T>
  requires std::is_same_v<T, bool> || std::is_same_v<T, char16_t> OsError SetValue(const CPath& path, T value)
  = delete;

  // Reads a value.
  // As a number: four bytes of any type; 234 (more data) for more, 13 (invalid data) for fewer.
  // As text: text of any length up to its first zero; 13 for other types and an odd size, 234 for one that grows while
  // it is read.
  // As data: `size` is, in, bytes at `data`, out, bytes of the value, also with 234, for which `data` is too small.
  OsError FetchValue(const CPath& path, std::uint32_t& number);
  OsError FetchValue(const CPath& path, wcstring& text);
  OsError FetchValue(const CPath& path, void* data, std::uint32_t& size);

  // Writes a key with all below it to a file of that name, in the form of platform/registry_save.h.
  //   file     the client's text of a path, without annotations
  //   returns  183 (already exists): there is such a file, left as it is
  OsError SaveKey(const CPath& path, const CAbsolutePath& file);

  // Appends a record for each sub key or value, in order of names. On a failure the records so far are there.
  // Deliberate: names take at most 254 characters and data 255 bytes; what is longer ends the list with 234 (more
  // data).
  OsError EnumerateKeys(const CPath& path, std::vector<KeyValue>& keys);
  OsError EnumerateValues(const CPath& path, std::vector<RegValue>& values);

 private:
  CRegistry() = default;
};

}  // namespace ZEP_FOUNDATION_API
