// service/populate.h: filling the job list from the registry.
//
// Threads: takes g_JobListLock node by node through AddJob; a reader may see a part of the list meanwhile.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "interface/records.h"
#include "platform/registry.h"
#include "service/job_node.h"

namespace qx {
class LoadAhead;
}

// Loads every schedule with a further window; a bad one is logged and skipped, its key and .ini file left as they are.
// A window that passed while the service was down is not made up. Always 0.
Status PopulateJobList();
// The same with what was begun earlier to load ahead, null for nothing.
Status PopulateJobList(std::unique_ptr<qx::LoadAhead> ahead);

// Releases every rule object and empties the list, under g_JobListLock.
void DoCleanUp();

namespace qx {

// In which order a node is built from its key, and in which words a failure is told; see the two callers.
struct JobBuildWords {
  bool idBeforeKey;            // the name is read as an ID before its key is opened
  const char16_t* badId;
  std::uint32_t noIniFileLevel;
  const char16_t* noIniFile;   // one %s
  bool noIniFileNamesKey;      // the %s is the key's name, else the file's path
  bool pathBeforeScheduler;    // the .ini path is set before the rule object is made
  const char16_t* readFailed;  // one %x
};
extern const JobBuildWords kPopulateWords;
extern const JobBuildWords kTimeChangeWords;

// Builds a node from one key of "Schedules" and its .ini file; the window is not computed.
//   schedules  the open "Schedules" key
//   keyName    the schedule's key
//   node       may own the reference to a rule object afterwards, behind a failure too: the caller gives it up
//   returns    false after a failure, which is logged
[[nodiscard]] bool BuildJobNode(const platform::RegistryKey& schedules, std::u16string_view keyName,
                                const JobBuildWords& words, CJobNode& node);

}  // namespace qx
