#include "service/service_registration.h"

#include <cstdio>
#include <utility>
#include <vector>

#include "interface/records.h"
#include "platform/file.h"
#include "platform/host.h"
#include "platform/registry.h"
#include "platform/service_control.h"
#include "platform/service_record.h"
#include "platform/text.h"
#include "service/ini_path.h"
#include "service/schedule_store.h"

namespace qx {
namespace {

using platform::ERROR_FILE_NOT_FOUND;
using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using platform::Hive;
using platform::RegistryKey;

// One value of a key below HKEY_CLASSES_ROOT; an empty name is the default value.
struct Entry {
  std::u16string key;
  std::u16string name;
  std::u16string value;
};

std::u16string Text(std::u16string_view text) {
  return std::u16string(text);
}

std::u16string ClassKey() {
  return u"CLSID\\" + platform::GuidText(CLSID_SchedulerService);
}
std::u16string LibraryKey() {
  return u"TypeLib\\" + platform::GuidText(LIBID_QXSCHEDSERVICELib);
}

// The application and the program that belongs to it.
std::vector<Entry> ApplicationEntries() {
  return {{ApplicationKey(), u"", Text(kServiceName)},
          {u"AppID\\" + Text(kProgramKey), u"AppID", platform::GuidText(kApplicationId)}};
}

// The class under its identifier and both its names.
std::vector<Entry> ClassEntries(const std::u16string& module) {
  const std::u16string classId = platform::GuidText(CLSID_SchedulerService);
  const std::u16string progId = Text(kProgId);
  const std::u16string independent = Text(kVersionIndependentProgId);
  return {
      {progId, u"", Text(kClassText)},
      {progId + u"\\CLSID", u"", classId},
      {independent, u"", Text(kClassText)},
      {independent + u"\\CLSID", u"", classId},
      {independent + u"\\CurVer", u"", progId},
      {ClassKey(), u"", Text(kClassText)},
      {ClassKey(), u"AppID", platform::GuidText(kApplicationId)},
      {ClassKey() + u"\\ProgID", u"", progId},
      {ClassKey() + u"\\VersionIndependentProgID", u"", independent},
      {ClassKey() + u"\\LocalServer32", u"", module},
      {ClassKey() + u"\\TypeLib", u"", platform::GuidText(LIBID_QXSCHEDSERVICELib)},
  };
}

struct NamedInterface {
  ScheduleGuid id;
  std::u16string_view name;
};
constexpr NamedInterface kInterfaces[] = {{IID_ISchedulerService, u"ISchedulerService"},
                                          {IID_ISchedulerServiceEvents, u"ISchedulerServiceEvents"}};

std::u16string InterfaceKey(const NamedInterface& entry) {
  return u"Interface\\" + platform::GuidText(entry.id);
}

// The type library and the interfaces that it describes.
std::vector<Entry> LibraryEntries(const std::u16string& module) {
  std::vector<Entry> entries = {{LibraryKey() + u"\\1.0", u"", u"QXSCHEDSERVICELib"},
                                {LibraryKey() + u"\\1.0\\0\\win32", u"", module},
                                {LibraryKey() + u"\\1.0\\FLAGS", u"", u"0"}};
  for (const NamedInterface& interface : kInterfaces) {
    entries.push_back({InterfaceKey(interface), u"", Text(interface.name)});
    entries.push_back({InterfaceKey(interface) + u"\\TypeLib", u"", platform::GuidText(LIBID_QXSCHEDSERVICELib)});
    entries.push_back({InterfaceKey(interface) + u"\\TypeLib", u"Version", u"1.0"});
  }
  return entries;
}

ErrorCode SetOneString(Hive hive, std::u16string_view keyPath, std::u16string_view name, std::u16string_view value) {
  RegistryKey key;
  if (const ErrorCode rc = platform::CreateKey(hive, keyPath, platform::KEY_ALL_ACCESS, key); rc != ERROR_SUCCESS) {
    return rc;
  }
  const ErrorCode set = platform::SetString(key, name, value);
  const ErrorCode closed = key.Close();
  return set != ERROR_SUCCESS ? set : closed;
}

ErrorCode Apply(const std::vector<Entry>& entries) {
  for (const Entry& entry : entries) {
    const ErrorCode rc = SetOneString(Hive::kClassesRoot, entry.key, entry.name, entry.value);
    if (rc != ERROR_SUCCESS) return rc;
  }
  return ERROR_SUCCESS;
}

// A tree that isn't there is removed already.
ErrorCode Remove(const std::u16string& keyPath) {
  const ErrorCode rc = platform::DeleteTree(Hive::kClassesRoot, keyPath);
  return rc == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : rc;
}

// What an installer of the suite makes.
ErrorCode CreateSuiteKeys() {
  const std::u16string installDirectory = platform::WideFromUtf8(platform::StateDirectory()) + u"\\";
  if (const ErrorCode rc = SetOneString(Hive::kLocalMachine, kVolumeManagerKey, u"INSTALLDIR", installDirectory);
      rc != ERROR_SUCCESS) {
    return rc;
  }
  for (const std::u16string_view path : {kProviderKey, kSchedulesKey}) {
    RegistryKey key;
    if (const ErrorCode rc = platform::CreateKey(Hive::kLocalMachine, path, platform::KEY_ALL_ACCESS, key);
        rc != ERROR_SUCCESS) {
      return rc;
    }
    if (const ErrorCode rc = key.Close(); rc != ERROR_SUCCESS) return rc;
  }
  return ERROR_SUCCESS;
}

// The values by which a start knows a service from a plain server.
ErrorCode SetKind(bool asService) {
  RegistryKey key;
  if (const ErrorCode rc = platform::OpenKey(Hive::kClassesRoot, ApplicationKey(), platform::KEY_ALL_ACCESS, key);
      rc != ERROR_SUCCESS) {
    return rc;
  }
  ErrorCode rc = platform::DeleteValue(key, u"LocalService");
  if (rc == ERROR_FILE_NOT_FOUND) rc = ERROR_SUCCESS;
  if (rc == ERROR_SUCCESS && asService) rc = platform::SetString(key, u"LocalService", kServiceTitle);
  if (rc == ERROR_SUCCESS && asService) rc = platform::SetString(key, u"ServiceParameters", u"-Service");
  const ErrorCode closed = key.Close();
  return rc != ERROR_SUCCESS ? rc : closed;
}

ErrorCode ComplainOf(ErrorCode code, std::u16string_view text) {
  Complain(text);
  return code;
}

std::u16string FileAndCode(const std::string& name, ErrorCode code) {
  return platform::WideFromUtf8(name + ", error " + std::to_string(code));
}

// Creates the service unless it is there.
ErrorCode Install(const std::string& account) {
  if (const ErrorCode rc = platform::OpenServiceManager(); rc != ERROR_SUCCESS) {
    return ComplainOf(rc, u"Couldn't open service manager");
  }
  if (platform::OpenService(kServiceName) == ERROR_SUCCESS) return ERROR_SUCCESS;
  std::u16string program;
  if (const ErrorCode rc = platform::ProgramFilePath(program); rc != ERROR_SUCCESS) {
    return ComplainOf(rc, u"Couldn't get module file name");
  }
  platform::ServiceRecord record;
  record.displayName = kServiceTitle;
  record.description = kServiceTitle;
  record.binaryPath = u"\"" + program + u"\"";
  record.dependency = u"RPCSS";
  record.account = platform::WideFromUtf8(account);
  if (const ErrorCode rc = platform::CreateServiceRecord(kServiceName, record); rc != ERROR_SUCCESS) {
    return ComplainOf(rc, u"Couldn't create service");
  }
  return ERROR_SUCCESS;
}

// The process that works on the state directory now; 0 for none. The number counts only while the lock is held: it
// stays in the store after a kill.
std::uint32_t RunningProcess() {
  platform::File lock;
  if (platform::LockStateDirectory(lock) != platform::ERROR_LOCK_VIOLATION) return 0;
  RegistryKey key;
  std::uint32_t process = 0;
  if (platform::OpenKey(Hive::kLocalMachine, kProviderKey, platform::KEY_READ, key) != ERROR_SUCCESS) return 0;
  return platform::ReadRegistryDword(key, u"ProcId", process) == ERROR_SUCCESS ? process : 0;
}

// Stops and removes the service if it is there.
ErrorCode Uninstall() {
  if (const ErrorCode rc = platform::OpenServiceManager(); rc != ERROR_SUCCESS) {
    return ComplainOf(rc, u"Couldn't open service manager");
  }
  const ErrorCode opened = platform::OpenService(kServiceName);
  if (opened == ERROR_FILE_NOT_FOUND) return ERROR_SUCCESS;
  if (opened != ERROR_SUCCESS) return ComplainOf(opened, u"Couldn't open service");
  if (const std::uint32_t process = RunningProcess(); process != 0) {
    (void)platform::SendStopControl(process);  // whether it obeys isn't waited for
  }
  if (const ErrorCode rc = platform::DeleteServiceRecord(kServiceName); rc != ERROR_SUCCESS) {
    return ComplainOf(rc, u"Service could not be deleted");
  }
  return ERROR_SUCCESS;
}

// The first failure of several steps that are all done.
class FirstFailure {
 public:
  void Note(ErrorCode rc) {
    if (m_code == ERROR_SUCCESS) m_code = rc;
  }
  [[nodiscard]] ErrorCode Code() const { return m_code; }

 private:
  ErrorCode m_code = ERROR_SUCCESS;
};

}  // namespace

std::u16string ApplicationKey() {
  return u"AppID\\" + platform::GuidText(kApplicationId);
}

std::string RegistryFile(const std::string& stateDirectory) {
  return stateDirectory + "/registry.db";
}

ErrorCode CreateStateFolders() {
  const std::string root = platform::StateDirectory();
  for (const std::string& name : {root, root + "/logs", root + "/drives", platform::NativePath(kDefaultIniDirectory)}) {
    if (const ErrorCode rc = platform::CreateDirectories(name); rc != ERROR_SUCCESS) return rc;
  }
  return ERROR_SUCCESS;
}

void Complain(std::u16string_view text) {
  const std::string line = platform::Utf8FromWide(std::u16string(kServiceTitle) + u": " + std::u16string(text)) + "\n";
  std::fputs(line.c_str(), stderr);
}

ErrorCode RegisterServer(bool asService, const std::string& account) {
  std::u16string program;
  if (const ErrorCode rc = platform::ProgramFilePath(program); rc != ERROR_SUCCESS) {
    return ComplainOf(rc, u"Couldn't get module file name");
  }
  ErrorCode rc = CreateSuiteKeys();
  if (rc == ERROR_SUCCESS) rc = Apply(ApplicationEntries());
  if (rc == ERROR_SUCCESS) rc = SetKind(asService);
  if (rc != ERROR_SUCCESS) return ComplainOf(rc, u"Couldn't write the registry");
  FirstFailure failure;
  if (asService) failure.Note(Install(account));
  rc = Apply(ClassEntries(program));
  if (rc == ERROR_SUCCESS) rc = Apply(LibraryEntries(program));
  if (rc != ERROR_SUCCESS) Complain(u"Couldn't write the registry");
  failure.Note(rc);
  return failure.Code();
}

ErrorCode UnregisterServer() {
  FirstFailure failure;
  FirstFailure keys;
  keys.Note(Remove(ApplicationKey()));
  keys.Note(Remove(u"AppID\\" + Text(kProgramKey)));
  failure.Note(Uninstall());
  for (const std::u16string& key : {Text(kProgId), Text(kVersionIndependentProgId), ClassKey(), LibraryKey()}) {
    keys.Note(Remove(key));
  }
  for (const NamedInterface& interface : kInterfaces) keys.Note(Remove(InterfaceKey(interface)));
  if (keys.Code() != ERROR_SUCCESS) Complain(u"Couldn't write the registry");
  failure.Note(keys.Code());
  return failure.Code();
}

ErrorCode RegisterOnHost(const std::string& destination, const std::string& stateDirectory, bool asService) {
  std::u16string program;
  if (const ErrorCode rc = platform::ProgramFilePath(program); rc != ERROR_SUCCESS) {
    return ComplainOf(rc, u"Couldn't get module file name");
  }
  std::string failed;
  const ErrorCode rc = platform::InstallFiles(
      Installation(destination, platform::Utf8FromWide(program), stateDirectory, asService), failed);
  return rc == ERROR_SUCCESS ? rc : ComplainOf(rc, u"Couldn't write " + FileAndCode(failed, rc));
}

ErrorCode UnregisterFromHost(const std::string& destination, const std::string& stateDirectory) {
  std::string failed;
  const ErrorCode rc = platform::RemoveFiles(Installation(destination, {}, stateDirectory, true), failed);
  return rc == ERROR_SUCCESS ? rc : ComplainOf(rc, u"Couldn't delete " + FileAndCode(failed, rc));
}

}  // namespace qx
