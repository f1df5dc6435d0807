// interface/list_row.h: one line of the list of schedules that the service gives in pages.
//
// Threads: values.
#pragma once

#include <cstdint>
#include <string>

namespace qx {

struct ListRow {                 // one schedule of a page
  std::u16string id;             // in braces, upper case
  std::u16string name;           // from the .ini file; empty where that can't be read
  std::u16string application;    // bstrApplication of the record, and so on
  std::u16string objectId;       // bstrObjectID
  std::uint32_t taskCode = 0;    // dwTaskOpCode
  std::u16string wrapper;        // bstrWrapperBinaryName
  std::u16string xml;            // bstrXMLFilePathName
  std::u16string parameters;     // bstrParameters
  std::u16string preScript;      // bstrPreScript
  std::u16string postScript;     // bstrPostScript
  std::uint32_t passId = 0;      // bUseGUID
  std::int32_t nextWindow = -1;  // kNoWindow, kDamagedKey, or seconds since 1970
  friend bool operator==(const ListRow&, const ListRow&) = default;
};
inline constexpr std::int32_t kNoWindow = -1;    // the schedule has no further window
inline constexpr std::int32_t kDamagedKey = -2;  // the schedule's key can't be read: only the id stands

}  // namespace qx
