// client/schedule_keys.h: a record as the keys of a schedule file, to compare and to change them one by one.
//
// A key is named as in the file, "window.start"; its value is the TOML text behind "=". job.run_now is no key here: it
// is never stored. Empty texts count as not given.
// Threads: every function may be called from any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "interface/records.h"
#include "platform/clock.h"

namespace qx {

struct ScheduleKey {
  std::string name;
  std::string value;
  friend bool operator==(const ScheduleKey&, const ScheduleKey&) = default;
};

// The record as the service gives it back: what its rules library drops or completes of the rules is dropped and
// completed here too. In the zone of the process; an anchor that isn't given is the present day. Throws a
// std::exception when memory runs out: a record in part would pass for a changed one.
[[nodiscard]] SCHEDULE_OBJECT AsServiceKeeps(const SCHEDULE_OBJECT& record);

// In the order of the file.
[[nodiscard]] std::vector<ScheduleKey> KeysOf(const SCHEDULE_OBJECT& record, const platform::Zone& zone);

// The text of a schedule file with these keys, one a line.
[[nodiscard]] std::string TextOfKeys(const std::vector<ScheduleKey>& keys);

struct KeyDifference {
  std::string key;
  std::optional<std::string> before;  // nothing: not given
  std::optional<std::string> after;
};
// What differs: the keys of `before` in their order, then the new ones.
[[nodiscard]] std::vector<KeyDifference> CompareKeys(const std::vector<ScheduleKey>& before,
                                                     const std::vector<ScheduleKey>& after);

// Whether a key keeps the value of the schedule's creation: application, object_id and task_code are refused by the
// service; of job.pass_id it keeps the old value in its store, so that a change would end with its next start.
[[nodiscard]] bool IsFixedKey(const std::string& name);
// The first fixed key that differs; nothing when none does.
[[nodiscard]] std::optional<std::string> ChangedFixedKey(const std::vector<KeyDifference>& differences);

// The keys that AssignKey() knows, in the order of the file.
[[nodiscard]] std::vector<std::string> SettableKeys();

// Carries out KEY=VALUE, or for a list KEY+=VALUE and KEY-=VALUE. Texts are taken as they stand; a list is TOML or
// words with commas between; an empty value takes the key away. An end takes a duration away, and the other way round.
//   key      the key that was named
//   returns  an error sentence, empty for success; the value itself isn't checked
[[nodiscard]] std::string AssignKey(std::vector<ScheduleKey>& keys, const std::string& assignment, std::string& key);

}  // namespace qx
