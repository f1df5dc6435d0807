// The one place that asks the host for the time and for the rules of a zone.
//
// The C library knows the rules but is slow to ask and depends on process-wide state, so its answers are sampled once
// into a table. All zones known since 1901 have at least 3.9 days between two changes; a step of two days therefore
// never jumps over a pair of changes that cancel each other out.
#include "platform/clock.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <list>
#include <optional>
#include <type_traits>

#include <limits.h>
#include <time.h>
#include <unistd.h>

#include "platform/environment_copy.h"
#include "platform/mutex.h"

namespace platform {

namespace {

constexpr std::int64_t kSecondsPerDay = 86'400;
constexpr std::int64_t kTableBegin = DaysFromCivil(1901, 1, 1) * kSecondsPerDay;
constexpr std::int64_t kTableEnd = DaysFromCivil(2040, 1, 1) * kSecondsPerDay;
constexpr std::int64_t kSampleStep = 2 * kSecondsPerDay;
// No zone is farther from UTC than this, and two changes are never as close.
constexpr std::int64_t kOffsetBound = 26 * 3600;
// Wall seconds that the table answers: far enough inside that every change that matters is in it.
constexpr std::int64_t kWallBegin = kTableBegin + kOffsetBound;
constexpr std::int64_t kWallEnd = kTableEnd - kOffsetBound;
// Width of the sampled piece on each side of a wall value outside the table.
constexpr std::int64_t kPieceReach = 4 * kSecondsPerDay;
// Beyond this the C library has no year of 32 bits; offsets there are 0.
constexpr std::int64_t kFarthest = 67'768'036'000'000'000;
constexpr int kSlotShift = 20;

constexpr std::int64_t FloorDiv(std::int64_t a, std::int64_t b) { return a / b - (a % b < 0); }
constexpr std::int64_t FloorMod(std::int64_t a, std::int64_t b) { return a % b + (a % b < 0 ? b : 0); }

// Guards TZ, the C library's zone and the list of tables.
Mutex g_zoneMutex;
static_assert(std::is_trivially_destructible_v<Mutex>, "used to the very end of the process");

std::atomic<const Zone*> g_currentZone{nullptr};
std::atomic<ClockSource*> g_clockSource{nullptr};

struct ZoneState {
  std::int32_t offset;
  bool daylight;
  friend bool operator==(const ZoneState&, const ZoneState&) = default;
};

ZoneState AskLibrary(std::int64_t seconds) QX_REQUIRES(g_zoneMutex) {
  std::tm fields{};
  const time_t value = seconds;
  if (localtime_r(&value, &fields) == nullptr) return {0, false};
  return {static_cast<std::int32_t>(fields.tm_gmtoff), fields.tm_isdst > 0};
}

// A text of TZ as a zone's name: nothing for the system's zone file.
std::optional<std::string> TzInEnvironment() QX_REQUIRES(g_zoneMutex) {
  const char* text = std::getenv("TZ");
  return text == nullptr ? std::nullopt : std::optional<std::string>(text);
}

void PutTz(const std::optional<std::string>& text) QX_REQUIRES(g_zoneMutex) {
  if (text) {
    setenv("TZ", text->c_str(), 1);
  } else {
    unsetenv("TZ");
  }
}

// Has the C library speak of the zone `name` for its lifetime.
class LibraryZone {
 public:
  explicit LibraryZone(const std::string& name) QX_REQUIRES(g_zoneMutex) : m_before(TzInEnvironment()) {
    const std::optional<std::string> wanted = name.empty() ? std::nullopt : std::optional<std::string>(name);
    m_changed = wanted != m_before;
    if (m_changed) PutTz(wanted);
    tzset();
  }
  ~LibraryZone() {
    if (!m_changed) return;
    PutTz(m_before);
    tzset();
  }
  LibraryZone(const LibraryZone&) = delete;
  LibraryZone& operator=(const LibraryZone&) = delete;

 private:
  std::optional<std::string> m_before;
  bool m_changed = false;
};

// Changes of offset or flag in (begin, end], the C library's zone being the wanted one.
std::vector<Zone::Change> SampleChanges(std::int64_t begin, std::int64_t end) QX_REQUIRES(g_zoneMutex) {
  std::vector<Zone::Change> changes;
  std::int64_t low = begin;
  ZoneState lowState = AskLibrary(low);
  while (low < end) {
    const std::int64_t high = std::min(low + kSampleStep, end);
    const ZoneState highState = AskLibrary(high);
    while (lowState != highState) {
      std::int64_t before = low;
      std::int64_t after = high;
      ZoneState afterState = highState;
      while (after - before > 1) {
        const std::int64_t middle = before + (after - before) / 2;
        const ZoneState state = AskLibrary(middle);
        if (state == lowState) {
          before = middle;
        } else {
          after = middle;
          afterState = state;
        }
      }
      changes.push_back({after, lowState.offset, afterState.offset, lowState.daylight, afterState.daylight});
      low = after;
      lowState = afterState;
    }
    low = high;
  }
  return changes;
}

// The stretches of a list of changes; the first and the last one are open.
std::vector<Zone::WallStretch> StretchesOf(std::span<const Zone::Change> changes, std::int32_t firstOffset) {
  std::vector<Zone::WallStretch> stretches{
      {std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max(), firstOffset}};
  for (const Zone::Change& change : changes) {
    if (change.offsetAfter == change.offsetBefore) continue;
    // A gap is left behind, an overlap begins: the first wall second with the new offset.
    const std::int64_t boundary = change.at + change.offsetAfter;
    stretches.back().end = boundary;
    stretches.push_back({boundary, std::numeric_limits<std::int64_t>::max(), change.offsetAfter});
  }
  return stretches;
}

// The offset with which `wall` leaves; `changes` begins with the first change that can matter to it.
std::int32_t ResolveWall(std::span<const Zone::Change> changes, std::int32_t firstOffset, std::int64_t wall,
                         int isDst) {
  std::int32_t offset = firstOffset;
  for (const Zone::Change& change : changes) {
    const std::int64_t first = change.at + std::min(change.offsetBefore, change.offsetAfter);
    if (wall < first) break;
    const std::int64_t behind = change.at + std::max(change.offsetBefore, change.offsetAfter);
    if (wall < behind) {
      const bool gap = change.offsetAfter > change.offsetBefore;
      const bool earlier = isDst > 0 && change.daylightBefore && !change.daylightAfter;
      return gap || earlier ? change.offsetBefore : change.offsetAfter;
    }
    offset = change.offsetAfter;
  }
  return offset;
}

bool InTable(std::int64_t seconds) { return seconds >= kTableBegin && seconds < kTableEnd; }
bool InWallTable(std::int64_t wall) { return wall >= kWallBegin && wall < kWallEnd; }
bool HasOffset(std::int64_t seconds) { return seconds > -kFarthest && seconds < kFarthest; }
std::size_t SlotOf(std::int64_t seconds) {
  return static_cast<std::size_t>(static_cast<std::uint64_t>(seconds - kTableBegin) >> kSlotShift);
}

}  // namespace

// Makes the tables and keeps every one that was given out.
class ZoneLoader {
 public:
  // The table of the zone that the C library speaks of.
  static Zone Sample(std::string name) QX_REQUIRES(g_zoneMutex) {
    Zone zone;
    zone.m_name = std::move(name);
    const ZoneState first = AskLibrary(kTableBegin);
    zone.m_firstOffset = first.offset;
    zone.m_firstDaylight = first.daylight;
    zone.m_changes = SampleChanges(kTableBegin, kTableEnd);
    zone.m_stretches = StretchesOf(zone.m_changes, zone.m_firstOffset);
    Index(zone);
    return zone;
  }

  // Reads the zone in force and swaps the table. True when the rules differ from those before.
  static bool Load(bool fromFiles) QX_REQUIRES(g_zoneMutex) {
    const std::optional<std::string> text = TzInEnvironment();
    if (fromFiles && text) {
      // An unchanged text alone makes the C library keep what it read, even when the zone's file was replaced.
      PutTz(":");
      tzset();
      PutTz(text);
    }
    tzset();
    Zone zone = Sample(!text ? std::string() : text->empty() ? "UTC" : *text);
    const Zone* before = g_currentZone.load(std::memory_order_relaxed);
    const bool changed = before == nullptr || !SameRules(*before, zone);
    if (changed || before->m_name != zone.m_name) {
      g_currentZone.store(&Keep(std::move(zone)), std::memory_order_release);
    }
    return changed;
  }

  // A stretch for a wall value outside the table.
  static Zone::WallStretch StretchOutside(const Zone& zone, std::int64_t wall) {
    if (wall <= -kFarthest + kPieceReach) return {std::numeric_limits<std::int64_t>::min(), wall + 1, 0};
    if (wall >= kFarthest - kPieceReach) return {wall, std::numeric_limits<std::int64_t>::max(), 0};
    const Piece piece = SampleAround(zone, wall);
    for (Zone::WallStretch stretch : StretchesOf(piece.changes, piece.firstOffset)) {
      if (wall >= stretch.end) continue;
      // Nothing is known about what lies beyond the sampled piece.
      stretch.begin = std::max(stretch.begin, wall - kPieceReach + kOffsetBound);
      stretch.end = std::min(stretch.end, wall + kPieceReach - kOffsetBound);
      return stretch;
    }
    return {wall, wall + 1, piece.firstOffset};
  }

  static std::int64_t SecondsOutside(const Zone& zone, std::int64_t wall, int isDst) {
    if (wall <= -kFarthest + kPieceReach || wall >= kFarthest - kPieceReach) return wall;
    const Piece piece = SampleAround(zone, wall);
    return wall - ResolveWall(piece.changes, piece.firstOffset, wall, isDst);
  }

  // What the C library says of an instant outside the table.
  static ZoneState StateOutside(const Zone& zone, std::int64_t seconds) {
    if (!HasOffset(seconds)) return {0, false};
    const MutexLock lock(g_zoneMutex);
    const LibraryZone library(zone.m_name);
    return AskLibrary(seconds);
  }

 private:
  struct Piece {
    std::vector<Zone::Change> changes;
    std::int32_t firstOffset;
  };

  static Piece SampleAround(const Zone& zone, std::int64_t wall) {
    const MutexLock lock(g_zoneMutex);
    const LibraryZone library(zone.m_name);
    const std::int64_t begin = wall - kPieceReach;
    return {SampleChanges(begin, wall + kPieceReach), AskLibrary(begin).offset};
  }

  static void Index(Zone& zone) {
    const std::size_t slots = SlotOf(kTableEnd) + 1;
    std::size_t change = 0;
    std::size_t stretch = 0;
    for (std::size_t slot = 0; slot < slots; ++slot) {
      const std::int64_t begin = kTableBegin + (static_cast<std::int64_t>(slot) << kSlotShift);
      while (change < zone.m_changes.size() && zone.m_changes[change].at <= begin) ++change;
      while (zone.m_stretches[stretch].end <= begin) ++stretch;
      zone.m_changeIndex.push_back(static_cast<std::uint16_t>(change));
      zone.m_stretchIndex.push_back(static_cast<std::uint16_t>(stretch));
    }
  }

  static bool SameRules(const Zone& a, const Zone& b) {
    return a.m_firstOffset == b.m_firstOffset && a.m_firstDaylight == b.m_firstDaylight && a.m_changes == b.m_changes;
  }

  // The kept table equal to `zone`; tables live to the end of the process, since references to them were given out.
  static const Zone& Keep(Zone zone) QX_REQUIRES(g_zoneMutex) {
    static auto& kept = *new std::list<Zone>;  // read by threads that outlive static destruction: never destroyed
    for (const Zone& old : kept) {
      if (old.m_name == zone.m_name && SameRules(old, zone)) return old;
    }
    return kept.emplace_back(std::move(zone));
  }
};

Zone Zone::FromTz(const std::string& tz) {
  const std::string name = tz.empty() ? "UTC" : tz;
  const MutexLock lock(g_zoneMutex);
  const LibraryZone library(name);
  return ZoneLoader::Sample(name);
}

std::size_t Zone::FirstChangeAfter(std::int64_t seconds) const {
  std::size_t i = m_changeIndex[SlotOf(seconds)];
  while (i < m_changes.size() && m_changes[i].at <= seconds) ++i;
  return i;
}

std::int32_t Zone::OffsetAt(std::int64_t seconds) const {
  if (!InTable(seconds)) return ZoneLoader::StateOutside(*this, seconds).offset;
  const std::size_t i = FirstChangeAfter(seconds);
  return i == 0 ? m_firstOffset : m_changes[i - 1].offsetAfter;
}

bool Zone::IsDaylight(std::int64_t seconds) const {
  if (!InTable(seconds)) return ZoneLoader::StateOutside(*this, seconds).daylight;
  const std::size_t i = FirstChangeAfter(seconds);
  return i == 0 ? m_firstDaylight : m_changes[i - 1].daylightAfter;
}

std::int64_t Zone::ToSecondsOfDaylight(std::int64_t wall) const {
  constexpr int isDst = 1;
  if (!InWallTable(wall)) return ZoneLoader::SecondsOutside(*this, wall, isDst);
  // A change this far back is past in both of its offsets.
  const std::size_t i = FirstChangeAfter(wall - kOffsetBound);
  const std::int32_t offset = i == 0 ? m_firstOffset : m_changes[i - 1].offsetAfter;
  return wall - ResolveWall(std::span(m_changes).subspan(i), offset, wall, isDst);
}

Zone::WallStretch Zone::StretchAt(std::int64_t wall) const {
  if (!InWallTable(wall)) return ZoneLoader::StretchOutside(*this, wall);
  const WallStretch* stretch = m_stretches.data() + m_stretchIndex[SlotOf(wall)];
  while (stretch->end <= wall) ++stretch;
  WallStretch result = *stretch;
  if (result.begin < kWallBegin) result.begin = kWallBegin;
  if (result.end > kWallEnd) result.end = kWallEnd;
  return result;
}

std::int32_t Zone::StandardBias(std::int64_t nowSeconds) const {
  if (!IsDaylight(nowSeconds)) return -OffsetAt(nowSeconds);
  if (!HasOffset(nowSeconds) || !InTable(nowSeconds)) {
    // Outside the table the nearest month of the year without daylight time speaks for the year.
    const std::int64_t year = CivilFromDays(FloorDiv(ToWall(nowSeconds), kSecondsPerDay)).year;
    for (int month = 1; month <= 12; ++month) {
      const std::int64_t at = DaysFromCivil(year, month, 15) * kSecondsPerDay;
      if (!IsDaylight(at)) return -OffsetAt(at);
    }
    return -OffsetAt(nowSeconds);
  }
  const std::int64_t year = CivilFromDays(FloorDiv(ToWall(nowSeconds), kSecondsPerDay)).year;
  const std::size_t next = FirstChangeAfter(nowSeconds);
  const std::int64_t yearEnd = DaysFromCivil(year + 1, 1, 1) * kSecondsPerDay;
  const std::int64_t yearBegin = DaysFromCivil(year, 1, 1) * kSecondsPerDay;
  for (std::size_t i = next; i < m_changes.size() && m_changes[i].at + m_changes[i].offsetAfter < yearEnd; ++i) {
    if (!m_changes[i].daylightAfter) return -m_changes[i].offsetAfter;
  }
  for (std::size_t i = next; i > 0 && m_changes[i - 1].at + m_changes[i - 1].offsetBefore > yearBegin; --i) {
    if (!m_changes[i - 1].daylightBefore) return -m_changes[i - 1].offsetBefore;
  }
  return -OffsetAt(nowSeconds);
}

std::int64_t Zone::StandardBiasEnd(std::int64_t nowSeconds) const {
  if (!HasOffset(nowSeconds) || !InTable(nowSeconds)) return nowSeconds + 1;
  const std::int64_t wall = ToWall(nowSeconds);
  const std::int64_t nextYear = CivilFromDays(FloorDiv(wall, kSecondsPerDay)).year + 1;
  const std::int64_t yearEnd = DaysFromCivil(nextYear, 1, 1) * kSecondsPerDay - (wall - nowSeconds);
  const std::size_t next = FirstChangeAfter(nowSeconds);
  return std::min(yearEnd, next < m_changes.size() ? m_changes[next].at : kTableEnd);
}

const Zone& CurrentZone() {
  const Zone* zone = g_currentZone.load(std::memory_order_acquire);
  if (zone == nullptr) {
    const MutexLock lock(g_zoneMutex);
    zone = g_currentZone.load(std::memory_order_acquire);
    if (zone == nullptr) {
      ZoneLoader::Load(/*fromFiles=*/false);
      zone = g_currentZone.load(std::memory_order_acquire);
    }
  }
  return *zone;
}

std::string CurrentZoneName() {
  constexpr const char* kSystemZoneFile = "/etc/localtime";
  if (const std::string& name = CurrentZone().Name(); !name.empty()) return name;
  constexpr std::string_view kFolder = "/zoneinfo/";
  char target[PATH_MAX];
  if (realpath(kSystemZoneFile, target) == nullptr) return "UTC";
  const std::string_view path = target;
  const std::size_t at = path.rfind(kFolder);
  if (at == path.npos) return std::string(":") + kSystemZoneFile;
  return std::string(path.substr(at + kFolder.size()));
}

bool ReloadZone() {
  const MutexLock lock(g_zoneMutex);
  return ZoneLoader::Load(/*fromFiles=*/true);
}

int PutEnvironment(const char* text) {
  const char* equals = text == nullptr ? nullptr : std::strchr(text, '=');
  // The host's own call would remove the variable when no "=" is there.
  if (equals == nullptr || equals == text) return -1;
  const std::string name(text, equals);
  const MutexLock lock(g_zoneMutex);
  return equals[1] == '\0' ? unsetenv(name.c_str()) : setenv(name.c_str(), equals + 1, 1);
}

void TzSet() { (void)ReloadZone(); }

std::vector<std::string> CopyEnvironment() {
  const MutexLock lock(g_zoneMutex);
  std::vector<std::string> copy;
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) copy.emplace_back(*variable);
  return copy;
}

// --- now ---

namespace {

std::int64_t WallNanosecondsNow() {
  if (ClockSource* source = g_clockSource.load(std::memory_order_acquire)) return source->WallNanoseconds();
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// Now as of the kernel's last tick, some milliseconds ago: a fifth of the cost.
std::int64_t CoarseNowSeconds() {
  if (ClockSource* source = g_clockSource.load(std::memory_order_acquire)) {
    return FloorDiv(source->WallNanoseconds(), 1'000'000'000);
  }
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return now.tv_sec;
}

constexpr std::uint64_t kTickLimit = std::uint64_t{1} << 63;  // file times from here on have no calendar form

constexpr std::array<int, 12> kMonthDays = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

int MonthLength(std::int64_t year, int month) {
  const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
  return kMonthDays[static_cast<std::size_t>(month - 1)] + (month == 2 && leap);
}

SYSTEMTIME SystemTimeFromTicks(std::uint64_t ticks) {
  const auto milliseconds = static_cast<std::int64_t>(ticks / kTicksPerMillisecond);
  const std::int64_t days = milliseconds / (kSecondsPerDay * 1000);
  const auto ofDay = static_cast<std::int32_t>(milliseconds % (kSecondsPerDay * 1000));
  const CivilDate date = CivilFromDays(days - kEpochDistanceSeconds / kSecondsPerDay);
  SYSTEMTIME st;
  st.wYear = static_cast<std::uint16_t>(date.year);
  st.wMonth = static_cast<std::uint16_t>(date.month);
  st.wDayOfWeek = static_cast<std::uint16_t>((days + 1) % 7);  // 1 January 1601 was a Monday
  st.wDay = static_cast<std::uint16_t>(date.day);
  st.wHour = static_cast<std::uint16_t>(ofDay / 3'600'000);
  st.wMinute = static_cast<std::uint16_t>(ofDay / 60'000 % 60);
  st.wSecond = static_cast<std::uint16_t>(ofDay / 1000 % 60);
  st.wMilliseconds = static_cast<std::uint16_t>(ofDay % 1000);
  return st;
}

// Ticks moved by the offset in force now; false when they leave the range.
bool ShiftTicks(FILETIME in, std::int64_t seconds, FILETIME& out) {
  const std::uint64_t ticks = TicksFromFileTime(in);
  if (ticks >= kTickLimit) return false;
  const std::uint64_t shifted = ticks + static_cast<std::uint64_t>(seconds * kTicksPerSecond);
  if (shifted >= kTickLimit) return false;
  out = FileTimeFromTicks(shifted);
  return true;
}

bool Breakdown(std::int64_t wall, std::int32_t offset, bool daylight, std::tm& out) {
  const std::int64_t days = FloorDiv(wall, kSecondsPerDay);
  const auto ofDay = static_cast<int>(FloorMod(wall, kSecondsPerDay));
  const CivilDate date = CivilFromDays(days);
  const std::int64_t year = date.year - 1900;
  if (year < std::numeric_limits<int>::min() || year > std::numeric_limits<int>::max()) return false;
  out = std::tm{};
  out.tm_year = static_cast<int>(year);
  out.tm_mon = date.month - 1;
  out.tm_mday = date.day;
  out.tm_hour = ofDay / 3600;
  out.tm_min = ofDay / 60 % 60;
  out.tm_sec = ofDay % 60;
  const std::int64_t weekday = (days + 4) % 7;  // 1 January 1970 was a Thursday
  out.tm_wday = static_cast<int>(weekday < 0 ? weekday + 7 : weekday);
  out.tm_yday = static_cast<int>(days - DaysFromCivil(date.year, 1, 1));
  out.tm_isdst = daylight;
  out.tm_gmtoff = offset;
  out.tm_zone = "";
  return true;
}

}  // namespace

void InstallClockSource(ClockSource* source) { g_clockSource.store(source, std::memory_order_release); }
ClockSource* InstalledClockSource() { return g_clockSource.load(std::memory_order_acquire); }

std::int64_t NowSeconds() { return FloorDiv(WallNanosecondsNow(), 1'000'000'000); }

WallClockReading NowWithMilliseconds() {
  const std::int64_t now = WallNanosecondsNow();
  const std::int64_t seconds = FloorDiv(now, 1'000'000'000);
  const std::int64_t rest = now - seconds * 1'000'000'000;
  WallClockReading reading{seconds, static_cast<std::uint32_t>(rest / 1'000'000)};
  if (g_clockSource.load(std::memory_order_acquire) == nullptr) {
    timespec steady{};
    clock_gettime(CLOCK_MONOTONIC, &steady);
    reading.steadyNanoseconds = steady.tv_sec * 1'000'000'000 + steady.tv_nsec - rest % 1'000'000;
  }
  return reading;
}

std::uint32_t TickCount() {
  if (ClockSource* source = g_clockSource.load(std::memory_order_acquire)) {
    return static_cast<std::uint32_t>(source->SteadyMilliseconds());
  }
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint32_t>(static_cast<std::uint64_t>(now.tv_sec) * 1000 +
                                    static_cast<std::uint64_t>(now.tv_nsec) / 1'000'000);
}

FILETIME SystemTimeAsFileTime() {
  const std::int64_t ticks = FloorDiv(WallNanosecondsNow(), 100) + kEpochDistanceSeconds * kTicksPerSecond;
  return FileTimeFromTicks(static_cast<std::uint64_t>(ticks));
}

SYSTEMTIME SystemTimeNow() { return SystemTimeFromTicks(TicksFromFileTime(SystemTimeAsFileTime())); }

SYSTEMTIME LocalTimeNow() {
  const std::uint64_t ticks = TicksFromFileTime(SystemTimeAsFileTime());
  const std::int64_t seconds = static_cast<std::int64_t>(ticks / kTicksPerSecond) - kEpochDistanceSeconds;
  const std::int64_t shift = CurrentZone().OffsetAt(seconds) * kTicksPerSecond;
  return SystemTimeFromTicks(ticks + static_cast<std::uint64_t>(shift));
}

TimeZoneInformation GetTimeZoneInformation() {
  // Asked for by every presented time of day. The answer is kept as long as neither zone, year nor offset changes, and
  // the kernel's coarse clock, which is behind by a few milliseconds, says whether that is so.
  thread_local struct {
    const Zone* zone;
    std::int64_t from;
    std::int64_t until;
    std::int32_t bias;
  } kept{nullptr, 0, 0, 0};
  const Zone& zone = CurrentZone();
  const std::int64_t now = CoarseNowSeconds();
  if (&zone != kept.zone || now < kept.from || now >= kept.until) {
    kept = {&zone, now, zone.StandardBiasEnd(now), zone.StandardBias(now)};
  }
  return {kept.bias / 60};
}

std::int32_t OffsetInForceNow() { return CurrentZone().OffsetAt(NowSeconds()); }

// --- conversions ---

bool SystemTimeToFileTime(const SYSTEMTIME& in, FILETIME& out) {
  if (in.wYear < 1601 || in.wYear > 30827 || in.wMonth < 1 || in.wMonth > 12) return false;
  if (in.wDay < 1 || in.wDay > MonthLength(in.wYear, in.wMonth)) return false;
  if (in.wHour > 23 || in.wMinute > 59 || in.wSecond > 59 || in.wMilliseconds > 999) return false;
  const std::int64_t days = DaysFromCivil(in.wYear, in.wMonth, in.wDay) + kEpochDistanceSeconds / kSecondsPerDay;
  const std::int64_t seconds = days * kSecondsPerDay + in.wHour * 3600 + in.wMinute * 60 + in.wSecond;
  const std::int64_t ticks = seconds * kTicksPerSecond + in.wMilliseconds * kTicksPerMillisecond;
  out = FileTimeFromTicks(static_cast<std::uint64_t>(ticks));
  return true;
}

bool FileTimeToSystemTime(FILETIME in, SYSTEMTIME& out) {
  const std::uint64_t ticks = TicksFromFileTime(in);
  if (ticks >= kTickLimit) return false;
  out = SystemTimeFromTicks(ticks);
  return true;
}

bool FileTimeToLocalFileTime(FILETIME in, FILETIME& out) { return ShiftTicks(in, OffsetInForceNow(), out); }
bool LocalFileTimeToFileTime(FILETIME in, FILETIME& out) {
  return ShiftTicks(in, -std::int64_t{OffsetInForceNow()}, out);
}

int CompareFileTime(FILETIME a, FILETIME b) {
  const std::uint64_t ticksA = TicksFromFileTime(a);
  const std::uint64_t ticksB = TicksFromFileTime(b);
  return ticksA < ticksB ? -1 : ticksA > ticksB;
}

namespace {

constexpr std::int64_t kOleEpochDays = DaysFromCivil(1899, 12, 30);
constexpr std::int64_t kOleFirstDay = DaysFromCivil(100, 1, 1) - kOleEpochDays;
constexpr std::int64_t kOleLastDay = DaysFromCivil(9999, 12, 31) - kOleEpochDays;
// Years of two digits below this belong to 2000 to 2049, the platform's default window.
constexpr int kOleCenturyPivot = 50;
// Pushes a time of day that lies an error of rounding below a half second over it.
constexpr double kOleNudge = 1e-11;

}  // namespace

bool VariantTimeToSystemTime(double in, SYSTEMTIME& out) {
  // Written so that a value that is no number is refused, too.
  if (!(in > static_cast<double>(kOleFirstDay - 1) && in < static_cast<double>(kOleLastDay + 1))) return false;
  const double whole = std::trunc(in);
  auto day = static_cast<std::int64_t>(whole);
  const double time = std::min(std::fabs(in - whole) + kOleNudge, 1.0);
  auto second = static_cast<std::int64_t>(std::floor(time * kSecondsPerDay + 0.5));
  // Deliberate: the day of the week stays that of the day before when rounding leads to midnight.
  const std::int64_t weekday = (day - kOleFirstDay + 5) % 7;  // 1 January 100 was a Friday
  if (second >= kSecondsPerDay && day == kOleLastDay) {
    second = kSecondsPerDay - 1;  // rounding must not leave the range
  }
  day += second / kSecondsPerDay;
  second %= kSecondsPerDay;
  const CivilDate date = CivilFromDays(day + kOleEpochDays);
  out.wYear = static_cast<std::uint16_t>(date.year);
  out.wMonth = static_cast<std::uint16_t>(date.month);
  out.wDayOfWeek = static_cast<std::uint16_t>(weekday);
  out.wDay = static_cast<std::uint16_t>(date.day);
  out.wHour = static_cast<std::uint16_t>(second / 3600);
  out.wMinute = static_cast<std::uint16_t>(second / 60 % 60);
  out.wSecond = static_cast<std::uint16_t>(second % 60);
  out.wMilliseconds = 0;
  return true;
}

bool SystemTimeToVariantTime(const SYSTEMTIME& in, double& out) {
  if (in.wYear > 9999 || in.wMonth < 1 || in.wMonth > 12) return false;
  const int year = in.wYear + (in.wYear < kOleCenturyPivot ? 2000 : in.wYear < 100 ? 1900 : 0);
  // Fields out of range roll over, as signed 16-bit values; milliseconds are not looked at.
  const auto field = [](std::uint16_t value) { return std::int64_t{static_cast<std::int16_t>(value)}; };
  const std::int64_t time = field(in.wHour) * 3600 + field(in.wMinute) * 60 + field(in.wSecond);
  const std::int64_t carried = FloorDiv(time, kSecondsPerDay);
  const std::int64_t day = DaysFromCivil(year, in.wMonth, 1) - kOleEpochDays + field(in.wDay) - 1 + carried;
  if (day < kOleFirstDay || day > kOleLastDay) return false;
  const std::int64_t second = FloorMod(time, kSecondsPerDay);
  const double sign = day < 0 ? -1.0 : 1.0;
  // Added part by part, largest first: the last bits of the recorded dates come from this order.
  double date = static_cast<double>(day);
  date += sign * (static_cast<double>(second / 3600) / 24.0);
  date += sign * (static_cast<double>(second / 60 % 60) / 1440.0);
  date += sign * (static_cast<double>(second % 60) / 86400.0);
  out = date;
  return true;
}

bool TimeText(int hour, int minute, int second, std::string& out) {
  if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 59) return false;
  std::array<char, 16> text{};
  const int length = std::snprintf(text.data(), text.size(), "%d:%02d:%02d %s", (hour + 11) % 12 + 1, minute, second,
                                   hour < 12 ? "AM" : "PM");
  out.assign(text.data(), static_cast<std::size_t>(length));
  return true;
}

bool LocalBreakdown(std::int64_t seconds, std::tm& out) {
  const Zone& zone = CurrentZone();
  const std::int32_t offset = zone.OffsetAt(seconds);
  return Breakdown(seconds + offset, offset, zone.IsDaylight(seconds), out);
}

bool UtcBreakdown(std::int64_t seconds, std::tm& out) { return Breakdown(seconds, 0, false, out); }

bool SecondsFromLocal(std::tm& inOut, std::int64_t& seconds) {
  const std::int64_t months = std::int64_t{inOut.tm_year} * 12 + inOut.tm_mon;
  const std::int64_t year = FloorDiv(months, 12);
  const std::int64_t days = DaysFromCivil(year + 1900, static_cast<int>(months - year * 12) + 1, 1) + inOut.tm_mday - 1;
  const std::int64_t wall = days * kSecondsPerDay + std::int64_t{inOut.tm_hour} * 3600 +
                            std::int64_t{inOut.tm_min} * 60 + inOut.tm_sec;
  const std::int64_t result = CurrentZone().ToSeconds(wall, inOut.tm_isdst);
  std::tm fields{};
  if (!LocalBreakdown(result, fields)) return false;
  inOut = fields;
  seconds = result;
  return true;
}

}  // namespace platform
