// service/job_node.h: one live schedule: what to start and when.
//
// A node is a value whose copies share one uncounted reference to the rule object: copying takes no count and the
// destructor drops none; ReleaseScheduler() alone gives it up. So: build a local node, InitializeScheduler(), AddJob()
// a copy; from then on the copy in the list owns the reference, and whoever erases it calls ReleaseScheduler() first.
// Threads: a value; one thread at a time.
#pragma once

#include <cstdint>
#include <string>

#include "common/schedule_adapter.h"
#include "foundation/include/zfcstring.h"
#include "interface/records.h"
#include "platform/error_codes.h"

class CJobNode {
 public:
  ScheduleGuid ScheduleID{};
  std::int64_t NextTimeWindow = 0;  // seconds since 1970, always a sign-extended 32-bit value
  ZepFoundation::wcstring LaunchPath;  // the complete command line
  CZEPScheduleObj ScheduleObj;         // the reference to the rule object, and the .ini file's path

  // Gets a new rule object from the factory, initialising the rules library on the first call in the process.
  //   returns  0; the factory's failure as it stands
  [[nodiscard]] Status InitializeScheduler();
  // Gives the reference up and clears it. Calling it twice is harmless. Always 0.
  Status ReleaseScheduler();
  // Always 0.
  Status SetConfigFilePath(std::u16string_view path);
  // Builds the command line: wrapper, ID, "XML", parameters, Pre="...", Post="...", each behind one blank, empty pieces
  // left out.
  //   returns  0; 1 for an empty wrapper: the command line stays as it was
  [[nodiscard]] Status SetLaunchPath(std::u16string_view wrapper, std::u16string_view xmlPath,
                                     std::u16string_view parameters, std::uint32_t useGuid,
                                     std::u16string_view preScript, std::u16string_view postScript);
  // Starts the job, detached, and forgets it.
  //   returns  0; 1 when the process couldn't be created
  Status Launch();
  // Loads the rules into the rule object and validates them.
  [[nodiscard]] Status ValidateScheduleRules(const SCHEDULE_OBJECT& schedule);
  // Computes the window that follows the present; a negative value: none.
  std::int64_t UpdateNextTimeWindow();
  //   returns  0; a negative result of the library, ZEP_E_POINTER without a rule object
  [[nodiscard]] Status ReadScheduleFromFile();
  // ReadScheduleFromFile, then the rules into the record.
  [[nodiscard]] Status LoadScheduleFromFile(SCHEDULE_OBJECT& schedule);
  // Sets the rules and writes the .ini file; ZEP_E_POINTER without a rule object. What the save answers isn't returned.
  Status SavScheduleToFile(const SCHEDULE_OBJECT& schedule);  // Deliberate: spelled so.
  // Moves the .ini file aside, to {ID}.ini.old, not synced; a failure is logged.
  //   returns  0: it lies aside; a code of platform::RenameFile: it is where it was, if anywhere
  platform::ErrorCode DeleteScheduleRuleFile();

  // The braced, upper-case ID: also the name of the registry key and of the .ini file.
  [[nodiscard]] std::u16string IdText() const;
};

// Gives the rule object of a function's own node up at the end, whatever happened. One that the list took over is to be
// cleared in the node.
class CReleaseAtEnd {
 public:
  explicit CReleaseAtEnd(CJobNode& node) : m_node(node) {}
  ~CReleaseAtEnd() { m_node.ReleaseScheduler(); }
  CReleaseAtEnd(const CReleaseAtEnd&) = delete;
  CReleaseAtEnd& operator=(const CReleaseAtEnd&) = delete;

 private:
  CJobNode& m_node;
};
