// service/service_registration.h: making the program known, and taking that back.
//
// Registering makes the state directory with its folders, the registry store with the keys that the service needs, and
// the entries of the application, the class, the interfaces and the type library under HKEY_CLASSES_ROOT. As a service
// it also installs the service's record. Registering again changes nothing but the program's path and the kind.
// Unregistering removes the entries and the record; schedules, log and settings stay.
// Failures are told on standard error, with the service's name in front (Complain).
// Threads: the main thread, before any other starts.
#pragma once

#include <string>
#include <string_view>

#include "common/service_install.h"
#include "platform/error_codes.h"
#include "platform/guid.h"

namespace qx {

inline constexpr std::u16string_view kClassText = u"SchedulerService Class";
inline constexpr std::u16string_view kProgId = u"QxSchedService.SchedulerService.1";
inline constexpr std::u16string_view kVersionIndependentProgId = u"QxSchedService.SchedulerService";
inline constexpr std::u16string_view kProgramKey = u"QxSchedService.EXE";
inline constexpr platform::GUID kApplicationId{
    0x14334370, 0x2F7E, 0x45E1, {0x91, 0xF1, 0x68, 0x3A, 0xC3, 0x05, 0x61, 0x72}};

// "AppID\{...}", below HKEY_CLASSES_ROOT: a server without it doesn't start.
[[nodiscard]] std::u16string ApplicationKey();

// The files and folders of a state directory, as kernel names.
[[nodiscard]] std::string RegistryFile(const std::string& stateDirectory);
// Creates the state directory and its folders where they are missing: "logs", "drives", the default directory of
// schedules. platform::SetStateDirectory() was called.
[[nodiscard]] platform::ErrorCode CreateStateFolders();

// A line on standard error: the service's title, ": ", the text.
void Complain(std::u16string_view text);

// Both work on the open store.
//   account  of a service's record that is made anew; empty: LocalSystem
//   returns  0; the code of what failed first. A failure is told; of the record it doesn't keep the rest from being
//   done.
[[nodiscard]] platform::ErrorCode RegisterServer(bool asService, const std::string& account = {});
// An installed service gets the stop control first, without waiting for the effect, when it runs.
[[nodiscard]] platform::ErrorCode UnregisterServer();

// Writes and removes the files of the host (common/service_install.h). What is missing is no failure of a removal.
//   destination     in front of every place; empty for the host itself
//   stateDirectory  an absolute name
//   returns  0; the code of what failed first, told
[[nodiscard]] platform::ErrorCode RegisterOnHost(const std::string& destination, const std::string& stateDirectory,
                                                 bool asService);
[[nodiscard]] platform::ErrorCode UnregisterFromHost(const std::string& destination, const std::string& stateDirectory);

}  // namespace qx
