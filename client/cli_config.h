// client/cli_config.h: what `qxsched config ...` does, on the key store of the state directory itself.
//
// Threads: a command runs on one thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "client/cli_output.h"

namespace qx {

// The greatest size of a trace file: the debugstream counts its bytes in 32 bits (foundation/include/zfcdbg.h).
inline constexpr std::uint32_t kTraceMostKib = 0xFFFFFFFFu >> 10;

// What to change; what isn't given stays.
struct TraceSettings {
  std::optional<std::string> path;         // UTF-8, from the root
  std::optional<std::string> filter;       // "error", "warning", "inform", "debug" and "short" with commas between them
  std::optional<std::uint32_t> kibibytes;  // 0 to kTraceMostKib
  bool off = false;                        // the filter becomes 0
};

// Changes the settings of the debugstream, or shows them when nothing is to be changed. A program reads them when it
// starts.
//   shown    lines "path", "filter" and "size" with the value behind a tab; with --json one object {"path": text,
//            "filter": [words], "flags": number, "size_kib": number}. What isn't set is empty or 0
//   returns  an ExitCode: kExitUsage for a path or filter that can't be used, with nothing changed; kExitNotFound for a
//            look without a store; codes of WithKeyStore()
[[nodiscard]] int RunConfigTrace(CliContext& context, const TraceSettings& settings);

// What `config get` and `config set` know, with commas between.
[[nodiscard]] std::string SettingNames();

// Shows every setting with its value, or the value of one alone. What isn't set has its default.
//   shown    lines of name and value; with --json {"NAME": value, ...}, or the one value
//   returns  kExitDone; kExitUsage for an unknown name; kExitNotFound without a store; codes of WithKeyStore()
[[nodiscard]] int RunConfigGet(CliContext& context, const std::string& name);

struct ConfigArguments {
  std::string name;
  std::string value;
  std::string destination;  // the host's root for the unit's drop-in; empty: "/"
};
// Changes a setting in the key store. An account also goes into a drop-in of the service's unit, where that unit is
// installed for this state directory; "LocalSystem" takes the drop-in away.
//   returns  kExitDone; kExitUsage for an unknown name or a value that can't be used, with nothing changed;
//            kExitNotFound: no store, or an account without an installed service; kExitFailed also when the drop-in
//            couldn't be written, the record then being changed; codes of WithKeyStore()
[[nodiscard]] int RunConfigSet(CliContext& context, const ConfigArguments& arguments);

}  // namespace qx
