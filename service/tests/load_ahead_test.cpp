// A start with many schedules: what is built ahead gives the same list and the same log as the calls one by one.
#include "service/load_ahead.h"

#include <functional>
#include <iostream>
#include <optional>
#include <thread>

#include "platform/guid.h"
#include "platform/thread.h"
#include "service/service_module.h"
#include "service/tests/service_fixture.h"

namespace qx::testing {
namespace {

using platform::ErrorCode;
using platform::FaultPlan;
using platform::Operation;
using platform::RegistryKey;

constexpr std::uint32_t kMany = 300;
static_assert(kMany >= kWorthLoadingAhead);
// Where a start is made for each call that can fail: more than one batch of the threads.
constexpr std::uint32_t kFew = 70;

class LoadAheadTest : public ServiceFixture {
 protected:
  explicit LoadAheadTest(std::uint32_t count = kMany) : m_count(count) {}
  void SetUp() override {
    ServiceFixture::SetUp();
    // Some windows are equal, some not, and none in the order of the IDs.
    std::vector<ScheduleGuid> models;
    for (const int seconds : {7200, 3600, 7200, 60, 5400}) {
      SCHEDULE_OBJECT model = Daily(seconds);
      model.bstrName = Wide("in " + std::to_string(seconds));
      model.bstrParameters = u"-p " + Wide(std::to_string(seconds));
      model.bUseGUID = seconds == 60 ? 0 : 1;
      model.stScheduleRules.alExcludeDates[0] = model.stScheduleRules.lStartTime + 5 * 86400;
      models.push_back(Create(model));
    }
    models.push_back(Create(Once(120)));
    RegistryKey schedules;
    ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, kSchedulesKey, platform::KEY_ALL_ACCESS, schedules), 0u);
    std::vector<RegistryKey> open;  // one commit for all
    for (std::uint32_t i = static_cast<std::uint32_t>(models.size()); i < m_count; ++i) {
      const ScheduleGuid& model = models[i % models.size()];
      Copy(schedules, model, Numbered(i), open.emplace_back());
    }
  }

  static ScheduleGuid Numbered(std::uint32_t i) {
    ScheduleGuid id{};
    id.Data1 = i * 2654435761u;
    id.Data2 = static_cast<std::uint16_t>(i);
    return id;
  }
  void Copy(const RegistryKey& schedules, const ScheduleGuid& model, const ScheduleGuid& id, RegistryKey& to) const {
    RegistryKey from;
    ASSERT_EQ(platform::OpenKey(schedules, platform::GuidText(model), platform::KEY_READ, from), 0u);
    ASSERT_EQ(platform::CreateKey(schedules, platform::GuidText(id), platform::KEY_ALL_ACCESS, to), 0u);
    std::u16string name;
    std::uint32_t type = 0;
    std::vector<std::byte> data;
    for (std::uint32_t v = 0; platform::EnumValue(from, v, name, type, data) == 0; ++v) {
      ASSERT_EQ(platform::SetRawValue(to, name, type, data), 0u);
    }
    std::filesystem::copy_file(IniFile(model), IniFile(id));
  }
  std::string Store() const { return m_folder + "/registry.db"; }

  // What a start gives: the list in its order with all that a node holds, and the lines of the log.
  struct Start {
    std::vector<std::string> list;
    std::vector<std::string> log;
    int callByCall = 0;  // schedules whose rules were loaded by calls
    bool operator==(const Start& other) const { return list == other.list && log == other.log; }
  };
  friend std::ostream& operator<<(std::ostream& out, const Start& start) {
    out << start.list.size() << " listed, " << start.callByCall << " by calls, log:\n";
    for (const std::string& line : start.log) out << "  " << line << "\n";
    return out;
  }
  Start Seen() const {
    Start seen;
    const platform::CriticalSectionGuard guard(g_JobListLock);
    for (auto at = g_JobList.Begin(); at != g_JobList.End(); ++at) {
      SCHEDULE_OBJECT record;
      EXPECT_EQ(at->ScheduleObj.LoadScheduleFromPropBag(&record), 0u);
      seen.list.push_back(Narrow(at->IdText()) + " " + std::to_string(at->NextTimeWindow) + " " +
                          Narrow(at->LaunchPath.view()) + " " + Narrow(at->ScheduleObj.m_IniFilePath.view()) + " " +
                          Narrow(record.bstrName.value_or(u"")) + " " +
                          std::to_string(record.stScheduleRules.alExcludeDates[0]) + " " +
                          std::to_string(record.stScheduleRules.lStartTime));
    }
    seen.log = m_log.texts(3);
    return seen;
  }
  Start Populate(std::unique_ptr<LoadAhead> ahead = nullptr) {
    DoCleanUp();
    m_log.Clear();
    EXPECT_EQ(PopulateJobList(std::move(ahead)), kStatusOk);
    const int callByCall = m_log.Count(4, "ZepClassFactory returned hr = 0");
    Start seen = Seen();
    seen.callByCall = callByCall;
    return seen;
  }
  Start PopulateCallByCall() {
    const FaultPlan plan = FaultPlan::CountOnly();
    return Populate();
  }
  std::unique_ptr<LoadAhead> Begun() const {
    auto ahead = std::make_unique<LoadAhead>(Store());
    EXPECT_TRUE(ahead->Wait());
    return ahead;
  }

  const std::uint32_t m_count;  // schedules in the store
};

TEST_F(LoadAheadTest, BuildsEachScheduleThatIsAsItWasWritten) {
  const std::unique_ptr<LoadAhead> ahead = Begun();
  ASSERT_EQ(ahead->Size(), kMany);
  EXPECT_TRUE(ahead->StoreAndZoneHold());
  for (std::size_t i = 0; i < ahead->Size(); ++i) {
    EXPECT_EQ(ahead->At(i), LoadAhead::Outcome::kNode) << i;
    EXPECT_TRUE(ahead->FileHolds(i)) << i;
  }
}

TEST_F(LoadAheadTest, ListsTheSameAsTheCalls) {
  const Start expected = PopulateCallByCall();
  EXPECT_EQ(expected.list.size(), kMany);
  EXPECT_EQ(expected.callByCall, static_cast<int>(kMany));
  const Start ahead = Populate();
  EXPECT_EQ(ahead, expected);
  EXPECT_EQ(ahead.callByCall, 0);
}

TEST_F(LoadAheadTest, TellsOfSchedulesThatAreOverInTheirTurn) {
  m_clock.SetWall(kPresent + 300);
  const Start expected = PopulateCallByCall();
  EXPECT_EQ(expected.list.size(), kMany - kMany / 6);
  const Start ahead = Populate();
  EXPECT_EQ(ahead, expected);
  EXPECT_EQ(ahead.callByCall, 0);
}

// Each a schedule that isn't as the service writes it.
TEST_F(LoadAheadTest, LeavesEveryOtherScheduleToTheCalls) {
  const auto file = [this](std::uint32_t i) { return IniFile(Numbered(i)); };
  const auto replace = [&](std::uint32_t i, const std::string& from, const std::string& to) {
    std::string text = FileText(file(i));
    const std::size_t at = text.find(from);
    ASSERT_NE(at, std::string::npos) << from;
    std::ofstream(file(i), std::ios::binary) << text.replace(at, from.size(), to);
  };
  const auto raw = [](std::uint32_t i, std::u16string_view name, std::uint32_t type, std::string_view bytes) {
    RegistryKey key = OpenScheduleKey(Numbered(i));
    ASSERT_EQ(platform::SetRawValue(key, name, type, std::as_bytes(std::span(bytes))), 0u);
    ASSERT_EQ(key.Close(), 0u);
  };
  using namespace std::string_view_literals;
  const std::function<void(std::uint32_t)> oddities[] = {
      [&](std::uint32_t i) { RemoveValue(Numbered(i), u"UseGUID"); },
      [&](std::uint32_t i) { RemoveValue(Numbered(i), u"XMLFilePathName"); },
      [&](std::uint32_t i) { RemoveValue(Numbered(i), u"PreScript"); },
      [&](std::uint32_t i) { SetText(Numbered(i), u"WrapperBinary", u""); },
      [&](std::uint32_t i) { SetText(Numbered(i), u"UseGUID", u"1"); },
      [&](std::uint32_t i) { SetNumber(Numbered(i), u"Parameters", 7); },
      [&](std::uint32_t i) { raw(i, u"Parameters", platform::REG_SZ, "a\0b\0c\0\0\0"sv); },
      [&](std::uint32_t i) { raw(i, u"Parameters", platform::REG_SZ, "a\0\0\0b\0\0\0"sv); },
      [&](std::uint32_t i) { raw(i, u"Parameters", platform::REG_SZ, "a\0b"sv); },
      [&](std::uint32_t i) { raw(i, u"Parameters", platform::REG_SZ, "a\0b\0"sv); },
      [&](std::uint32_t i) { raw(i, u"Parameters", platform::REG_SZ, ""sv); },
      [&](std::uint32_t i) { raw(i, u"Parameters", platform::REG_EXPAND_SZ, "a\0\0\0"sv); },
      [&](std::uint32_t i) { raw(i, u"Parameters", platform::REG_MULTI_SZ, "a\0\0\0\0\0"sv); },
      [&](std::uint32_t i) { raw(i, u"UseGUID", platform::REG_DWORD, "\1\0\0\0\0\0\0\0"sv); },
      [&](std::uint32_t i) { SetText(Numbered(i), u"XMLFilePathName", u"nowhere.xml"); },
      [&](std::uint32_t i) { SetText(Numbered(i), u"XMLFilePathName", Wide(m_folder + "/none/job.xml")); },
      [&](std::uint32_t i) { std::filesystem::remove(file(i)); },
      [&](std::uint32_t i) { std::filesystem::rename(file(i), file(i) + ".old"); },
      [&](std::uint32_t i) {
        std::filesystem::remove(file(i));
        std::filesystem::create_directory(file(i));
      },
      [&](std::uint32_t i) { std::ofstream(file(i), std::ios::binary).close(); },
      [&](std::uint32_t i) { std::ofstream(file(i), std::ios::binary) << "[General]\r\nObject Type=no\r\n"; },
      [&](std::uint32_t i) { replace(i, "[General]", "; by hand\r\n[General]"); },
      [&](std::uint32_t i) { replace(i, "Object Version=131122", "Object Version=1"); },
      [&](std::uint32_t i) { replace(i, "{C2EDA523", "{00000000"); },
      [&](std::uint32_t i) { replace(i, "m_Name=", "m_Name= "); },
      [&](std::uint32_t i) { replace(i, "[Specific Exclude Dates]\r\nCount=", "[Specific Exclude Dates]\r\nCount=9"); },
      [&](std::uint32_t i) { replace(i, "Item01=", "Item01=x"); },
  };
  std::uint32_t i = 20;
  for (const auto& make : oddities) {
    make(i);
    i += 9;
  }
  ASSERT_LT(i, kMany);
  const std::u16string schedules(kSchedulesKey);
  MakeKey(schedules + u"\\nonsense");
  MakeKey(schedules + u"\\{0000000A-0000-0000-0000-000000000000}x");
  // Its letter beyond the digits counts as 0, so that it is a second key of one ID.
  RegistryKey parent, second;
  ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, kSchedulesKey, platform::KEY_ALL_ACCESS, parent), 0u);
  const ScheduleGuid zero{};
  Copy(parent, Numbered(7), zero, second);
  ASSERT_EQ(second.Close(), 0u);
  RegistryKey twin;
  ASSERT_EQ(platform::CreateKey(parent, u"{0G000000-0000-0000-0000-000000000000}", platform::KEY_ALL_ACCESS, twin), 0u);
  for (const char16_t* name : {u"XMLFilePathName", u"WrapperBinary", u"Parameters", u"PostScript", u"PreScript"}) {
    std::u16string text;
    ASSERT_EQ(platform::ReadRegistryString(OpenScheduleKey(zero), name, text), 0u);
    ASSERT_EQ(platform::SetString(twin, name, text), 0u);
  }
  ASSERT_EQ(platform::SetDword(twin, u"UseGUID", 1), 0u);
  ASSERT_EQ(twin.Close(), 0u);
  parent.Close();

  const Start ahead = Populate();  // first: the file that was moved aside is put back by it
  const std::string old = IniFile(Numbered(20 + 17 * 9));
  EXPECT_TRUE(std::filesystem::exists(old));
  std::filesystem::rename(old, old + ".old");
  const Start expected = PopulateCallByCall();
  EXPECT_EQ(ahead, expected);
  EXPECT_GT(expected.log.size(), 15u);
  EXPECT_GT(ahead.callByCall, 5);
  EXPECT_LT(ahead.callByCall, 30);
}

// What is written between the reading and the listing.
TEST_F(LoadAheadTest, SeesWhatWasWrittenMeanwhile) {
  struct Case {
    const char* what;
    std::function<void()> write;
    int callByCall;
  };
  const ScheduleGuid some = Numbered(100);
  std::optional<platform::ScopedZone> zone;
  const Case cases[] = {
      {"a value", [&] { SetText(some, u"Parameters", u"-changed"); }, kMany},
      {"a file",
       [&] {
         SCHEDULE_OBJECT changed = Daily(999);
         CJobNode node;
         ASSERT_EQ(node.InitializeScheduler(), kStatusOk);
         (void)node.SetConfigFilePath(Wide(IniFile(some)));
         EXPECT_EQ(node.SavScheduleToFile(changed), kStatusOk);
         (void)node.ReleaseScheduler();
       },
       1},
      {"a file that goes", [&] { ASSERT_EQ(platform::DeleteFile(IniFile(Numbered(50))), 0u); }, 0},
      {"a schedule that goes", [&] { EXPECT_EQ(DeleteRegistry(Numbered(60)), kStatusOk); }, kMany - 2},
      {"the zone", [&] { zone.emplace("America/New_York"); }, kMany - 2},  // where it is another day
  };
  for (const Case& c : cases) {
    std::unique_ptr<LoadAhead> ahead = Begun();
    const Start before = PopulateCallByCall();
    c.write();
    const Start seen = Populate(std::move(ahead));
    EXPECT_EQ(seen.callByCall, c.callByCall) << c.what;
    EXPECT_EQ(seen, PopulateCallByCall()) << c.what;
    EXPECT_FALSE(seen == before) << c.what;
  }
}

TEST_F(LoadAheadTest, GivesUpWhereThereIsNothingToLoadAhead) {
  LoadAhead none(m_folder + "/none.db");
  EXPECT_FALSE(none.Wait());
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kCreateThread, 1, platform::ERROR_NO_PROC_SLOTS,
                                               platform::kFromThenOn);
    LoadAhead noThread(Store());
    EXPECT_FALSE(noThread.Wait());
    EXPECT_EQ(plan.hits(), 1);
  }
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kCreateThread, 1, platform::ERROR_NO_PROC_SLOTS,
                                               platform::kFromThenOn, "load-build");
    LoadAhead noBuilder(Store());
    EXPECT_FALSE(noBuilder.Wait());
  }
  RegistryKey schedules;
  ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine, kSchedulesKey, platform::KEY_ALL_ACCESS, schedules), 0u);
  for (std::uint32_t i = 6; i < 6 + kMany - kWorthLoadingAhead; ++i) {
    ASSERT_EQ(platform::DeleteKey(schedules, platform::GuidText(Numbered(i))), 0u);
  }
  schedules.Close();
  EXPECT_TRUE(Begun() != nullptr);  // just enough
  ASSERT_EQ(DeleteRegistry(Numbered(kMany - 1)), kStatusOk);
  LoadAhead few(Store());
  EXPECT_FALSE(few.Wait());
}

TEST_F(LoadAheadTest, CanBeLeftAtAnyTime) {
  { const LoadAhead atOnce(Store()); }
  LoadAhead taken(Store());
  ASSERT_TRUE(taken.Wait());
  CJobNode node = taken.Take(3);
  EXPECT_NE(node.ScheduleObj.m_pSchedule, nullptr);
  EXPECT_EQ(node.ScheduleObj.m_pSchedule->Release(), 0u);
}

TEST_F(LoadAheadTest, MakesTheCallsWhereTheirLinesAreWritten) {
  ZepFoundation::ServiceLogLevel = 4;
  const Start detailed = Populate();
  ZepFoundation::ServiceLogLevel = 0;
  EXPECT_EQ(detailed.callByCall, static_cast<int>(kMany));
}

// --- each platform call of such a start fails ---

struct Call {
  Operation operation = Operation::kCount;
  std::string detail;
};

class LoadAheadSweep : public LoadAheadTest {
 protected:
  LoadAheadSweep() : LoadAheadTest(kFew) {}

  // Makes call number `failing` of this thread fail, once or with all behind it; without `threads` nothing is built
  // ahead.
  Start PopulateWithFault(std::size_t failing, bool once, bool threads, std::vector<Call>* calls = nullptr) {
    const std::thread::id own = std::this_thread::get_id();
    std::size_t number = 0;
    DoCleanUp();
    m_log.Clear();
    FaultPlan plan = FaultPlan::Ask([&](int, Operation operation, std::string_view detail) -> ErrorCode {
      if (std::this_thread::get_id() != own) return once ? platform::ERROR_SUCCESS : FailNow(number, failing);
      const std::size_t call = number++;
      if (calls != nullptr) calls->push_back({operation, std::string(detail)});
      if (operation == Operation::kCreateThread && !threads) return platform::ERROR_NO_PROC_SLOTS;
      return call == failing || (!once && call > failing) ? ErrorCode{platform::ERROR_ACCESS_DENIED}
                                                          : ErrorCode{platform::ERROR_SUCCESS};
    });
    EXPECT_EQ(PopulateJobList(std::make_unique<LoadAhead>(Store(), kFew)), kStatusOk);
    plan.Remove();
    return Seen();
  }
  static ErrorCode FailNow(std::size_t number, std::size_t failing) {
    return number > failing ? ErrorCode{platform::ERROR_ACCESS_DENIED} : ErrorCode{platform::ERROR_SUCCESS};
  }
};

class LoadAheadCallSweep : public LoadAheadSweep, public ::testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(Fails, LoadAheadCallSweep, ::testing::Bool(),
                         [](const auto& tested) { return tested.param ? "Once" : "FromThenOn"; });

TEST_P(LoadAheadCallSweep, EndsAsWithoutThreadsWhicheverCallFails) {
  const bool once = GetParam();
  std::vector<Call> calls;
  const Start whole = PopulateWithFault(static_cast<std::size_t>(-1), true, true, &calls);
  EXPECT_EQ(whole.list.size(), kFew);
  // The calls around all schedules and those of the first and the last one.
  std::vector<std::size_t> chosen;
  std::size_t schedule = 0;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    if (calls[i].operation == Operation::kRegEnumKey) ++schedule;
    if (schedule <= 1 || schedule == kFew) chosen.push_back(i);
  }
  ASSERT_GT(chosen.size(), 60u);
  ASSERT_LT(chosen.size(), 400u);
  for (const std::size_t call : chosen) {
    const Start expected = PopulateWithFault(call, once, false);
    const Start seen = PopulateWithFault(call, once, true);
    ASSERT_EQ(seen, expected) << "call " << call << ", " << OperationName(calls[call].operation) << "("
                              << calls[call].detail << ") fails";
  }
  std::cout << calls.size() << " calls, " << chosen.size() << " of them fail\n";
}

TEST_F(LoadAheadTest, ListsAllWhicheverCallOfItsThreadsFails) {
  const Start expected = PopulateCallByCall();
  for (const Operation operation : {Operation::kReadFile, Operation::kRegOpenStore, Operation::kCreateThread,
                                    Operation::kAllocate, Operation::kCreateGuid}) {
    const std::thread::id own = std::this_thread::get_id();
    for (const int nth : {1, 2, 100, 0}) {  // 0: all
      int number = 0;
      const FaultPlan plan = FaultPlan::Ask([&](int, Operation asked, std::string_view) -> ErrorCode {
        if (asked != operation || std::this_thread::get_id() == own) return platform::ERROR_SUCCESS;
        ++number;
        const bool fails = nth == 0 || number == nth;
        return fails ? ErrorCode{platform::ERROR_ACCESS_DENIED} : ErrorCode{platform::ERROR_SUCCESS};
      });
      ASSERT_EQ(Populate(), expected) << OperationName(operation) << " " << nth;
    }
  }
}

}  // namespace
}  // namespace qx::testing
