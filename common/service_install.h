// common/service_install.h: this program's service as an installation of this host: its names, its files, its account.
//
// The service writes them when it registers, the command line when it configures the account.
// Threads: any; calls that write must not overlap in time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/error_codes.h"
#include "platform/service_files.h"

namespace qx {

inline constexpr std::u16string_view kServiceName = u"QxSchedService";              // of the record and the unit
inline constexpr std::u16string_view kServiceTitle = u"Korvane Scheduler Service";  // string resource 100
inline constexpr std::string_view kClientGroup = "qxsched";  // who may call, beside root

// The port of the node channel where none is configured; the installed unit keeps it shut until the administrator opens
// it (docs/security.md).
inline constexpr std::uint16_t kStandardNodePort = 4888;

// Whether registering concerns the host: a server with a state directory of its own is started by its owner, and the
// host's files name the one server of the host. With a destination they are written wherever that lies.
//   stateDirectory  an absolute name
[[nodiscard]] bool ConcernsHost(const std::string& destination, const std::string& stateDirectory);

// What the files of the host tell.
//   destination     in front of every place; a program that lies below it is named without it
//   program         its absolute name
//   stateDirectory  an absolute name
//   asService       with a unit; else the bus starts the program for its first client
[[nodiscard]] platform::ServerInstallation Installation(const std::string& destination, const std::string& program,
                                                        const std::string& stateDirectory, bool asService);

// Configures the account that the installed service runs under: in its record, and from there in the host's files where
// the state directory concerns the host (ConcernsHost). Takes effect at the service's next start; the service manager
// has to read its units anew before. The registry store is open.
//   account  a name of this host; "LocalSystem" in any case of letters, or empty, for root
//   problem  on failure what failed, in words
//   returns  0; ERROR_FILE_NOT_FOUND (2): no service is installed; ERROR_INVALID_PARAMETER (87): no account of this
//            host; nothing is changed by both. Other codes: of the store, with nothing changed; of the host's files,
//            with the record, which counts, changed
[[nodiscard]] platform::ErrorCode ConfigureServiceAccount(std::string_view account, const std::string& destination,
                                                          std::string& problem);

}  // namespace qx
