// A history's file as a damaged disk gives it back: whatever its bytes, it is read, shown, written and trimmed, or set
// aside, or left to whom it belongs.
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "client/history_store.h"
#include "client/history_text.h"
#include "fuzz/fuzz_target.h"
#include "platform/clock.h"

using qx::HistoryEntry;
using qx::HistoryStore;
using qx::fuzz::Require;

namespace {

void Show(const std::vector<HistoryEntry>& entries) {
  const platform::Zone& zone = platform::CurrentZone();
  std::stringstream streams;
  const qx::CliContext context{streams, streams, streams, {}};
  for (const HistoryEntry& entry : entries) {
    Require(qx::HistoryLine(context, entry, zone).find('\n') == std::string::npos, "an entry is one line");
    (void)qx::HistoryJson(entry).dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  }
}

void ReadAll(HistoryStore& store) {
  std::vector<HistoryEntry> entries;
  std::map<std::string, qx::KnownSchedule> windows;
  std::map<std::string, std::string> names;
  std::optional<HistoryEntry> last;
  std::string zone;
  std::uint64_t bytes = 0;
  if (store.Entries({}, entries) == 0) Show(entries);
  (void)store.Entries({"{0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0}", 1, true}, entries);
  (void)store.Windows(windows);
  (void)store.Schedules(names);
  (void)store.Last(last);
  if (store.Fact(qx::kZoneFact, zone) == 0) (void)qx::HistoryZoneOf(zone);
  (void)store.Size(bytes);
}

}  // namespace

QX_FUZZ_TARGET(history_file) {
  const std::string folder = qx::fuzz::ScratchDirectory() + "/history";
  std::filesystem::remove_all(folder);
  std::filesystem::create_directory(folder);
  const std::string file = qx::fuzz::WriteScratch("history/history.db", qx::fuzz::Text(data, size));
  {
    HistoryStore store;
    if (store.OpenForReading(file) == 0) ReadAll(store);
  }
  HistoryStore store;
  std::string setAside;
  if (store.OpenForWriting(file, {}, setAside) != 0) return 0;
  const std::int64_t now = platform::NowSeconds();
  HistoryEntry entry;
  entry.at = now;
  entry.name = "night";
  const bool written = store.Append({entry}, {{"{A}", qx::KnownSchedule{"night", now}}, {"{B}", std::nullopt}}) == 0;
  std::optional<HistoryEntry> last;
  if (written && store.Last(last) == 0 && !setAside.empty()) Require(last == entry, "a new history has its entry");
  (void)store.SetFact(qx::kZoneFact, "UTC");
  (void)store.Trim(now);
  ReadAll(store);
  return 0;
}
