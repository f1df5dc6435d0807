// common/schedule_adapter.h: the service's side of the rules library.
//
// Turns a SCHEDULE_OBJECT into calls on a schedule object and back, and ties the schedule to its .ini file. Entry, exit
// and failures are written to the service log. The adapter copies as a bare pair of pointer and path: it counts no
// reference (the node that holds it says who does).
// Threads: one adapter serves one thread at a time.
#pragma once

#include <cstdint>
#include <memory>

#include "common/zepSchedIUnknown.h"
#include "foundation/include/zfcstring.h"
#include "interface/records.h"

class CZEPScheduleObj {
 public:
  // The schedule object; set by whoever owns the reference. Every operation needs one.
  zepISchedule* m_pSchedule = nullptr;
  // The schedule's .ini file, as the client's text.
  ZepFoundation::wcstring m_IniFilePath;

  // Loads the rules into the schedule object, validates them, and saves them when they are valid.
  //   returns  as Validate_ScheduleRules; the result of the save isn't looked at
  Status AddScheduleRules(const SCHEDULE_OBJECT* schedule);

  // Loads the rules and validates them. A value that a setter refuses is not applied, and that is no failure.
  //   returns  0; kStatusNoRunDay, kStatusDateOverlap, kStatusRestartTooLong, kStatusRulesInvalid. The schedule object
  //            keeps the loaded rules in any case.
  Status Validate_ScheduleRules(const SCHEDULE_OBJECT* schedule);

  // Writes the schedule into its .ini file as one replacement, synced, with both date sections.
  //   returns  0; a negative result of the library, or 0x8007xxxx of the file: nothing on disk has changed
  Status SaveScheduleToFile();

  // Reads the schedule from its .ini file.
  //   returns  0; a negative result of the library
  Status LoadScheduleFromFile();

  // Fills name, description, rules and lNextTimeWindow of the record from the schedule object; leaves the rest alone.
  //   returns  0; the failure of the name's or the description's getter
  Status LoadScheduleFromPropBag(SCHEDULE_OBJECT* schedule);

  // The next window's start after the present time, its low 32 bits: 0xFFFFFFFF when there is none.
  std::uint32_t GetNextTimeWindow();
};

// SaveScheduleToFile() in two steps, for whoever has other work for the disk in between. What isn't finished leaves
// file and schedule object as they were.
// Threads: bound to its thread, on which no other save of the file runs meanwhile.
class CScheduleFileSave {
 public:
  //   schedule  borrowed for this object's life
  explicit CScheduleFileSave(CZEPScheduleObj& schedule);
  CScheduleFileSave(const CScheduleFileSave&) = delete;
  CScheduleFileSave& operator=(const CScheduleFileSave&) = delete;
  ~CScheduleFileSave();

  // Writes the new file beside the old one and has the disk begin with it. A failure is kept for Finish().
  void Prepare();
  // Puts the new file in place, synced; without a Prepare() does all of it.
  //   returns  as SaveScheduleToFile
  Status Finish();

 private:
  struct State;
  std::unique_ptr<State> m_state;
};
