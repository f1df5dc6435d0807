// A schedule as a start of the service finds it: any values in its key, any .ini file. What is built ahead is what the
// calls one by one build, and its row of the list can be sent.
#include <span>
#include <string>
#include <string_view>

#include "common/bus_records.h"
#include "common/registry_keys.h"
#include "fuzz/bus_wire.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/plan.h"
#include "fuzz/schedule_check.h"
#include "platform/registry.h"
#include "platform/text.h"
#include "service/ini_path.h"
#include "service/list_info.h"
#include "service/load_ahead.h"
#include "service/populate.h"

using platform::RegistryKey;
using qx::LoadAhead;
using qx::fuzz::Plan;
using qx::fuzz::Require;

namespace {

constexpr std::u16string_view kKeyName = u"{0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0}";
constexpr std::u16string_view kTexts[] = {u"XMLFilePathName", u"WrapperBinary", u"Parameters", u"PostScript",
                                          u"PreScript"};

// A value as the service writes it, one of any type and bytes, or none.
void StoreText(const RegistryKey& key, std::u16string_view name, std::u16string_view usual, Plan& plan) {
  const std::uint8_t kind = plan.Byte();
  if (kind == 0) return Require(SetString(key, name, usual) == 0, "a text can be set");
  if (kind == 1) return;
  const std::string_view bytes = plan.Bytes(plan.Byte() & 0x1F);
  if (kind < 0x80) return Require(SetString(key, name, platform::WideFromUtf8(bytes)) == 0, "a text can be set");
  Require(SetRawValue(key, name, kind & 0x0Fu, std::as_bytes(std::span(bytes))) == 0, "any value can be set");
}

void StoreFlag(const RegistryKey& key, Plan& plan) {
  constexpr std::u16string_view kName = u"UseGUID";
  const std::uint8_t kind = plan.Byte();
  if (kind < 0x40) return Require(SetDword(key, kName, kind & 3u) == 0, "a number can be set");
  if (kind < 0x80) return;
  Require(SetRawValue(key, kName, kind & 0x0Fu, std::as_bytes(std::span(plan.Bytes(plan.Byte() & 0x0F)))) == 0,
          "any value can be set");
}

RegistryKey OpenSchedules() {
  Require(platform::IsRegistryStoreOpen() ||
              platform::OpenRegistryStore(qx::fuzz::ScratchDirectory() + "/registry.db") == 0,
          "a store can be opened");
  RegistryKey schedules;
  Require(CreateKey(platform::Hive::kLocalMachine, qx::kSchedulesKey, platform::KEY_ALL_ACCESS, schedules) == 0,
          "the key of all schedules can be made");
  return schedules;
}

// All that a node holds.
std::string Contents(CJobNode& node) {
  void* found = nullptr;
  Require(node.ScheduleObj.m_pSchedule->QueryInterface(IID_zepIPersistMemory, &found) == ZEP_S_OK,
          "rules can be saved to memory");
  auto* const persist = static_cast<zepIPersistMemory*>(found);
  std::uint32_t size = 0;
  Require(persist->GetSizeMax(&size) == ZEP_S_OK, "the size is told");
  std::string rules(size, '\0');
  Require(persist->Save(rules.data(), 0, size) == ZEP_S_OK, "rules are saved to memory");
  (void)persist->Release();
  std::u16string texts = node.IdText();
  texts.append(u"|").append(node.LaunchPath.view()).append(u"|").append(node.ScheduleObj.m_IniFilePath.view());
  return rules + platform::Utf8FromWide(texts) + "|" + std::to_string(node.NextTimeWindow);
}

// The list has a row of the one key, whatever it holds.
void List() {
  static qx::fuzz::BusWire wire;
  qx::CListInfo list;
  int rows = 0;
  const auto send = [&rows](const qx::SentListRow& row) {
    ++rows;
    const auto write = [&row](platform::MessageWriter& writer) { qx::AppendListRow(writer, row); };
    const auto read = [](platform::MessageReader& reader) {
      qx::ListRow taken;
      Require(!qx::ReadListRow(reader, taken).IsSet(), "a row that was sent is read");
    };
    Require(wire.Send(write, read), "a row can be sent");
    return true;
  };
  Require(list.Page(u"", 0, send) == 0 && rows == 1, "the schedule has a row");
}

}  // namespace

QX_FUZZ_TARGET(stored_schedule) {
  const std::u16string usualPath = platform::WideFromUtf8(qx::fuzz::ScratchDirectory() + "/job.xml");
  ScheduleGuid id{};
  Require(platform::ClsidFromString(kKeyName, id) == 0, "the key's name is an ID");
  const std::string file = platform::Utf8FromWide(qx::IniPath(id, usualPath));
  Plan plan(qx::fuzz::Text(data, size));
  const RegistryKey schedules = OpenSchedules();
  {
    (void)DeleteKey(schedules, kKeyName);
    RegistryKey key;
    Require(CreateKey(schedules, kKeyName, platform::KEY_ALL_ACCESS, key) == 0, "a schedule's key can be made");
    for (const std::u16string_view name : kTexts) {
      StoreText(key, name, name == kTexts[0] ? std::u16string_view(usualPath) : u"/bin/true", plan);
    }
    StoreFlag(key, plan);
    Require(key.Close() == 0, "the key can be closed");
  }
  (void)qx::fuzz::WriteScratch(file.substr(file.rfind('/') + 1), plan.Rest());

  LoadAhead ahead(platform::RegistryStoreFile(), 1);
  Require(ahead.Wait() && ahead.Size() == 1, "the one schedule is loaded ahead");
  CJobNode called;
  const bool built = qx::BuildJobNode(schedules, kKeyName, qx::kPopulateWords, called);
  const bool further = built && called.UpdateNextTimeWindow() > 0;
  if (const LoadAhead::Outcome outcome = ahead.At(0); outcome != LoadAhead::Outcome::kAsEver) {
    Require(built && further == (outcome == LoadAhead::Outcome::kNode), "the calls come to the same");
    CJobNode node = ahead.Take(0);
    Require(Contents(node) == Contents(called), "the calls build the same");
    (void)node.ReleaseScheduler();
  }
  (void)called.ReleaseScheduler();
  List();
  return 0;
}
