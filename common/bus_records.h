// common/bus_records.h: how the client interface travels on the bus: names, records, identifiers and the refusals.
//
// The only place that turns records into bus values and back; the service and the client library both use it.
// A SCHEDULE_OBJECT is a{sv} with the record's field names as keys: strings s, numbers u or i, flags u (or b for 0 and
// 1), days of the month an, days of the week au, dates ai, the rules a nested a{sv} under "stScheduleRules". An absent
// string is a null string, an absent number 0, an absent or short array is filled with 0.
// Reading is strict: every failure is an InvalidArgs error that names the key ("unknown key 'stScheduleRules.foo'"),
// and the output stays as it was.
// Threads: those of the reader or writer that is passed in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "interface/list_row.h"
#include "interface/records.h"
#include "platform/bus.h"

namespace qx {

inline constexpr std::string_view kBusName = "com.korvane.QxSched1";
inline constexpr std::string_view kBusPath = "/com/korvane/QxSched1";
inline constexpr std::string_view kBusServiceInterface = "com.korvane.QxSched1.SchedulerService";
inline constexpr std::string_view kBusEventsInterface = "com.korvane.QxSched1.SchedulerServiceEvents";
inline constexpr std::string_view kBusManagerInterface = "com.korvane.QxSched1.Manager";

// Type texts.
inline constexpr std::string_view kScheduleType = "a{sv}";
inline constexpr std::string_view kScheduleExContents = "ussssssssu";
inline constexpr std::string_view kScheduleListType = "a(ussssssssu)";
inline constexpr std::string_view kScheduleInfoType = "aa{sv}";
inline constexpr std::string_view kListRowContents = "ssssusssssui";
inline constexpr std::string_view kListRowsType = "a(ssssusssssui)";

// The error of an operation that the service doesn't carry out (D-Bus specification, "Standard errors").
inline constexpr std::string_view kBusErrorNotSupported = "org.freedesktop.DBus.Error.NotSupported";

// The largest reply, in bytes: a bus daemon throws a sender of more than its limit off the bus. Its stock limit is 32
// MiB; the policy file of this program raises it, up to what one array may have (64 MiB).
inline constexpr std::size_t kReplyLimit = std::size_t{30} << 20;
inline constexpr std::size_t kReplyLimitWithPolicy = std::size_t{60} << 20;
// Where the installed policy file lies.
inline constexpr const char* kPolicyFiles[] = {"/usr/share/dbus-1/system.d/com.korvane.QxSched1.conf",
                                               "/etc/dbus-1/system.d/com.korvane.QxSched1.conf"};
// The limit in force: looks for the policy file.
[[nodiscard]] std::size_t ReplyLimit();
// The refusal of a reply that has become larger than `limit`; unset while it hasn't. Names ListInfo.
[[nodiscard]] platform::BusError CheckReplySize(const platform::MessageWriter& reply, std::size_t limit);

// Whose values are read. A request may hold no CR, LF or NUL in a string: it would write lines of its own into a
// schedule's file. What a reply holds stands in a store already and is shown as it is.
enum class Reading { kRequest, kReply };

// Writes every field in declared order; null strings and the trailing zeros of arrays are left out.
void AppendSchedule(platform::MessageWriter& writer, const SCHEDULE_OBJECT& schedule);
// Reads one a{sv}.
[[nodiscard]] platform::BusError ReadSchedule(platform::MessageReader& reader, Reading reading,
                                              SCHEDULE_OBJECT& schedule);

// (ussssssssu) in field order; a null string travels as the empty one.
void AppendScheduleEx(platform::MessageWriter& writer, const SCHEDULE_OBJECT_EX& schedule);
[[nodiscard]] platform::BusError ReadScheduleEx(platform::MessageReader& reader, SCHEDULE_OBJECT_EX& schedule);

// One line of the paged list.
void AppendListRow(platform::MessageWriter& writer, const ListRow& row);
[[nodiscard]] platform::BusError ReadListRow(platform::MessageReader& reader, ListRow& row);
void AppendListRow(platform::MessageWriter& writer, const SentListRow& row);
// All lines of an array. The texts of the second stand in the reader's message and live as long.
//   rows  appended to; after a failure those before it are there
[[nodiscard]] platform::BusError ReadListRows(platform::MessageReader& reader, std::vector<ListRow>& rows);
[[nodiscard]] platform::BusError ReadListRows(platform::MessageReader& reader, std::vector<SentListRow>& rows);
[[nodiscard]] ListRow WideListRow(const SentListRow& row);

// Braced text, written in upper case, read in either case.
//   name  what a refusal calls it
void AppendScheduleId(platform::MessageWriter& writer, const ScheduleGuid& id);
[[nodiscard]] platform::BusError ReadScheduleId(platform::MessageReader& reader, std::string_view name,
                                                ScheduleGuid& id);
// The text of an identifier itself; false for any other text, `id` untouched.
[[nodiscard]] bool ParseScheduleId(std::string_view text, ScheduleGuid& id);

// Plain strings and arrays. A lone surrogate, a NUL and a noncharacter (U+FFFE, U+FDD0), which no bus string can hold,
// travel as U+FFFD.
void AppendText(platform::MessageWriter& writer, std::u16string_view text);
// The first noncharacter of a text as "U+FFFE"; empty where it has none.
[[nodiscard]] std::string FirstNoncharacter(std::u16string_view text);
// Appends the text as it travels.
void AppendSentText(std::string& out, std::u16string_view text);
[[nodiscard]] platform::BusError ReadText(platform::MessageReader& reader, Reading reading, std::string_view name,
                                          std::u16string& text);
void AppendTexts(platform::MessageWriter& writer, const std::vector<std::u16string>& texts);
[[nodiscard]] platform::BusError ReadTexts(platform::MessageReader& reader, Reading reading, std::string_view name,
                                           std::vector<std::u16string>& texts);
void AppendNumbers(platform::MessageWriter& writer, const std::vector<std::int32_t>& numbers);
[[nodiscard]] platform::BusError ReadNumbers(platform::MessageReader& reader, std::string_view name,
                                             std::vector<std::int32_t>& numbers);

}  // namespace qx
