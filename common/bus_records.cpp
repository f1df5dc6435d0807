#include "common/bus_records.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <span>
#include <type_traits>
#include <utility>
#include <variant>

#include "platform/file.h"
#include "platform/text.h"

namespace qx {
namespace {

using platform::BusError;
using platform::BusKind;
using platform::ERROR_SUCCESS;
using platform::MessageReader;
using platform::MessageWriter;

constexpr std::string_view kRulesKey = "stScheduleRules";
constexpr std::string_view kRulesPrefix = "stScheduleRules.";

// One key of a record: where its value stands. The member's type says how it travels.
template <class Record>
struct Field {
  std::string_view key;
  std::variant<BSTR Record::*, std::uint32_t Record::*, std::int32_t Record::*,
               std::array<std::int16_t, kDaysOfMonthCount> Record::*,
               std::array<std::uint32_t, kDaysOfWeekCount> Record::*,
               std::array<std::int32_t, kSpecificDateCount> Record::*, SCHEDULE_RULE Record::*>
      member;
};

using R = SCHEDULE_RULE;
constexpr Field<R> kRuleFields[] = {
    {"lStartTime", &R::lStartTime},
    {"lEndTime", &R::lEndTime},
    {"dwTimeDuration", &R::dwTimeDuration},
    {"bEffectiveDate", &R::bEffectiveDate},
    {"lEffectiveDate", &R::lEffectiveDate},
    {"bRestartInterval", &R::bRestartInterval},
    {"dwRestartInterval", &R::dwRestartInterval},
    {"bRepeatInterval", &R::bRepeatInterval},
    {"dwRepeatInterval", &R::dwRepeatInterval},
    {"lAnchorDate", &R::lAnchorDate},
    {"adwDaysOfMonth", &R::adwDaysOfMonth},
    {"bLastDayOfMonth", &R::bLastDayOfMonth},
    {"dwDaysOfWeek0", &R::dwDaysOfWeek0},
    {"dwDaysOfWeek1", &R::dwDaysOfWeek1},
    {"dwDaysOfWeek2", &R::dwDaysOfWeek2},
    {"dwDaysOfWeek3", &R::dwDaysOfWeek3},
    {"dwDaysOfWeek4", &R::dwDaysOfWeek4},
    {"alIncludeDates", &R::alIncludeDates},
    {"alExcludeDates", &R::alExcludeDates},
};

using S = SCHEDULE_OBJECT;
constexpr Field<S> kScheduleFields[] = {
    {"bstrName", &S::bstrName},
    {"bstrDescription", &S::bstrDescription},
    {"bstrApplication", &S::bstrApplication},
    {"bstrObjectID", &S::bstrObjectID},
    {"dwTaskOpCode", &S::dwTaskOpCode},
    {"bstrWrapperBinaryName", &S::bstrWrapperBinaryName},
    {"bstrXMLFilePathName", &S::bstrXMLFilePathName},
    {"bstrParameters", &S::bstrParameters},
    {"bstrPreScript", &S::bstrPreScript},
    {"bstrPostScript", &S::bstrPostScript},
    {"bRunNow", &S::bRunNow},
    {"bUseGUID", &S::bUseGUID},
    {"lNextTimeWindow", &S::lNextTimeWindow},
    {kRulesKey, &S::stScheduleRules},
};

// --- text ---

// The noncharacters of Unicode, which the bus library takes for ill-formed: U+FDD0 to U+FDEF and the last two of a
// plane.
constexpr bool IsNoncharacter(std::uint32_t c) { return (c >= 0xFDD0 && c <= 0xFDEF) || (c & 0xFFFE) == 0xFFFE; }

// The character at a place, a pair of surrogates as one.
struct CharacterAt {
  CharacterAt(std::u16string_view text, std::size_t i) : code(text[i]) {
    isPair = (code & 0xFC00) == 0xD800 && i + 1 < text.size() && (text[i + 1] & 0xFC00) == 0xDC00;
    if (isPair) code = 0x10000 + ((code & 0x3FF) << 10) + (text[i + 1] & 0x3FFu);
  }
  [[nodiscard]] std::size_t Units() const { return isPair ? 2 : 1; }

  std::uint32_t code;
  bool isPair = false;
};

// The text with U+FFFD for each character that no string of the bus holds. A lone surrogate is left to the conversion.
std::u16string Sendable(std::u16string_view text) {
  std::u16string sent;
  sent.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const CharacterAt c(text, i);
    if (c.code == 0 || IsNoncharacter(c.code)) {
      sent += u'\uFFFD';
    } else {
      sent.append(text.substr(i, c.Units()));
    }
    i += c.Units();
  }
  return sent;
}

// Most texts are plain ASCII.
void Widen(std::string_view text, std::u16string& out) {
  unsigned char all = 0;
  for (const char c : text) all |= static_cast<unsigned char>(c);
  if (all >= 0x80) {
    out = platform::WideFromUtf8(text);
    return;
  }
  out.resize(text.size());
  std::copy(text.begin(), text.end(), out.begin());
}

// --- scalars by type ---

constexpr std::string_view TypeOf(const BSTR*) {
  return "s";
}
constexpr std::string_view TypeOf(const std::uint32_t*) {
  return "u";
}
constexpr std::string_view TypeOf(const std::int32_t*) {
  return "i";
}
constexpr std::string_view TypeOf(const SCHEDULE_RULE*) {
  return "a{sv}";
}
constexpr std::string_view TypeOf(const std::array<std::int16_t, kDaysOfMonthCount>*) {
  return "an";
}
constexpr std::string_view TypeOf(const std::array<std::uint32_t, kDaysOfWeekCount>*) {
  return "au";
}
constexpr std::string_view TypeOf(const std::array<std::int32_t, kSpecificDateCount>*) {
  return "ai";
}

void Append(MessageWriter& writer, std::uint32_t value) {
  writer.AppendUint32(value);
}
void Append(MessageWriter& writer, std::int32_t value) {
  writer.AppendInt32(value);
}

platform::ErrorCode Read(MessageReader& reader, std::uint32_t& value) {
  return reader.ReadUint32(value);
}
platform::ErrorCode Read(MessageReader& reader, std::int32_t& value) {
  return reader.ReadInt32(value);
}

// A key as refusals call it; its text is made for one only.
struct KeyName {
  std::string_view prefix;
  std::string_view name;
  [[nodiscard]] std::string Text() const { return std::string(prefix).append(name); }
};

std::string Quoted(std::string_view key) {
  return "'" + std::string(key) + "'";
}

BusError WrongType(std::string_view key, std::string_view expected) {
  return BusError::InvalidArgs("wrong type of key " + Quoted(key) + ": expected '" + std::string(expected) + "'");
}

// What can't go wrong with a message that the library has checked, except at its end.
BusError Malformed(std::string_view key) {
  return BusError::InvalidArgs("key " + Quoted(key) + " can't be read");
}

BusError CheckText(Reading reading, const KeyName& key, std::string_view text) {
  constexpr std::string_view kForbidden("\r\n\0", 3);
  if (reading == Reading::kReply || text.find_first_of(kForbidden) == std::string_view::npos) return {};
  return BusError::InvalidArgs("a line end in key " + Quoted(key.Text()));
}

BusError Malformed(const KeyName& key) {
  return Malformed(key.Text());
}

// --- writing ---

// How many elements an array has without its trailing zeros. Most have none at all.
template <class Element, std::size_t N>
std::size_t UsedCount(const std::array<Element, N>& array) {
  Element all = 0;
  for (const Element element : array) all |= element;
  std::size_t count = all == 0 ? 0 : N;
  while (count > 0 && array[count - 1] == 0) --count;
  return count;
}

template <class Record, std::size_t N>
void AppendRecord(MessageWriter& writer, const Record& record, const Field<Record> (&fields)[N]);

template <class Value>
void AppendValue(MessageWriter& writer, const Value& value) {
  if constexpr (std::is_same_v<Value, BSTR>) {
    AppendText(writer, *value);
  } else if constexpr (std::is_same_v<Value, SCHEDULE_RULE>) {
    AppendRecord(writer, value, kRuleFields);
  } else if constexpr (std::is_integral_v<Value>) {
    Append(writer, value);
  } else {
    writer.AppendArray(std::span(value).first(UsedCount(value)));
  }
}

template <class Record, std::size_t N>
void AppendRecord(MessageWriter& writer, const Record& record, const Field<Record> (&fields)[N]) {
  writer.OpenArray("{sv}");
  for (const Field<Record>& field : fields) {
    std::visit(
        [&](auto member) {
          const auto& value = record.*member;
          if constexpr (std::is_same_v<std::remove_cvref_t<decltype(value)>, BSTR>) {
            if (!value) return;
          }
          writer.OpenDictEntry("sv");
          writer.AppendValid(field.key);
          writer.OpenVariant(TypeOf(&value));
          AppendValue(writer, value);
          writer.Close();
          writer.Close();
        },
        field.member);
  }
  writer.Close();
}

// --- reading ---

template <class Record, std::size_t N>
BusError ReadRecord(MessageReader& reader, Reading reading, std::string_view prefix, Record& record,
                    const Field<Record> (&fields)[N]);

template <class Element, std::size_t N>
BusError ReadArray(MessageReader& reader, const KeyName& key, std::array<Element, N>& array) {
  std::array<Element, N> read{};
  std::size_t count = 0;
  if (reader.ReadArray(read, count) != ERROR_SUCCESS) return Malformed(key);
  if (count > N) {
    return BusError::InvalidArgs("too many elements in key " + Quoted(key.Text()) + ": at most " + std::to_string(N));
  }
  array = read;
  return {};
}

// The value inside the variant, of the type that was looked at.
template <class Value>
BusError ReadValue(MessageReader& reader, Reading reading, const KeyName& key, Value& value) {
  if constexpr (std::is_same_v<Value, BSTR>) {
    std::string_view text;
    if (reader.ReadString(text) != ERROR_SUCCESS) return Malformed(key);
    if (BusError error = CheckText(reading, key, text); error.IsSet()) return error;
    Widen(text, value.emplace());
    return {};
  } else if constexpr (std::is_same_v<Value, SCHEDULE_RULE>) {
    return ReadRecord(reader, reading, kRulesPrefix, value, kRuleFields);
  } else if constexpr (std::is_integral_v<Value>) {
    return Read(reader, value) == ERROR_SUCCESS ? BusError() : Malformed(key);
  } else {
    return ReadArray(reader, key, value);
  }
}

// Flags are the fields of 32 bits whose names begin with b.
bool IsFlag(std::string_view key) {
  return key.starts_with('b');
}

template <class Value>
BusError ReadVariant(MessageReader& reader, Reading reading, const KeyName& key, Value& value) {
  const std::string_view expected = TypeOf(&value);
  // Nearly always the expected type stands there: a look ahead would cost as much as the reading.
  if (reader.EnterVariant(expected) != ERROR_SUCCESS) {
    const std::string given(reader.PeekType().contents);
    if constexpr (std::is_same_v<Value, std::uint32_t>) {
      if (IsFlag(key.name) && given == "b") {
        bool flag = false;
        if (reader.EnterVariant("b") != ERROR_SUCCESS || reader.ReadBool(flag) != ERROR_SUCCESS) return Malformed(key);
        value = flag ? 1 : 0;
        return reader.Exit() == ERROR_SUCCESS ? BusError() : Malformed(key);
      }
    }
    if (given == expected) return Malformed(key);
    BusError error = WrongType(key.Text(), expected);
    error.text += ", got '" + given + "'";
    return error;
  }
  if (BusError error = ReadValue(reader, reading, key, value); error.IsSet()) return error;
  return reader.Exit() == ERROR_SUCCESS ? BusError() : Malformed(key);
}

template <class Record, std::size_t N>
BusError ReadRecord(MessageReader& reader, Reading reading, std::string_view prefix, Record& record,
                    const Field<Record> (&fields)[N]) {
  if (reader.EnterArray("{sv}") != ERROR_SUCCESS) return WrongType("schedule", kScheduleType);
  Record read;
  bool seen[N] = {};
  const Field<Record>* field = std::begin(fields);
  platform::ErrorCode rc = ERROR_SUCCESS;
  while ((rc = reader.EnterDictEntry("sv")) == ERROR_SUCCESS) {
    std::string_view name;
    if (reader.ReadString(name) != ERROR_SUCCESS) return Malformed(prefix);
    const KeyName key = {prefix, name};
    const auto isNamed = [&](const Field<Record>& candidate) { return candidate.key == name; };
    // Nearly always they come in declared order.
    field = field != std::end(fields) && isNamed(*field)
                ? field
                : std::find_if(std::begin(fields), std::end(fields), isNamed);
    if (field == std::end(fields)) return BusError::InvalidArgs("unknown key " + Quoted(key.Text()));
    if (std::exchange(seen[field - std::begin(fields)], true)) {
      return BusError::InvalidArgs("key " + Quoted(key.Text()) + " is given twice");
    }
    BusError error =
        std::visit([&](auto member) { return ReadVariant(reader, reading, key, read.*member); }, field->member);
    if (error.IsSet()) return error;
    if (reader.Exit() != ERROR_SUCCESS) return Malformed(key);
    ++field;
  }
  if (rc != platform::ERROR_NO_MORE_ITEMS || reader.Exit() != ERROR_SUCCESS) return Malformed(prefix);
  record = std::move(read);
  return {};
}

// A struct's fields one after the other: the first failure is named and ends the reading.
class StructReader {
 public:
  explicit StructReader(MessageReader& reader) : m_reader(reader) {}
  void Number(std::string_view name, std::uint32_t& value) { Note(name, "u", m_reader.ReadUint32(value)); }
  void Number(std::string_view name, std::int32_t& value) { Note(name, "i", m_reader.ReadInt32(value)); }
  void Text(std::string_view name, std::string_view& value) { Note(name, "s", m_reader.ReadString(value)); }
  void Text(std::string_view name, std::u16string& value) {
    std::string_view text;
    Text(name, text);
    Widen(text, value);
  }
  void Text(std::string_view name, BSTR& value) { Text(name, value.emplace()); }
  BusError TakeError() { return std::move(m_error); }

 private:
  void Note(std::string_view name, std::string_view type, platform::ErrorCode rc) {
    if (rc != ERROR_SUCCESS && !m_error.IsSet()) m_error = WrongType(name, type);
  }
  MessageReader& m_reader;
  BusError m_error;
};

// The fields of a row whose struct was entered, and out of it.
BusError ReadRowInside(MessageReader& reader, SentListRow& row) {
  StructReader fields(reader);
  fields.Text("id", row.id);
  fields.Text("name", row.name);
  fields.Text("application", row.application);
  fields.Text("object_id", row.objectId);
  fields.Number("task_code", row.taskCode);
  fields.Text("wrapper", row.wrapper);
  fields.Text("xml", row.xml);
  fields.Text("parameters", row.parameters);
  fields.Text("pre_script", row.preScript);
  fields.Text("post_script", row.postScript);
  fields.Number("pass_id", row.passId);
  fields.Number("next_window", row.nextWindow);
  if (BusError error = fields.TakeError(); error.IsSet()) return error;
  return reader.Exit() == ERROR_SUCCESS ? BusError() : Malformed("rows");
}

std::u16string_view OrEmpty(const BSTR& text) {
  return text ? std::u16string_view(*text) : std::u16string_view();
}

}  // namespace

std::size_t ReplyLimit() {
  const bool installed = std::any_of(std::begin(kPolicyFiles), std::end(kPolicyFiles),
                                     [](const char* name) { return platform::FileExists(name); });
  return installed ? kReplyLimitWithPolicy : kReplyLimit;
}

BusError CheckReplySize(const MessageWriter& reply, std::size_t limit) {
  if (reply.BytesSoFar() <= limit) return {};
  return BusError::LimitsExceeded("the reply would take more than " + std::to_string(limit >> 20) +
                                  " MiB; read the schedules in pages with " + std::string(kBusManagerInterface) +
                                  ".ListInfo");
}

void AppendSchedule(MessageWriter& writer, const SCHEDULE_OBJECT& schedule) {
  AppendRecord(writer, schedule, kScheduleFields);
}

BusError ReadSchedule(MessageReader& reader, Reading reading, SCHEDULE_OBJECT& schedule) {
  return ReadRecord(reader, reading, {}, schedule, kScheduleFields);
}

void AppendScheduleEx(MessageWriter& writer, const SCHEDULE_OBJECT_EX& schedule) {
  writer.OpenStruct(kScheduleExContents);
  writer.AppendUint32(schedule.dwTaskOpCode);
  for (const BSTR* text :
       {&schedule.bstrScheduleID, &schedule.bstrApplication, &schedule.bstrObjectID, &schedule.bstrWrapperBinaryName,
        &schedule.bstrXMLFilePathName, &schedule.bstrParameters, &schedule.bstrPreScript, &schedule.bstrPostScript}) {
    AppendText(writer, OrEmpty(*text));
  }
  writer.AppendUint32(schedule.bUseGUID);
  writer.Close();
}

BusError ReadScheduleEx(MessageReader& reader, SCHEDULE_OBJECT_EX& schedule) {
  if (reader.EnterStruct(kScheduleExContents) != ERROR_SUCCESS) return WrongType("schedules", kScheduleListType);
  SCHEDULE_OBJECT_EX read;
  StructReader fields(reader);
  fields.Number("dwTaskOpCode", read.dwTaskOpCode);
  fields.Text("bstrScheduleID", read.bstrScheduleID);
  fields.Text("bstrApplication", read.bstrApplication);
  fields.Text("bstrObjectID", read.bstrObjectID);
  fields.Text("bstrWrapperBinaryName", read.bstrWrapperBinaryName);
  fields.Text("bstrXMLFilePathName", read.bstrXMLFilePathName);
  fields.Text("bstrParameters", read.bstrParameters);
  fields.Text("bstrPreScript", read.bstrPreScript);
  fields.Text("bstrPostScript", read.bstrPostScript);
  fields.Number("bUseGUID", read.bUseGUID);
  if (BusError error = fields.TakeError(); error.IsSet()) return error;
  if (reader.Exit() != ERROR_SUCCESS) return Malformed("schedules");
  schedule = std::move(read);
  return {};
}

namespace {

template <typename Text, typename AppendOne>
void AppendRow(MessageWriter& writer, const BasicListRow<Text>& row, const AppendOne& append) {
  writer.OpenStruct(kListRowContents);
  for (const Text* text : {&row.id, &row.name, &row.application, &row.objectId}) append(*text);
  writer.AppendUint32(row.taskCode);
  for (const Text* text : {&row.wrapper, &row.xml, &row.parameters, &row.preScript, &row.postScript}) append(*text);
  writer.AppendUint32(row.passId);
  writer.AppendInt32(row.nextWindow);
  writer.Close();
}

}  // namespace

void AppendListRow(MessageWriter& writer, const ListRow& row) {
  AppendRow(writer, row, [&](const std::u16string& text) { AppendText(writer, text); });
}

void AppendListRow(MessageWriter& writer, const SentListRow& row) {
  AppendRow(writer, row, [&](std::string_view text) { writer.AppendValid(text); });
}

BusError ReadListRow(MessageReader& reader, ListRow& row) {
  if (reader.EnterStruct(kListRowContents) != ERROR_SUCCESS) return WrongType("rows", kListRowsType);
  SentListRow read;
  BusError error = ReadRowInside(reader, read);
  if (!error.IsSet()) row = WideListRow(read);
  return error;
}

BusError ReadListRows(MessageReader& reader, std::vector<ListRow>& rows) {
  std::vector<SentListRow> read;
  BusError error = ReadListRows(reader, read);
  std::transform(read.begin(), read.end(), std::back_inserter(rows), WideListRow);
  return error;
}

BusError ReadListRows(MessageReader& reader, std::vector<SentListRow>& rows) {
  if (reader.EnterArray("(" + std::string(kListRowContents) + ")") != ERROR_SUCCESS) {
    return WrongType("rows", kListRowsType);
  }
  platform::ErrorCode rc = ERROR_SUCCESS;
  while ((rc = reader.EnterStruct(kListRowContents)) == ERROR_SUCCESS) {
    if (BusError error = ReadRowInside(reader, rows.emplace_back()); error.IsSet()) {
      rows.pop_back();
      return error;
    }
  }
  return rc == platform::ERROR_NO_MORE_ITEMS && reader.Exit() == ERROR_SUCCESS ? BusError() : Malformed("rows");
}

ListRow WideListRow(const SentListRow& row) {
  ListRow wide;
  Widen(row.id, wide.id);
  Widen(row.name, wide.name);
  Widen(row.application, wide.application);
  Widen(row.objectId, wide.objectId);
  wide.taskCode = row.taskCode;
  Widen(row.wrapper, wide.wrapper);
  Widen(row.xml, wide.xml);
  Widen(row.parameters, wide.parameters);
  Widen(row.preScript, wide.preScript);
  Widen(row.postScript, wide.postScript);
  wide.passId = row.passId;
  wide.nextWindow = row.nextWindow;
  return wide;
}

void AppendScheduleId(MessageWriter& writer, const ScheduleGuid& id) {
  AppendText(writer, platform::GuidText(id));
}

bool ParseScheduleId(std::string_view text, ScheduleGuid& id) {
  const std::u16string wide = platform::WideFromUtf8(text);
  ScheduleGuid read;
  if (wide.size() != platform::kGuidTextLength || platform::ClsidFromString(wide, read) != 0) return false;
  id = read;
  return true;
}

BusError ReadScheduleId(MessageReader& reader, std::string_view name, ScheduleGuid& id) {
  std::string_view text;
  if (reader.ReadString(text) != ERROR_SUCCESS) return WrongType(name, "s");
  if (ParseScheduleId(text, id)) return {};
  return BusError::InvalidArgs("key " + Quoted(name) + " is no identifier in braces");
}

std::string FirstNoncharacter(std::u16string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const CharacterAt c(text, i);
    i += c.Units();
    if (!IsNoncharacter(c.code)) continue;
    char name[16];
    std::snprintf(name, sizeof name, "U+%04X", static_cast<unsigned>(c.code));
    return name;
  }
  return {};
}

void AppendSentText(std::string& out, std::u16string_view text) {
  const bool plain = std::all_of(text.begin(), text.end(), [](char16_t c) { return c >= 1 && c < 0x80; });
  if (plain) {
    const std::size_t begin = out.size();
    out.resize(begin + text.size());
    std::transform(text.begin(), text.end(), out.begin() + static_cast<std::ptrdiff_t>(begin),
                   [](char16_t c) { return static_cast<char>(c); });
  } else {
    out += platform::Utf8FromWide(Sendable(text));
  }
}

void AppendText(MessageWriter& writer, std::u16string_view text) {
  constexpr std::size_t kUsualUnits = 256;
  char plain[kUsualUnits];
  std::size_t count = 0;
  if (text.size() <= kUsualUnits) {
    while (count < text.size() && text[count] >= 1 && text[count] < 0x80) {
      plain[count] = static_cast<char>(text[count]);
      ++count;
    }
  }
  if (count == text.size()) {  // nothing to be replaced or converted
    writer.AppendValid({plain, count});
  } else {
    writer.AppendString(platform::Utf8FromWide(Sendable(text)));
  }
}

BusError ReadText(MessageReader& reader, Reading reading, std::string_view name, std::u16string& text) {
  std::string_view read;
  if (reader.ReadString(read) != ERROR_SUCCESS) return WrongType(name, "s");
  if (BusError error = CheckText(reading, {{}, name}, read); error.IsSet()) return error;
  text = platform::WideFromUtf8(read);
  return {};
}

void AppendTexts(MessageWriter& writer, const std::vector<std::u16string>& texts) {
  writer.OpenArray("s");
  for (const std::u16string& text : texts) AppendText(writer, text);
  writer.Close();
}

BusError ReadTexts(MessageReader& reader, Reading reading, std::string_view name, std::vector<std::u16string>& texts) {
  if (reader.EnterArray("s") != ERROR_SUCCESS) return WrongType(name, "as");
  std::vector<std::u16string> read;
  while (!reader.AtEnd()) {
    if (BusError error = ReadText(reader, reading, name, read.emplace_back()); error.IsSet()) return error;
  }
  if (reader.Exit() != ERROR_SUCCESS) return Malformed(name);
  texts = std::move(read);
  return {};
}

void AppendNumbers(MessageWriter& writer, const std::vector<std::int32_t>& numbers) {
  writer.OpenArray("i");
  for (const std::int32_t number : numbers) writer.AppendInt32(number);
  writer.Close();
}

BusError ReadNumbers(MessageReader& reader, std::string_view name, std::vector<std::int32_t>& numbers) {
  if (reader.EnterArray("i") != ERROR_SUCCESS) return WrongType(name, "ai");
  std::vector<std::int32_t> read;
  while (!reader.AtEnd()) {
    if (reader.ReadInt32(read.emplace_back()) != ERROR_SUCCESS) return Malformed(name);
  }
  if (reader.Exit() != ERROR_SUCCESS) return Malformed(name);
  numbers = std::move(read);
  return {};
}

}  // namespace qx
