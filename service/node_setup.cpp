#include "service/node_setup.h"

#include "platform/file.h"
#include "platform/guid.h"
#include "platform/memory.h"
#include "service/ini_path.h"

namespace qx {

std::u16string_view TextOf(const BSTR& text) { return text ? std::u16string_view(*text) : std::u16string_view(); }

std::size_t TextBytes(const SCHEDULE_OBJECT& schedule) {
  std::size_t units = 0;
  for (const BSTR* text : {&schedule.bstrName, &schedule.bstrDescription, &schedule.bstrApplication,
                           &schedule.bstrObjectID, &schedule.bstrWrapperBinaryName, &schedule.bstrXMLFilePathName,
                           &schedule.bstrParameters, &schedule.bstrPreScript, &schedule.bstrPostScript}) {
    units += TextOf(*text).size();
  }
  return units * sizeof(char16_t);
}

bool HasMemoryFor(std::u16string_view path, std::string_view name) {
  return static_cast<bool>(platform::NamedBuffer<char16_t>(path.size() + 1, name));
}

Status SetLaunchPathFrom(const SCHEDULE_OBJECT& schedule, CJobNode& node) {
  return node.SetLaunchPath(TextOf(schedule.bstrWrapperBinaryName), TextOf(schedule.bstrXMLFilePathName),
                            TextOf(schedule.bstrParameters), schedule.bUseGUID, TextOf(schedule.bstrPreScript),
                            TextOf(schedule.bstrPostScript));
}

IniPlace FindIniPlace(const SCHEDULE_OBJECT& schedule, const ScheduleGuid& id, std::string_view memoryName,
                      std::u16string& path) {
  std::u16string directory;  // stays empty for a null path, and so doesn't exist
  if (schedule.bstrXMLFilePathName) directory = IniDirectory(*schedule.bstrXMLFilePathName);
  if (!HasMemoryFor(directory, memoryName)) return IniPlace::kNoMemory;
  if (!platform::DirectoryExists(platform::NativePath(directory))) return IniPlace::kNoDirectory;
  path = directory + platform::GuidText(id) + u".ini";
  return IniPlace::kFound;
}

}  // namespace qx
