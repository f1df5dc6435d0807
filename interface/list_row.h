// interface/list_row.h: one line of the list of schedules that the service gives in pages.
//
// Threads: values.
#pragma once

#include <cstdint>
#include <string>

namespace qx {

struct ListRow {  // one schedule of a page
  std::u16string id;
  std::u16string name;
  std::u16string application;
  std::u16string objectId;
  std::uint32_t taskCode = 0;
  std::u16string wrapper;
  std::u16string xml;
  std::u16string parameters;
  std::u16string preScript;
  std::u16string postScript;
  std::uint32_t passId = 0;
  std::int32_t nextWindow = -1;  // kNoWindow, kDamagedKey, or seconds since 1970
  friend bool operator==(const ListRow&, const ListRow&) = default;
};
inline constexpr std::int32_t kNoWindow = -1;    // the schedule has no further window
inline constexpr std::int32_t kDamagedKey = -2;  // the schedule's key can't be read: only the id stands

}  // namespace qx
