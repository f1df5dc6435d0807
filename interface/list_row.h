// interface/list_row.h: one line of the list of schedules that the service gives in pages.
//
// Threads: values.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

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

// The same as it travels: UTF-8 texts that stand elsewhere, each with a NUL right behind it.
struct SentListRow {
  std::string_view id;                  // as ListRow's, and so on
  std::string_view name;                // from the .ini file
  std::string_view application;         // bstrApplication
  std::string_view objectId;            // bstrObjectID
  std::uint32_t taskCode = 0;           // dwTaskOpCode
  std::string_view wrapper;             // bstrWrapperBinaryName
  std::string_view xml;                 // bstrXMLFilePathName
  std::string_view parameters;          // bstrParameters
  std::string_view preScript;           // bstrPreScript
  std::string_view postScript;          // bstrPostScript
  std::uint32_t passId = 0;             // bUseGUID
  std::int32_t nextWindow = kNoWindow;  // kNoWindow, kDamagedKey, or seconds since 1970
};

// Rows with what holds their texts; copies share it. Belongs to the thread of those who made it.
struct SentListRows {
  std::vector<SentListRow> rows;                   // in the order of the list
  std::vector<std::shared_ptr<const void>> texts;  // the answers in which the rows' texts stand
};

}  // namespace qx
