// service/schedule_store.h: the registry side of a schedule: one key per schedule, named after its ID.
//
// Each routine opens and closes its own handles, and a failing commit at closing counts as the failure of its last
// step, so that status 0 means: on disk. Every failing system call is written to the service log.
// Threads: any; there is no lock, and the last writer wins.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "common/registry_keys.h"
#include "interface/ISchedulerService.h"
#include "interface/records.h"
#include "platform/registry.h"

namespace qx {

// What building a job node needs of one schedule's key.
struct StoredJob {
  std::u16string wrapper;
  std::u16string xmlPath;
  std::u16string parameters;
  std::u16string preScript;
  std::u16string postScript;
  bool useGuid = false;
};

// Reads a text value into a buffer that was sized by the longest value of its key: a value that has grown since counts
// as a failed read. The value must be a string, an expandable or a multi-string of whole characters with its
// terminator.
//   returns  ERROR_INVALID_DATA (13) for any other value; else as platform::QueryValue()
[[nodiscard]] platform::ErrorCode ReadTextValue(const platform::RegistryKey& key, std::u16string_view name,
                                                std::span<char16_t> buffer, std::u16string& out);

}  // namespace qx

// Writes all values of a schedule in the order of their table; makes the keys that are missing. At the first failure it
// stops; what the open batch held is then lost as a whole or kept as told by the store.
//   returns  0; kStatusRegistryWrite
[[nodiscard]] Status WriteRegistry(const SCHEDULE_OBJECT& schedule, const ScheduleGuid& id);

// Reads the registry's part of a record; name, description, rules and bRunNow are left alone.
//   returns  0; kStatusRegistryRead, with the strings that were read so far in the record
[[nodiscard]] Status ReadRegistry(const ScheduleGuid& id, SCHEDULE_OBJECT& schedule);

//   returns  0; kStatusSchedulesKey; kStatusNoSuchKey
[[nodiscard]] Status DeleteRegistry(const ScheduleGuid& id);

// Compares the immutable values and writes the others; "UseGUID" keeps the value of the creation.
//   returns  0; kStatusImmutable; kStatusNoSuchKey; kStatusModify
[[nodiscard]] Status ModifyRegistry(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule);

// All schedules, in the order in which the store enumerates its keys.
//   count      set as soon as the key was queried
//   schedules  made when there is at least one; partly filled after a failure, and after a refused allocation still
//              accessed: the caller cleans up
//   returns  0; kStatusList
[[nodiscard]] Status ListRegistry(std::uint32_t& count, ScheduleList& schedules);

// 1 when the schedule has a key, else 0.
//   failed  0; 1 when the keys couldn't be looked at
[[nodiscard]] int RegistryExists(const ScheduleGuid& id, int& failed);

// The braced text of a key's name to an ID, digit by digit: letters beyond F pass the check and count as 0.
//   returns  false for text of another shape, with one line in the service log
[[nodiscard]] bool StringToGUID(const char16_t* text, ScheduleGuid& id);
