// client/tests/random_records.h: schedules as clients and files may have them, by a random generator.
#pragma once

#include <array>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <random>
#include <string>

#include "interface/records.h"
#include "platform/text.h"

// What texts are made of: letters and signs, what forms and terminals obey, what names paths, what is no character.
inline const std::u16string kTextPieces[] = {
    u"night", u"a", u"B", u"7", u"\u00e4", u"\u65e5\u672c", u"\U0001F600", u" ", u"  ", u"\"", u"\"\"\"", u"'", u"\\",
    u"\\n", u",", u", ", u" = ", u"=", u"#", u"[", u"]", u"[days]", u"{", u"}", u"\t", u"\u001b[31m", u"\u0007",
    u"\u007f", u"\u0085", u"\u009b2J", u"\u061c", u"\u202e", u"\u2028", u"\u2066", u"\ufeff",
    u"../", u"/", u"/bin/true", u"-", u"--yes", u"%s%n", u"$(id)", u"`", u";", u"&", u"<b>", u"]]>", u"|", u"*", u"~",
    std::u16string(300, u'x'), u"true", u"1979-05-27", u"0"};
// No client can send these.
inline const std::u16string kUnsendable[] = {u"\n", u"\r", u"\r\n", u"\uffff", u"\ufdd0", std::u16string(1, u'\xD800')};

// The record with an empty text in the place of each that isn't given.
inline SCHEDULE_OBJECT WithAllTexts(SCHEDULE_OBJECT record) {
  for (BSTR* text : {&record.bstrName, &record.bstrDescription, &record.bstrApplication, &record.bstrObjectID,
                     &record.bstrWrapperBinaryName, &record.bstrXMLFilePathName, &record.bstrParameters,
                     &record.bstrPreScript, &record.bstrPostScript}) {
    if (!*text) text->emplace();
  }
  return record;
}

class RandomRecords {
 public:
  //   now        seconds: dates lie around it
  //   directory  of the schedules' files
  // QX_SEED sets the random generator's start (it is printed), QX_CASES the number of cases.
  RandomRecords(std::int64_t now, const std::string& directory) : m_now(now), m_directory(directory) {
    const char* const seed = std::getenv("QX_SEED");
    m_seed = seed != nullptr ? std::strtoull(seed, nullptr, 10) : 1;
    m_random.seed(m_seed);
    std::cout << "QX_SEED=" << m_seed << "\n";
  }

  static int Cases(int usual) {
    const char* const cases = std::getenv("QX_CASES");
    return cases != nullptr ? std::atoi(cases) : usual;
  }
  std::int64_t Below(std::int64_t end) {
    return static_cast<std::int64_t>(m_random() % static_cast<std::uint64_t>(end));
  }
  bool OneIn(std::int64_t n) { return Below(n) == 0; }
  template <class T, std::size_t N>
  const T& OneOf(const T (&values)[N]) {
    return values[Below(N)];
  }

  std::u16string Text(bool anyAtAll) {
    std::u16string text;
    for (std::int64_t left = Below(6); left > 0; --left) {
      text += anyAtAll && OneIn(12) ? OneOf(kUnsendable) : OneOf(kTextPieces);
    }
    return text;
  }
  BSTR MaybeText(bool anyAtAll) { return OneIn(4) ? BSTR() : BSTR(Text(anyAtAll)); }
  std::int32_t AnyNumber() {
    using Limits = std::numeric_limits<std::int32_t>;
    const std::int32_t numbers[] = {0,     1,     -1, -2, 86399, 86400, static_cast<std::int32_t>(m_now),
                                    Limits::min(), Limits::max()};
    return OneIn(3) ? static_cast<std::int32_t>(m_random()) : OneOf(numbers);
  }
  std::uint32_t AnyUnsigned() { return static_cast<std::uint32_t>(AnyNumber()); }
  std::int32_t Instant() {
    return static_cast<std::int32_t>(m_now + (Below(800) - 400) * kDaySeconds + Below(kDaySeconds));
  }

  // Milliseconds, up to a day; whole seconds or not.
  std::uint32_t Span() {
    return static_cast<std::uint32_t>(OneIn(2) ? 1000 * Below(kDaySeconds) : Below(std::int64_t{1000} * kDaySeconds));
  }

  SCHEDULE_OBJECT Texts(bool anyAtAll) {
    SCHEDULE_OBJECT record;
    record.bstrName = MaybeText(anyAtAll);
    record.bstrDescription = MaybeText(anyAtAll);
    record.bstrApplication = MaybeText(anyAtAll);
    record.bstrObjectID = MaybeText(anyAtAll);
    record.bstrWrapperBinaryName = anyAtAll ? MaybeText(true) : BSTR(u"/bin/echo");
    record.bstrXMLFilePathName = anyAtAll ? MaybeText(true) : BSTR(platform::WideFromUtf8(m_directory + "/x.xml"));
    record.bstrParameters = MaybeText(anyAtAll);
    record.bstrPreScript = MaybeText(anyAtAll);
    record.bstrPostScript = MaybeText(anyAtAll);
    record.dwTaskOpCode = AnyUnsigned();
    return record;
  }

  // Every value any that its type has.
  SCHEDULE_OBJECT AnyRecord() {
    SCHEDULE_OBJECT record = Texts(true);
    record.bRunNow = AnyUnsigned();
    record.bUseGUID = AnyUnsigned();
    record.lNextTimeWindow = AnyNumber();
    SCHEDULE_RULE& rules = record.stScheduleRules;
    for (std::int32_t* value : {&rules.lStartTime, &rules.lEndTime, &rules.lEffectiveDate, &rules.dwRepeatInterval,
                                &rules.lAnchorDate}) {
      if (!OneIn(3)) *value = AnyNumber();
    }
    for (std::uint32_t* value : {&rules.dwTimeDuration, &rules.bEffectiveDate, &rules.bRestartInterval,
                                 &rules.dwRestartInterval, &rules.bRepeatInterval, &rules.bLastDayOfMonth}) {
      if (!OneIn(3)) *value = AnyUnsigned();
    }
    for (auto& day : rules.adwDaysOfMonth) day = static_cast<std::int16_t>(OneIn(3) ? AnyNumber() : 0);
    for (auto* week : {&rules.dwDaysOfWeek0, &rules.dwDaysOfWeek1, &rules.dwDaysOfWeek2, &rules.dwDaysOfWeek3,
                       &rules.dwDaysOfWeek4}) {
      for (auto& day : *week) day = OneIn(2) ? AnyUnsigned() : 0;
    }
    for (auto* dates : {&rules.alIncludeDates, &rules.alExcludeDates}) {
      const auto count = OneIn(8) ? dates->size() : static_cast<std::size_t>(Below(6));
      for (std::size_t i = 0; i < count; ++i) (*dates)[i] = OneIn(2) ? Instant() : AnyNumber();
    }
    return record;
  }

  // What a client may send by the service's own interface; most of them are taken.
  SCHEDULE_OBJECT LikelyRecord() {
    SCHEDULE_OBJECT record = Texts(false);
    record.bUseGUID = static_cast<std::uint32_t>(Below(2));
    SCHEDULE_RULE& rules = record.stScheduleRules;
    if (!OneIn(4)) rules.lStartTime = Instant();
    if (OneIn(3)) rules.lEndTime = Instant();
    if (OneIn(2)) rules.dwTimeDuration = Span();
    if (OneIn(3)) rules.bEffectiveDate = OneIn(2) ? 1 : AnyUnsigned();
    if (OneIn(2)) rules.lEffectiveDate = Instant();
    if (OneIn(3)) rules.bRestartInterval = OneIn(2) ? 1 : AnyUnsigned();
    if (OneIn(2)) rules.dwRestartInterval = Span() / 8;
    if (OneIn(3)) rules.bRepeatInterval = OneIn(2) ? 1 : AnyUnsigned();
    if (OneIn(2)) rules.dwRepeatInterval = static_cast<std::int32_t>(Below(40));
    if (OneIn(2)) rules.lAnchorDate = Instant();
    if (OneIn(2)) {
      for (auto& day : rules.adwDaysOfMonth) day = static_cast<std::int16_t>(OneIn(5) ? Below(3) : 0);
    }
    for (auto* week : {&rules.dwDaysOfWeek0, &rules.dwDaysOfWeek1, &rules.dwDaysOfWeek2, &rules.dwDaysOfWeek3,
                       &rules.dwDaysOfWeek4}) {
      if (OneIn(3)) continue;
      for (auto& day : *week) day = OneIn(2) ? static_cast<std::uint32_t>(Below(3)) : 0;
    }
    for (auto* dates : {&rules.alIncludeDates, &rules.alExcludeDates}) {
      for (std::int64_t i = 0, count = OneIn(20) ? 365 : Below(5); i < count; ++i) (*dates)[i] = Instant();
    }
    return record;
  }

  [[nodiscard]] std::uint64_t Seed() const { return m_seed; }
  std::uint64_t Next() { return m_random(); }

 private:
  static constexpr std::int32_t kDaySeconds = 86400;
  std::mt19937_64 m_random;
  std::uint64_t m_seed = 1;
  std::int64_t m_now;
  std::string m_directory;
};
