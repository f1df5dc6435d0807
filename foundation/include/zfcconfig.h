// foundation/include/zfcconfig.h: CConfigInfo, the product's settings of the user and of the system.
//
// Each operation has a user form, under HKEY_CURRENT_USER, and a system form, under HKEY_LOCAL_MACHINE. The path that
// it is given is combined: a rooted path is taken from there as it is; else, with a rooted base path, the base path and
// the path; else the product's key "Software\Korvane", the base path and the path. For a value operation the last
// element is the value's name. Annotations of paths have no effect. Each returns 1 on success and 0 on failure, and
// keeps the platform's code in LastError(). Targets stay untouched on failure. Threads: one at a time. There is one
// enumeration by steps at a time, of user and system together, and no lock.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <vector>

#include "foundation/include/zfcexport.h"
#include "foundation/include/zfcpath.h"
#include "foundation/include/zfcregistry.h"
#include "foundation/include/zfcstring.h"
#include "platform/error_codes.h"
#include "platform/registry.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

class CConfigInfo {  // the settings of user and program
 public:
  // The kinds of values that stepping tells; values of any other type are kNone.
  enum ValueType : std::int32_t { kNone = 0, kString = 1, kBinary = 3, kNumber = 4 };

  // The one of the process; made by the first call, lives to the process's end.
  static CConfigInfo& Instance();
  CConfigInfo(const CConfigInfo&) = delete;
  CConfigInfo& operator=(const CConfigInfo&) = delete;

  // What the last operation ended with; 259 (no more items) at the end of an enumeration by steps.
  [[nodiscard]] platform::ErrorCode LastError() const { return m_lastError; }
  [[nodiscard]] const CPath& BasePath() const { return m_basePath; }
  void BasePath(const CPath& path) { m_basePath = path; }

  // Writes the product's user and system paths, the base path and the last code, each on a line of its own.
  unsigned char Print(std::ostream& stream) const;

  // As CRegistry's FetchValue and SetValue.
  unsigned char GetUserValue(const CPath& path, std::uint32_t& value);
  unsigned char GetUserValue(const CPath& path, wcstring& value);
  unsigned char GetUserValue(const CPath& path, void* data, std::uint32_t& size);
  unsigned char GetSystemValue(const CPath& path, std::uint32_t& value);
  unsigned char GetSystemValue(const CPath& path, wcstring& value);
  unsigned char GetSystemValue(const CPath& path, void* data, std::uint32_t& size);
  unsigned char SetUserValue(const CPath& path, std::uint32_t value);
  unsigned char SetUserValue(const CPath& path, const wcstring& value);
  unsigned char SetUserValue(const CPath& path, const void* data, std::uint32_t size);
  unsigned char SetSystemValue(const CPath& path, std::uint32_t value);
  unsigned char SetSystemValue(const CPath& path, const wcstring& value);
  unsigned char SetSystemValue(const CPath& path, const void* data, std::uint32_t size);

  // Makes a key and those above it when absent.
  unsigned char CreateUserKey(const CPath& path);
  unsigned char CreateSystemKey(const CPath& path);
  // The text of a key's default value.
  unsigned char FetchUserKeyData(const CPath& path, wcstring& value);
  unsigned char FetchSystemKeyData(const CPath& path, wcstring& value);
  // As CRegistry's RemoveKey.
  unsigned char RemoveUser(const CPath& path, bool recursive);
  unsigned char RemoveSystem(const CPath& path, bool recursive);
  // As CRegistry's EnumerateKeys.
  unsigned char EnumerateUserKeys(const CPath& path, std::vector<KeyValue>& keys);
  unsigned char EnumerateSystemKeys(const CPath& path, std::vector<KeyValue>& keys);

  // Enumeration by steps, in order of names. The form with a path begins at its key and gives the first item; the form
  // without one gives the next, user and system alike. The key stays open until the next beginning. 0 with 259 behind
  // the last item, 0 with 6 (invalid handle) where nothing was begun.
  unsigned char StepUserKey(const CPath& base, wcstring& name);
  unsigned char StepUserKey(wcstring& name);
  unsigned char StepSystemKey(const CPath& base, wcstring& name);
  unsigned char StepSystemKey(wcstring& name);
  unsigned char StepUserValue(const CPath& base, wcstring& name, ValueType& type);
  unsigned char StepUserValue(wcstring& name, ValueType& type);
  unsigned char StepSystemValue(const CPath& base, wcstring& name, ValueType& type);
  unsigned char StepSystemValue(wcstring& name, ValueType& type);

 private:
  CConfigInfo() = default;

  [[nodiscard]] CPath UserPath(const CPath& path) const;
  [[nodiscard]] CPath SystemPath(const CPath& path) const;
  unsigned char Done(const OsError& error) { return Done(error.m_code); }
  unsigned char Done(platform::ErrorCode code);
  unsigned char FetchKeyData(const CPath& whole, wcstring& value);
  unsigned char BeginSteps(const CPath& base, const CPath& whole);
  unsigned char NextKey(wcstring& name);
  unsigned char NextValue(wcstring& name, ValueType& type);

  platform::RegistryKey m_stepKey;  // of the running enumeration
  std::uint32_t m_stepIndex = 0;    // of its next item
  CPath m_stepPath;                 // its base
  CPath m_basePath;                 // in front of relative paths
  platform::ErrorCode m_lastError = platform::ERROR_SUCCESS;
};

}  // namespace ZEP_FOUNDATION_API
