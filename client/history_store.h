// client/history_store.h: the file of what was launched, changed and missed, bounded in size and age.
//
// One process writes, others read meanwhile. Times are seconds since 1970. Texts are UTF-8; a schedule is named by its
// ID in braces, capital digits.
// Threads: a store belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/database.h"
#include "platform/file.h"

namespace qx {

// What an entry tells. The texts of HistoryKindText are those in the file.
enum class HistoryKind {
  kLaunch,       // the service came to the start of the job; neither whether it started nor how it ended is known
  kMissed,       // a window passed without a launch
  kUnknown,      // a window passed, and whether the job was launched can't be known
  kAdded,        // a schedule was created
  kModified,     // a schedule was changed; with run_now it may have been launched, which no event tells
  kDeleted,      // a schedule was deleted
  kClockChange,  // the service computed all windows anew after a change of its clock or zone
  kServiceUp,    // the service came to the bus
  kServiceDown,  // the service left the bus
  kRecordBegin,  // from here on entries are made
  kRecordEnd,    // up to here entries were made
};
inline constexpr std::size_t kHistoryKinds = 11;
// "launch", "missed", "unknown", "added", "modified", "deleted", "clock-change", "service-up", "service-down",
// "record-begin", "record-end".
[[nodiscard]] const char* HistoryKindText(HistoryKind kind);

struct HistoryEntry {
  std::int64_t at = 0;  // when it was noticed
  HistoryKind kind = HistoryKind::kLaunch;
  std::string schedule;                // empty where it is about none
  std::string name;                    // at that time, where it was known
  std::optional<std::int64_t> window;  // launched, missed or unknown; nothing where it wasn't known
  std::optional<std::int64_t> next;    // the window behind it; negative: none to come
  std::string reason;                  // in words, may be empty
  friend bool operator==(const HistoryEntry&, const HistoryEntry&) = default;
};

// What the recorder knows of a schedule, kept so that the next recorder sees what passed meanwhile.
struct KnownSchedule {
  std::string name;
  std::int64_t next = -1;
  friend bool operator==(const KnownSchedule&, const KnownSchedule&) = default;
};

struct HistoryBounds {
  std::uint64_t bytes = 64u << 20;                  // of the file; a log of up to 1 MiB lies beside it
  std::int64_t seconds = std::int64_t{90} * 86400;  // age of the oldest entry
};
inline constexpr std::uint64_t kLeastHistoryBytes = 1u << 20;

struct HistoryQuery {
  std::optional<std::string> schedule;  // ID
  std::optional<std::int64_t> since;    // entries noticed at this time and later
  bool missed = false;                  // only kMissed and kUnknown
};

class HistoryStore {
 public:
  // Opens or makes the file for writing, as the only writer. A damaged file is set aside first, as NAME.damaged,
  // NAME.damaged.2 and so on.
  //   setAside  the name that a damaged file has now; empty: none was
  //   returns   0; ERROR_LOCK_VIOLATION (33): another recorder writes; ERROR_BADDB (1009): a file that isn't a history,
  //             left as it is; codes of Database and of RenameFile
  [[nodiscard]] platform::ErrorCode OpenForWriting(const std::string& name, const HistoryBounds& bounds,
                                                   std::string& setAside);
  //   returns   0; ERROR_FILE_NOT_FOUND (2); ERROR_BADDB (1009): not a history; ERROR_FILE_CORRUPT (1392)
  [[nodiscard]] platform::ErrorCode OpenForReading(const std::string& name);

  // --- writing ---

  // Appends entries and what is known of schedules, all or nothing.
  //   windows  nothing for a schedule that is gone
  [[nodiscard]] platform::ErrorCode Append(const std::vector<HistoryEntry>& entries,
                                           const std::map<std::string, std::optional<KnownSchedule>>& windows);
  // Deletes entries above the bounds, oldest first.
  //   now  seconds since 1970
  [[nodiscard]] platform::ErrorCode Trim(std::int64_t now);
  // A word of the recorder's own, such as the zone of the service.
  [[nodiscard]] platform::ErrorCode SetFact(std::string_view name, std::string_view value);

  // --- reading ---

  //   value  empty for a fact that was never set
  [[nodiscard]] platform::ErrorCode Fact(std::string_view name, std::string& value);
  [[nodiscard]] platform::ErrorCode Windows(std::map<std::string, KnownSchedule>& windows);
  // In the order in which they were made.
  [[nodiscard]] platform::ErrorCode Entries(const HistoryQuery& query, std::vector<HistoryEntry>& entries);
  // The newest entry.
  [[nodiscard]] platform::ErrorCode Last(std::optional<HistoryEntry>& entry);
  // Every schedule that an entry tells of, with the last name that it bore.
  [[nodiscard]] platform::ErrorCode Schedules(std::map<std::string, std::string>& names);
  // Bytes in use.
  [[nodiscard]] platform::ErrorCode Size(std::uint64_t& bytes);

 private:
  platform::ErrorCode OpenOnce(const std::string& name);
  platform::ErrorCode ReadNumber(const char* sql, std::int64_t& number);

  HistoryBounds m_bounds;
  platform::File m_lock;
  platform::Database m_database;
};

}  // namespace qx
