// service/list_info.h: the schedules in pages, each with its name and next window.
//
// Unlike ListSchedule it carries what the registry doesn't have, shows a damaged key in place of failing as a whole,
// and has no size above which it can't be answered.
// What the keys hold is kept from page to page and from list to list until the store changes; names and windows are
// looked up each time.
// Threads: the apartment's thread; takes g_JobListLock for one row at a time, with no registry handle open.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/bus_records.h"
#include "interface/records.h"
#include "platform/registry.h"
#include "platform/registry_sub_keys.h"

namespace qx {

// The most rows of one page; also what a limit of 0 stands for.
inline constexpr std::uint32_t kListPageLimit = 1000;

class CListInfo {
 public:
  // The schedules behind `afterId` (empty: from the first one), in order of their IDs, at most `limit`. No rows: the
  // end. Keys whose names are no IDs are left out. Name and window come from the listed node; of a schedule without one
  // the name is read from its .ini file, and the window is kNoWindow. The row of a key that can't be read has
  // kDamagedKey and its ID alone.
  //   rows     replaced on success, untouched on failure; given again, its texts' room is used again
  //   returns  0; kStatusList
  [[nodiscard]] Status Page(const std::u16string& afterId, std::uint32_t limit, std::vector<ListRow>& rows);

 private:
  // A key as the store has it. Its texts stand in m_texts one behind the other, each with a terminator: the ID, then
  // the values in their order.
  struct KeptRow {
    std::size_t texts = 0;
    std::uint32_t taskCode = 0;
    std::uint32_t passId = 0;
    bool isDamaged = false;
  };

  void Forget();
  [[nodiscard]] std::u16string_view IdOf(const KeptRow& row) const { return m_texts.c_str() + row.texts; }
  [[nodiscard]] bool Covers(const std::u16string& afterId) const;
  [[nodiscard]] std::size_t FirstBehind(const std::u16string& afterId) const;
  [[nodiscard]] platform::ErrorCode ReadMore(const platform::RegistryKey& schedules, std::size_t count);
  void Keep(const platform::SubKeyValues& key);
  [[nodiscard]] platform::ErrorCode Prepare(const std::u16string& afterId, std::uint32_t limit, std::size_t& first);
  void Give(const KeptRow& kept, ListRow& row) const;

  // What was read of the keys behind m_from up to m_upTo. Good as long as the store bears the same stamp, so nothing of
  // it is ever shown after a change, whoever made it; about 250 bytes a schedule.
  platform::RegistryStamp m_stamp;
  std::u16string m_from;
  std::u16string m_upTo;
  bool m_isComplete = false;  // no key behind m_upTo
  bool m_isDoubtful = false;  // some value couldn't be read, though it may be good: to be tried again
  std::vector<KeptRow> m_rows;
  std::u16string m_texts;
};

}  // namespace qx
