// client/batch.h: window queries over the rules library, JSON Lines in, JSON Lines out.
//
// A query: {"id": any, "record": {fields of SCHEDULE_OBJECT} or "fresh": true, "ref": n, "anchor": n, "effective": n,
// "count": n, "at": n}. Missing numbers are 0, "count" 1 and at most kBatchMostWindows; "at" is optional.
// An answer: {"id": any, "validate": "0x8004020A", "windows": [{"hr": "0x00000000", "start": n, "end": n, "last": 0,
// "match": 4}], "in_window": 0}. "validate" is the adapter's result for the record, of "fresh" (a new object without a
// record) the object's own; windows are computed whatever it says. The first window is asked for from "ref", each one
// behind it from the start before; one whose "hr" isn't 0 ends the list and is part of it. "start" and "end" are null
// where the query leaves its outs unwritten. "in_window" stands only where "at" was given.
// A line that isn't a query is answered by {"id": ..., "error": "..."} and the next line is read.
// Threads: one call at a time; the zone is the process's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

namespace qx {

inline constexpr std::size_t kBatchLongestLine = 4 * 1024 * 1024;  // bytes; a record with full lists has some 20,000
inline constexpr std::size_t kBatchDeepestNesting = 64;            // brackets of one line, "id" included
inline constexpr std::int64_t kBatchMostWindows = 100000;

// The answer to one line, without a line end. Nothing is thrown.
[[nodiscard]] std::string AnswerBatchLine(std::string_view line);

// Answers every line of `in` in order and flushes behind each answer; blank lines are passed over. A line that is too
// long is read to its end, not kept, and answered by an error.
//   returns  false when `out` took no more
[[nodiscard]] bool RunBatch(std::istream& in, std::ostream& out);

}  // namespace qx
