// Each platform call of a modification fails, once and from then on; and random modifications one after the other.
// Linked with the disk that forgets, whose syncs cost nothing.
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>

#include "service/tests/modify_fixture.h"

namespace qx::testing {
namespace {

using platform::ErrorCode;
using platform::FaultMode;
using platform::FaultPlan;
using platform::Operation;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::Eq;
using ::testing::IsEmpty;

struct Scene {
  int line;
  bool listed;            // the job is in the list at the beginning
  const char* directory;  // of the new file; the old one is in "a"
  bool refused;           // the key refuses the change
};
std::ostream& operator<<(std::ostream& out, const Scene& scene) {
  return out << "line " << scene.line;
}
const Scene kScenes[] = {
    {__LINE__, true, "a", false},  {__LINE__, true, "b", false}, {__LINE__, false, "a", false},
    {__LINE__, false, "b", false}, {__LINE__, true, "a", true},  {__LINE__, true, "b", true},
    {__LINE__, false, "a", true},  {__LINE__, false, "b", true},
};

class ModifySweep : public ModifyFixture, public ::testing::WithParamInterface<Scene> {
 protected:
  ErrorCode CodeFor(Operation operation) const {
    switch (operation) {
      case Operation::kConvertText:
        return platform::ERROR_SUCCESS;  // asked of strict conversions only: there are none
      case Operation::kAllocate:
        return platform::ERROR_NOT_ENOUGH_MEMORY;
      default:
        return platform::ERROR_DISK_FULL;
    }
  }
  bool LogHas(std::string_view text) const {
    for (const std::string& line : m_log.texts(2)) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  }
  std::string LogText() const {
    std::string text;
    for (const std::string& line : m_log.texts(3)) text += line + "\n";
    return text;
  }
  // Old and new values of a key may stand side by side only when its values couldn't be written back.
  static bool IsMixture(const SCHEDULE_OBJECT& key, const SCHEDULE_OBJECT& a, const SCHEDULE_OBJECT& b) {
    for (const auto field :
         {&SCHEDULE_OBJECT::bstrWrapperBinaryName, &SCHEDULE_OBJECT::bstrXMLFilePathName,
          &SCHEDULE_OBJECT::bstrParameters, &SCHEDULE_OBJECT::bstrPreScript, &SCHEDULE_OBJECT::bstrPostScript}) {
      if (key.*field != a.*field && key.*field != b.*field) return false;
    }
    return key.bstrApplication == a.bstrApplication && key.bstrObjectID == a.bstrObjectID &&
           key.dwTaskOpCode == a.dwTaskOpCode && key.bUseGUID == a.bUseGUID;
  }
};

TEST_P(ModifySweep, LeavesTheNewScheduleTheOldOneOrSaysWhatIsLeft) {
  const Scene scene = GetParam();
  const ScheduleGuid otherId = CreateQuietly(Before());
  const Kept other = Keep(otherId);
  const std::string otherIni = "a/" + Text(otherId) + ".ini";
  SCHEDULE_OBJECT after = After(scene.directory);
  if (scene.refused) after.dwTaskOpCode = 5;
  std::map<std::string, int> outcomes;
  for (const FaultMode mode : {platform::kOnce, platform::kFromThenOn}) {
    for (int n = 1;; ++n) {
      const ScheduleGuid id = CreateQuietly(Before());
      if (!scene.listed) Unlist(id);
      const Kept before = Keep(id);
      const std::string oldIni = "a/" + Text(id) + ".ini";
      const Record oldRecord = ReadsAs(Before(), 0);
      const Record newRecord = ReadsAs(after, 0);
      Operation failed = Operation::kCount;
      std::string detail;
      FaultPlan plan = FaultPlan::Ask([&](int call, Operation operation, std::string_view about) {
        if (call < n || (call > n && mode == platform::kOnce)) return ErrorCode{platform::ERROR_SUCCESS};
        if (call == n) {
          failed = operation;
          detail = about;
        }
        return CodeFor(operation);
      });
      const Status status = m_service.ModifySchedule(id, after);
      plan.Remove();
      SCOPED_TRACE(::testing::Message() << "call " << n << ", " << OperationName(failed) << "(" << detail << ") "
                                        << (mode == platform::kOnce ? "once" : "from then on") << ", status "
                                        << std::hex << status << "\n"
                                        << LogText());
      std::string outcome;
      if (!m_sink->heard.empty()) {
        outcome = "new";
        EXPECT_FALSE(scene.refused);
        EXPECT_EQ(status, kStatusOk);
        ExpectTold(id, __LINE__);
        EXPECT_EQ(Listed(id), newRecord);
        EXPECT_EQ(ListedWindow(id), kPresent + 7200);
        EXPECT_EQ(Stored(id), newRecord);
      } else if (status == kStatusOk) {
        outcome = "rolled back";
        EXPECT_TRUE(LogHas("Failed to modify registry with error") || LogHas("Failed to save the new schedule"));
        // A file that didn't come back lies aside for whoever looks for it.
        if (RestoreOldIniFile(Wide(m_folder + "/" + oldIni))) {
          EXPECT_TRUE(LogHas("ModifySchedule: Failed to move " + m_folder + "/a/"));
        }
        Kept now = Keep(id);
        EXPECT_EQ(now.key, before.key);
        EXPECT_EQ(now.window, before.window);
        EXPECT_EQ(now.launchPath, before.launchPath);
        EXPECT_EQ(now.files.count(oldIni), 1u);
        // A file that couldn't be moved back is the one that the way back has saved.
        if (!LogHas("ModifySchedule: Failed to move " + m_folder + "/a/")) {
          EXPECT_EQ(now.files[oldIni], before.files.at(oldIni));
        }
        // Deliberate: what the rules library can't get memory for while it loads is an empty text or list, and the
        // load goes on: the job then has what was loaded.
        const bool loadedLess = scene.refused && failed == Operation::kAllocate && mode == platform::kOnce &&
                                (detail == "ZepUtf8ToWcs" || detail.starts_with("Property"));
        if (!loadedLess) {
          EXPECT_EQ(now.listed, before.listed);
        }
        EXPECT_EQ(TakeEvent(), -1);
      } else if (!LogHas("Failed to modify registry with error") && !LogHas("Failed to save the new schedule")) {
        outcome = "refused ahead";
        EXPECT_THAT(status, AnyOf(Eq(kStatusModify), Eq(kStatusNoSuchKey), Eq(kStatusFailure), Eq(kStatusNoDirectory),
                                  Eq(kStatusRegistryRead), Eq(kStatusRulesInvalid), Eq(kStatusNoRunDay)));
        EXPECT_EQ(Keep(id), before);
        EXPECT_EQ(LastOperation(id), 1u);
        EXPECT_THAT(ErrorLines(), ::testing::Not(IsEmpty()));
        EXPECT_EQ(TakeEvent(), -1);
      } else {
        outcome = "half";
        EXPECT_TRUE(LogHas("ModifySchedule:Failed to revert back the registry entries") ||
                    LogHas("ModifySchedule:Failed to restore old ini file with error") ||
                    LogHas("Failed to recover old ini file"));
        EXPECT_EQ(ListedWindow(id), -2);
        EXPECT_EQ(TakeEvent(), -1);
        const Record stored = Stored(id);
        EXPECT_TRUE(IsMixture(stored, oldRecord, newRecord));
        const bool oldRules =
            stored.stScheduleRules == oldRecord.stScheduleRules && stored.bstrName == oldRecord.bstrName;
        // New rules stand beside new values only.
        EXPECT_TRUE(oldRules || stored == newRecord);
      }
      ++outcomes[outcome];
      // The stores hold a schedule that runs, and the others are as they were.
      EXPECT_EQ(m_service.Refresh(), kStatusOk);
      EXPECT_THAT(ListedWindow(id), AnyOf(Eq(kPresent + 3600), Eq(kPresent + 7200)));
      const Kept otherNow = Keep(otherId);
      EXPECT_EQ(otherNow.key, other.key);
      EXPECT_EQ(otherNow.files.at(otherIni), other.files.at(otherIni));
      EXPECT_EQ(otherNow.window, other.window);
      EXPECT_EQ(m_service.DeleteSchedule(id), kStatusOk);
      // Copies that couldn't be deleted are the only thing left.
      for (const auto& [name, text] : Files()) {
        if (name == otherIni) continue;
        EXPECT_TRUE(name.find(Text(id)) != std::string::npos && outcome != "refused ahead") << name;
        std::filesystem::remove(m_folder + "/" + name);
      }
      ASSERT_FALSE(HasFailure());
      if (failed == Operation::kCount) break;
      ASSERT_LT(n, 2000);
    }
  }
  for (const auto& [name, count] : outcomes) std::cout << count << " " << name << "  ";
  std::cout << "\n";
  EXPECT_GT(outcomes["refused ahead"], 20);
  EXPECT_GT(outcomes["half"], 5);
  EXPECT_GT(outcomes["rolled back"], 0);
  EXPECT_EQ(outcomes["new"] > 2, !scene.refused);
}

INSTANTIATE_TEST_SUITE_P(Scenes, ModifySweep, ::testing::ValuesIn(kScenes), [](const auto& scene) {
  const Scene& s = scene.param;
  return std::string(s.refused ? "Refused" : "Accepted") + (s.listed ? "Listed" : "Unlisted") +
         (*s.directory == 'a' ? "SameDirectory" : "OtherDirectory");
});

// --- random modifications ---

// QX_SEED sets the random generator's start (it is printed).
std::mt19937_64& Random() {
  static std::mt19937_64 random = [] {
    const char* const text = std::getenv("QX_SEED");
    const std::uint64_t seed = text != nullptr ? std::strtoull(text, nullptr, 10) : 20250101;
    std::cout << "QX_SEED=" << seed << "\n";
    return std::mt19937_64(seed);
  }();
  return random;
}
// [low, high)
template <typename T>
T InRange(T low, T high) {
  return static_cast<T>(low + static_cast<T>(Random()() % static_cast<std::uint64_t>(high - low)));
}
bool OneIn(int n) {
  return InRange(0, n) == 0;
}
std::uint32_t Flag() {
  return InRange(0u, 2u);
}
std::int32_t Instant() {
  constexpr std::int32_t kDays = 2 * 366;
  return static_cast<std::int32_t>(kPresent + InRange<std::int64_t>(-30 * kSecondsOfDay, kDays * kSecondsOfDay));
}
// A text of a path, a parameter, a name: absent, empty, with every kind of sign that a client may send.
BSTR Words(bool mayBeAbsent) {
  static constexpr std::u16string_view kSigns = u"ab 1%s;=[]\"'\u00e4\u20ac-/";
  if (mayBeAbsent && OneIn(5)) return {};
  std::u16string text;
  const auto length = InRange<std::size_t>(0, 30);
  while (text.size() < length) text += kSigns[InRange<std::size_t>(0, kSigns.size())];
  return text;
}
// Blanks and quotes at its ends a text of the .ini file loses.
BSTR InFile(BSTR text) {
  return text ? BSTR(u"x" + *text + u"x") : text;
}
SCHEDULE_RULE RandomRules() {
  SCHEDULE_RULE rule;
  rule.lStartTime = OneIn(5) ? 0 : Instant();
  rule.lEndTime = Instant();  // without one the end has 59 milliseconds, which the file has no place for
  if (Flag() != 0) rule.dwTimeDuration = InRange<std::uint32_t>(1, 86401) * 1000;
  rule.bEffectiveDate = Flag();
  rule.lEffectiveDate = Instant();
  rule.bRestartInterval = Flag();
  rule.dwRestartInterval = InRange<std::uint32_t>(0, 7200) * 1000;
  rule.bRepeatInterval = Flag();
  rule.dwRepeatInterval = InRange<std::int32_t>(-1, 60);
  rule.lAnchorDate = OneIn(5) ? 0 : Instant();
  for (std::int16_t& day : rule.adwDaysOfMonth) day = OneIn(10) ? 1 : 0;
  for (auto* week :
       {&rule.dwDaysOfWeek0, &rule.dwDaysOfWeek1, &rule.dwDaysOfWeek2, &rule.dwDaysOfWeek3, &rule.dwDaysOfWeek4}) {
    for (std::uint32_t& day : *week) day = OneIn(10) ? 1 : 0;
  }
  const auto includes = OneIn(20) ? kSpecificDateCount - 1 : InRange<std::size_t>(0, 8);
  for (std::size_t i = 0; i < includes; ++i) rule.alIncludeDates[i] = Instant();
  const auto excludes = InRange<std::size_t>(0, 8);
  for (std::size_t i = 0; i < excludes; ++i) rule.alExcludeDates[i] = Instant();
  return rule;
}

class RandomModifications : public ModifyFixture {
 protected:
  // The schedule that `before` becomes: any of its fields may change, the fixed ones too.
  SCHEDULE_OBJECT Changed(const SCHEDULE_OBJECT& before) const {
    SCHEDULE_OBJECT s = before;
    s.bstrName = InFile(Words(true));
    s.bstrDescription = InFile(Words(true));
    if (OneIn(10)) s.bstrApplication = Words(true);
    if (OneIn(10)) s.bstrObjectID = Words(true);
    if (OneIn(10)) s.dwTaskOpCode = InRange<std::uint32_t>(0, 9);
    s.bstrWrapperBinaryName = OneIn(20) ? BSTR() : BSTR(u"/bin/" + Words(false).value());
    const char* const directories[] = {"/a/", "/b/", "/none/"};
    s.bstrXMLFilePathName = Wide(m_folder + directories[OneIn(10) ? 2 : InRange(0, 2)]) + u"job.xml";
    if (OneIn(20)) s.bstrXMLFilePathName.reset();
    s.bstrParameters = Words(true);
    s.bstrPreScript = Words(true);
    s.bstrPostScript = Words(true);
    s.bUseGUID = InRange<std::uint32_t>(0, 3);
    s.stScheduleRules = RandomRules();
    return s;
  }
  static bool SameIdentity(const SCHEDULE_OBJECT& a, const SCHEDULE_OBJECT& b) {
    return a.bstrApplication.value_or(u"") == b.bstrApplication.value_or(u"") &&
           a.bstrObjectID.value_or(u"") == b.bstrObjectID.value_or(u"") && a.dwTaskOpCode == b.dwTaskOpCode;
  }
};

TEST_F(RandomModifications, EndWithKeyFileAndListEqualOrWithEverythingAsBefore) {
  constexpr int kSchedules = 60;
  constexpr int kChanges = 8;
  std::map<std::string, int> seen;
  for (int n = 0; n < kSchedules; ++n) {
    const ScheduleGuid id = CreateQuietly(Before());
    SCHEDULE_OBJECT current = Before();
    bool listed = true;
    for (int i = 0; i < kChanges; ++i) {
      SCOPED_TRACE(::testing::Message() << "schedule " << n << ", change " << i);
      if (listed && OneIn(4)) {
        Unlist(id);
        listed = false;
      }
      const Kept before = Keep(id);
      const SCHEDULE_OBJECT after = Changed(current);
      const bool diskFull = OneIn(6);
      Quiet();
      FaultPlan plan = FaultPlan::FailCall(Operation::kCommitProfiles, diskFull ? 1 : 99, platform::ERROR_DISK_FULL);
      const Status status = m_service.ModifySchedule(id, after);
      plan.Remove();
      const Kept now = Keep(id);
      if (m_sink->heard.empty()) {
        ASSERT_EQ(now, before);
        ASSERT_EQ(TakeEvent(), -1);
        ASSERT_TRUE(status != kStatusOk || diskFull || !SameIdentity(after, current));
        ++seen[status == kStatusOk ? "rolled back" : "refused"];
        continue;
      }
      ASSERT_EQ(status, kStatusOk);
      ASSERT_FALSE(diskFull);
      ASSERT_TRUE(SameIdentity(after, current));
      ExpectTold(id, __LINE__);
      const Record expected = ReadsAs(after, 0);
      ASSERT_EQ(Stored(id), expected);
      ASSERT_EQ(Listed(id), expected);
      ASSERT_EQ(now.window, expected.lNextTimeWindow);
      ASSERT_EQ(now.files.size(), 1u);
      // A start finds the same.
      ASSERT_EQ(m_service.Refresh(), kStatusOk);
      ASSERT_EQ(Listed(id), expected);
      ASSERT_EQ(ListedWindow(id), now.window);
      ++seen["new"];
      current = after;
      listed = true;
    }
    ASSERT_EQ(m_service.DeleteSchedule(id), kStatusOk);
    ASSERT_THAT(FileNames(), IsEmpty());
  }
  for (const auto& [name, count] : seen) std::cout << count << " " << name << "  ";
  std::cout << "\n";
  for (const char* name : {"new", "rolled back", "refused"}) EXPECT_GT(seen[name], 20) << name;
}

}  // namespace
}  // namespace qx::testing
