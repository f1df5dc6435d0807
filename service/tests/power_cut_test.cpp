// The power goes in the midst of a change: at every platform call and every sync, with what was not synced lost in
// several ways. Each image of the disk is then opened as a start would, and judged.
#include <functional>
#include <iostream>
#include <map>
#include <set>

#include "platform/after_answer.h"
#include "platform/testing/crash_disk.h"
#include "service/tests/service_fixture.h"
#include "service/tests/stored_state.h"

namespace qx::testing {
namespace {

using platform::CrashDisk;
using Survives = CrashDisk::Survives;

constexpr std::uint32_t kChances = 6;  // images by chance at each moment

struct Image {
  std::string moment;  // where the power went, for messages
  bool acknowledged;   // its caller has the answer
};

class PowerCut : public ServiceFixture {
 protected:
  void SetUp() override {
    ServiceFixture::SetUp();
    m_disk = std::make_unique<CrashDisk>(m_folder);
    // Acknowledged before the power goes: the disk must have them.
    m_first = Create(Named("first"));
    m_subject = Create(Named("subject"));
    m_second = Create(Named("second"));
    std::filesystem::create_directory(m_folder + "/other");
    m_disk->Look();
    ASSERT_EQ(platform::SyncDirectory(m_folder), 0u);
    m_before = ReadStoredState(m_folder);
    ASSERT_EQ(m_before.failure, "");
  }
  void TearDown() override {
    m_disk.reset();
    ServiceFixture::TearDown();
  }

  SCHEDULE_OBJECT Named(const std::string& name) const {
    SCHEDULE_OBJECT schedule = Daily();
    schedule.bstrName = Wide(name);
    schedule.bstrParameters = u"-p " + Wide(name);
    return schedule;
  }

  // Makes the change as for a caller that waits for its answer, and an image of the disk at each moment, also of what is
  // left behind the answer; equal images are kept once. From the answer on the change may not be lost any more.
  void CutThrough(const std::function<Status()>& change) {
    bool acknowledged = false;
    const auto cut = [&](const std::string& moment) {
      ++m_moments;
      const auto keep = [&](Survives survives, std::uint32_t seed) {
        const auto [image, isNew] =
            m_images.try_emplace(m_disk->AfterPowerCut(survives, seed), Image{moment, acknowledged});
        if (acknowledged && !image->second.acknowledged) image->second = {moment, true};
      };
      for (const Survives survives :
           {Survives::kSynced, Survives::kSyncedContents, Survives::kSyncedNames, Survives::kAll}) {
        keep(survives, 0);
      }
      for (std::uint32_t i = 0; i < kChances; ++i)
        keep(Survives::kSome, static_cast<std::uint32_t>(m_moments) * kChances + i);
    };
    m_disk->OnSync([&] { cut("before sync " + std::to_string(m_disk->Syncs())); });
    Status status = 0;
    {
      const platform::FaultPlan plan =
          platform::FaultPlan::Ask([&](int call, platform::Operation operation, std::string_view) {
            cut("before call " + std::to_string(call) + " (" + std::string(OperationName(operation)) + ")");
            return platform::ErrorCode{platform::ERROR_SUCCESS};
          });
      platform::AfterAnswer left;
      status = change();
      acknowledged = true;
      cut("at the answer");
      left.End();
    }
    m_disk->OnSync({});
    ASSERT_EQ(status, kStatusOk);
    cut("behind the end");
    m_after = ReadStoredState(m_folder);
    ASSERT_EQ(m_after.failure, "");
    DoCleanUp();
    ASSERT_EQ(platform::CloseRegistryStore(), 0u);
    m_disk.reset();
  }

  // Opens each image as a start of the service would, and judges the schedule in question by `outcome`, which gets the
  // stores and tells what it sees: "old", "new" and so on, or a complaint that begins with "!".
  void JudgeAll(const ScheduleGuid& subject, const std::function<std::string(const StoredState&)>& outcome) {
    std::map<std::string, int> outcomes;
    for (const auto& [image, about] : m_images) {
      SCOPED_TRACE(about.moment);
      CrashDisk::Restore(image, m_folder);
      std::string where;
      ASSERT_EQ(platform::CheckRegistryStore(m_folder + "/registry.db", where), 0u) << where;
      ASSERT_EQ(platform::OpenRegistryStore(m_folder + "/registry.db"), 0u);
      EXPECT_EQ(PopulateJobList(), kStatusOk);
      const StoredState found = ReadStoredState(m_folder);
      EXPECT_EQ(found.failure, "");
      EXPECT_EQ(Without(found, Text(subject)).keys, Without(m_before, Text(subject)).keys);
      for (const ScheduleGuid& id : {m_first, m_second, m_subject}) {
        if (id == subject) continue;
        EXPECT_EQ(found.files.at(Text(id) + ".ini"), m_before.files.at(Text(id) + ".ini"));
        EXPECT_GT(ListedWindow(id), 0);
      }
      const std::string seen = outcome(found);
      EXPECT_NE(seen.front(), '!') << seen;
      if (about.acknowledged) {
        EXPECT_EQ(seen, "new");
      }
      ++outcomes[seen];
      // The list answers, and names what there is; each of it has its job.
      std::uint32_t count = 99;
      ScheduleList list;
      EXPECT_EQ(m_service.ListSchedule(count, list), kStatusOk);
      EXPECT_EQ(count, found.keys.size());
      EXPECT_EQ(ListedIds().size(), found.keys.size());
      // Life goes on.
      const ScheduleGuid next = Create(Named("next"));
      EXPECT_EQ(m_service.DeleteSchedule(next), kStatusOk);
      if (found.keys.contains(Text(subject))) {
        EXPECT_EQ(m_service.DeleteSchedule(subject), kStatusOk);
        EXPECT_FALSE(HasKey(subject));
      }
      DoCleanUp();
      ASSERT_EQ(platform::CloseRegistryStore(), 0u);
      if (HasFailure()) break;
    }
    std::cout << m_moments << " moments, " << m_images.size() << " different images:";
    for (const auto& [name, times] : outcomes) std::cout << " " << times << " " << name;
    std::cout << "\n";
    EXPECT_GT(outcomes["old"], 0);
    EXPECT_GT(outcomes["new"], 0);
  }

  static bool HasKeyOf(const StoredState& state, const std::string& id) { return state.keys.contains(id); }
  static std::string FileOf(const StoredState& state, const std::string& id) {
    const auto at = state.files.find(id + ".ini");
    return at == state.files.end() ? "" : at->second;
  }

  std::unique_ptr<CrashDisk> m_disk;
  ScheduleGuid m_first{}, m_subject{}, m_second{};
  StoredState m_before, m_after;
  std::map<CrashDisk::Image, Image> m_images;
  int m_moments = 0;
};

TEST_F(PowerCut, ACreatedScheduleIsThereWholeOrNotAtAll) {
  ScheduleGuid made{};
  ASSERT_NO_FATAL_FAILURE(CutThrough([&] { return m_service.CreateSchedule(Named("created"), made); }));
  const std::string id = Text(made);
  JudgeAll(made, [&](const StoredState& found) -> std::string {
    if (!HasKeyOf(found, id)) return "old";
    if (found.keys.at(id) != m_after.keys.at(id)) return "! a part of the key";
    if (FileOf(found, id) != FileOf(m_after, id)) return "! a part of the file";
    return "new";
  });
}

// The one directory, or another one for the new file.
class PowerCutInAModification : public PowerCut, public ::testing::WithParamInterface<const char*> {};

TEST_P(PowerCutInAModification, LeavesOldOrNewOrOldRulesBesideNewValues) {
  SCHEDULE_OBJECT changed = Named("changed");
  changed.bstrXMLFilePathName = Wide(m_folder + GetParam() + "/job.xml");
  changed.stScheduleRules.dwTimeDuration = 10 * 60 * 1000;
  ASSERT_NO_FATAL_FAILURE(CutThrough([&] { return m_service.ModifySchedule(m_subject, changed); }));
  const std::string id = Text(m_subject);
  const std::string newName = m_folder + GetParam() + "/" + id + ".ini";
  const std::string newText = FileText(newName);
  const std::string oldText = FileOf(m_before, id);
  ASSERT_NE(newText, oldText);
  ASSERT_NE(m_after.keys.at(id), m_before.keys.at(id));
  JudgeAll(m_subject, [&](const StoredState& found) -> std::string {
    if (!HasKeyOf(found, id)) return "! no key";
    if (found.keys.at(id) == m_before.keys.at(id))
      return FileOf(found, id) == oldText ? "old" : "! old values without their rules";
    if (found.keys.at(id) != m_after.keys.at(id)) return "! a part of the key";
    const std::string text = FileText(newName);
    return text == newText ? "new" : text == oldText ? "new-values-old-rules" : "! new values without rules";
  });
  EXPECT_FALSE(std::filesystem::exists(newName));  // deleted at the end of each
}

INSTANTIATE_TEST_SUITE_P(Directories, PowerCutInAModification, ::testing::Values("", "/other"),
                         [](const auto& directory) { return directory.index == 0 ? "Same" : "Other"; });

TEST_F(PowerCut, ADeletedScheduleIsThereWholeOrNotAtAll) {
  ASSERT_NO_FATAL_FAILURE(CutThrough([&] { return m_service.DeleteSchedule(m_subject); }));
  const std::string id = Text(m_subject);
  JudgeAll(m_subject, [&](const StoredState& found) -> std::string {
    if (!HasKeyOf(found, id)) return "new";
    if (found.keys.at(id) != m_before.keys.at(id)) return "! a part of the key";
    if (FileOf(found, id) != FileOf(m_before, id)) return "! a part of the file";
    return "old";
  });
}

}  // namespace
}  // namespace qx::testing
