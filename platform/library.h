// platform/library.h: loading a shared library and looking up entries.
//
// Threads: every function may be called from any thread; one Library object by one thread at a time.
#pragma once

#include <string_view>
#include <utility>

#include "platform/error_codes.h"

namespace platform {

// A loaded library; empty by default, unloads at its end. An entry that was looked up lives as long as the library.
class Library {
 public:
  Library() = default;
  ~Library();
  Library(Library&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}
  Library& operator=(Library&& other) noexcept;
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  explicit operator bool() const { return m_handle != nullptr; }

  // Loads `path`, a client's text of which NativePath makes the kernel's name. A name without a separator is searched
  // as the host searches libraries.
  //   out      untouched on failure, else what it held is unloaded
  //   returns  0; ERROR_MOD_NOT_FOUND (126): no such file, or a library that it needs is missing;
  //            ERROR_BAD_EXE_FORMAT (193): a file that is no library; ERROR_INVALID_NAME (123): empty, or with a NUL
  [[nodiscard]] static ErrorCode Load(std::u16string_view path, Library& out);

  // The program itself with everything linked in: its exported entries are found, nothing is loaded.
  [[nodiscard]] static ErrorCode OpenProgram(Library& out);

  // Looks up an exported entry.
  //   out      untouched on failure
  //   returns  0; ERROR_PROC_NOT_FOUND (127); ERROR_INVALID_HANDLE (6) on an empty object
  [[nodiscard]] ErrorCode Find(std::string_view entry, void*& out) const;

  // The same as a function of type F, as in FindFunction<int(int)>("Entry", pointer).
  template <class F>
  [[nodiscard]] ErrorCode FindFunction(std::string_view entry, F*& out) const {
    void* address = nullptr;
    const ErrorCode rc = Find(entry, address);
    if (rc == ERROR_SUCCESS) out = reinterpret_cast<F*>(address);
    return rc;
  }

 private:
  void* m_handle = nullptr;
};

}  // namespace platform
