// interface/list_row.h: one line of the list of schedules that the service gives in pages.
//
// Threads: values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qx {

inline constexpr std::int32_t kNoWindow = -1;    // the schedule has no further window
inline constexpr std::int32_t kDamagedKey = -2;  // the schedule's key can't be read: only the id stands

// One schedule of a page, whose texts a Text holds.
template <typename Text>
struct BasicListRow {
  Text id;                              // in braces, upper case
  Text name;                            // from the .ini file; empty where that can't be read
  Text application;                     // bstrApplication of the record, and so on
  Text objectId;                        // bstrObjectID
  std::uint32_t taskCode = 0;           // dwTaskOpCode
  Text wrapper;                         // bstrWrapperBinaryName
  Text xml;                             // bstrXMLFilePathName
  Text parameters;                      // bstrParameters
  Text preScript;                       // bstrPreScript
  Text postScript;                      // bstrPostScript
  std::uint32_t passId = 0;             // bUseGUID
  std::int32_t nextWindow = kNoWindow;  // kNoWindow, kDamagedKey, or seconds since 1970
  friend bool operator==(const BasicListRow&, const BasicListRow&) = default;
};

// A row as a program reads it.
using ListRow = BasicListRow<std::u16string>;
// A row as it travels: UTF-8 texts without NUL that stand elsewhere.
using SentListRow = BasicListRow<std::string_view>;

// Rows with what holds their texts; copies share it. Belongs to the thread of those who made it.
struct SentListRows {
  std::vector<std::vector<SentListRow>> blocks;    // one behind the other: the rows in the order of the list
  std::vector<std::shared_ptr<const void>> texts;  // the answers in which the rows' texts stand

  // The number of rows in all blocks.
  [[nodiscard]] std::size_t Count() const {
    std::size_t count = 0;
    for (const auto& block : blocks) count += block.size();
    return count;
  }
  // Calls with each row in turn; their places stay while `blocks` does.
  template <typename RowSeen>
  void ForEach(const RowSeen& seen) const {
    for (const auto& block : blocks) {
      for (const SentListRow& row : block) seen(row);
    }
  }
};

}  // namespace qx
