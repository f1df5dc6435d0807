// The calendar's page as a browser shows it: light and dark, narrow and wide, by mouse and by keyboard.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <ostream>
#include <set>
#include <string>

#include "client/calendar_page.h"
#include "client/tests/calendar_samples.h"
#include "platform/testing/temporary_folder.h"
#include "platform/testing/virtual_clock.h"
#include "tests/headless_browser.h"

namespace {

using nlohmann::json;
using qx::testing::HeadlessBrowser;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::int64_t kNow = 1792584000;   // Wednesday 2026-10-21 14:00:00 +0200
constexpr double kLeastTextContrast = 4.5;  // WCAG 2.2, 1.4.3, for text of any size
constexpr double kLeastShapeContrast = 3;   // WCAG 2.2, 1.4.11
constexpr int kTab = 9;
constexpr int kEnd = 35;

// What is asked of a page. Colours are those that reach the eye: backgrounds and opacities of all elements around.
constexpr const char* kSurvey = R"js((() => {
const parse = text => {
  const rgb = /^rgba?\((.*)\)$/.exec(text), srgb = /^color\(srgb (.*)\)$/.exec(text);
  if (!rgb && !srgb) throw new Error('a colour of another form: ' + text);
  const v = (rgb || srgb)[1].split(/[ ,\/]+/).map(Number), by = rgb ? 255 : 1;
  return [v[0] / by, v[1] / by, v[2] / by, v.length > 3 ? v[3] : 1];
};
const over = (top, under) => [0, 1, 2].map(i => top[i] * top[3] + under[i] * (1 - top[3])).concat(1);
const styles = new Map();
const style = e => { if (!styles.has(e)) styles.set(e, getComputedStyle(e)); return styles.get(e); };
const grounds = new Map();
const ground = e => {
  if (!e) return [1, 1, 1, 1];
  if (!grounds.has(e)) grounds.set(e, over(parse(style(e).backgroundColor), ground(e.parentElement)));
  return grounds.get(e);
};
const seen = (e, colour) => {
  for (let c = colour; ; e = e.parentElement) {
    if (!e) return c;
    c = over(c.slice(0, 3).concat(Number(style(e).opacity)), ground(e.parentElement));
  }
};
const luminance = c => {
  const l = c.slice(0, 3).map(v => v <= .04045 ? v / 12.92 : ((v + .055) / 1.055) ** 2.4);
  return .2126 * l[0] + .7152 * l[1] + .0722 * l[2];
};
const contrast = (a, b) => {
  const [x, y] = [luminance(a), luminance(b)].sort((p, q) => q - p);
  return (x + .05) / (y + .05);
};
const against = (e, colour) => contrast(seen(e, over(parse(colour), ground(e))), seen(e, ground(e)));
const place = e => {
  const box = e.getBoundingClientRect();
  return {left: box.left, right: box.right, top: box.top, bottom: box.bottom};
};
window.qx = {
  // The contrast of each text below an element that can be seen, and what has less than `least`.
  texts(root, least) {
    styles.clear(); grounds.clear();
    const result = {count: 0, worst: 99, weak: [], where: []};
    const take = (e, text, colour) => {
      const ratio = against(e, colour);
      result.count++;
      result.worst = Math.min(result.worst, ratio);
      for (const name of (e.closest('.day') || e).classList) if (!result.where.includes(name)) result.where.push(name);
      if (ratio < least && result.weak.length < 5)
        result.weak.push(text.slice(0, 40) + ' in ' + e.className + ' of ' + (e.closest('.day') || e).className + ': ' + ratio.toFixed(2));
    };
    const walker = document.createTreeWalker(root, NodeFilter.SHOW_TEXT);
    while (walker.nextNode()) {
      const e = walker.currentNode.parentElement;
      if (walker.currentNode.data.trim() === '' || e.closest('style,title') || !e.checkVisibility()) continue;
      take(e, walker.currentNode.data.trim(), style(e).color);
      const after = getComputedStyle(e, '::after');
      if (after.content !== 'none' && after.content !== '""') take(e, after.content, after.color);
    }
    return result;
  },
  // The least contrast of the bars, and of the marks of exclusions and clock changes with the ring around them.
  shapes() {
    styles.clear(); grounds.clear();
    let bars = 99, marks = 99;
    for (const e of document.querySelectorAll('.chart'))
      if (e.checkVisibility()) bars = Math.min(bars, against(e, style(e).fill));
    for (const [e, which] of [...document.querySelectorAll('.months .ex')].map(e => [e, '::after'])
         .concat([...document.querySelectorAll('.months .ch')].map(e => [e, '::before'])))
      marks = Math.min(marks, contrast(parse(getComputedStyle(e, which).backgroundColor), ground(e.closest('.card'))));
    return {bars, marks};
  },
  // Luminance of the colours of the key, from nothing to the fullest.
  key() {
    styles.clear(); grounds.clear();
    const key = document.querySelector('.key');
    return [luminance(ground(key))].concat(['d1', 'd2', 'd3', 'd4'].map(d => luminance(ground(key.querySelector('.' + d)))));
  },
  // Elements that reach beyond the sides of the window.
  outside() {
    const width = document.documentElement.clientWidth, found = [];
    if (document.documentElement.scrollWidth > width) found.push('the page is ' + document.documentElement.scrollWidth + ' wide');
    for (const e of document.querySelectorAll('.day,.card,.tip,.count,.tag,.chip,.chart,h1,h2,header p,aside *')) {
      if (!e.checkVisibility() || found.length > 5) continue;
      const box = e.getBoundingClientRect();
      if (box.left < -.5 || box.right > width + .5) found.push(e.className + ' ' + e.textContent.slice(0, 40));
    }
    return found;
  },
  // Numbers of days, and what stands beside them, that don't fit into their cell.
  cut() {
    return [...document.querySelectorAll('.n,.count,.months .day')].filter(
        e => e.checkVisibility() && e.scrollWidth > e.clientWidth + 1).map(e => e.className + ' ' + e.textContent.slice(0, 20)).slice(0, 5);
  },
  // What the day in focus shows; nothing where none is.
  focus() {
    const day = document.activeElement.closest('.day');
    if (!day) return null;
    const tip = day.querySelector('.tip');
    return {label: day.getAttribute('aria-label'), self: day === document.activeElement, shown: tip.checkVisibility(),
            text: tip.textContent, day: place(day), tip: place(tip), height: innerHeight, width: innerWidth,
            scroll: tip.scrollTop, room: tip.scrollHeight - tip.clientHeight,
            outline: getComputedStyle(day).boxShadow, weak: qx.texts(tip, 4.5).weak};
  },
  shownTips() { return [...document.querySelectorAll('.tip')].filter(e => e.checkVisibility()).map(e => e.parentElement.getAttribute('aria-label')); },
};
})())js";

struct Kind {
  const char* name;
  int month;
  std::size_t copies;
  std::size_t kept;
};
void PrintTo(const Kind& kind, std::ostream* out) {
  *out << kind.name;
}

class PageInABrowser : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(HeadlessBrowser::IsInstalled())
        << HeadlessBrowser::kProgram
        << " isn't there (Debian package chromium): scripts/install-deps.sh chromium brings it";
    m_browser.emplace();
  }
  void TearDown() override {
    m_browser.reset();
  }

  void LoadText(const std::string& text) {
    const std::string file = m_directory + "/page.html";
    std::ofstream(file, std::ios::binary) << text;
    m_browser->Load(file);
    (void)m_browser->Evaluate(kSurvey);
  }
  json Ask(const std::string& expression) { return m_browser->Evaluate("qx." + expression); }

  const platform::TemporaryFolder m_temporary{"qx-page"};
  const std::string m_directory = m_temporary.Path();
  std::optional<HeadlessBrowser> m_browser;
};

class CalendarInABrowser : public PageInABrowser, public testing::WithParamInterface<Kind> {
 protected:
  void LoadCalendar() {
    const Kind& kind = GetParam();
    m_calendar = SampleCalendar({2026, kind.month}, kNow, kind.copies, kind.kept);
    LoadText(qx::CalendarPage(m_calendar));
  }

  platform::ScopedZone m_zone{"CET-1CEST,M3.5.0,M10.5.0/3"};
  platform::VirtualClock m_clock{kNow};
  qx::Calendar m_calendar;
};

INSTANTIATE_TEST_SUITE_P(Of, CalendarInABrowser,
                         testing::Values(Kind{"AMonth", 10, 1, 40}, Kind{"AYear", 0, 1, 12},
                                         Kind{"AMonthOfTenThousandSchedules", 10, 2500, 40},
                                         Kind{"AYearOfTenThousandSchedules", 0, 2500, 12}),
                         [](const auto& kind) { return kind.param.name; });

TEST_P(CalendarInABrowser, IsLegibleInEachWindowAndAsksForNothing) {
  LoadCalendar();
  EXPECT_THAT(m_browser->Requests(), ElementsAre("file://" + m_directory + "/page.html"));
  const struct {
    const char* name;
    int width, height;
  } windows[] = {{"wide", 1600, 1000}, {"middle", 1000, 800}, {"narrow", 390, 844}, {"least", 320, 600}};
  std::set<std::string> where;
  for (const char* scheme : {"light", "dark"}) {
    m_browser->Emulate(scheme);
    for (const auto& window : windows) {
      SCOPED_TRACE(std::string(scheme) + ", " + window.name);
      m_browser->Resize(window.width, window.height);
      EXPECT_EQ(Ask("outside()").dump(), "[]");
      EXPECT_EQ(Ask("cut()").dump(), "[]");
      const json texts = Ask("texts(document.body," + std::to_string(kLeastTextContrast) + ")");
      EXPECT_GT(texts["count"], 60);
      EXPECT_EQ(texts["weak"].dump(), "[]") << "the weakest: " << texts["worst"];
      for (const std::string name : texts["where"]) where.insert(name);
      const json shapes = Ask("shapes()");
      EXPECT_GE(shapes["bars"], kLeastShapeContrast);
      EXPECT_GE(shapes["marks"], kLeastShapeContrast);
      m_browser->Photograph(std::string(GetParam().name) + "-" + scheme + "-" + window.name);
    }
    // Each step of density differs from the one below, always in the same direction.
    const json key = Ask("key()");
    ASSERT_EQ(key.size(), 5u);
    for (std::size_t i = 1; i < key.size(); ++i) {
      const double lighter = key[std::string(scheme) == "light" ? i - 1 : i];
      const double darker = key[std::string(scheme) == "light" ? i : i - 1];
      EXPECT_GT((lighter + .05) / (darker + .05), 1.2) << scheme << " d" << i;
    }
  }
  for (const char* kind : {"past", "today", "ex", "ch", "day"}) EXPECT_THAT(where, Contains(kind));
  if (m_calendar.mostOnADay >= 4 && m_calendar.span.month == 0) {
    for (const char* density : {"d0", "d1", "d2", "d3", "d4"}) EXPECT_THAT(where, Contains(density));
  }
  m_browser->Emulate("light", "print");
  EXPECT_EQ(Ask("shownTips()").dump(), "[]");
  EXPECT_EQ(Ask("outside()").dump(), "[]");
  EXPECT_THAT(m_browser->Messages(), IsEmpty());
  EXPECT_THAT(m_browser->Requests(), ElementsAre("file://" + m_directory + "/page.html")) << "later, too";
}

TEST_P(CalendarInABrowser, TellsEachDayByTheKeyboard) {
  LoadCalendar();
  for (const int width : {1600, 390}) {
    SCOPED_TRACE(width);
    m_browser->Resize(width, 800);
    (void)m_browser->Evaluate("document.activeElement.blur(),scrollTo(0,0)");
    std::size_t reached = 0;
    std::size_t scrolled = 0;
    for (const qx::CalendarDay& day : m_calendar.days) {
      // A narrow month leaves days out on which nothing is.
      const bool empty = day.allEntries + day.excluded == 0 && !day.change;
      if (width == 390 && m_calendar.span.month != 0 && empty) continue;
      m_browser->Press("Tab", kTab);
      json focus = Ask("focus()");
      ASSERT_TRUE(focus.is_object()) << "behind " << reached << " days";
      SCOPED_TRACE(focus["label"]);
      ASSERT_TRUE(focus["self"]);
      ++reached;
      EXPECT_TRUE(focus["shown"]);
      EXPECT_NE(focus["outline"], "none");
      EXPECT_GE(focus["tip"]["top"], -.5);
      EXPECT_LE(focus["tip"]["bottom"], focus["height"].get<double>() + .5);
      EXPECT_GE(focus["tip"]["left"], -.5);
      EXPECT_LE(focus["tip"]["right"], focus["width"].get<double>() + .5);
      const bool beside =
          focus["day"]["right"] <= focus["tip"]["left"] || focus["day"]["bottom"] <= focus["tip"]["top"];
      EXPECT_TRUE(beside) << "the tip covers its day: " << focus["day"] << focus["tip"];
      EXPECT_GE(focus["day"]["top"], -.5);
      EXPECT_EQ(focus["weak"].dump(), "[]");
      const std::string text = focus["text"];
      for (const qx::CalendarEntry& entry : day.entries) EXPECT_THAT(text, HasSubstr(entry.reason));
      for (const qx::CalendarExclusion& exclusion : day.exclusions)
        EXPECT_THAT(text, HasSubstr("else " + exclusion.reason));
      if (day.change) {
        EXPECT_THAT(text, HasSubstr(qx::ChangeText(day)));
      }
      if (empty) {
        EXPECT_THAT(text, HasSubstr("No rule names this day."));
      }
      if (focus["room"] > 0) {
        // A long tip is the next stop, stays, and can be read to its end.
        m_browser->Press("Tab", kTab);
        m_browser->Press("End", kEnd);
        (void)m_browser->Evaluate("new Promise(r=>requestAnimationFrame(()=>requestAnimationFrame(r)))");
        focus = Ask("focus()");
        ASSERT_TRUE(focus.is_object());
        EXPECT_FALSE(focus["self"]);
        EXPECT_TRUE(focus["shown"]);
        if (scrolled++ < 3) {
          EXPECT_EQ(
              m_browser->Evaluate("new Promise(done=>{const tip=document.activeElement,room=tip.scrollHeight-"
                                  "tip.clientHeight;let turns=0;const look=()=>tip.scrollTop>=room-1||++turns>600?"
                                  "done(room-tip.scrollTop<=1):requestAnimationFrame(look);look()})"),
              true);
        }
      }
      if (testing::Test::HasFailure()) return;  // one day tells enough
    }
    EXPECT_GE(reached, 28u);
    if (GetParam().copies > 1) {
      EXPECT_GT(scrolled, 0u);
    }
    m_browser->Photograph(std::string(GetParam().name) + "-focus-" + std::to_string(width));
    m_browser->Press("Tab", kTab);
    EXPECT_TRUE(Ask("focus()").is_null()) << "the last day is the last stop";
  }
  EXPECT_THAT(m_browser->Messages(), IsEmpty());
}

TEST_P(CalendarInABrowser, TellsTheDayThatIsPointedAt) {
  LoadCalendar();
  m_browser->Resize(1600, 1000);
  EXPECT_EQ(Ask("shownTips()").dump(), "[]");
  for (const int day : {1, 21, 25, 30}) {
    const std::string label = " " + std::to_string(day) + " October 2026";
    const json at = m_browser->Evaluate(
        "(()=>{const e=[...document.querySelectorAll('.day')].find(d=>d.getAttribute('aria-label').includes('" + label +
        ":'));e.scrollIntoView({block:'center'});const b=e.getBoundingClientRect();"
        "return [b.left+b.width/2,b.top+b.height/2]})()");
    ASSERT_EQ(at.size(), 2u) << label;
    m_browser->PointAt(at[0], at[1]);
    const json shown = Ask("shownTips()");
    ASSERT_EQ(shown.size(), 1u) << label;
    EXPECT_THAT(shown[0].get<std::string>(), HasSubstr(label));
  }
  m_browser->Photograph(std::string(GetParam().name) + "-pointed");
  m_browser->PointAt(2, 2);
  EXPECT_EQ(Ask("shownTips()").dump(), "[]");
}

TEST_P(CalendarInABrowser, NamesEachDayToAReaderOfScreens) {
  LoadCalendar();
  const json tree = m_browser->Call("Accessibility.getFullAXTree");
  std::size_t days = 0;
  for (const json& node : tree["nodes"]) {
    if (node.value("ignored", false) || !node.contains("name")) continue;
    const std::string name = node["name"].value("value", "");
    if (node["role"].value("value", "") == "group" && name.find(" 2026: ") != std::string::npos) ++days;
  }
  EXPECT_EQ(days, m_calendar.days.size());
}

// The checks above can fail.
TEST_F(PageInABrowser, FindsWhatIsWrongWithAPage) {
  LoadText(
      "<!DOCTYPE html><title>bad</title><link rel='icon' href='data:,'><body style='background:#fff'>"
      "<img src='http://127.0.0.1:1/outside.png' alt=''><script>console.error('loud')</script>"
      "<div style='opacity:.5'><p class='day' style='color:#444'>half gone</p></div>"
      "<div class='card' style='width:5000px;background:#123'><p style='color:#234'>dark on dark</p></div>"
      "<p style='display:none;color:#fff'>not seen</p><p>black</p></body>");
  EXPECT_THAT(m_browser->Requests(), Contains("http://127.0.0.1:1/outside.png"));
  EXPECT_THAT(m_browser->Messages(), Contains(HasSubstr("loud")));
  EXPECT_THAT(Ask("outside()").dump(), HasSubstr("card dark on dark"));
  const json texts = Ask("texts(document.body,4.5)");
  EXPECT_EQ(texts["count"], 3);
  ASSERT_EQ(texts["weak"].size(), 2u);
  // #444 at half its strength over white is #a2a2a2.
  EXPECT_EQ(texts["weak"][0], "half gone in day of day: 2.57");
  EXPECT_THAT(texts["weak"][1].get<std::string>(), HasSubstr("dark on dark"));
}

}  // namespace
