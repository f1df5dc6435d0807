// service/list_info.h: the schedules in pages, each with its name and next window.
//
// Unlike ListSchedule it carries what the registry doesn't have, shows a damaged key in place of failing as a whole,
// and has no size above which it can't be answered.
// What the keys hold is kept from page to page and from list to list until the store changes; names and windows are
// looked up each time.
// Threads: the apartment's thread; takes g_JobListLock for a few rows at a time, with no registry handle open.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <string_view>
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
  // Gets a row, whose texts are borrowed for the call; false ends the page behind it.
  using RowSeen = std::function<bool(const SentListRow& row)>;

  // The schedules behind `afterId` (empty: from the first one), in order of their IDs, at most `limit`. No rows: the
  // end. Keys whose names are no IDs are left out. Name and window come from the listed node; of a schedule without one
  // the name is read from its .ini file, and the window is kNoWindow. The row of a key that can't be read has
  // kDamagedKey and its ID alone.
  //   returns  0; kStatusList, without a row
  [[nodiscard]] Status Page(const std::u16string& afterId, std::uint32_t limit, const RowSeen& row);

 private:
  // A key as the store has it. Its texts stand in `texts` one behind the other as they travel, each with its length
  // ahead of it: the ID, then the values in their order.
  struct KeptRow {
    std::size_t texts = 0;
    ScheduleGuid id;
    std::uint32_t taskCode = 0;
    std::uint32_t passId = 0;
    bool isDamaged = false;
  };
  // What was read of the keys behind `from` up to `upTo`; about 250 bytes a schedule.
  struct Stretch {
    std::u16string from;
    std::u16string upTo;
    bool isComplete = false;  // no key behind upTo
    std::vector<KeptRow> rows;
    std::string texts;

    [[nodiscard]] std::string_view IdOf(const KeptRow& row) const;
    [[nodiscard]] bool Covers(const std::u16string& afterId) const;
    [[nodiscard]] std::size_t FirstBehind(const std::u16string& afterId) const;
    // Takes what another stretch has behind the end of this one; false where there is a gap.
    [[nodiscard]] bool Join(const Stretch& other);
  };

  void Forget();
  [[nodiscard]] Stretch& StretchFor(const std::u16string& afterId);
  void JoinOthersTo(Stretch& stretch);
  [[nodiscard]] platform::ErrorCode ReadMore(const platform::RegistryKey& schedules, std::size_t count,
                                             Stretch& stretch);
  void Keep(const platform::SubKeyValues& key, Stretch& stretch);
  [[nodiscard]] platform::ErrorCode Prepare(const std::u16string& afterId, std::uint32_t limit, Stretch*& stretch,
                                            std::size_t& first);
  // What the job list has of a row.
  struct Listed {
    bool hasNode = false;
    std::int32_t nextWindow = kNoWindow;
    std::size_t name = 0;  // where it begins in m_names
  };
  static constexpr std::size_t kRowsAtOnce = 32;
  void LookUp(const Stretch& stretch, std::size_t begin, std::size_t end);
  [[nodiscard]] SentListRow Row(const Stretch& stretch, const KeptRow& kept, const Listed& listed);

  // All stretches are good as long as the store bears this stamp, so nothing of them is ever shown after a change,
  // whoever made it. Readers at different places of the list have one each.
  platform::RegistryStamp m_stamp;
  bool m_isDoubtful = false;  // some value couldn't be read, though it may be good: to be tried again
  std::list<Stretch> m_stretches;  // the one that was used last comes first
  // Of the rows that are being given.
  std::array<Listed, kRowsAtOnce> m_listed;
  std::string m_names;
  std::string m_nameFromFile;
};

}  // namespace qx
