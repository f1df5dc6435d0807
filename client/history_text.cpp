#include "client/history_text.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>

#include "client/status_text.h"
#include "client/terminal_text.h"
#include "client/time_text.h"
#include "platform/file.h"

namespace qx {
namespace {

using nlohmann::ordered_json;

std::string WindowText(std::int64_t window, const platform::Zone& zone) {
  return window < 0 ? "none to come" : FormatInstant(window, zone);
}

}  // namespace

std::string HistoryFileOf(const std::string& given) {
  return given.empty() ? platform::StateDirectory() + "/history.db" : given;
}

platform::Zone HistoryZoneOf(const std::string& zone) {
  return IsToldZone(zone) ? platform::Zone::FromTz(zone) : platform::CurrentZone();
}

int FailHistory(CliContext& context, const std::string& file, platform::ErrorCode code) {
  switch (code) {
    case platform::ERROR_LOCK_VIOLATION:
      PrintError(context, file + ": another recorder writes this history");
      return kExitFailed;
    case platform::ERROR_BADDB:
      PrintError(context, file + ": is not a history of qxsched, or one of another version; it stays as it is");
      PrintHint(context, "--file names another file");
      return kExitFailed;
    case platform::ERROR_FILE_CORRUPT:
      PrintError(context, file + ": the history is damaged");
      PrintHint(context, "qxsched record sets a damaged file aside and begins a new one");
      return kExitFailed;
    case platform::ERROR_ACCESS_DENIED:
      PrintError(context, file + ": " + FormatStatus(0x80070000 | code));
      return kExitPermission;
    default:
      PrintError(context, file + ": " + FormatStatus(0x80070000 | code));
      return kExitFailed;
  }
}

std::string HistoryLine(const CliContext& context, const HistoryEntry& entry, const platform::Zone& zone) {
  char kind[24];
  std::snprintf(kind, sizeof kind, "%-12s", HistoryKindText(entry.kind));
  const bool bad = entry.kind == HistoryKind::kMissed;
  std::string line =
      FormatInstant(entry.at, zone) + "  " + Paint(context.colourOut, bad ? Colour::kRed : Colour::kBold, kind);
  if (!entry.schedule.empty()) line += "  " + Printable(entry.schedule);
  if (!entry.name.empty()) line += "  \"" + Printable(entry.name) + "\"";
  if (entry.window) line += "  window " + FormatInstant(*entry.window, zone);
  if (entry.next) line += "  next " + WindowText(*entry.next, zone);
  if (!entry.reason.empty()) line += "  (" + Printable(entry.reason) + ")";
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

ordered_json HistoryJson(const HistoryEntry& entry) {
  const auto time = [](const std::optional<std::int64_t>& value) {
    return value && *value >= 0 ? ordered_json(*value) : ordered_json(nullptr);
  };
  ordered_json out = ordered_json::object();
  out["time"] = entry.at;
  out["kind"] = HistoryKindText(entry.kind);
  out["id"] = entry.schedule.empty() ? ordered_json(nullptr) : ordered_json(entry.schedule);
  out["name"] = entry.name.empty() ? ordered_json(nullptr) : ordered_json(entry.name);
  out["window"] = time(entry.window);
  out["next_window"] = time(entry.next);
  out["reason"] = entry.reason;
  return out;
}

}  // namespace qx
