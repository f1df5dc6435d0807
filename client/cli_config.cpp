#include "client/cli_config.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string_view>
#include <vector>

#include "client/cli_key_store.h"
#include "client/json_text.h"
#include "client/status_text.h"
#include "client/terminal_text.h"
#include "common/registry_keys.h"
#include "common/service_install.h"
#include "platform/file.h"
#include "platform/registry.h"
#include "platform/service_record.h"
#include "platform/host.h"
#include "platform/text.h"

namespace qx {
namespace {

using platform::ERROR_FILE_NOT_FOUND;
using platform::ERROR_SUCCESS;
using platform::ErrorCode;

constexpr platform::Hive kHive = platform::Hive::kLocalMachine;
constexpr char16_t kTraceKey[] = u"Software\\brelmont\\debugstream\\debugstream";
constexpr char16_t kPathValue[] = u"logFilePath";
constexpr char16_t kFilterValue[] = u"logFileFilterFlag";
constexpr char16_t kSizeValue[] = u"LogFileSize";

// The bits of the filter (foundation/include/zfcdbg.h).
struct FilterWord {
  std::string_view word;
  std::uint32_t bit;
};
constexpr FilterWord kFilterWords[] = {
    {"error", 0x2}, {"warning", 0x4}, {"inform", 0x8}, {"debug", 0x10}, {"short", 0x1},
};
constexpr std::uint32_t kShortBit = 0x1;

// False, with a message, for a word that isn't one and for a filter without a level.
bool ReadFilter(CliContext& context, std::string_view text, std::uint32_t& flags) {
  flags = 0;
  for (std::string_view rest = text;;) {
    const std::string_view word = rest.substr(0, rest.find(','));
    const FilterWord* found = nullptr;
    for (const FilterWord& row : kFilterWords) {
      if (row.word == word) found = &row;
    }
    if (found == nullptr) {
      PrintError(context, "--filter: \"" + std::string(word) +
                              "\" is no word of a filter (allowed: error, warning, inform, debug, short)");
      return false;
    }
    flags |= found->bit;
    if (word.size() == rest.size()) break;
    rest.remove_prefix(word.size() + 1);
  }
  if ((flags & ~kShortBit) != 0) return true;
  PrintError(context, "--filter: a filter names a level (allowed: error, warning, inform, debug)");
  PrintHint(context, "--off switches the trace off");
  return false;
}

bool PathIsUsable(CliContext& context, const std::string& path) {
  const bool controls = path.find_first_of(std::string_view("\0\r\n", 3)) != std::string::npos;
  if (path.starts_with('/') && !controls && platform::IsValidUtf8(path)) return true;
  PrintError(context, "--path: \"" + path + "\" is no file's name (allowed: a path from the root, on one line, UTF-8)");
  return false;
}

int StoreFailure(CliContext& context, ErrorCode code) {
  PrintError(context, "config: " + std::string(RegistryErrorSentence(code)) + " (error " +
                          std::to_string(code) + ")");
  return code == platform::ERROR_ACCESS_DENIED ? kExitPermission : kExitFailed;
}

struct Stored {
  std::u16string path;
  std::uint32_t flags = 0;
  std::uint32_t kibibytes = 0;
};

// What isn't there, or has another type, counts as not set, as the debugstream sees it.
ErrorCode ReadStored(Stored& stored) {
  platform::RegistryKey key;
  const ErrorCode code = OpenKey(kHive, kTraceKey, platform::KEY_READ, key);
  if (code != ERROR_SUCCESS) return code == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : code;
  if (ReadRegistryString(key, kPathValue, stored.path) != ERROR_SUCCESS) stored.path.clear();
  if (ReadRegistryDword(key, kFilterValue, stored.flags) != ERROR_SUCCESS) stored.flags = 0;
  if (ReadRegistryDword(key, kSizeValue, stored.kibibytes) != ERROR_SUCCESS) stored.kibibytes = 0;
  return ERROR_SUCCESS;
}

int Show(CliContext& context) {
  Stored stored;
  if (const ErrorCode code = ReadStored(stored); code != ERROR_SUCCESS) return StoreFailure(context, code);
  std::vector<std::string> words;
  for (const FilterWord& row : kFilterWords) {
    if ((stored.flags & row.bit) != 0) words.emplace_back(row.word);
  }
  const std::string path = platform::Utf8FromWide(stored.path);
  if (context.options.json) {
    nlohmann::ordered_json shown;
    shown["path"] = path;
    shown["filter"] = words;
    shown["flags"] = stored.flags;
    shown["size_kib"] = stored.kibibytes;
    WriteJson(context.out, shown);
    return kExitDone;
  }
  std::string filter;
  for (const std::string& word : words) filter += (filter.empty() ? "" : ",") + word;
  context.out << "path\t" << Printable(path) << "\nfilter\t" << filter << "\nsize\t" << stored.kibibytes << "\n";
  return kExitDone;
}

// The values of a key as they were. All writes of a handle are committed together, so that what is put back ahead of
// the close was never changed.
class FormerValues {
 public:
  [[nodiscard]] ErrorCode Read(const platform::RegistryKey& key) {
    for (Value& value : m_values) {
      const ErrorCode code = QueryValueBytes(key, value.name, value.type, value.data);
      value.isThere = code == ERROR_SUCCESS;
      if (code != ERROR_SUCCESS && code != ERROR_FILE_NOT_FOUND) return code;
    }
    return ERROR_SUCCESS;
  }
  // What can't be put back can't be committed either.
  void PutBack(const platform::RegistryKey& key) const {
    for (const Value& value : m_values) {
      (void)(value.isThere ? SetRawValue(key, value.name, value.type, value.data) : DeleteValue(key, value.name));
    }
  }

 private:
  struct Value {
    const char16_t* name;
    bool isThere = false;
    std::uint32_t type = 0;
    std::vector<std::byte> data;
  };
  Value m_values[3] = {{kPathValue}, {kFilterValue}, {kSizeValue}};
};

int Change(CliContext& context, const TraceSettings& settings, const std::optional<std::uint32_t>& flags) {
  platform::RegistryKey key;
  FormerValues former;
  ErrorCode code = CreateKey(kHive, kTraceKey, platform::KEY_ALL_ACCESS, key);
  if (code == ERROR_SUCCESS) code = former.Read(key);
  const bool begun = code == ERROR_SUCCESS;
  if (code == ERROR_SUCCESS && settings.path) {
    code = SetString(key, kPathValue, platform::WideFromUtf8(*settings.path));
  }
  if (code == ERROR_SUCCESS && flags) code = SetDword(key, kFilterValue, *flags);
  if (code == ERROR_SUCCESS && settings.kibibytes) code = SetDword(key, kSizeValue, *settings.kibibytes);
  if (begun && code != ERROR_SUCCESS) former.PutBack(key);
  if (key.IsOpen()) {
    const ErrorCode closed = key.Close();
    if (code == ERROR_SUCCESS) code = closed;
  }
  if (code != ERROR_SUCCESS) return StoreFailure(context, code);
  Stored stored;
  if (ReadStored(stored) == ERROR_SUCCESS && stored.flags != 0 && stored.path.empty()) {
    PrintNote(context, "no trace file is named: nothing is traced before --path names one");
  }
  return kExitDone;
}

}  // namespace

int RunConfigTrace(CliContext& context, const TraceSettings& settings) {
  std::optional<std::uint32_t> flags;
  if (settings.filter) {
    flags.emplace();
    if (!ReadFilter(context, *settings.filter, *flags)) return kExitUsage;
  }
  if (settings.off) flags = 0;
  if (settings.path && !PathIsUsable(context, *settings.path)) return kExitUsage;
  const bool changes = settings.path || flags || settings.kibibytes;
  return WithKeyStore(context, changes, [&] { return changes ? Change(context, settings, flags) : Show(context); });
}


// --- settings by name ---

namespace {

constexpr char16_t kRecordKey[] = u"SYSTEM\\CurrentControlSet\\Services\\QxSchedService";
constexpr std::string_view kLocalSystem = "LocalSystem";
constexpr const char* kDropIn = "/etc/systemd/system/QxSchedService.service.d/account.conf";

struct SettingRow {
  std::string_view name;
  std::u16string_view key;
  const char16_t* value;
  bool number;
  const char* byDefault;
  std::uint32_t greatest;  // of a number
  std::uint32_t least;
  bool readOnly;
};
constexpr SettingRow kSettings[] = {
    {"account", kRecordKey, u"ObjectName", false, "LocalSystem", 0, 0, false},
    {"port", kSchedulesKey, u"DefaultPort", true, "4888", 65535, 1, false},
    {"log-level", kSchedulesKey, u"TraceLevel", true, "3", 6, 0, false},
    {"install-directory", kVolumeManagerKey, u"INSTALLDIR", false, "", 0, 0, true},
    {"trace-path", kTraceKey, kPathValue, false, "", 0, 0, true},
    {"trace-filter", kTraceKey, kFilterValue, true, "0", 0, 0, true},
    {"trace-size", kTraceKey, kSizeValue, true, "0", 0, 0, true},
};

const SettingRow* FindSetting(CliContext& context, const std::string& name) {
  for (const SettingRow& row : kSettings) {
    if (row.name == name) return &row;
  }
  PrintError(context, "config: unknown setting \"" + name + "\" (allowed: " + SettingNames() + ")");
  return nullptr;
}

// The value as text; the default where none is set or it has another type.
ErrorCode ReadSetting(const SettingRow& row, std::string& value) {
  value = row.byDefault;
  platform::RegistryKey key;
  ErrorCode code = OpenKey(kHive, row.key, platform::KEY_READ, key);
  if (code == ERROR_SUCCESS && !row.number) {
    std::u16string text;
    code = ReadRegistryString(key, row.value, text);
    if (code == ERROR_SUCCESS) value = platform::Utf8FromWide(text);
  } else if (code == ERROR_SUCCESS) {
    std::uint32_t number = 0;
    code = ReadRegistryDword(key, row.value, number);
    // Deliberate: the service uses the low 16 bits of a port.
    if (code == ERROR_SUCCESS) value = std::to_string(row.name == "port" ? number & 0xFFFF : number);
  }
  const bool isUnset =
      code == ERROR_FILE_NOT_FOUND || code == platform::ERROR_INVALID_DATA || code == platform::ERROR_MORE_DATA;
  return isUnset ? ErrorCode{ERROR_SUCCESS} : code;
}

bool IsAccountName(const std::string& name) {
  constexpr std::size_t kLongestAccount = 255;
  const auto plain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
           c == '.' || c == '@' || c == '$';
  };
  return !name.empty() && name.size() <= kLongestAccount && name[0] != '-' &&
         std::all_of(name.begin(), name.end(), plain);
}

// The account in the record, and from there in the host's files; nothing of a name that is no account here.
int SetAccount(CliContext& context, const std::string& destination, const std::string& account) {
  const bool root = account == kLocalSystem;
  const std::string state = platform::StateDirectory();
  std::string problem;
  const ErrorCode code = ConfigureServiceAccount(account, destination, problem);
  if (code == ERROR_SUCCESS) {
    const bool onHost = ConcernsHost(destination, state) && (!destination.empty() || platform::RunsAsRoot());
    if (!onHost) {
      PrintNote(context, "account is " + account + " from the service's next start on");
      return kExitDone;
    }
    PrintNote(context, (root ? "removed: " : "written: ") + destination + kDropIn);
    PrintHint(context, "systemctl daemon-reload && systemctl restart QxSchedService" +
                           (root ? std::string()
                                 : "; " + account + " needs the state directory: chown -R " + account + " " + state));
    return kExitDone;
  }
  if (code == ERROR_FILE_NOT_FOUND) {
    PrintError(context, "the service isn't installed: there is no record that could name an account");
    PrintHint(context, "install it with: QxSchedService -Service");
    return kExitNotFound;
  }
  if (code == platform::ERROR_INVALID_PARAMETER) {
    PrintError(context, "config: " + problem + "; nothing is changed");
    return kExitUsage;
  }
  std::u16string present;
  const bool changed = platform::QueryServiceAccount(kServiceName, present) == ERROR_SUCCESS &&
                       present == platform::WideFromUtf8(account);
  PrintError(context, (changed ? "the record is changed, but not the unit: " : "config: ") + problem + ": " +
                          FormatStatus(0x80070000 | code));
  if (changed) PrintHint(context, "set the account again once the directory can be written to");
  return code == platform::ERROR_ACCESS_DENIED ? kExitPermission : kExitFailed;
}

}  // namespace

std::string SettingNames() {
  std::string names;
  for (const SettingRow& row : kSettings) names += (names.empty() ? "" : ", ") + std::string(row.name);
  return names;
}

int RunConfigGet(CliContext& context, const std::string& name) {
  const SettingRow* one = nullptr;
  if (!name.empty() && (one = FindSetting(context, name)) == nullptr) return kExitUsage;
  return WithKeyStore(context, false, [&] {
    nlohmann::ordered_json listing = nlohmann::ordered_json::object();
    constexpr std::size_t kWidth = 19;
    for (const SettingRow& row : kSettings) {
      if (one != nullptr && one != &row) continue;
      std::string value;
      if (const ErrorCode code = ReadSetting(row, value); code != ERROR_SUCCESS) return StoreFailure(context, code);
      if (context.options.json) {
        const nlohmann::ordered_json shown =
            row.number ? nlohmann::ordered_json(std::stoul(value)) : nlohmann::ordered_json(value);
        if (one != nullptr) {
          listing = shown;
        } else {
          listing[std::string(row.name)] = shown;
        }
      } else if (one != nullptr) {
        context.out << Printable(value) << "\n";
      } else {
        std::string padded(row.name);
        padded.resize(kWidth, ' ');
        context.out << padded << (value.empty() ? "-" : Printable(value)) << "\n";
      }
    }
    if (context.options.json) WriteJson(context.out, listing);
    return static_cast<int>(kExitDone);
  });
}

int RunConfigSet(CliContext& context, const ConfigArguments& arguments) {
  const SettingRow* row = FindSetting(context, arguments.name);
  if (row == nullptr) return kExitUsage;
  if (row->readOnly) {
    PrintError(context, "config: " + arguments.name + " can't be set here");
    PrintHint(context, arguments.name.starts_with("trace-") ? "qxsched config trace sets the trace"
                                                            : "the service is registered with it");
    return kExitUsage;
  }
  std::string value = arguments.value;
  std::uint32_t number = 0;
  if (row->number) {
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (error != std::errc() || end != value.data() + value.size() || number < row->least || number > row->greatest) {
      PrintError(context, "config: \"" + value + "\" is no " + arguments.name + " (allowed: " +
                              std::to_string(row->least) + " to " + std::to_string(row->greatest) + ")");
      return kExitUsage;
    }
  } else if (platform::IsLocalSystemAccount(platform::WideFromUtf8(value))) {
    value = kLocalSystem;
  } else if (!IsAccountName(value)) {
    PrintError(context, "config: \"" + value + "\" is no account (allowed: a user's name, or LocalSystem for root)");
    return kExitUsage;
  }
  return WithKeyStore(context, false, [&] {
    if (!row->number) return SetAccount(context, arguments.destination, value);
    platform::RegistryKey key;
    ErrorCode code = CreateKey(kHive, row->key, platform::KEY_ALL_ACCESS, key);
    if (code == ERROR_SUCCESS) code = SetDword(key, row->value, number);
    if (key.IsOpen()) {
      const ErrorCode closed = key.Close();
      if (code == ERROR_SUCCESS) code = closed;
    }
    if (code != ERROR_SUCCESS) return StoreFailure(context, code);
    PrintNote(context, arguments.name + " is " + value + " from the service's next start on");
    return static_cast<int>(kExitDone);
  });
}

}  // namespace qx
