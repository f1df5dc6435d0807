// Records of the client interface as somebody else sends them: any tree of bus values goes over a connection and is read.
// What is refused leaves the output alone; what is taken travels back and is read the same again.
#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/bus_records.h"
#include "fuzz/bus_wire.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/plan.h"
#include "platform/bus.h"

namespace {

using platform::BusError;
using platform::BusValue;
using platform::MessageReader;
using platform::MessageWriter;
using qx::Reading;
using qx::fuzz::BusWire;
using qx::fuzz::Plan;
using qx::fuzz::Require;

// Keys of both records, and one of none.
constexpr const char* kKeys[] = {
    "bstrName",         "bstrDescription", "bstrApplication",  "bstrObjectID",     "dwTaskOpCode",
    "bstrWrapperBinaryName", "bstrXMLFilePathName", "bstrParameters", "bstrPreScript", "bstrPostScript",
    "bRunNow",          "bUseGUID",        "lNextTimeWindow",  "stScheduleRules",  "lStartTime",
    "lEndTime",         "dwTimeDuration",  "bEffectiveDate",   "lEffectiveDate",   "bRestartInterval",
    "dwRestartInterval", "bRepeatInterval", "dwRepeatInterval", "lAnchorDate",     "adwDaysOfMonth",
    "bLastDayOfMonth",  "dwDaysOfWeek0",   "dwDaysOfWeek1",    "dwDaysOfWeek2",    "dwDaysOfWeek3",
    "dwDaysOfWeek4",    "alIncludeDates",  "alExcludeDates",   "bstrNobody"};

constexpr int kDeepest = 6;
BusValue MakeValue(Plan& plan, int depth);

BusValue MakeScalar(Plan& plan, char type) {
  switch (type) {
    case 'b': return BusValue::Bool((plan.Byte() & 1) != 0);
    case 'n': return BusValue::Int16(static_cast<std::int16_t>(plan.Number(2)));
    case 'q': return BusValue::Uint16(static_cast<std::uint16_t>(plan.Number(2)));
    case 'i': return BusValue::Int32(static_cast<std::int32_t>(plan.Number(4)));
    case 'u': return BusValue::Uint32(static_cast<std::uint32_t>(plan.Number(4)));
    case 'x': return BusValue::Int64(static_cast<std::int64_t>(plan.Number(8)));
    default: return BusValue::String(plan.Text());
  }
}

BusValue MakeDict(Plan& plan, int depth) {
  std::vector<std::pair<std::string, BusValue>> entries;
  for (std::size_t left = plan.Byte() % 40; left != 0 && !plan.AtEnd(); --left) {
    const std::uint8_t key = plan.Byte();
    std::string name = key < std::size(kKeys) ? kKeys[key] : plan.Text();
    entries.emplace_back(std::move(name), MakeValue(plan, depth + 1));
  }
  return BusValue::Dict(std::move(entries));
}

BusValue MakeValue(Plan& plan, int depth) {
  constexpr std::string_view kScalars = "bnqiuxs";
  const std::uint8_t kind = plan.Byte() % 11;
  if (kind < kScalars.size() || depth >= kDeepest) return MakeScalar(plan, kScalars[kind % kScalars.size()]);
  if (kind == 7) return MakeDict(plan, depth);
  if (kind == 8) return BusValue::Variant(MakeValue(plan, depth + 1));
  if (kind == 9) {
    std::vector<BusValue> fields;
    for (int left = 1 + plan.Byte() % 12; left != 0; --left) fields.push_back(MakeValue(plan, depth + 1));
    return BusValue::Struct(std::move(fields));
  }
  const char type = kScalars[plan.Byte() % kScalars.size()];
  std::vector<BusValue> elements;
  for (std::size_t left = plan.Number(2) % 400; left != 0; --left) elements.push_back(MakeScalar(plan, type));
  return BusValue::Array(std::string_view(&type, 1), std::move(elements));
}

// A struct of the given fields.
BusValue MakeStruct(Plan& plan, std::string_view types) {
  std::vector<BusValue> fields;
  for (const char type : types) fields.push_back(MakeScalar(plan, type));
  return BusValue::Struct(std::move(fields));
}

template <class Record>
void Exchange(const BusValue& value, const std::function<BusError(MessageReader&, Record&)>& read,
              const std::function<void(MessageWriter&, const Record&)>& append, const Record& before) {
  static BusWire wire;
  std::optional<Record> taken;
  const bool sent = wire.Send([&](MessageWriter& writer) { writer.AppendValue(value); },
                              [&](MessageReader& reader) {
                                Record record = before;
                                const BusError error = read(reader, record);
                                if (!error.IsSet()) {
                                  taken = std::move(record);
                                } else {
                                  Require(record == before, "what is refused leaves the output alone");
                                  Require(!error.text.empty(), "a refusal says why");
                                }
                              });
  if (!sent || !taken) return;
  const bool returned = wire.Send([&](MessageWriter& writer) { append(writer, *taken); },
                                  [&](MessageReader& reader) {
                                    Record again;
                                    Require(!read(reader, again).IsSet(), "what was taken is taken again");
                                    Require(again == *taken, "what was taken travels unchanged");
                                  });
  Require(returned, "what was taken can be sent");
}

}  // namespace

QX_FUZZ_TARGET(bus_records) {
  Plan plan(qx::fuzz::Text(data, size));
  const std::uint8_t which = plan.Byte();
  const Reading reading = (which & 0x80) != 0 ? Reading::kReply : Reading::kRequest;
  const bool shaped = (which & 0x40) == 0;  // of the right type as a whole
  switch (which % 7) {
    case 0: {
      SCHEDULE_OBJECT before;
      before.bstrName = u"before";
      before.stScheduleRules.lStartTime = 5;
      Exchange<SCHEDULE_OBJECT>(
          shaped ? MakeDict(plan, 0) : MakeValue(plan, 0),
          [&](MessageReader& reader, SCHEDULE_OBJECT& record) { return qx::ReadSchedule(reader, reading, record); },
          [](MessageWriter& writer, const SCHEDULE_OBJECT& record) { qx::AppendSchedule(writer, record); }, before);
      break;
    }
    case 1: {
      SCHEDULE_OBJECT_EX before;
      before.bstrScheduleID = u"before";
      Exchange<SCHEDULE_OBJECT_EX>(
          shaped ? MakeStruct(plan, qx::kScheduleExContents) : MakeValue(plan, 0),
          [](MessageReader& reader, SCHEDULE_OBJECT_EX& record) { return qx::ReadScheduleEx(reader, record); },
          [](MessageWriter& writer, const SCHEDULE_OBJECT_EX& record) { qx::AppendScheduleEx(writer, record); }, before);
      break;
    }
    case 2: {
      qx::ListRow before;
      before.id = u"before";
      Exchange<qx::ListRow>(
          shaped ? MakeStruct(plan, qx::kListRowContents) : MakeValue(plan, 0),
          [](MessageReader& reader, qx::ListRow& record) { return qx::ReadListRow(reader, record); },
          [](MessageWriter& writer, const qx::ListRow& record) { qx::AppendListRow(writer, record); }, before);
      break;
    }
    case 3: {
      ScheduleGuid before{};
      before.Data1 = 1;
      Exchange<ScheduleGuid>(
          shaped ? BusValue::String(plan.Text()) : MakeValue(plan, 0),
          [](MessageReader& reader, ScheduleGuid& id) { return qx::ReadScheduleId(reader, "id", id); },
          [](MessageWriter& writer, const ScheduleGuid& id) { qx::AppendScheduleId(writer, id); }, before);
      break;
    }
    case 4:
      Exchange<std::u16string>(
          shaped ? BusValue::String(plan.Text()) : MakeValue(plan, 0),
          [&](MessageReader& reader, std::u16string& text) { return qx::ReadText(reader, reading, "text", text); },
          [](MessageWriter& writer, const std::u16string& text) { qx::AppendText(writer, text); }, u"before");
      break;
    case 5:
      Exchange<std::vector<std::u16string>>(
          MakeValue(plan, 0),
          [&](MessageReader& reader, std::vector<std::u16string>& texts) {
            return qx::ReadTexts(reader, reading, "texts", texts);
          },
          [](MessageWriter& writer, const std::vector<std::u16string>& texts) { qx::AppendTexts(writer, texts); },
          {u"before"});
      break;
    default:
      Exchange<std::vector<std::int32_t>>(
          MakeValue(plan, 0),
          [](MessageReader& reader, std::vector<std::int32_t>& numbers) {
            return qx::ReadNumbers(reader, "numbers", numbers);
          },
          [](MessageWriter& writer, const std::vector<std::int32_t>& numbers) { qx::AppendNumbers(writer, numbers); },
          {1});
      break;
  }
  return 0;
}
