// Many modifications of one schedule, one after the other: the power goes in the midst of some, the disk refuses calls
// of others, and each one begins on what the one before has left.
#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <optional>
#include <random>

#include "platform/after_answer.h"
#include "platform/testing/crash_disk.h"
#include "service/tests/service_fixture.h"

namespace qx::testing {
namespace {

using platform::CrashDisk;
using platform::ErrorCode;
using platform::FaultPlan;
using platform::Operation;

class ManyPowerCuts : public ServiceFixture {
 protected:
  void SetUp() override {
    ServiceFixture::SetUp();
    for (const char* directory : {"/a", "/b", "/c"}) std::filesystem::create_directory(m_folder + directory);
    // QX_SEED sets the random generator's start (it is printed).
    const char* const given = std::getenv("QX_SEED");
    const std::uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 10) : 3;
    std::cout << "QX_SEED=" << seed << "\n";
    m_random.seed(seed);
    m_id = Create(Version(0));
    m_found = Find();
    m_disk = std::make_unique<CrashDisk>(m_folder);
  }
  void TearDown() override {
    m_disk.reset();
    ServiceFixture::TearDown();
  }

  int Below(int end) { return static_cast<int>(m_random() % static_cast<std::uint64_t>(end)); }
  bool OneIn(int n) { return Below(n) == 0; }

  // The schedule as its modification number n makes it: name, window and parameters tell the number.
  SCHEDULE_OBJECT Version(int n) {
    SCHEDULE_OBJECT schedule = Daily();
    schedule.bstrName = Wide("version " + std::to_string(n));
    schedule.bstrParameters = Wide("-v " + std::to_string(n));
    schedule.bstrXMLFilePathName = Wide(m_folder + "/" + "abc"[Below(3)] + "/job.xml");
    schedule.stScheduleRules.dwTimeDuration = static_cast<std::uint32_t>(1 + n) * 1000;
    return schedule;
  }

  // What key and file hold by a node of their own, and whether the listed job has these rules.
  struct Found {
    std::u16string parameters;
    std::u16string xmlPath;
    std::u16string name;
    std::uint32_t duration = 0;
    bool isListedSo = false;
    [[nodiscard]] bool HasRulesOf(const SCHEDULE_OBJECT& version) const {
      return name == version.bstrName && duration == version.stScheduleRules.dwTimeDuration;
    }
    [[nodiscard]] bool HasRulesOf(const Found& other) const { return name == other.name && duration == other.duration; }
    [[nodiscard]] bool HasValuesOf(const SCHEDULE_OBJECT& version) const {
      return parameters == version.bstrParameters && xmlPath == version.bstrXMLFilePathName;
    }
    [[nodiscard]] bool HasValuesOf(const Found& other) const {
      return parameters == other.parameters && xmlPath == other.xmlPath;
    }
  };
  [[nodiscard]] Found Find() const {
    Found found;
    SCHEDULE_OBJECT record;
    EXPECT_EQ(ReadRegistry(m_id, record), kStatusOk);
    CJobNode node;
    EXPECT_EQ(node.InitializeScheduler(), kStatusOk);
    (void)node.SetConfigFilePath(IniPath(m_id, record.bstrXMLFilePathName.value_or(u"")));
    EXPECT_EQ(node.LoadScheduleFromFile(record), kStatusOk);
    node.ReleaseScheduler();
    found.parameters = record.bstrParameters.value_or(u"");
    found.xmlPath = record.bstrXMLFilePathName.value_or(u"");
    found.name = record.bstrName.value_or(u"");
    found.duration = record.stScheduleRules.dwTimeDuration;
    const platform::CriticalSectionGuard guard(g_JobListLock);
    CJobNode* const listed = g_JobList.FindNode(m_id);
    SCHEDULE_OBJECT rules;
    found.isListedSo = listed != nullptr && listed->NextTimeWindow > 0 &&
                       listed->ScheduleObj.LoadScheduleFromPropBag(&rules) == kStatusOk &&
                       rules.bstrName == record.bstrName && rules.stScheduleRules == record.stScheduleRules;
    return found;
  }

  // A call or sync of a modification; more of them towards the end, where key and files change.
  int Moment() {
    constexpr int kMade = 140;  // about as many as one has that is made, and one that is rolled back
    constexpr int kRolledBack = 210;
    const int moments = OneIn(3) ? kRolledBack : kMade;
    return 1 + std::max(Below(moments), Below(moments));
  }
  // One modification, and what comes between.
  struct Outcome {
    Status status = kStatusOk;
    bool told = false;              // the clients heard of it
    bool cut = false;               // the power went
    bool cutBehindAnswer = false;
  };
  Outcome Modify(const SCHEDULE_OBJECT& version) {
    static constexpr CrashDisk::Survives kSurvives[] = {
        CrashDisk::Survives::kSynced, CrashDisk::Survives::kSyncedContents, CrashDisk::Survives::kSyncedNames,
        CrashDisk::Survives::kSome, CrashDisk::Survives::kAll};
    constexpr int kForGood = 10000;
    const int cutAt = OneIn(2) ? 0 : Moment();
    const int failFrom = OneIn(3) ? Moment() : kForGood;
    const int failTo = OneIn(2) ? failFrom + 1 + Below(5) : kForGood;
    const CrashDisk::Survives survives = kSurvives[Below(std::size(kSurvives))];
    const auto chance = static_cast<std::uint32_t>(m_random());
    if (OneIn(4)) Unlist();
    Outcome outcome;
    std::optional<CrashDisk::Image> image;
    bool answered = false;
    int moment = 0;
    const auto pass = [&] {
      m_disk->Look();
      if (++moment != cutAt) return;
      image = m_disk->AfterPowerCut(survives, chance);
      outcome.cutBehindAnswer = answered;
    };
    m_sink->heard.clear();
    m_disk->OnSync(pass);
    {
      const FaultPlan plan = FaultPlan::Ask([&](int call, Operation operation, std::string_view) {
        pass();
        // Without memory a text of the file reads as an empty one.
        const bool isOfDisk = operation != Operation::kAllocate && operation != Operation::kConvertText;
        return isOfDisk && call >= failFrom && call < failTo ? platform::ERROR_DISK_FULL : platform::ERROR_SUCCESS;
      });
      platform::AfterAnswer left;
      outcome.status = m_service.ModifySchedule(m_id, version);
      answered = true;
      left.End();
    }
    m_disk->OnSync({});
    outcome.told = !m_sink->heard.empty();
    outcome.cut = image.has_value();
    if (image) {
      Start(*image);
    } else if (outcome.status != kStatusOk || ListedWindow(m_id) < 0) {
      m_disk.reset();
      m_disk = std::make_unique<CrashDisk>(m_folder);  // nothing is promised of a failure: what is there stays
      EXPECT_EQ(m_service.Refresh(), kStatusOk);
    }
    return outcome;
  }

  // The service starts anew on what the disk holds.
  void Start(const CrashDisk::Image& image) {
    DoCleanUp();
    ASSERT_EQ(platform::CloseRegistryStore(), 0u);
    m_disk.reset();
    CrashDisk::Restore(image, m_folder);
    ASSERT_EQ(platform::OpenRegistryStore(m_folder + "/registry.db"), 0u);
    m_disk = std::make_unique<CrashDisk>(m_folder);
    ASSERT_EQ(PopulateJobList(), kStatusOk);
  }
  // As behind its last window.
  void Unlist() {
    const platform::CriticalSectionGuard guard(g_JobListLock);
    const CJobList::Position at = g_JobList.Find(m_id);
    ASSERT_FALSE(at == g_JobList.End());
    at->ReleaseScheduler();
    g_JobList.Erase(at);
  }

  std::mt19937_64 m_random;
  std::unique_ptr<CrashDisk> m_disk;
  ScheduleGuid m_id{};
  Found m_found;
};

TEST_F(ManyPowerCuts, LeaveTheNewestRulesOrThoseAheadOfThem) {
  constexpr int kModifications = 300;
  std::map<std::string, int> seen;
  for (int n = 1; n <= kModifications; ++n) {
    SCHEDULE_OBJECT version = Version(n);
    if (OneIn(8)) version.dwTaskOpCode = 99;  // is refused, and rolled back
    const Found before = m_found;
    const Outcome outcome = Modify(version);
    m_found = Find();
    SCOPED_TRACE(::testing::Message() << "modification " << n << ", status " << std::hex << outcome.status
                                      << (outcome.told ? ", told" : "") << (outcome.cut ? ", cut" : "")
                                      << (outcome.cutBehindAnswer ? " behind the answer" : "") << ": "
                                      << Narrow(before.name) << " became " << Narrow(m_found.name));
    ASSERT_TRUE(m_found.isListedSo);
    const bool isNew = m_found.HasRulesOf(version);
    ASSERT_TRUE(isNew || m_found.HasRulesOf(before));
    // New rules stand beside new values, and what was answered stands.
    if (isNew || (outcome.told && (!outcome.cut || outcome.cutBehindAnswer))) {
      ASSERT_TRUE(isNew && m_found.HasValuesOf(version));
    } else if (!outcome.told && outcome.status == kStatusOk) {
      ASSERT_TRUE(m_found.HasValuesOf(before) || outcome.cut);
    }
    ++seen[std::string(isNew ? "new" : "old") + (outcome.cut ? " behind a cut" : "") +
           (outcome.status != kStatusOk ? ", refused" : "")];
  }
  for (const auto& [name, times] : seen) std::cout << times << " " << name << "; ";
  std::cout << "\n";
  for (const char* name : {"new", "old", "old behind a cut", "old, refused"}) {
    EXPECT_GT(seen[name], 0) << name;
  }
}

}  // namespace
}  // namespace qx::testing
