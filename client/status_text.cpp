#include "client/status_text.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "platform/host.h"
#include "platform/text.h"

namespace qx {
namespace {

struct Row {
  Status status;
  const char* sentence;
  const char* hint;
};

// Of an operation on nodes.
constexpr Status kStatusNoNodes = 0x80040211;
constexpr Status kStatusNoLocalhost = 0x80040212;

constexpr Row kRows[] = {
    {kStatusOk, "Done.", ""},
    {kStatusFailure, "The operation failed.",
     "the wrapper is missing, can't be started, or memory ran out; see the service log"},
    {kStatusJobExists, "A job with this ID already exists.", "list the schedules to find it"},
    {kStatusRegistryRead, "The schedule's registry data can't be read.", "check the ID against the list of schedules"},
    {kStatusRegistryWrite, "The schedule's registry data can't be written.",
     "see the service log; the state directory may be full or read-only"},
    {kStatusSchedulesKey, "The \"Schedules\" key can't be opened for deleting.",
     "see the service log; is the service registered?"},
    {kStatusImmutable, "An immutable value was to be changed.",
     "application, object_id and task_code are fixed after creation; create a new schedule instead"},
    {kStatusModify, "The modification failed in the registry.", "see the service log"},
    {kStatusList, "The registry can't be listed.", "see the service log"},
    {kStatusRulesInvalid, "The schedule is invalid, for an unknown reason.", "see the service log"},
    {kStatusNoRunDay, "No run day rule defined.", "give days: weekdays, of_month, repeat or include"},
    {kStatusDateOverlap, "There is an include/exclude date overlap.", "take the date out of one of the two lists"},
    {kStatusRestartTooLong, "The Restart interval exceeds the size of the time-window.",
     "give a shorter restart or a longer window"},
    {kStatusNoSuchKey, "The schedule has no registry key.", "check the ID against the list of schedules"},
    {kStatusNoDirectory, "The directory of the XML path doesn't exist.",
     "create the directory, or leave xml out for the default directory"},
    {kStatusBackdated, "The rules lie wholly in the past.", "give a rule with a date to come"},
    {kStatusNoNodes, "No nodes were given.", "name at least one node, localhost among them"},
    {kStatusNoLocalhost, "The names of the nodes lack \"localhost\".", "name localhost too, in small letters"},
    {kStatusNotFoundForDelete, "The schedule can't be found or read for deleting.",
     "check the ID against the list of schedules"},
};

// A failed system call: severity bit and the system facility above, the code below.
constexpr Status kSystemFacility = 0x80070000;
// A failure of the rules library, handed on as it is.
constexpr Status kRulesFacility = 0x80000000;

}  // namespace

bool IsOfRulesLibrary(Status status) { return (status & 0xFFFF0000) == kRulesFacility; }

StatusText DescribeStatus(Status status) {
  const Row* row = std::find_if(std::begin(kRows), std::end(kRows), [&](const Row& r) { return r.status == status; });
  if (row != std::end(kRows)) return {row->sentence, row->hint};
  if ((status & 0xFFFF0000) == kSystemFacility) {
    const platform::ErrorCode code = status & 0xFFFF;
    std::string text = platform::Utf8FromWide(platform::SystemErrorText(code));
    if (text.empty()) text = "A system call failed with code " + std::to_string(code) + ".";
    return {text, "see the service log for the step that failed"};
  }
  if (IsOfRulesLibrary(status)) {
    return {"The rules of the schedule can't be read or used.", "see the service log"};
  }
  return {"Unknown status.", "see the service log"};
}

std::string FormatStatus(Status status) {
  char number[16];
  std::snprintf(number, sizeof number, "0x%08X", status);
  return std::string(number) + " " + DescribeStatus(status).sentence;
}

}  // namespace qx
