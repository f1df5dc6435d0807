#include "platform/service_files.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <vector>

#include "platform/fault_point.h"
#include "platform/file.h"

namespace platform {
namespace {

constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kFileMode = 0644;
constexpr std::string_view kSystemState = "/var/lib/";  // where StateDirectory= of a system unit points to

// Bytes: the largest message that the protocol allows, and more than two of them on their way (the daemon's own limits
// are 32 MiB and 127 MiB): a long list goes out in one reply.
constexpr const char* kMessageSize = "134217728";
constexpr const char* kBytesOnTheWay = "300000000";

// Where files lie (systemd.unit(5), dbus-daemon(1), sysusers.d(5)): the vendor's places; what belongs to this one host
// lies in /etc.
constexpr const char* kSystemUnits = "/usr/lib/systemd/system/";
constexpr const char* kHostUnits = "/etc/systemd/system/";
constexpr const char* kSystemServices = "/usr/share/dbus-1/system-services/";
constexpr const char* kSystemPolicies = "/usr/share/dbus-1/system.d/";
constexpr const char* kHostPolicies = "/etc/dbus-1/system.d/";
constexpr const char* kSystemUsers = "/usr/lib/sysusers.d/";

// The drop-in of the account, up to its name.
constexpr const char* kAccountHead = "[Service]\nUser=";

// A directory of the user by the variable of the XDG base directory specification, else below his home.
std::string UserPlace(const char* variable, const char* belowHome, const char* rest) {
  const char* const named = std::getenv(variable);
  if (named != nullptr && *named == '/') return std::string(named) + rest;
  const char* const home = std::getenv("HOME");
  return std::string(home != nullptr ? home : "") + belowHome + rest;
}

std::string Unit(const ServerInstallation& i) { return i.service + ".service"; }

std::string UnitName(const ServerInstallation& i) {
  return i.forUser ? UserPlace("XDG_CONFIG_HOME", "/.config", "/systemd/user/") + Unit(i)
                   : i.destination + kSystemUnits + Unit(i);
}

// Beside the unit, the vendor's as it is.
std::string FenceDirectory(const ServerInstallation& i) { return i.destination + kSystemUnits + Unit(i) + ".d"; }
std::string FenceName(const ServerInstallation& i) { return FenceDirectory(i) + "/10-node-channel-fence.conf"; }

std::string WantsName(const ServerInstallation& i) {
  return i.forUser ? UserPlace("XDG_CONFIG_HOME", "/.config", "/systemd/user/default.target.wants/") + Unit(i)
                   : i.destination + kHostUnits + "multi-user.target.wants/" + Unit(i);
}

std::string ActivationName(const ServerInstallation& i) {
  return (i.forUser ? UserPlace("XDG_DATA_HOME", "/.local/share", "/dbus-1/services/")
                    : i.destination + kSystemServices) +
         i.busName + ".service";
}

std::string PolicyName(const ServerInstallation& i) { return i.destination + kSystemPolicies + i.busName + ".conf"; }
std::string GroupName(const ServerInstallation& i) { return i.destination + kSystemUsers + i.group + ".conf"; }

std::string DropInDirectory(const ServerInstallation& i) { return i.destination + kHostUnits + Unit(i) + ".d"; }
std::string AccountUnitName(const ServerInstallation& i) { return DropInDirectory(i) + "/account.conf"; }
std::string AccountPolicyName(const ServerInstallation& i) {
  return i.destination + kHostPolicies + i.busName + "-account.conf";
}

// A unit's line ends at either of them.
bool EndsLine(char c) { return c == '\n' || c == '\r'; }

std::string Escaped(char c) {
  constexpr const char* kDigits = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(c);
  return std::string("\\x") + kDigits[byte >> 4] + kDigits[byte & 15];
}

// A word of a command line as a unit takes it: in quotation marks, nothing expanded.
std::string UnitWord(std::string_view word) {
  std::string quoted = "\"";
  for (const char c : word) {
    if (c == '"' || c == '\\') quoted += '\\';
    if (c == '%' || c == '$') quoted += c;
    quoted += EndsLine(c) ? Escaped(c) : std::string(1, c);
  }
  return quoted + '"';
}

// A value that is taken to the line's end.
std::string UnitText(std::string_view value) {
  std::string text;
  for (const char c : value) {
    if (c == '%') text += c;
    text += EndsLine(c) ? ' ' : c;
  }
  return text;
}

// A name of a list of directories. It is split twice, and only the second time takes escapes: a quotation mark is one,
// and so is the colon, behind which a link's name would stand.
std::string UnitDirectory(std::string_view name) {
  constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.@/-";
  if (name.find_first_not_of(kPlain) == std::string_view::npos) return std::string(name);
  std::string quoted = "\"";
  for (const char c : name) {
    if (c == '\\' || c == ':') quoted += '\\';
    if (c == '%') quoted += c;
    quoted += c == '"' || EndsLine(c) ? Escaped(c) : std::string(1, c);
  }
  return quoted + '"';
}

// The same as the bus daemon takes it, by the rules of a shell.
std::string ShellWord(std::string_view word) {
  std::string quoted = "'";
  for (const char c : word) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

std::string Joined(const std::vector<std::string>& words, std::string (*quote)(std::string_view)) {
  std::string line;
  for (const std::string& word : words) line += (line.empty() ? "" : " ") + quote(word);
  return line;
}

// A value as the bus daemon takes it before anything else: it knows \s, \t, \n, \r and \\ alone, and passes over a file
// with any other escape (Desktop Entry Specification, "Possible value types").
std::string EntryText(std::string_view value) {
  std::string text;
  for (const char c : value) {
    if (EndsLine(c)) {
      text += c == '\n' ? "\\n" : "\\r";
    } else {
      if (c == '\\') text += c;
      text += c;
    }
  }
  return text;
}

std::string UnitFile(const ServerInstallation& i) {
  std::vector<std::string> command = i.command;
  command.insert(command.end(), i.serviceArguments.begin(), i.serviceArguments.end());
  std::string text =
      "[Unit]\n"
      "Description=" + UnitText(i.description) + "\n"
      "Documentation=man:" + i.service + "(8)\n";
  // A user's bus is there before his units; the system's unit has to say so.
  if (!i.forUser) text += "Wants=dbus.socket\nAfter=dbus.socket\n";
  text +=
      "\n"
      "[Service]\n"
      "Type=notify\n"
      "ExecStart=" + Joined(command, &UnitWord) + "\n" +
      // Jobs outlive the service, and each one that runs counts as a task of it.
      "KillMode=process\n"
      "TasksMax=infinity\n"
      // A job that runs out of memory doesn't take the service along.
      "OOMPolicy=continue\n"
      "Restart=on-failure\n";
  // Made over to the account that the unit runs under.
  if (!i.forUser && i.stateDirectory.starts_with(kSystemState)) {
    const std::string name = i.stateDirectory.substr(kSystemState.size());
    text += "StateDirectory=" + UnitDirectory(name) + "\nStateDirectoryMode=0700\n";
  }
  text += std::string("\n[Install]\nWantedBy=") + (i.forUser ? "default.target" : "multi-user.target") + "\n";
  return text;
}

std::string ActivationText(const ServerInstallation& i) {
  std::string text = "[D-BUS Service]\nName=" + i.busName + "\nExec=" + EntryText(Joined(i.command, &ShellWord)) + "\n";
  if (!i.forUser) text += "User=root\n";
  if (i.asService) text += "SystemdService=" + Unit(i) + "\n";
  return text;
}

constexpr std::string_view kPolicyHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\"\n"
    " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
    "<busconfig>\n";

std::string PolicyText(const ServerInstallation& i) {
  const std::string send = "    <allow send_destination=\"" + i.busName + "\"/>\n";
  return std::string(kPolicyHead) +
         "  <limit name=\"max_message_size\">" + kMessageSize + "</limit>\n"
         "  <limit name=\"max_incoming_bytes\">" + kBytesOnTheWay + "</limit>\n"
         "  <limit name=\"max_outgoing_bytes\">" + kBytesOnTheWay + "</limit>\n"
         "  <policy context=\"default\">\n"
         "    <deny send_destination=\"" + i.busName + "\"/>\n"
         "  </policy>\n"
         "  <policy group=\"" + i.group + "\">\n" + send +
         "  </policy>\n"
         "  <policy user=\"root\">\n"
         "    <allow own=\"" + i.busName + "\"/>\n" + send +
         "  </policy>\n"
         "</busconfig>\n";
}

std::string AccountPolicyText(const ServerInstallation& i, std::string_view account) {
  return std::string(kPolicyHead) + "  <policy user=\"" + std::string(account) + "\">\n    <allow own=\"" + i.busName +
         "\"/>\n  </policy>\n</busconfig>\n";
}

//   forOthers  the new ones can be read by everybody whatever the process's mask is: a bus daemon has an account of its own
ErrorCode MakeDirectories(const std::string& name, bool forOthers) {
  if (const ErrorCode rc = FaultAt(Operation::kCreateDirectory); rc != ERROR_SUCCESS) return rc;
  for (std::size_t end = name.find('/', 1);; end = name.find('/', end + 1)) {
    const std::string part = name.substr(0, end);
    if (mkdir(part.c_str(), kDirectoryMode) == 0) {
      if (forOthers && chmod(part.c_str(), kDirectoryMode) != 0) return ErrorCodeFromErrno(errno);
    } else if (errno != EEXIST && errno != EISDIR) {
      return ErrorCodeFromErrno(errno);
    }
    if (end == std::string::npos) return ERROR_SUCCESS;
  }
}

bool HasMode(const std::string& name, mode_t mode) {
  struct stat info {};
  return stat(name.c_str(), &info) == 0 && (info.st_mode & 07777) == mode;
}

ErrorCode WriteFile(const std::string& name, const std::string& contents) {
  std::string present;
  if (ReadWholeFile(name, present) == ERROR_SUCCESS && present == contents && HasMode(name, kFileMode)) {
    return ERROR_SUCCESS;
  }
  FileReplacement file;
  ErrorCode rc = file.Begin(name, contents, Durable::kNo);
  // A bus daemon looks at a file as soon as it is there, and not again when its mode changes.
  if (rc == ERROR_SUCCESS) rc = file.LetAllRead();
  return rc == ERROR_SUCCESS ? file.Finish() : rc;
}

ErrorCode WriteLink(const std::string& name, const std::string& target) {
  if (const ErrorCode rc = FaultAt(Operation::kCreateFile, name); rc != ERROR_SUCCESS) return rc;
  if (symlink(target.c_str(), name.c_str()) == 0 || errno == EEXIST) return ERROR_SUCCESS;
  return ErrorCodeFromErrno(errno);
}

ErrorCode Write(const InstalledFile& file, bool forUser) {
  if (const ErrorCode rc = MakeDirectories(DirectoryOf(file.name), !forUser); rc != ERROR_SUCCESS) return rc;
  return file.linkTo.empty() ? WriteFile(file.name, file.contents) : WriteLink(file.name, file.linkTo);
}

// A link is removed, not what it points to.
ErrorCode Remove(const std::string& name) {
  if (const ErrorCode rc = FaultAt(Operation::kDeleteFile, name); rc != ERROR_SUCCESS) return rc;
  return unlink(name.c_str()) == 0 || errno == ENOENT || errno == ENOTDIR ? ERROR_SUCCESS : ErrorCodeFromErrno(errno);
}

ErrorCode RemoveAll(const std::vector<std::string>& names, std::string& failed) {
  ErrorCode first = ERROR_SUCCESS;
  for (const std::string& name : names) {
    const ErrorCode rc = Remove(name);
    if (rc == ERROR_SUCCESS || first != ERROR_SUCCESS) continue;
    first = rc;
    failed = name;
  }
  return first;
}

}  // namespace

std::vector<InstalledFile> FilesOf(const ServerInstallation& i) {
  std::vector<InstalledFile> files;
  if (i.asService) files.push_back({UnitName(i), UnitFile(i), {}});
  if (i.asService && !i.forUser && i.fencedPort != 0) {
    // The port alone: jobs count as the unit's processes, and may do all else.
    files.push_back({FenceName(i), "[Service]\nSocketBindDeny=tcp:" + std::to_string(i.fencedPort) + "\n", {}});
  }
  files.push_back({ActivationName(i), ActivationText(i), {}});
  if (!i.forUser) {
    files.push_back({PolicyName(i), PolicyText(i), {}});
    files.push_back({GroupName(i), "g " + i.group + " -\n", {}});
  }
  if (i.asService && i.destination.empty()) files.push_back({WantsName(i), {}, UnitName(i)});
  return files;
}

ErrorCode InstallFiles(const ServerInstallation& i, std::string& failed) {
  for (const InstalledFile& file : FilesOf(i)) {
    const ErrorCode rc = Write(file, i.forUser);
    if (rc == ERROR_SUCCESS) continue;
    failed = file.name;
    return rc;
  }
  if (i.asService) return ERROR_SUCCESS;
  std::vector<std::string> names = {WantsName(i), UnitName(i)};
  if (!i.forUser) names.push_back(FenceName(i));
  const ErrorCode rc = RemoveAll(names, failed);
  if (!i.forUser) (void)rmdir(FenceDirectory(i).c_str());
  return rc;
}

ErrorCode RemoveFiles(const ServerInstallation& i, std::string& failed) {
  std::vector<std::string> names = {WantsName(i), UnitName(i), ActivationName(i)};
  if (!i.forUser) {
    for (std::string name :
         {FenceName(i), PolicyName(i), GroupName(i), AccountUnitName(i), AccountPolicyName(i)}) {
      names.push_back(std::move(name));
    }
  }
  const ErrorCode rc = RemoveAll(names, failed);
  if (!i.forUser) {
    // They stay while they hold drop-ins of others.
    (void)rmdir(DropInDirectory(i).c_str());
    (void)rmdir(FenceDirectory(i).c_str());
  }
  return rc;
}

bool IsAccount(std::string_view account) {
  constexpr std::string_view kAllowed =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.@$\\-";
  if (account.empty() || account.front() == '-') return false;
  if (account.find_first_not_of(kAllowed) != std::string_view::npos) return false;
  passwd entry = {};
  passwd* found = nullptr;
  std::vector<char> buffer(16384);
  return getpwnam_r(std::string(account).c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
         found != nullptr;
}

ErrorCode InstallAccount(const ServerInstallation& i, std::string_view account, std::string& failed) {
  if (i.forUser) return ERROR_INVALID_PARAMETER;
  if (account.empty()) {
    const ErrorCode rc = RemoveAll({AccountUnitName(i), AccountPolicyName(i)}, failed);
    (void)rmdir(DropInDirectory(i).c_str());
    return rc;
  }
  if (!IsAccount(account)) return ERROR_INVALID_PARAMETER;
  // The policy first: with the drop-in alone the service would start and not get its name.
  for (const InstalledFile& file :
       {InstalledFile{AccountPolicyName(i), AccountPolicyText(i, account), {}},
        InstalledFile{AccountUnitName(i), kAccountHead + std::string(account) + "\n", {}}}) {
    const ErrorCode rc = Write(file, i.forUser);
    if (rc == ERROR_SUCCESS) continue;
    failed = file.name;
    return rc;
  }
  return ERROR_SUCCESS;
}

std::string InstalledAccount(const ServerInstallation& i) {
  std::string text;
  if (i.forUser || ReadWholeFile(AccountUnitName(i), text) != ERROR_SUCCESS) return {};
  const std::string_view head = kAccountHead;
  if (!text.starts_with(head) || !text.ends_with('\n')) return {};  // not as it was written
  return text.substr(head.size(), text.size() - head.size() - 1);
}

}  // namespace platform
