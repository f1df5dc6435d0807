// replication/message_body.h: the bodies that carry an operation: building them and taking them apart.
//
// Form A (create, modify) holds the registry's part of a record, form B (delete) the identifier alone, form C (perform)
// a command line. Values aren't escaped: a "<" or "&" makes the peer's parse of forms A and B fail. Form C isn't XML,
// as its end mark is "/<OpData>"; no parser sees it.
// Threads: any.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "interface/records.h"

namespace qx {

// Append to `xml`, which is empty.
//   returns  the length in bytes of its UTF-8 form with the final NUL; 0 on failure, which is logged
[[nodiscard]] std::uint32_t CreateXMLString(const SCHEDULE_OBJECT& schedule, const ScheduleGuid& id,
                                            std::uint32_t msgType, std::u16string& xml);
[[nodiscard]] std::uint32_t CreateXMLString(const ScheduleGuid& id, std::uint32_t msgType, std::u16string& xml);
[[nodiscard]] std::uint32_t CreateXMLString(std::u16string_view data, std::uint32_t msgType, std::u16string& xml);

// Take forms A and B apart: elements are found by name, in any order; unknown ones are ignored, the first of several
// wins. Failures are logged.
//   xml       NUL-terminated; null: 0 at once, the outs untouched
//   schedule  receives the fields that travel, as far as they were read
//   id        receives the braced identifier as it was sent, without a check; untouched on failure
//   msgType   likewise
//   returns   0, also, with the outs untouched, when the text isn't well-formed: the caller finds no identifier;
//             1: an element is missing; 0x80004003: `id` is null; 0x8007000E: no memory for it; the parser's result
[[nodiscard]] std::uint32_t ParseXMLContent(const char16_t* xml, SCHEDULE_OBJECT& schedule, BSTR* id,
                                            std::uint32_t& msgType);
[[nodiscard]] std::uint32_t ParseXMLContent(const char16_t* xml, BSTR* id, std::uint32_t& msgType);

// What lies between the first "<OpData>" and the first "/<OpData>" of form C; nothing when one is missing or the end
// comes first.
[[nodiscard]] std::optional<std::u16string_view> FindOperationData(std::u16string_view text);

}  // namespace qx
