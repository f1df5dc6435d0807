// service/node_setup.h: the steps that turn a record into a job node, shared by the operations that do so.
//
// Nothing here is logged: each operation has words of its own. Threads: any; functions over their arguments.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "interface/records.h"
#include "service/job_node.h"

namespace qx {

// The text of a counted string; an absent one is empty.
[[nodiscard]] std::u16string_view TextOf(const BSTR& text);

// The bytes of a record's texts; what sets memory aside for a change of it (platform::ReservedMemory) counts with them.
[[nodiscard]] std::size_t TextBytes(const SCHEDULE_OBJECT& schedule);

// Asks for the memory of a path.
//   name     what the memory is for; a test makes the allocation of that name fail
//   returns  false when it is refused
[[nodiscard]] bool HasMemoryFor(std::u16string_view path, std::string_view name);

// The command line from the record's job fields and bUseGUID.
//   returns  0; 1 for an empty wrapper: the node's command line stays as it was
[[nodiscard]] Status SetLaunchPathFrom(const SCHEDULE_OBJECT& schedule, CJobNode& node);

enum class IniPlace { kFound, kNoMemory, kNoDirectory };

// The .ini path of a record, whose directory must exist; the XML file itself need not. A null XML path has none.
//   memoryName  as HasMemoryFor's
//   path        set for kFound only
[[nodiscard]] IniPlace FindIniPlace(const SCHEDULE_OBJECT& schedule, const ScheduleGuid& id,
                                    std::string_view memoryName, std::u16string& path);

}  // namespace qx
