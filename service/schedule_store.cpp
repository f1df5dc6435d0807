#include "service/schedule_store.h"

#include <algorithm>

#include "foundation/include/zfcguid.h"
#include "foundation/include/zfclog.h"
#include "platform/clock.h"
#include "platform/guid.h"
#include "platform/memory.h"
#include "platform/registry_sub_keys.h"

using platform::ErrorCode;
using platform::ERROR_SUCCESS;
using platform::Hive;
using platform::RegistryKey;
using ZepFoundation::ServiceLog;

namespace {

// What "LastOperation" says.
constexpr std::uint32_t kCreated = 1;
constexpr std::uint32_t kModified = 2;
constexpr std::size_t kNamesAtOnce = 512;

// One value of a schedule's key and the field that it stands for.
struct TextRow {
  const char16_t* name;
  BSTR SCHEDULE_OBJECT::* field;
};
struct NumberRow {
  const char16_t* name;
  std::uint32_t SCHEDULE_OBJECT::* field;
};

constexpr TextRow kIdentityTexts[] = {
    {u"Application", &SCHEDULE_OBJECT::bstrApplication},
    {u"ObjectID", &SCHEDULE_OBJECT::bstrObjectID},
};
constexpr NumberRow kTaskOpCode = {u"TaskOPCODE", &SCHEDULE_OBJECT::dwTaskOpCode};
constexpr NumberRow kUseGuid = {u"UseGUID", &SCHEDULE_OBJECT::bUseGUID};
constexpr TextRow kJobTexts[] = {
    {u"WrapperBinary", &SCHEDULE_OBJECT::bstrWrapperBinaryName},
    {u"XMLFilePathName", &SCHEDULE_OBJECT::bstrXMLFilePathName},
    {u"Parameters", &SCHEDULE_OBJECT::bstrParameters},
    {u"PreScript", &SCHEDULE_OBJECT::bstrPreScript},
    {u"PostScript", &SCHEDULE_OBJECT::bstrPostScript},
};

// The answer of a registry call: true for success, else one line in the service log.
bool Done(ErrorCode code) {
  if (code == ERROR_SUCCESS) return true;
  ServiceLog(1, u"Registry: Failed with error : %x", code);
  return false;
}

bool SetText(const RegistryKey& key, const char16_t* name, const BSTR& text) {
  return Done(platform::SetString(key, name, text ? std::u16string_view(*text) : std::u16string_view()));
}

bool SetNumber(const RegistryKey& key, const char16_t* name, std::uint32_t value) {
  return Done(platform::SetDword(key, name, value));
}

bool SetJobTexts(const RegistryKey& key, const SCHEDULE_OBJECT& schedule) {
  return std::all_of(std::begin(kJobTexts), std::end(kJobTexts),
                     [&](const TextRow& row) { return SetText(key, row.name, schedule.*row.field); });
}

bool SetOperation(const RegistryKey& key, std::uint32_t operation, std::int64_t time) {
  return SetNumber(key, u"LastOperation", operation) &&
         SetNumber(key, u"OperationTime", static_cast<std::uint32_t>(time));
}

bool SetAllValues(const RegistryKey& key, const SCHEDULE_OBJECT& schedule, std::int64_t time) {
  for (const TextRow& row : kIdentityTexts) {
    if (!SetText(key, row.name, schedule.*row.field)) return false;
  }
  return SetNumber(key, kTaskOpCode.name, schedule.dwTaskOpCode) && SetOperation(key, kCreated, time) &&
         SetNumber(key, kUseGuid.name, schedule.bUseGUID) && SetJobTexts(key, schedule);
}

// A buffer for every value of a key.
platform::NamedBuffer<char16_t> BufferFor(const platform::KeyInfo& info, std::string_view name) {
  return {std::size_t{info.maxValueLength} + 1, name};
}

bool ReadText(const RegistryKey& key, const char16_t* name, std::span<char16_t> buffer, BSTR& out) {
  std::u16string text;
  if (!Done(qx::ReadTextValue(key, name, buffer, text))) return false;
  out = std::move(text);
  return true;
}

bool ReadNumber(const RegistryKey& key, const char16_t* name, std::uint32_t& out) {
  return Done(platform::ReadRegistryDword(key, name, out));
}

// All values that a reader of records wants, in the order of reading. Record is either of the two record types, whose
// fields bear the same names.
template <typename Record>
bool ReadValues(const RegistryKey& key, std::span<char16_t> buffer, Record& record) {
  std::uint32_t useGuid = 0;
  if (!ReadText(key, u"Application", buffer, record.bstrApplication) ||
      !ReadText(key, u"ObjectID", buffer, record.bstrObjectID) ||
      !ReadNumber(key, u"TaskOPCODE", record.dwTaskOpCode) || !ReadNumber(key, u"UseGUID", useGuid)) {
    return false;
  }
  record.bUseGUID = useGuid != 0 ? 1 : 0;
  return ReadText(key, u"WrapperBinary", buffer, record.bstrWrapperBinaryName) &&
         ReadText(key, u"XMLFilePathName", buffer, record.bstrXMLFilePathName) &&
         ReadText(key, u"Parameters", buffer, record.bstrParameters) &&
         ReadText(key, u"PreScript", buffer, record.bstrPreScript) &&
         ReadText(key, u"PostScript", buffer, record.bstrPostScript);
}

Status WriteKey(const SCHEDULE_OBJECT& schedule, const ScheduleGuid& id) {
  const std::int64_t time = platform::NowSeconds();
  RegistryKey version, schedules, key;
  if (!Done(platform::OpenKey(Hive::kLocalMachine, qx::kCurrentVersionKey, platform::KEY_ALL_ACCESS, version)) ||
      !Done(platform::CreateKey(version, qx::kSchedulesKeyName, platform::KEY_ALL_ACCESS, schedules)) ||
      !Done(platform::CreateKey(schedules, platform::GuidText(id), platform::KEY_WRITE, key))) {
    return kStatusRegistryWrite;
  }
  const bool written = SetAllValues(key, schedule, time);
  // The commit of all values, and of a new "Schedules" key with them: its failure is that of the last of them.
  const bool committed = Done(key.Close());
  return written && committed ? kStatusOk : kStatusRegistryWrite;
}

Status ReadKey(const ScheduleGuid& id, SCHEDULE_OBJECT& schedule) {
  RegistryKey schedules, key;
  platform::KeyInfo info;
  if (!Done(platform::OpenKey(Hive::kLocalMachine, qx::kSchedulesKey, platform::KEY_ALL_ACCESS, schedules)) ||
      !Done(platform::OpenKey(schedules, platform::GuidText(id), platform::KEY_ALL_ACCESS, key)) ||
      !Done(platform::QueryInfoKey(key, info))) {
    return kStatusRegistryRead;
  }
  platform::NamedBuffer<char16_t> buffer = BufferFor(info, "ReadRegistry");
  if (!buffer) {
    ServiceLog(2, u"Memory not allocated in ReadRegistry");
    return kStatusRegistryRead;
  }
  return ReadValues(key, buffer.span(), schedule) ? kStatusOk : kStatusRegistryRead;
}

Status DeleteKeyOf(const ScheduleGuid& id) {
  RegistryKey schedules;
  if (!Done(platform::OpenKey(Hive::kLocalMachine, qx::kSchedulesKey, platform::KEY_ALL_ACCESS, schedules))) {
    return kStatusSchedulesKey;
  }
  const bool deleted = Done(platform::DeleteTree(schedules, platform::GuidText(id)));
  const bool committed = Done(schedules.Close());
  return deleted && committed ? kStatusOk : kStatusNoSuchKey;
}

// Reads a value that may not change and compares it, exactly and with regard to case.
Status CompareText(const RegistryKey& key, const TextRow& row, const SCHEDULE_OBJECT& schedule,
                   std::span<char16_t> buffer, const char16_t* refusal) {
  BSTR stored;
  if (!ReadText(key, row.name, buffer, stored)) return kStatusModify;
  if (*stored == (schedule.*row.field).value_or(u"")) return kStatusOk;
  ServiceLog(2, refusal);
  return kStatusImmutable;
}

Status CompareIdentity(const RegistryKey& key, const SCHEDULE_OBJECT& schedule, std::span<char16_t> buffer) {
  static constexpr const char16_t* kRefusals[] = {u"Trying to modify the Application Name",
                                                  u"Trying to modify the ObjectID "};
  for (std::size_t i = 0; i < std::size(kIdentityTexts); ++i) {
    const Status status = CompareText(key, kIdentityTexts[i], schedule, buffer, kRefusals[i]);
    if (status != kStatusOk) return status;
  }
  std::uint32_t taskOpCode = 0;
  if (!ReadNumber(key, kTaskOpCode.name, taskOpCode)) return kStatusModify;
  if (taskOpCode == schedule.dwTaskOpCode) return kStatusOk;
  ServiceLog(2, u"Trying to modify the TaskOpcode");
  return kStatusImmutable;
}

Status ModifyKey(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule) {
  const std::int64_t time = platform::NowSeconds();
  RegistryKey schedules, key;
  platform::KeyInfo info;
  if (!Done(platform::OpenKey(Hive::kLocalMachine, qx::kSchedulesKey, platform::KEY_ALL_ACCESS, schedules))) {
    return kStatusModify;
  }
  if (!Done(platform::OpenKey(schedules, platform::GuidText(id), platform::KEY_ALL_ACCESS, key))) {
    return kStatusNoSuchKey;
  }
  if (!Done(platform::QueryInfoKey(key, info))) return kStatusModify;
  platform::NamedBuffer<char16_t> buffer = BufferFor(info, "ModifyRegistry");
  if (!buffer) {
    ServiceLog(2, u"Memory not allocated in  ModifyRegistry");
    return kStatusModify;
  }
  const Status same = CompareIdentity(key, schedule, buffer.span());
  if (same != kStatusOk) return same;
  // Deliberate: "UseGUID" keeps the value of the creation.
  const bool written = SetOperation(key, kModified, time) && SetJobTexts(key, schedule);
  const bool committed = Done(key.Close());
  return written && committed ? kStatusOk : kStatusModify;
}

// One element of the list; false with its failure logged. `keepAccess` tells that the array is to stay accessed.
bool ReadListElement(const RegistryKey& schedules, std::uint32_t index, std::size_t nameLength,
                     SCHEDULE_OBJECT_EX& element, bool& keepAccess) {
  platform::NamedBuffer<char16_t> name(nameLength + 1, "ListRegistry name");
  if (!name) {
    ServiceLog(1, u"Memory is not allocated, list registry");
    keepAccess = true;
    return false;
  }
  auto length = static_cast<std::uint32_t>(name.size());
  RegistryKey key;
  platform::KeyInfo info;
  if (!Done(platform::EnumKey(schedules, index, name.get(), &length)) ||
      !Done(platform::OpenKey(schedules, name.get(), platform::KEY_ALL_ACCESS, key)) ||
      !Done(platform::QueryInfoKey(key, info))) {
    return false;
  }
  platform::NamedBuffer<char16_t> buffer = BufferFor(info, "ListRegistry");
  if (!buffer) {
    ServiceLog(1, u"calloc failed, ListRegistry");
    return false;
  }
  element.bstrScheduleID = std::u16string(name.get(), length);
  return ReadValues(key, buffer.span(), element);
}

Status ListKeys(std::uint32_t& count, ScheduleList& schedules) {
  RegistryKey key;
  platform::KeyInfo info;
  if (!Done(platform::OpenKey(Hive::kLocalMachine, qx::kSchedulesKey, platform::KEY_ALL_ACCESS, key)) ||
      !Done(platform::QueryInfoKey(key, info))) {
    return kStatusList;
  }
  count = info.subKeyCount;
  if (count == 0) return kStatusOk;
  SCHEDULE_OBJECT_EX* elements = nullptr;
  if (!Done(platform::GetRecordInfo("SCHEDULE_OBJECT_EX")) || !Done(schedules.Create(count, "ListRegistry")) ||
      !Done(schedules.AccessData(elements, "ListRegistry"))) {
    return kStatusList;
  }
  bool good = true;
  bool keepAccess = false;
  for (std::uint32_t i = 0; good && i < count; ++i) {
    good = ReadListElement(key, i, info.maxSubKeyLength, elements[i], keepAccess);
  }
  // Deliberate: a refused name buffer leaves at once, with the array still accessed.
  if (keepAccess) return kStatusList;
  good = Done(schedules.UnaccessData("ListRegistry")) && good;
  return good ? kStatusOk : kStatusList;
}

}  // namespace

ErrorCode qx::ReadTextValue(const RegistryKey& key, std::u16string_view name, std::span<char16_t> buffer,
                            std::u16string& out) {
  std::fill(buffer.begin(), buffer.end(), u'\0');
  std::uint32_t type = 0;
  auto bytes = static_cast<std::uint32_t>(buffer.size_bytes());
  const ErrorCode code = platform::QueryValue(key, name, &type, buffer.data(), &bytes);
  if (code != ERROR_SUCCESS) return code;
  const bool multi = type == platform::REG_MULTI_SZ;
  if (type != platform::REG_SZ && type != platform::REG_EXPAND_SZ && !multi) return platform::ERROR_INVALID_DATA;
  const std::size_t units = bytes / sizeof(char16_t);
  const std::size_t terminators = multi ? 2 : 1;
  if (bytes % sizeof(char16_t) != 0 || units < terminators) return platform::ERROR_INVALID_DATA;
  for (std::size_t i = units - terminators; i < units; ++i) {
    if (buffer[i] != u'\0') return platform::ERROR_INVALID_DATA;
  }
  out.assign(buffer.data());  // up to the first terminator
  return ERROR_SUCCESS;
}

Status WriteRegistry(const SCHEDULE_OBJECT& schedule, const ScheduleGuid& id) {
  ServiceLog(4, u"Entered Write Registry");
  const Status status = WriteKey(schedule, id);
  ServiceLog(4, u"Exit Write Registry");
  return status;
}

Status ReadRegistry(const ScheduleGuid& id, SCHEDULE_OBJECT& schedule) {
  ServiceLog(4, u"Entered Read Registry");
  const Status status = ReadKey(id, schedule);
  ServiceLog(4, u"Exit Read Registry");
  return status;
}

Status DeleteRegistry(const ScheduleGuid& id) {
  ServiceLog(4, u"Entered Delete Registry");
  const Status status = DeleteKeyOf(id);
  ServiceLog(4, u"Exit Delete Registry");
  return status;
}

Status ModifyRegistry(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule) {
  ServiceLog(4, u"Entered Modify Registry");
  const Status status = ModifyKey(id, schedule);
  ServiceLog(4, u"Exit Modify Registry");
  return status;
}

Status ListRegistry(std::uint32_t& count, ScheduleList& schedules) {
  ServiceLog(4, u"Entered List Registry");
  const Status status = ListKeys(count, schedules);
  ServiceLog(4, u"Exit List Registry");
  return status;
}

int RegistryExists(const ScheduleGuid& id, int& failed) {
  const std::u16string wanted = platform::GuidText(id);
  failed = 1;
  RegistryKey schedules;
  platform::KeyInfo info;
  if (!Done(platform::OpenKey(Hive::kLocalMachine, qx::kSchedulesKey, platform::KEY_READ, schedules)) ||
      !Done(platform::QueryInfoKey(schedules, info))) {
    return 0;
  }
  platform::NamedBuffer<char16_t> name(std::size_t{info.maxSubKeyLength} + 1, "RegistryExists");
  if (!name) {
    ServiceLog(1, u"Memory is not allocated, registryExists");
    return 0;
  }
  // The names come many at a look: a peer's change costs little beside a hundred thousand schedules. They are read to
  // their end, not to that count: others add and remove schedules meanwhile.
  std::u16string last;
  bool found = false;
  for (std::size_t seen = kNamesAtOnce; seen == kNamesAtOnce && !found;) {
    seen = 0;
    const ErrorCode code =
        platform::ReadSubKeys(schedules, last, kNamesAtOnce, {}, [&](const platform::SubKeyValues& key) {
          ++seen;
          last = key.Name();
          found = found || last == wanted;
        });
    if (!Done(code)) return 0;
  }
  failed = 0;
  return found ? 1 : 0;
}

namespace {

// Digits and letters A to F in either case; deliberately 0 for every other letter that the check lets pass.
std::uint8_t HexDigit(char16_t c) {
  if (c >= u'0' && c <= u'9') return static_cast<std::uint8_t>(c - u'0');
  if (c >= u'A' && c <= u'F') return static_cast<std::uint8_t>(c - u'A' + 10);
  if (c >= u'a' && c <= u'f') return static_cast<std::uint8_t>(c - u'a' + 10);
  return 0;
}

}  // namespace

bool StringToGUID(const char16_t* text, ScheduleGuid& id) {
  if (ZepFoundation::IsValidGUIDString(text) == 0) return false;
  std::uint8_t digits[32];
  std::size_t count = 0;
  for (int i = 1; i <= 36; ++i) {
    if (text[i] != u'-') digits[count++] = HexDigit(text[i]);
  }
  const auto number = [&digits](std::size_t first, std::size_t length) {
    std::uint32_t value = 0;
    for (std::size_t i = first; i < first + length; ++i) value = value << 4 | digits[i];
    return value;
  };
  id.Data1 = number(0, 8);
  id.Data2 = static_cast<std::uint16_t>(number(8, 4));
  id.Data3 = static_cast<std::uint16_t>(number(12, 4));
  for (std::size_t i = 0; i < 8; ++i) id.Data4[i] = static_cast<std::uint8_t>(number(16 + 2 * i, 2));
  return true;
}
