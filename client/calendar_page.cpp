#include "client/calendar_page.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "client/time_text.h"

namespace qx {
namespace {

constexpr std::size_t kChips = 3;          // windows shown in the cell of a month's day
constexpr std::size_t kScheduleRows = 12;  // in the summary
constexpr std::array<const char*, kDaysOfWeekCount> kLongWeekdays = {"Monday", "Tuesday",  "Wednesday", "Thursday",
                                                                     "Friday", "Saturday", "Sunday"};

constexpr const char* kStyle = R"css(
:root{color-scheme:light dark;--page:#f6f7f9;--card:#fff;--ink:#1a2230;--soft:#5b6678;--line:#dfe3ea;--accent:#1f5fbf;
--d1:#d8e8fb;--d2:#a5c9f2;--d3:#66a5e6;--d4:#2768b8;--on1:#17324f;--on2:#12304f;--on3:#08223f;--on4:#fff;--bar:#4689d0;
--out:#b3323f;--outbg:#fbe4e6;--clock:#8a5a00;--clockbg:#fdeec9;--shadow:0 8px 28px rgba(20,30,50,.16)}
@media (prefers-color-scheme:dark){:root{--page:#10141a;--card:#181e27;--ink:#e4e9f1;--soft:#98a4b6;--line:#2a3340;
--accent:#7fb2ff;--d1:#1c3350;--d2:#254d7d;--d3:#3670b6;--d4:#7db4f5;--on1:#d7e6fa;--on2:#e6f0fd;--on3:#fff;--on4:#0b1a2c;
--bar:#4f91dc;
--out:#ff8f99;--outbg:#41212a;--clock:#f2c661;--clockbg:#3d3117;--shadow:0 8px 28px rgba(0,0,0,.55)}}
*{box-sizing:border-box}
body{margin:0;background:var(--page);color:var(--ink);font:15px/1.45 system-ui,"Segoe UI",Roboto,"DejaVu Sans",sans-serif;
padding:28px clamp(14px,3vw,44px) 48px}
main{max-width:1500px;margin:0 auto;display:grid;grid-template-columns:minmax(0,1fr) 340px;gap:28px;align-items:start}
header{grid-column:1/-1}
h1{font-size:30px;line-height:1.15;letter-spacing:-.02em;margin:0 0 6px}
header p{margin:0;color:var(--soft)}
h2{font-size:14px;margin:0 0 10px}
h3{font-size:13px;margin:16px 0 6px;color:var(--soft);font-weight:600}
.num{font-variant-numeric:tabular-nums}
.card{background:var(--card);border:1px solid var(--line);border-radius:14px;padding:16px}
.grid{display:grid;grid-template-columns:repeat(7,minmax(0,1fr));gap:6px}
.wd{color:var(--soft);font-size:12px;font-weight:600;padding:0 2px 2px}
.day{border-radius:10px;outline:none}
.day:hover,.day:focus-within{box-shadow:0 0 0 2px var(--accent)}
.d0{--bg:var(--card)}.d1{--bg:var(--d1);color:var(--on1)}.d2{--bg:var(--d2);color:var(--on2)}
.d3{--bg:var(--d3);color:var(--on3)}.d4{--bg:var(--d4);color:var(--on4)}
.d0,.d1,.d2,.d3,.d4{background:var(--bg)}
.month .day{min-height:116px;padding:8px;border:1px solid var(--line);display:flex;flex-direction:column;gap:4px}
.month .day.d0,.month .day.d1,.month .day.d2,.month .day.d3,.month .day.d4{background:var(--card);color:var(--ink)}
.month .day.past{background:var(--page)}.month .past .n,.month .past .chip{color:var(--soft)}
.top{display:flex;align-items:center;gap:6px;min-height:24px}
.n{font-weight:600;font-size:14px;display:inline-block;min-width:24px}
.today .n{background:var(--accent);color:var(--card);border-radius:12px;text-align:center;padding:1px 6px}
.count{margin-left:auto;font-size:12px;font-weight:600;border-radius:8px;padding:1px 7px}
.chip{font-size:12px;line-height:1.35;white-space:nowrap;overflow:hidden;text-overflow:ellipsis;
border-left:3px solid var(--bar);padding-left:6px}
.chip b{font-weight:600;font-variant-numeric:tabular-nums}
.more{font-size:12px;color:var(--soft);padding-left:9px}
.tag{font-size:11px;font-weight:600;border-radius:6px;padding:1px 6px;white-space:nowrap;align-self:flex-start;
max-width:100%;overflow:hidden;text-overflow:ellipsis}
.x{color:var(--out);background:var(--outbg)}.c{color:var(--clock);background:var(--clockbg)}
.chart{display:block;width:100%;fill:var(--bar)}
.month .day>.chart{height:16px;margin-top:auto}
.months{display:grid;grid-template-columns:repeat(auto-fill,minmax(238px,1fr));gap:18px}
.months .grid{gap:3px}
.months .wd{font-size:10px;text-align:center;padding:0}
.months .day{aspect-ratio:1;border-radius:7px;display:grid;place-items:center;font-size:12px;position:relative;
font-variant-numeric:tabular-nums}
.months .d0{color:var(--soft)}
.months .past{background:color-mix(in srgb,var(--bg) 25%,var(--card));
color:color-mix(in srgb,var(--ink) 75%,var(--card))}
.months .today{font-weight:700;box-shadow:inset 0 0 0 2px var(--accent)}
.months .ex::after,.months .ch::before{content:"";position:absolute;width:6px;height:6px;border-radius:50%;top:3px;
box-shadow:0 0 0 1.5px var(--card)}
.months .ex::after{right:3px;background:var(--out)}
.months .ch::before{left:3px;background:var(--clock);border-radius:1px}
aside{position:sticky;top:20px}
aside dl{display:grid;grid-template-columns:1fr auto;gap:5px 12px;margin:0}
aside dt{color:var(--soft)}aside dd{margin:0;font-weight:600}
.key{display:flex;flex-wrap:wrap;gap:6px 12px;font-size:12px;color:var(--soft);align-items:center;margin:14px 0 0;padding:0;
list-style:none}
.key i{display:inline-block;width:14px;height:14px;border-radius:4px;vertical-align:-2px;margin-right:3px}
.key i.dot{width:8px;height:8px;border-radius:50%;vertical-align:1px;background:var(--out)}
.key i.box{width:8px;height:8px;border-radius:1px;vertical-align:1px;background:var(--clock)}
.rows{list-style:none;margin:0;padding:0;font-size:13px}
.rows li{display:flex;gap:10px;padding:3px 0}
.rows li span:first-child{overflow:hidden;text-overflow:ellipsis;white-space:nowrap;flex:1}
.rows li span:last-child{color:var(--soft);font-variant-numeric:tabular-nums}
.hint{color:var(--soft);font-size:13px;margin:14px 0 0}
.tip{display:none;position:fixed;z-index:5;top:20px;right:max(clamp(14px,3vw,44px),calc((100vw - 1500px)/2));width:340px;
max-height:calc(100vh - 40px);overflow:hidden auto;overscroll-behavior:contain;background:var(--card);color:var(--ink);border:1px solid var(--line);
border-radius:14px;padding:16px;box-shadow:var(--shadow);font-size:13px;font-weight:400;text-align:left;cursor:default}
.day:hover>.tip{display:block;z-index:6}.day:focus-within>.tip{display:block}
.tip strong{display:block;font-size:16px;margin-bottom:2px}
.tip p{margin:0 0 8px;color:var(--soft)}
.tip .chart{height:44px;margin:10px 0 0}
.hours{display:flex;justify-content:space-between;font-size:11px;color:var(--soft);margin-bottom:8px}
.tip ul{list-style:none;margin:0;padding:0}
.tip li{padding:6px 0;border-top:1px solid var(--line);overflow-wrap:anywhere}
.tip li b{font-variant-numeric:tabular-nums;font-weight:600}
.tip li em{display:block;font-style:normal;color:var(--soft);font-size:12px}
.tip .tag{display:inline-block;margin:0 4px 4px 0;white-space:normal}
.tip s{color:var(--out)}
@media (max-width:1080px){main{grid-template-columns:minmax(0,1fr)}aside{position:static}
.day{scroll-margin:12px 0 calc(56vh + 22px)}.tip{top:auto;bottom:10px;left:10px;right:10px;width:auto;max-height:56vh}}
@media (max-width:640px){h1{font-size:25px}.card{padding:12px}
.month .blank,.month .wd{display:none}.month .grid{display:block}
.month .day{min-height:0;margin-bottom:6px;flex-direction:row;flex-wrap:wrap;align-items:center;padding:6px 10px}
.month .day.e{display:none}
.top{flex:1 0 100%}.n::after{content:" " attr(data-wd);font-weight:400;color:var(--soft)}
.today .n::after{color:inherit}
.chip{flex:1 0 100%}.month .day>.chart{display:none}.months{grid-template-columns:1fr}
.months .day{aspect-ratio:auto;height:38px}}
@media (min-width:641px){.n::after{content:none}}
@media print{body{background:#fff;padding:0}.tip,.hint{display:none!important}main{display:block}.day{break-inside:avoid}}
)css";

std::string Grouped(std::uint64_t number) {
  std::string text = std::to_string(number);
  for (std::size_t at = text.size(); at > 3; at -= 3) text.insert(at - 3, ",");
  return text;
}

std::string Counted(std::uint64_t count, const char* thing) {
  return Grouped(count) + " " + thing + (count == 1 ? "" : "s");
}

std::string Clock(std::int64_t seconds) {
  return FormatTimeOfDay(LocalTimeOfDay(seconds, platform::CurrentZone()));
}

std::string LongDate(std::int64_t day) {
  const platform::CivilDate date = platform::CivilFromDays(day);
  return std::string(kLongWeekdays[WeekColumn(day)]) + ", " + std::to_string(date.day) + " " + MonthName(date.month) +
         " " + std::to_string(date.year);
}

class PageWriter {
 public:
  explicit PageWriter(const Calendar& calendar) : m_calendar(calendar) {
    for (const CalendarDay& day : calendar.days) {
      m_mostOpen = std::max(m_mostOpen, *std::max_element(day.open.begin(), day.open.end()));
    }
  }

  std::string Page() {
    const std::string title = HtmlText(SpanTitle(m_calendar.span));
    m_out +=
        "<!DOCTYPE html>\n<html xmlns=\"http://www.w3.org/1999/xhtml\" lang=\"en\">\n<head>\n"
        "<meta charset=\"utf-8\"/>\n"
        "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'; "
        "img-src data:\"/>\n"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>\n"
        "<link rel=\"icon\" href=\"data:,\"/>\n"
        "<title>Schedules, " +
        title + "</title>\n<style>" + kStyle + "</style>\n</head>\n<body>\n<main>\n";
    m_out += "<header><h1>" + title + "</h1><p>" + Summary() + "</p></header>\n";
    if (m_calendar.span.month == 0) {
      m_out += "<div class=\"months\">\n";
      for (int month = 1; month <= 12; ++month) {
        m_out += std::string("<section class=\"card\"><h2>") + MonthName(month) + "</h2>";
        Grid({m_calendar.span.year, month}, false);
        m_out += "</section>\n";
      }
      m_out += "</div>\n";
    } else {
      m_out += "<section class=\"card month\">";
      Grid(m_calendar.span, true);
      m_out += "</section>\n";
    }
    Aside();
    m_out += "</main>\n</body>\n</html>\n";
    return std::move(m_out);
  }

 private:
  std::string Summary() const {
    return Counted(m_calendar.schedules.size(), "schedule") + ", " + Counted(m_calendar.windows, "window") + ", zone " +
           HtmlText(m_calendar.zone) + ". Made " + HtmlText(FormatInstant(m_calendar.now, platform::CurrentZone())) +
           " from the rules of that moment; days that have passed show the same rules, not what ran.";
  }

  // The windows open in each hour as one path of 24 bars.
  std::string Chart(const CalendarDay& day, int height) const {
    std::string path;
    for (std::size_t hour = 0; hour < day.open.size(); ++hour) {
      if (day.open[hour] == 0) continue;
      const double part = static_cast<double>(day.open[hour]) / static_cast<double>(std::max(m_mostOpen, 1u));
      char bar[64];
      const double size = std::max(2.0, part * height);
      std::snprintf(bar, sizeof bar, "M%zu %.1fh8v%.1fh-8z", hour * 10 + 1, height - size, size);
      path += bar;
    }
    const std::string tall = std::to_string(height);
    return "<svg class=\"chart\" viewBox=\"0 0 240 " + tall + "\" preserveAspectRatio=\"none\" aria-hidden=\"true\">" +
           "<path d=\"M0 " + tall + "h240v-.6h-240z" + path + "\"/></svg>";
  }

  std::string Name(std::uint32_t schedule) const { return HtmlText(m_calendar.schedules[schedule].name); }

  void Tip(const CalendarDay& day) {
    m_out += "<div class=\"tip\" role=\"tooltip\"><strong>" + LongDate(day.day) + "</strong><p>" +
             Counted(day.windows, "window");
    if (day.restarts > 0) m_out += ", " + Counted(day.restarts, "restart");
    m_out += "</p>";
    if (day.change) m_out += "<span class=\"tag c\">" + ChangeText(day) + "</span>";
    if (const auto hour = BusiestHour(day)) {
      m_out += Chart(day, 44) +
               "<div class=\"hours\"><span>00</span><span>06</span><span>12</span><span>18</span>"
               "<span>24</span></div>";
      const std::uint32_t most = day.open[static_cast<std::size_t>(*hour)];
      if (most > 1) {
        char text[96];
        std::snprintf(text, sizeof text, "<p>Busiest hour from %02d:00: %s open</p>", *hour,
                      Counted(most, "window").c_str());
        m_out += text;
      }
    }
    m_out += "<ul>";
    for (const CalendarEntry& entry : day.entries) {
      m_out += "<li><b>" + Clock(entry.start) + "–" + Clock(entry.end) + "</b> " + Name(entry.schedule) + "<em>" +
               HtmlText(entry.reason);
      // The first restart behind midnight is the entry itself.
      if (entry.restarts > 0) m_out += " · " + Counted(entry.restarts, "restart");
      if (entry.behindMidnight) m_out += " · window of the day before";
      if (entry.last) m_out += " · the last one";
      m_out += "</em></li>";
    }
    if (day.allEntries > day.entries.size()) {
      m_out += "<li>and " + Grouped(day.allEntries - day.entries.size()) + " more</li>";
    }
    for (const CalendarExclusion& exclusion : day.exclusions) {
      m_out +=
          "<li><s>" + Name(exclusion.schedule) + "</s><em>excluded; else " + HtmlText(exclusion.reason) + "</em></li>";
    }
    if (day.excluded > day.exclusions.size()) {
      m_out += "<li>and " + Grouped(day.excluded - day.exclusions.size()) + " more excluded</li>";
    }
    if (day.allEntries + day.excluded == 0) m_out += "<li>No rule names this day.</li>";
    m_out += "</ul></div>";
  }

  void Cell(const CalendarDay& day, bool large) {
    const int density = DensityOf(day, m_calendar);
    std::string classes = "day d" + std::to_string(density);
    if (day.day == m_calendar.today) classes += " today";
    if (day.day < m_calendar.today) classes += " past";
    if (day.excluded > 0) classes += " ex";
    if (day.change) classes += " ch";
    if (day.allEntries + day.excluded == 0 && !day.change) classes += " e";
    const std::string number = std::to_string(platform::CivilFromDays(day.day).day);
    m_out += "<div class=\"" + classes + "\" tabindex=\"0\" role=\"group\" aria-label=\"" + LongDate(day.day) + ": " +
             Counted(day.windows, "window") + "\">";
    if (large) {
      m_out += "<div class=\"top\"><span class=\"n\" data-wd=\"" + std::string(kLongWeekdays[WeekColumn(day.day)]) +
               "\">" + number + "</span>";
      if (day.windows > 0) {
        m_out += "<span class=\"count d" + std::to_string(density) + "\">" + Grouped(day.windows) + "</span>";
      }
      m_out += "</div>";
      if (day.change) m_out += "<span class=\"tag c\">" + ChangeText(day) + "</span>";
      if (day.excluded > 0) m_out += "<span class=\"tag x\">" + Grouped(day.excluded) + " excluded</span>";
      const std::size_t shown = std::min(kChips, day.entries.size());
      for (std::size_t i = 0; i < shown; ++i) {
        const CalendarEntry& entry = day.entries[i];
        m_out += "<div class=\"chip\"><b>" + (entry.behindMidnight ? "…" : Clock(entry.start)) + "</b> " +
                 Name(entry.schedule);
        if (entry.restarts > 0) m_out += " +" + Grouped(entry.restarts);
        m_out += "</div>";
      }
      if (day.allEntries > shown) m_out += "<div class=\"more\">and " + Grouped(day.allEntries - shown) + " more</div>";
      if (BusiestHour(day)) m_out += Chart(day, 16);
    } else {
      m_out += number;
    }
    Tip(day);
    m_out += "</div>\n";
  }

  void Grid(CalendarSpan span, bool large) {
    m_out += "<div class=\"grid\">";
    for (const char* weekday : kLongWeekdays) {
      m_out += "<div class=\"wd\">" + std::string(weekday, large ? 3 : 2) + "</div>";
    }
    for (std::size_t i = WeekColumn(span.FirstDay()); i > 0; --i) m_out += "<div class=\"blank\"></div>";
    m_out += "\n";
    const std::int64_t first = m_calendar.days.front().day;
    for (std::int64_t day = span.FirstDay(); day <= span.LastDay(); ++day) {
      Cell(m_calendar.days[static_cast<std::size_t>(day - first)], large);
    }
    m_out += "</div>";
  }

  void Aside() {
    m_out += "<aside><div class=\"card\"><h2>Summary</h2><dl class=\"num\">";
    const auto row = [&](const char* what, const std::string& value) {
      m_out += std::string("<dt>") + what + "</dt><dd>" + value + "</dd>";
    };
    row("Schedules", Grouped(m_calendar.schedules.size()));
    row("Windows", Grouped(m_calendar.windows));
    row("Restarts", Grouped(m_calendar.restarts));
    row("Excluded run days", Grouped(m_calendar.excluded));
    row("Windows on the fullest day", Grouped(m_calendar.mostOnADay));
    m_out += "</dl><ul class=\"key num\"><li>Windows a day up to</li>";
    for (int density = 1; density <= kMostDensity; ++density) {
      m_out += "<li><i class=\"d" + std::to_string(density) + "\"></i>" + Grouped(MostOfDensity(density, m_calendar)) +
               "</li>";
    }
    m_out += "<li><i class=\"dot\"></i>excluded</li><li><i class=\"box\"></i>clock is set</li></ul>";
    std::vector<const CalendarSchedule*> busiest;
    for (const CalendarSchedule& schedule : m_calendar.schedules) busiest.push_back(&schedule);
    const std::size_t shown = std::min(kScheduleRows, busiest.size());
    const auto more = [](const CalendarSchedule* a, const CalendarSchedule* b) {
      const std::uint64_t ofA = a->windows + a->restarts, ofB = b->windows + b->restarts;
      return ofA != ofB ? ofA > ofB : a < b;
    };
    std::partial_sort(busiest.begin(), busiest.begin() + static_cast<std::ptrdiff_t>(shown), busiest.end(), more);
    if (shown > 0) m_out += "<h3>Schedules, the busiest first</h3><ul class=\"rows\">";
    for (std::size_t i = 0; i < shown; ++i) {
      m_out += "<li><span>" + HtmlText(busiest[i]->name) + "</span><span>" + Grouped(busiest[i]->windows);
      if (busiest[i]->restarts > 0) m_out += " +" + Grouped(busiest[i]->restarts);
      m_out += "</span></li>";
    }
    if (shown > 0) m_out += "</ul>";
    if (busiest.size() > shown) m_out += "<p class=\"hint\">and " + Grouped(busiest.size() - shown) + " more</p>";
    m_out +=
        "<p class=\"hint\">Point at a day, or reach it with Tab, to see its windows and why they are there.</p>"
        "</div></aside>\n";
  }

  const Calendar& m_calendar;
  std::uint32_t m_mostOpen = 0;
  std::string m_out;
};

// Bytes of the UTF-8 character at the front; 0 for none that XML takes.
std::size_t CharacterLength(std::string_view text) {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned first = byte(0);
  if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
  const std::size_t length = first >= 0xF0 && first < 0xF5   ? 4
                             : first >= 0xE0 && first < 0xF0 ? 3
                             : first >= 0xC2 && first < 0xE0 ? 2
                                                             : 0;
  if (length == 0 || text.size() < length) return 0;
  std::uint32_t code = first & (0xFFu >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    code = code << 6 | (byte(i) & 0x3F);
  }
  constexpr std::array<std::uint32_t, 5> kLeast = {0, 0, 0x80, 0x800, 0x10000};
  if (code < kLeast[length] || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) return 0;
  // Control characters of the second half, those that turn the direction of writing, and what is no character.
  if (code < 0xA0 || (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069)) return 0;
  return (code & 0xFFFE) == 0xFFFE ? 0 : length;
}

}  // namespace

std::string HtmlText(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const std::size_t length = CharacterLength(text);
    if (length == 0) {
      out += "\xEF\xBF\xBD";
      text.remove_prefix(1);
      continue;
    }
    switch (text[0]) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += text.substr(0, length);
    }
    text.remove_prefix(length);
  }
  return out;
}

std::string CalendarPage(const Calendar& calendar) {
  return PageWriter(calendar).Page();
}

}  // namespace qx
