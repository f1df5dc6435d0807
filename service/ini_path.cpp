#include "service/ini_path.h"

#include "platform/guid.h"

namespace qx {
namespace {

std::u16string_view DirectoryPart(std::u16string_view xmlPath, std::u16string_view separators) {
  const std::size_t last = xmlPath.find_last_of(separators);
  return last == std::u16string_view::npos ? std::u16string_view() : xmlPath.substr(0, last + 1);
}

}  // namespace

std::u16string IniDirectory(std::u16string_view xmlPath, std::u16string_view separators) {
  const std::u16string_view directory = DirectoryPart(xmlPath, separators);
  return std::u16string(directory.empty() ? kDefaultIniDirectory : directory);
}

std::u16string IniPath(const ScheduleGuid& id, std::u16string_view xmlPath, std::u16string_view separators) {
  return IniDirectory(xmlPath, separators) + platform::GuidText(id) + u".ini";
}

std::u16string OldIniPath(const ScheduleGuid& id, std::u16string_view xmlPath, std::u16string_view separators) {
  std::u16string directory = IniDirectory(xmlPath, separators);
  if (!DirectoryPart(xmlPath, separators).empty()) directory += u'\\';
  return directory + platform::GuidText(id) + u".ini";
}

}  // namespace qx
