#include "foundation/include/zfcbasictime.h"

#include <array>
#include <cstdio>

#include "foundation/include/zfcsync.h"
#include "platform/clock.h"

namespace ZepFoundation {

namespace {

// Made before main() and never destroyed; also for who comes earlier than this file's own objects.
CZepOSCriticalSection& TimeLibraryLock() {
  static auto* const section = new CZepOSCriticalSection;
  return *section;
}
[[maybe_unused]] const CZepOSCriticalSection& g_madeBeforeMain = TimeLibraryLock();

const char* NameOf(const std::array<const char*, 12>& names, int index, int count) {
  return index >= 0 && index < count ? names[static_cast<std::size_t>(index)] : "???";
}

std::string TextOf(const std::tm& t) {
  static constexpr std::array<const char*, 12> kDays = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::array<char, 96> text{};
  const int length =
      std::snprintf(text.data(), text.size(), "%s %s%3d %.2d:%.2d:%.2d %lld\n", NameOf(kDays, t.tm_wday, 7),
                    NameOf(kMonths, t.tm_mon, 12), t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, 1900LL + t.tm_year);
  return std::string(text.data(), static_cast<std::size_t>(length));
}

}  // namespace

std::tm* CBasicTime::GmtTime(const std::int64_t* seconds) {
  if (seconds == nullptr) return nullptr;
  const CZepGateKeeper hold(TimeLibraryLock());
  return platform::UtcBreakdown(*seconds, m_gmtResult) ? &m_gmtResult : nullptr;
}

std::tm* CBasicTime::LocalTime(const std::int64_t* seconds) {
  if (seconds == nullptr) return nullptr;
  const CZepGateKeeper hold(TimeLibraryLock());
  return platform::LocalBreakdown(*seconds, m_localResult) ? &m_localResult : nullptr;
}

std::int64_t CBasicTime::MkTime(std::tm* time) {
  if (time == nullptr) return -1;
  const CZepGateKeeper hold(TimeLibraryLock());
  std::int64_t seconds = -1;
  return platform::SecondsFromLocal(*time, seconds) ? seconds : -1;
}

const char* CBasicTime::CTime(const std::int64_t* seconds) {
  if (seconds == nullptr) return nullptr;
  const CZepGateKeeper hold(TimeLibraryLock());
  std::tm fields{};
  if (!platform::LocalBreakdown(*seconds, fields)) return nullptr;
  m_ctimeText = TextOf(fields);
  return m_ctimeText.c_str();
}

const char* CBasicTime::AscTime(const std::tm* time) {
  if (time == nullptr) return nullptr;
  const CZepGateKeeper hold(TimeLibraryLock());
  m_asctimeText = TextOf(*time);
  return m_asctimeText.c_str();
}

}  // namespace ZepFoundation
