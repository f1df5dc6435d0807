// platform/service_files.h: the files by which this host knows an installed server, starts it and lets clients call it.
//
// On this host: a unit of systemd (systemd.service(5)), and for the message bus a file that starts the server on demand
// and a policy (dbus-daemon(1)), with the group of those who may call (sysusers.d(5)). Directories are made with mode
// 0755, files with 0644; a file that holds the very bytes already isn't touched. Nothing is told to the running
// managers: systemd reads its units anew at "systemctl daemon-reload", the bus daemon sees its files by itself.
// Threads: every function may be called from any thread; calls for one installation must not overlap in time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error_codes.h"

namespace platform {

// What the files tell; all texts UTF-8 without control characters.
struct ServerInstallation {
  std::string destination;  // in front of every place, for packaging; empty for the host itself
  bool forUser = false;     // for the calling user alone: a unit and a start on demand of his own, no policy
  bool asService = true;    // with a unit; without one the bus alone starts the server
  std::string service;      // the service's name; the unit's file is NAME.service
  std::string description;
  std::vector<std::string> command;           // the server's command line: an absolute name, then arguments
  std::vector<std::string> serviceArguments;  // more arguments, in the unit alone
  std::string stateDirectory;                 // an absolute name
  std::string busName;
  std::string group;  // may call every method, beside root
  // A TCP port that the host's unit may not listen on until its administrator lifts that, by a file of his own of the
  // drop-in's name (systemd.unit(5)); 0 for none.
  std::uint16_t fencedPort = 0;
};

// A file, or a symbolic link when `linkTo` isn't empty.
struct InstalledFile {
  std::string name;  // absolute, `destination` in front
  std::string contents;
  std::string linkTo;
  friend bool operator==(const InstalledFile&, const InstalledFile&) = default;
};

// What an installation consists of. As a service on the host itself (no destination) also the link that starts it with
// the host; for a destination that is the package's affair.
[[nodiscard]] std::vector<InstalledFile> FilesOf(const ServerInstallation& installation);

// Writes them; of an installation without a unit, an earlier unit is removed.
//   failed   the name that the code belongs to; untouched on success
//   returns  0; the first failure: what came before it is written
[[nodiscard]] ErrorCode InstallFiles(const ServerInstallation& installation, std::string& failed);

// Removes them, with those of the account; what isn't there is removed already. Goes on after a failure.
[[nodiscard]] ErrorCode RemoveFiles(const ServerInstallation& installation, std::string& failed);

// Whether a text can be an account of this host: a name of the password database (getpwnam(3)), of letters, digits and
// "_.@$\-", not beginning with "-".
[[nodiscard]] bool IsAccount(std::string_view account);

// Has the installed unit run under an account: a drop-in of the unit, and a policy by which the account may own the bus
// name. The same for an empty account removes both, and the service runs as root again.
//   returns  0; ERROR_INVALID_PARAMETER (87) for what is no account, and for a user's installation; codes of writing
[[nodiscard]] ErrorCode InstallAccount(const ServerInstallation& installation, std::string_view account,
                                       std::string& failed);

// The account that InstallAccount() left in the drop-in, also where the unit itself is gone; empty for none and for a
// user's installation.
[[nodiscard]] std::string InstalledAccount(const ServerInstallation& installation);

}  // namespace platform
