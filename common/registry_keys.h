// common/registry_keys.h: the keys of the service below HKEY_LOCAL_MACHINE (docs/formats/registry.md). The log of the
// foundation, which stands alone, names its own two itself.
#pragma once

#include <string_view>

namespace qx {

inline constexpr std::u16string_view kCurrentVersionKey = u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion";
inline constexpr std::u16string_view kSchedulesKeyName = u"Schedules";
inline constexpr std::u16string_view kSchedulesKey = u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules";
inline constexpr std::u16string_view kVolumeManagerKey = u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\VolumeManager";
inline constexpr std::u16string_view kProviderKey = u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Providers\\scheduler";

}  // namespace qx
