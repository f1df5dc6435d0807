// The soak's second half: one life of the engine after another under the virtual clock, with schedules, steps of the
// clock and changes of the zone by chance. What each life has to launch is reckoned beside it (simulated_machine.h).
#include <iostream>

#include "service/tests/simulated_machine.h"
#include "tests/soak/soak_settings.h"

namespace qx::testing {
namespace {

using platform::CivilFromDays;

constexpr std::int64_t kMinute = 60;
constexpr const char* kZones[] = {"UTC",
                                  "America/New_York",
                                  "America/St_Johns",
                                  "Asia/Tehran",
                                  "Africa/Casablanca",
                                  "Europe/Dublin",
                                  "Europe/Berlin",
                                  "Asia/Kathmandu",
                                  "Australia/Lord_Howe",
                                  "Pacific/Apia",
                                  "Pacific/Pago_Pago",
                                  "America/Sao_Paulo"};

struct Tally {
  std::uint64_t lives = 0;
  std::uint64_t schedules = 0;
  std::uint64_t stepsForward = 0;
  std::uint64_t stepsBack = 0;
  std::uint64_t zoneChanges = 0;
  std::uint64_t launches = 0;
};

// A life is a fixture of its own, so that nothing of one reaches the next.
class Life : public SimulatedMachine {
 public:
  Life(std::uint32_t seed, Tally& tally)
      : SimulatedMachine(kZones[seed % std::size(kZones)]), m_dice(seed), m_tally(tally) {
    m_zoneName = kZones[seed % std::size(kZones)];
  }
  void Live() {
    SetUp();
    const bool zones = m_dice.OneIn(2);
    const std::int64_t schedules = m_dice.Between(1, 12);
    // A date lies in the file as an instant: read anew in another zone, it is that zone's date. Rules with dates live
    // where the zone stays.
    for (std::int64_t i = 0; i < schedules; ++i) AddSchedule(!zones);
    m_sink->heard.clear();
    std::int64_t away = 0;  // from the true time
    for (std::int64_t changes = m_dice.Between(2, 12); changes > 0; --changes) {
      const auto later = static_cast<std::uint64_t>(m_dice.Below(3 * kSecondsOfDay) * 1000 + 1000);
      if (zones && m_dice.OneIn(3)) {
        ChangeZone(later);
      } else {
        away += StepClock(later, away);
      }
    }
    Run(2 * kMillisecondsOfDay);
    m_tally.launches += Launches();
    ++m_tally.lives;
    TearDown();
  }

 private:
  void TestBody() override {}

  void AddSchedule(bool withDates) {
    const std::int64_t timeOfDay = m_dice.OneIn(2) ? m_dice.Below(kSecondsOfDay) : m_dice.Below(24 * 4) * 15 * kMinute;
    const std::int64_t today = DayOf(platform::CurrentZone().ToWall(platform::NowSeconds()));
    SCHEDULE_OBJECT schedule = At(timeOfDay);
    SCHEDULE_RULE& rules = schedule.stScheduleRules;
    std::function<bool(std::int64_t)> runsOn = [](std::int64_t) { return true; };
    switch (m_dice.Below(withDates ? 5 : 3)) {
      case 0: {  // some days of the week
        std::array<bool, 7> days{};
        for (bool& day : days) day = m_dice.OneIn(2);
        days[static_cast<std::size_t>(m_dice.Below(7))] = true;
        for (auto* week : Weeks(schedule)) {
          for (std::size_t i = 0; i < days.size(); ++i) (*week)[i] = days[i] ? 1 : 0;
        }
        runsOn = [days](std::int64_t day) { return days[static_cast<std::size_t>((day + 4) % 7)]; };
        break;
      }
      case 1: {  // some days of the month, up to the 28th
        std::array<bool, 29> days{};
        for (int i = 0; i < 6; ++i) days[static_cast<std::size_t>(m_dice.Between(1, 28))] = true;
        for (std::size_t i = 1; i < days.size(); ++i) rules.adwDaysOfMonth[i - 1] = days[i] ? 1 : 0;
        runsOn = [days](std::int64_t day) {
          const auto date = static_cast<std::size_t>(CivilFromDays(day).day);
          return date < days.size() && days[date];
        };
        break;
      }
      case 2:
        for (auto* week : Weeks(schedule)) week->fill(1);
        break;
      case 3: {  // every few days
        const std::int64_t period = m_dice.Between(1, 9);
        const std::int64_t anchor = today - m_dice.Below(100);
        rules.bRepeatInterval = 1;
        rules.dwRepeatInterval = static_cast<std::int32_t>(period);
        rules.lAnchorDate =
            static_cast<std::int32_t>(InstantOf(platform::CurrentZone(), anchor * kSecondsOfDay + 12 * 3600));
        runsOn = [=](std::int64_t day) { return day >= anchor && (day - anchor) % period == 0; };
        break;
      }
      default: {  // one day
        const std::int64_t theDay = today + m_dice.Between(1, 5);
        rules.alIncludeDates[0] =
            static_cast<std::int32_t>(InstantOf(platform::CurrentZone(), theDay * kSecondsOfDay + 12 * 3600));
        runsOn = [=](std::int64_t day) { return day == theDay; };
      }
    }
    (void)Keep(schedule, {timeOfDay, std::move(runsOn)});
    ++m_tally.schedules;
  }

  std::int64_t StepClock(std::uint64_t later, std::int64_t away) {
    static constexpr std::int64_t kSizes[] = {
        100, 3600, kSecondsOfDay, 30 * kSecondsOfDay, 365 * kSecondsOfDay, 3 * 365 * kSecondsOfDay};
    std::int64_t step = kSizes[m_dice.Below(std::size(kSizes))] + m_dice.Below(7200) + 2;
    if (away > 0 || (away == 0 && m_dice.OneIn(2))) step = -step;
    ++(step > 0 ? m_tally.stepsForward : m_tally.stepsBack);
    ThenStepClock(later, step);
    return step;
  }
  void ChangeZone(std::uint64_t later) {
    std::string other = m_zoneName;
    while (other == m_zoneName) other = kZones[m_dice.Below(std::size(kZones))];
    ThenChangeZone(later, m_zoneName = other);
    ++m_tally.zoneChanges;
  }

  Dice m_dice;
  Tally& m_tally;
  std::string m_zoneName;
};

TEST(EngineSoak, LaunchesEachWindowOnceThroughStepsOfTheClockAndChangesOfTheZone) {
  const auto begin = std::chrono::steady_clock::now();
  Tally tally;
  std::cout << "seed " << SoakSeed() << "\n";
  for (std::uint32_t seed = SoakSeed(); !::testing::Test::HasFailure(); ++seed) {
    if (std::chrono::steady_clock::now() - begin > std::chrono::duration<double>(SoakSeconds())) break;
    SCOPED_TRACE("SOAK_SEED=" + std::to_string(seed));
    Life(seed, tally).Live();
  }
  std::cout << "engine: " << tally.lives << " lives, " << tally.schedules << " schedules, " << tally.launches
            << " launches, " << tally.stepsForward << " steps forward, " << tally.stepsBack << " steps back, "
            << tally.zoneChanges << " zone changes\n";
  EXPECT_GT(tally.launches, 0u);
  EXPECT_GT(tally.stepsForward, 0u);
  EXPECT_GT(tally.stepsBack, 0u);
  EXPECT_GT(tally.zoneChanges, 0u);
}

}  // namespace
}  // namespace qx::testing
