#include "client/cli_config.h"

#include <nlohmann/json.hpp>
#include <ostream>
#include <string_view>
#include <vector>

#include "client/cli_reg.h"
#include "client/cli_registry.h"
#include "platform/registry.h"
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
  PrintError(context, "config trace: " + std::string(client::RegistryErrorSentence(code)) + " (error " +
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
    nlohmann::ordered_json json;
    json["path"] = path;
    json["filter"] = words;
    json["flags"] = stored.flags;
    json["size_kib"] = stored.kibibytes;
    context.out << json.dump() << "\n";
    return kExitDone;
  }
  std::string filter;
  for (const std::string& word : words) filter += (filter.empty() ? "" : ",") + word;
  context.out << "path\t" << Printable(path) << "\nfilter\t" << filter << "\nsize\t" << stored.kibibytes << "\n";
  return kExitDone;
}

int Change(CliContext& context, const TraceSettings& settings, const std::optional<std::uint32_t>& flags) {
  platform::RegistryKey key;
  ErrorCode code = CreateKey(kHive, kTraceKey, platform::KEY_ALL_ACCESS, key);
  if (code == ERROR_SUCCESS && settings.path) {
    code = SetString(key, kPathValue, platform::WideFromUtf8(*settings.path));
  }
  if (code == ERROR_SUCCESS && flags) code = SetDword(key, kFilterValue, *flags);
  if (code == ERROR_SUCCESS && settings.kibibytes) code = SetDword(key, kSizeValue, *settings.kibibytes);
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

}  // namespace qx
