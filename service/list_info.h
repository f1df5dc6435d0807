// service/list_info.h: the schedules in pages, each with its name and next window.
//
// Unlike ListSchedule it carries what the registry doesn't have, shows a damaged key in place of failing as a whole,
// and has no size above which it can't be answered.
// Threads: the apartment's thread; takes g_JobListLock for one row at a time, with no registry handle open.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/bus_records.h"
#include "interface/records.h"
#include "platform/registry.h"

namespace qx {

// The most rows of one page; also what a limit of 0 stands for.
inline constexpr std::uint32_t kListPageLimit = 1000;

class CListInfo {
 public:
  // The schedules behind `afterId` (empty: from the first one), in order of their IDs, at most `limit`. No rows: the
  // end. Keys whose names are no IDs are left out. Name and window come from the listed node; of a schedule without one
  // the name is read from its .ini file, and the window is kNoWindow. The row of a key that can't be read has
  // kDamagedKey and its ID alone.
  //   rows     replaced on success, untouched on failure
  //   returns  0; kStatusList
  [[nodiscard]] Status Page(const std::u16string& afterId, std::uint32_t limit, std::vector<ListRow>& rows);

 private:
  // Where the last page ended: the next one usually begins there, and finding the place anew costs more.
  std::u16string m_lastId;
  std::uint32_t m_nextIndex = 0;
  platform::RegistryKey m_schedules;  // only read; knows its own place, which costs less than counting to it
};

}  // namespace qx
