#include "platform/library.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <string>

#include "platform/fault_point.h"
#include "platform/file.h"
#include "platform/text.h"

namespace platform {

Library::~Library() {
  if (m_handle != nullptr) dlclose(m_handle);
}

Library& Library::operator=(Library&& other) noexcept {
  if (this == &other) return *this;
  if (m_handle != nullptr) dlclose(m_handle);
  m_handle = std::exchange(other.m_handle, nullptr);
  return *this;
}

ErrorCode Library::Load(std::u16string_view path, Library& out) {
  if (const ErrorCode fault = FaultAt(Operation::kLoadLibrary, Utf8FromWide(path)); fault != ERROR_SUCCESS)
    return fault;
  const std::string narrow = NativePath(path);
  if (narrow.empty()) return ERROR_INVALID_NAME;
  Library loaded;
  loaded.m_handle = dlopen(narrow.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (loaded.m_handle == nullptr) {
    // The loader tells its reasons in prose only: a regular file that is no library is told apart by looking at it.
    struct stat info {};
    const bool isFile = narrow.find('/') != std::string::npos && stat(narrow.c_str(), &info) == 0;
    if (!isFile) return ERROR_MOD_NOT_FOUND;
    const char* reason = dlerror();
    const bool missesOther =
        reason != nullptr && std::string_view(reason).find("No such file") != std::string_view::npos;
    return missesOther ? ERROR_MOD_NOT_FOUND : ERROR_BAD_EXE_FORMAT;
  }
  out = std::move(loaded);
  return ERROR_SUCCESS;
}

ErrorCode Library::OpenProgram(Library& out) {
  if (const ErrorCode fault = FaultAt(Operation::kLoadLibrary); fault != ERROR_SUCCESS) return fault;
  Library program;
  program.m_handle = dlopen(nullptr, RTLD_NOW);
  if (program.m_handle == nullptr) return ERROR_MOD_NOT_FOUND;
  out = std::move(program);
  return ERROR_SUCCESS;
}

ErrorCode Library::Find(std::string_view entry, void*& out) const {
  if (const ErrorCode fault = FaultAt(Operation::kGetProcAddress, entry); fault != ERROR_SUCCESS) return fault;
  if (m_handle == nullptr) return ERROR_INVALID_HANDLE;
  if (entry.find('\0') != std::string_view::npos) return ERROR_PROC_NOT_FOUND;
  void* address = dlsym(m_handle, std::string(entry).c_str());
  if (address == nullptr) return ERROR_PROC_NOT_FOUND;
  out = address;
  return ERROR_SUCCESS;
}

}  // namespace platform
