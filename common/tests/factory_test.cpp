#include "common/zep_factory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/Schedule.h"
#include "common/zep_schedule_library.h"
#include "platform/testing/fault.h"
#include "platform/testing/virtual_clock.h"

namespace {

// Blocks of the schedule object's size that are in use, by the operators below: their number, and where they are, as
// not every compiler tells the size of what is freed. More than these aren't counted.
std::atomic<int> g_liveSchedules{0};
std::array<std::atomic<void*>, 16> g_scheduleBlocks{};

void Count(void* memory) {
  for (std::atomic<void*>& block : g_scheduleBlocks) {
    void* none = nullptr;
    if (!block.compare_exchange_strong(none, memory)) continue;
    ++g_liveSchedules;
    return;
  }
}

void Uncount(void* memory) {
  if (memory == nullptr || g_liveSchedules == 0) return;
  for (std::atomic<void*>& block : g_scheduleBlocks) {
    void* expected = memory;
    if (!block.compare_exchange_strong(expected, nullptr)) continue;
    --g_liveSchedules;
    return;
  }
}

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  void* memory = std::malloc(size != 0 ? size : 1);
  if (memory != nullptr && size == sizeof(CSchedule)) Count(memory);
  return memory;
}
void* operator new(std::size_t size) {
  void* memory = operator new(size, std::nothrow);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept {
  Uncount(memory);
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }

namespace {

using platform::FaultPlan;
using platform::Operation;
using testing::ElementsAre;

constexpr LibraryTableEntry kSchedule[] = {{"ZepSchedule", 2, "U"}};
constexpr char kProbeDirectory[] = QX_PROBE_DIR;

ZepGuid ClassNumber(std::uint32_t number) {
  ZepGuid id;
  id.Data1 = number;
  return id;
}

class ScopedVariable {
 public:
  ScopedVariable(const char* name, const char* value) : m_name(name) {
    if (const char* before = std::getenv(name)) m_before = before;
    setenv(name, value, 1);
  }
  ~ScopedVariable() {
    if (m_before) {
      setenv(m_name, m_before->c_str(), 1);
    } else {
      unsetenv(m_name);
    }
  }

 private:
  const char* m_name;
  std::optional<std::string> m_before;
};

std::string ProbeLog() {
  const char* log = std::getenv("QX_PROBE_LOG");
  return log != nullptr ? log : "";
}

class Factory : public testing::Test {
 protected:
  ZRESULT LoadProbes(std::vector<LibraryTableEntry> entries) {
    return m_factory.InitializeZEP(kProbeDirectory, false, entries.data(), static_cast<std::uint32_t>(entries.size()), 0);
  }
  ZRESULT Ask(const ZepGuid& classId, std::uint32_t context = 0) {
    void* out = this;
    const ZRESULT result = m_factory.ZepClassFactory(classId, nullptr, context, IID_zepISchedule, &out);
    EXPECT_EQ(out, nullptr);
    return result;
  }

  platform::ScopedZone m_zone{"UTC0"};
  ScopedVariable m_log{"QX_PROBE_LOG", ""};
  zepFactory m_factory;
};

TEST_F(Factory, ASecondInitialisationIsRefusedAndLeavesTheSearchListAsItWas) {
  ASSERT_EQ(m_factory.InitializeZEP("one;two", false, kSchedule, 1, 5), ZEP_S_OK);
  EXPECT_EQ(m_factory.InitializeZEP("three", true, kSchedule, 1, 6), ZEP_E_ALREADYINITIALIZED);
  EXPECT_THAT(m_factory.SearchDirectories(), ElementsAre("one", "two"));
  EXPECT_EQ(m_factory.Flag(), 5u);
  EXPECT_EQ(m_factory.ReferenceCount("ZepSchedule"), 1u);
}

TEST_F(Factory, ACountOfZeroInitialisesWithoutLoading) {
  ASSERT_EQ(m_factory.InitializeZEP("one", true, nullptr, 0, 0), ZEP_S_OK);
  EXPECT_TRUE(m_factory.IsInitialized());
  EXPECT_EQ(m_factory.ReferenceCount("ZepSchedule"), 0u);
  EXPECT_THAT(m_factory.SearchDirectories(), ElementsAre());
}

TEST_F(Factory, ACountWithoutATableIsRefused) {
  EXPECT_EQ(m_factory.InitializeZEP("one", true, nullptr, 1, 0), ZEP_E_INVALIDARG);
  EXPECT_FALSE(m_factory.IsInitialized());
}

TEST_F(Factory, ATextThatCannotBeConvertedIsRefused) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kConvertText, 1, platform::ERROR_NO_UNICODE_TRANSLATION);
  EXPECT_EQ(m_factory.InitializeZEP("one", false, kSchedule, 1, 0), ZEP_E_INVALIDARG);
  EXPECT_FALSE(m_factory.IsInitialized());
  EXPECT_EQ(plan.hits(), 1);
}

TEST_F(Factory, CutsASearchPathAndTurnsItsSlashes) {
  ASSERT_EQ(m_factory.InitializeZEP("a/b;;c", false, kSchedule, 1, 0), ZEP_S_OK);
  EXPECT_THAT(m_factory.SearchDirectories(), ElementsAre("a\\b", "c"));
}

TEST_F(Factory, SearchesTheDirectoriesOfPathBehindItsOwn) {
  const ScopedVariable path("PATH", "/usr/bin::/opt;x");
  ASSERT_EQ(m_factory.InitializeZEP(".;lib", true, kSchedule, 1, 0), ZEP_S_OK);
  EXPECT_THAT(m_factory.SearchDirectories(), ElementsAre(".", "lib", "\\usr\\bin", "\\opt;x"));
}

TEST_F(Factory, CutsPathAtTheSeparatorItIsGiven) {
  const ScopedVariable path("PATH", "C:/bin;;D:\\tools");
  zepFactory factory({.listSeparator = ';', .environmentSeparator = ';'});
  ASSERT_EQ(factory.InitializeZEP(nullptr, true, kSchedule, 1, 0), ZEP_S_OK);
  EXPECT_THAT(factory.SearchDirectories(), ElementsAre("C:\\bin", "D:\\tools"));
}

TEST_F(Factory, FindsTheLinkedInLibraryAmongTheProgramsEntries) {
  ASSERT_EQ(m_factory.InitializeZEP("", false, kSchedule, 1, 0), ZEP_S_OK);
  EXPECT_EQ(m_factory.LibraryVersion("ZepSchedule"), 2u);
  void* out = nullptr;
  ASSERT_EQ(m_factory.ZepClassFactory(CLSID_CSchedule, nullptr, 1, IID_zepISchedule, &out), ZEP_S_OK);
  auto* schedule = static_cast<zepISchedule*>(out);
  EXPECT_EQ(schedule->Validate(), ZEP_S_OK);
  EXPECT_EQ(schedule->Release(), 0u);
}

TEST_F(Factory, ALibraryThatIsNowhereTearsTheFactoryDown) {
  EXPECT_EQ(LoadProbes({{"ZepSchedule", 2, "U"}, {"ZProbeNowhere", 1, nullptr}}), ZEP_E_ENTRYNOTFOUND);
  EXPECT_FALSE(m_factory.IsInitialized());
  EXPECT_EQ(m_factory.ReferenceCount("ZepSchedule"), 0u);
  EXPECT_THAT(m_factory.SearchDirectories(), ElementsAre());
  EXPECT_EQ(LoadProbes({{"ZepSchedule", 2, "U"}}), ZEP_S_OK);  // and it can be set up again
}

TEST_F(Factory, AMissingInitializeEntryMakesTheLibraryUnusable) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kGetProcAddress, 1, platform::ERROR_PROC_NOT_FOUND,
                                             platform::kFromThenOn, "ZepScheduleInitialize");
  EXPECT_EQ(m_factory.InitializeZEP("", false, kSchedule, 1, 0), ZEP_E_ENTRYNOTFOUND);
  EXPECT_EQ(plan.hits(), 1);
}

TEST_F(Factory, AMissingFactoryEntryMakesTheLibraryUnusable) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kGetProcAddress, 1, platform::ERROR_PROC_NOT_FOUND,
                                             platform::kFromThenOn, "ZepScheduleFactory");
  EXPECT_EQ(m_factory.InitializeZEP("", false, kSchedule, 1, 0), ZEP_E_ENTRYNOTFOUND);
  EXPECT_EQ(plan.hits(), 1);
  EXPECT_FALSE(m_factory.IsInitialized());
}

TEST_F(Factory, BeforeItsInitialisationItServesNoClass) { EXPECT_EQ(Ask(CLSID_CSchedule), ZEP_E_CLASSNOTAVAILABLE); }

TEST_F(Factory, AForeignClassIsServedByNobody) {
  ASSERT_EQ(m_factory.InitializeZEP("", false, kSchedule, 1, 0), ZEP_S_OK);
  EXPECT_EQ(Ask(ClassNumber(99)), ZEP_E_CLASSNOTAVAILABLE);
}

TEST_F(Factory, TheLastSearchLoadsTheLibraryThatServesTheClass) {
  ASSERT_EQ(m_factory.InitializeZEP("", false, nullptr, 0, 0), ZEP_S_OK);
  EXPECT_EQ(Ask(ClassNumber(99)), ZEP_E_CLASSNOTAVAILABLE);
  void* out = nullptr;
  ASSERT_EQ(m_factory.ZepClassFactory(CLSID_CSchedule, nullptr, 1, IID_zepIUnknown, &out), ZEP_S_OK);
  static_cast<zepISchedule*>(out)->Release();
  EXPECT_EQ(m_factory.ReferenceCount("ZepSchedule"), 1u);
}

TEST_F(Factory, AsksForAnOutPointer) {
  ASSERT_EQ(m_factory.InitializeZEP("", false, kSchedule, 1, 0), ZEP_S_OK);
  EXPECT_EQ(m_factory.ZepClassFactory(CLSID_CSchedule, nullptr, 1, IID_zepISchedule, nullptr), ZEP_E_POINTER);
}

TEST_F(Factory, LoadsALibraryFromItsFileAndDestroysItAtTheEnd) {
  ASSERT_EQ(LoadProbes({{"ProbeAlone", 1, nullptr}}), ZEP_S_OK);  // a file that ends in .dll
  EXPECT_EQ(m_factory.LibraryVersion("ProbeAlone"), 7u);
  EXPECT_EQ(Ask(ClassNumber(1), 42), 42);
  m_factory.Terminate();
  EXPECT_EQ(ProbeLog(), "+ProbeAlone -ProbeAlone ");
  EXPECT_EQ(m_factory.ReferenceCount("ProbeAlone"), 0u);
}

TEST_F(Factory, LoadsWhatALibraryNeedsAndReleasesItFirst) {
  ASSERT_EQ(LoadProbes({{"ProbeNeedy", 1, nullptr}}), ZEP_S_OK);
  EXPECT_EQ(m_factory.ReferenceCount("ProbeAlone"), 1u);
  EXPECT_EQ(Ask(ClassNumber(1), 3), 3);
  m_factory.Terminate();
  EXPECT_EQ(ProbeLog(), "+ProbeNeedy +ProbeAlone -ProbeAlone -ProbeNeedy ");
}

TEST_F(Factory, KeepsALibraryAsLongAsItHasAHolder) {
  ASSERT_EQ(LoadProbes({{"ProbeAlone", 1, nullptr}, {"ProbeNeedy", 1, nullptr}}), ZEP_S_OK);
  EXPECT_EQ(m_factory.ReferenceCount("ProbeAlone"), 2u);
  EXPECT_EQ(m_factory.ReferenceCount("ProbeNeedy"), 1u);
  m_factory.Terminate();
  EXPECT_EQ(ProbeLog(), "+ProbeAlone +ProbeNeedy -ProbeAlone -ProbeNeedy ");
}

TEST_F(Factory, LibrariesThatNeedEachOtherAreLoadedOnceAndDestroyedOnce) {
  ASSERT_EQ(LoadProbes({{"ProbeLeft", 1, nullptr}}), ZEP_S_OK);
  EXPECT_EQ(m_factory.ReferenceCount("ProbeLeft"), 2u);
  EXPECT_EQ(m_factory.ReferenceCount("ProbeRight"), 1u);
  m_factory.Terminate();
  EXPECT_EQ(ProbeLog(), "+ProbeLeft +ProbeRight -ProbeRight -ProbeLeft ");
}

TEST_F(Factory, ALibraryWithoutAFactoryEntryIsRefused) {
  EXPECT_EQ(LoadProbes({{"ProbeLacking", 1, nullptr}}), ZEP_E_ENTRYNOTFOUND);
}

TEST_F(Factory, AFailingInitializeEndsTheBind) {
  EXPECT_EQ(LoadProbes({{"ProbeFailing", 1, nullptr}}), ZEP_E_FAIL);
  EXPECT_EQ(ProbeLog(), "");
}

TEST_F(Factory, ALibraryThatSaysItIsInitialisedAlreadyDoesNotTearTheFactoryDown) {
  EXPECT_EQ(LoadProbes({{"ProbeAlone", 1, nullptr}, {"ProbeThereAlready", 1, nullptr}}), ZEP_E_ALREADYINITIALIZED);
  EXPECT_TRUE(m_factory.IsInitialized());
  EXPECT_EQ(m_factory.ReferenceCount("ProbeThereAlready"), 0u);
  EXPECT_EQ(Ask(ClassNumber(1), 42), 42);  // what was loaded ahead of it serves
  EXPECT_EQ(LoadProbes({{"ProbeAlone", 1, nullptr}}), ZEP_E_ALREADYINITIALIZED);
  EXPECT_EQ(m_factory.ReferenceCount("ProbeAlone"), 1u);
}

TEST_F(Factory, AMissingDependentTakesItsLibraryWithIt) {
  EXPECT_EQ(LoadProbes({{"ProbeOrphan", 1, nullptr}}), ZEP_E_ENTRYNOTFOUND);
  EXPECT_EQ(ProbeLog(), "+ProbeOrphan -ProbeOrphan ");
}

TEST_F(Factory, ServesSeveralThreadsAtOnce) {
  ASSERT_EQ(m_factory.InitializeZEP("", false, kSchedule, 1, 0), ZEP_S_OK);
  std::atomic<int> made{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        void* out = nullptr;
        if (m_factory.ZepClassFactory(CLSID_CSchedule, nullptr, 1, IID_zepISchedule, &out) != ZEP_S_OK) continue;
        made += static_cast<zepISchedule*>(out)->Release() == 0;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(made, 200);
}

TEST(GateKeeper, ThrowsWhenTheMutexCannotBeLocked) {
  ZepFoundation::CZepOSCriticalSection section;
  { const CGateKeeper gate(section); }
  section.Destroy();
  try {
    const CGateKeeper gate(section);
    FAIL() << "locked a mutex that isn't there";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "CGateKeeper() - Unable to lock mutex!");
  }
}

// --- the rules library's entries ---

class ScheduleEntries : public testing::Test {
 protected:
  platform::ScopedZone m_zone{"UTC0"};
  void* m_out = this;
};

TEST_F(ScheduleEntries, InitializeTellsTheVersionAndThatNothingElseIsNeeded) {
  std::uint32_t version = 0;
  std::uint32_t count = 9;
  const LibraryTableEntry* table = kSchedule;
  EXPECT_EQ(ZepScheduleInitialize(&ZepClassFactory, &version, &table, &count), ZEP_S_OK);
  EXPECT_EQ(version, 2u);
  EXPECT_EQ(table, nullptr);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(ZepScheduleInitialize(&ZepClassFactory, nullptr, &table, &count), ZEP_E_POINTER);
}

TEST_F(ScheduleEntries, AForeignClassGivesNoObject) {
  EXPECT_EQ(ZepScheduleFactory(ClassNumber(1), nullptr, 1, IID_zepISchedule, &m_out), ZEP_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(m_out, nullptr);
}

TEST_F(ScheduleEntries, AnUnknownInterfaceLeavesNoObjectBehind) {
  const int before = g_liveSchedules;
  EXPECT_EQ(ZepScheduleFactory(CLSID_CSchedule, nullptr, 1, ClassNumber(1), &m_out), ZEP_E_NOINTERFACE);
  EXPECT_EQ(m_out, nullptr);
  EXPECT_EQ(g_liveSchedules, before);
  ASSERT_EQ(ZepScheduleFactory(CLSID_CSchedule, nullptr, 1, IID_zepISchedule, &m_out), ZEP_S_OK);
  EXPECT_EQ(g_liveSchedules, before + 1);  // the count would have seen it
  static_cast<zepISchedule*>(m_out)->Release();
}

TEST_F(ScheduleEntries, ExhaustedMemoryIsTold) {
  const FaultPlan plan =
      FaultPlan::FailCall(Operation::kAllocate, 1, platform::ERROR_OUTOFMEMORY, platform::kOnce, "CSchedule");
  EXPECT_EQ(ZepScheduleFactory(CLSID_CSchedule, nullptr, 1, IID_zepISchedule, &m_out), ZEP_E_OUTOFMEMORY);
  EXPECT_EQ(m_out, nullptr);
  EXPECT_EQ(plan.hits(), 1);
}

TEST_F(ScheduleEntries, AnObjectLeavesWithOneReferenceThroughEachInterface) {
  for (const ZepGuid& iid : {IID_zepISchedule, IID_zepIUnknown, IID_zepIPersistPropertyBag, IID_zepIPersistStreamInit,
                             IID_zepIPersistMemory}) {
    ASSERT_EQ(ZepScheduleFactory(CLSID_CSchedule, nullptr, 1, iid, &m_out), ZEP_S_OK);
    EXPECT_EQ(static_cast<zepIUnknown*>(m_out)->Release(), 0u);
  }
}

// --- the way of the programs ---

TEST(CreateScheduleObject, GivesAFreshScheduleEveryTime) {
  const platform::ScopedZone zone("UTC0");
  for (int i = 0; i < 2; ++i) {
    zepISchedule2* schedule = nullptr;
    ASSERT_EQ(qx::CreateScheduleObject(&schedule), ZEP_S_OK);
    EXPECT_EQ(schedule->SetSenderTimeZoneOffset(0), ZEP_S_OK);
    EXPECT_EQ(schedule->Release(), 0u);
  }
  EXPECT_EQ(qx::CreateScheduleObject(nullptr), ZEP_E_POINTER);
}

TEST(CreateScheduleObject, PassesTheFactorysFailureOn) {
  const platform::ScopedZone zone("UTC0");
  zepFactory::Instance().Terminate();
  zepISchedule2* schedule = nullptr;
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kGetProcAddress, 1, platform::ERROR_PROC_NOT_FOUND,
                                               platform::kFromThenOn, "ZepScheduleFactory");
    EXPECT_EQ(qx::CreateScheduleObject(&schedule), ZEP_E_ENTRYNOTFOUND);
    EXPECT_EQ(schedule, nullptr);
  }
  const FaultPlan plan =
      FaultPlan::FailCall(Operation::kAllocate, 1, platform::ERROR_OUTOFMEMORY, platform::kOnce, "CSchedule");
  EXPECT_EQ(qx::CreateScheduleObject(&schedule), ZEP_E_OUTOFMEMORY);
  EXPECT_EQ(schedule, nullptr);
}

}  // namespace
