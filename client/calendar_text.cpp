#include "client/calendar_text.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

#include "client/cli_output.h"
#include "client/terminal_text.h"
#include "client/time_text.h"

namespace qx {
namespace {

constexpr std::size_t kFewestColumns = 30;
constexpr std::size_t kWidestCell = 18;
constexpr std::size_t kNarrowCell = 9;  // below it there is no room for a time and a sign
constexpr std::size_t kMostNotes = 40;
constexpr std::size_t kLongestNoted = 60;  // in a note
constexpr std::size_t kMiniCell = 3;
constexpr std::size_t kMiniWidth = kDaysOfWeekCount * kMiniCell;
constexpr std::size_t kMostAbreast = 4;
// What stands behind a day of a small month, by density.
constexpr std::string_view kSigns = " .:+#";
constexpr std::array<const char*, kDaysOfWeekCount> kShortWeekdays = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};

std::string Cut(std::string_view text, std::size_t width) {
  std::string cut;
  (void)AppendShortened(cut, text, width);
  return cut;
}

std::string Pad(std::string text, std::size_t width) {
  const std::size_t has = TextWidth(text);
  if (has < width) text.append(width - has, ' ');
  return text;
}

// "950", "12k", "3M".
std::string Short(std::uint64_t count) {
  if (count < 1000) return std::to_string(count);
  if (count < 1000000) return std::to_string(count / 1000) + "k";
  return std::to_string(count / 1000000) + "M";
}

std::string Plural(std::uint64_t count, const char* thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

Colour DayColour(const CalendarDay& day, const Calendar& calendar) {
  if (day.change) return Colour::kYellow;
  if (day.excluded > 0 && day.windows == 0) return Colour::kRed;
  if (day.day == calendar.today) return Colour::kBold;
  return day.windows + day.restarts > 0 ? Colour::kGreen : Colour::kPlain;
}

// A piece of a line: its text of a known width, and its colour.
struct Piece {
  std::string text;
  Colour colour = Colour::kPlain;
};

std::string Coloured(const std::vector<Piece>& pieces, bool colour) {
  // Blanks at the end of the line are left out, also where a piece without a text pads it.
  std::size_t last = pieces.size();
  while (last > 0 && pieces[last - 1].text.find_first_not_of(' ') == std::string::npos) --last;
  std::string line;
  for (std::size_t i = 0; i < last; ++i) {
    const std::string& text = pieces[i].text;
    const std::size_t end = text.find_last_not_of(' ') + 1;
    line += Paint(colour && end > 0, pieces[i].colour, text.substr(0, end));
    if (i + 1 < last) line += text.substr(end);
  }
  return line + "\n";
}

// --- a month ---

std::string Marks(const CalendarDay& day, const Calendar& calendar) {
  std::string marks;
  if (day.day == calendar.today) marks += "<";
  if (day.change) marks += "~";
  if (day.excluded > 0) marks += "x";
  return marks;
}

std::vector<Piece> CellLines(const CalendarDay& day, const Calendar& calendar, std::size_t width, std::size_t height) {
  const Colour colour = DayColour(day, calendar);
  std::string head = std::to_string(platform::CivilFromDays(day.day).day);
  if (head.size() < 2) head.insert(0, 1, ' ');
  head += Marks(day, calendar);
  std::vector<Piece> lines = {{Cut(head, width), colour}};
  const std::uint64_t all = day.allEntries;
  if (width < kNarrowCell) {
    if (all > 0) lines.push_back({Cut(" " + Short(day.windows + day.restarts), width), Colour::kPlain});
  } else {
    // The earliest entries; the last line counts what has no line.
    const std::size_t room = height - 1;
    const std::size_t shown = all <= room ? static_cast<std::size_t>(all) : room - 1;
    for (std::size_t i = 0; i < std::min(shown, day.entries.size()); ++i) {
      const CalendarEntry& entry = day.entries[i];
      std::string text = entry.behindMidnight
                             ? "..."
                             : FormatTimeOfDay(LocalTimeOfDay(entry.start, platform::CurrentZone()) / 60 * 60);
      if (entry.restarts > 0) text += "+" + Short(entry.restarts);
      if (width > kNarrowCell + 3) text += " " + Printable(calendar.schedules[entry.schedule].name);
      lines.push_back({Cut(text, width), Colour::kPlain});
    }
    if (all > shown) {
      const std::string more = shown == 0 ? "" : "+";
      lines.push_back(
          {Cut(more + Short(all - shown) + (width > kNarrowCell ? (shown == 0 ? " entries" : " more") : ""), width),
           Colour::kPlain});
    }
  }
  lines.resize(height);
  return lines;
}

std::string MonthGrid(const Calendar& calendar, const CalendarTextOptions& options) {
  const std::size_t cell = std::min(options.columns / kDaysOfWeekCount, kWidestCell);
  const std::size_t width = cell - 1;  // a blank between two cells
  std::string text;
  std::vector<Piece> head;
  for (const char* weekday : kShortWeekdays) head.push_back({Pad(weekday, cell), Colour::kBold});
  text += Coloured(head, options.colour);
  const auto& days = calendar.days;
  for (std::size_t at = 0; at < days.size();) {
    const std::size_t begin = WeekColumn(days[at].day);
    const std::size_t count = std::min(kDaysOfWeekCount - begin, days.size() - at);
    std::uint64_t most = 0;
    for (std::size_t i = 0; i < count; ++i) most = std::max(most, days[at + i].allEntries);
    const std::size_t room = cell - 1 < kNarrowCell ? 1 : 4;
    const std::size_t height =
        1 + static_cast<std::size_t>(std::min<std::uint64_t>(std::max<std::uint64_t>(most, 1), room));
    std::array<std::vector<Piece>, kDaysOfWeekCount> cells;
    for (std::size_t i = 0; i < count; ++i) cells[begin + i] = CellLines(days[at + i], calendar, width, height);
    for (std::size_t line = 0; line < height; ++line) {
      std::vector<Piece> pieces;
      for (const auto& lines : cells) {
        Piece piece = lines.empty() ? Piece{} : lines[line];
        piece.text = Pad(piece.text, cell);
        pieces.push_back(std::move(piece));
      }
      text += Coloured(pieces, options.colour);
    }
    at += count;
  }
  return text;
}

// --- a year ---

struct Mini {
  std::vector<std::vector<Piece>> lines;
};

Mini MiniMonth(const Calendar& calendar, int month) {
  Mini mini;
  mini.lines.push_back({{Pad(MonthName(month), kMiniWidth), Colour::kBold}});
  std::string head;
  for (const char* weekday : kShortWeekdays) head += std::string(weekday, 2) + " ";
  mini.lines.push_back({{head, Colour::kPlain}});
  const CalendarSpan span{calendar.span.year, month};
  std::vector<Piece> line(WeekColumn(span.FirstDay()), Piece{std::string(kMiniCell, ' '), Colour::kPlain});
  for (std::int64_t at = span.FirstDay(); at <= span.LastDay(); ++at) {
    const CalendarDay& day = calendar.days[static_cast<std::size_t>(at - calendar.days.front().day)];
    std::string text = std::to_string(at - span.FirstDay() + 1);
    if (text.size() < 2) text.insert(0, 1, ' ');
    const int density = DensityOf(day, calendar);
    text += day.change ? '~' : density == 0 && day.excluded > 0 ? 'x' : kSigns[static_cast<std::size_t>(density)];
    line.push_back({text, DayColour(day, calendar)});
    if (line.size() == kDaysOfWeekCount || at == span.LastDay()) {
      line.resize(kDaysOfWeekCount, {std::string(kMiniCell, ' '), Colour::kPlain});
      mini.lines.push_back(std::move(line));
      line.clear();
    }
  }
  return mini;
}

std::string YearGrid(const Calendar& calendar, const CalendarTextOptions& options) {
  const std::size_t abreast = std::clamp<std::size_t>((options.columns + 2) / (kMiniWidth + 2), 1, kMostAbreast);
  std::string text;
  for (std::size_t first = 1; first <= 12; first += abreast) {
    std::vector<Mini> minis;
    for (std::size_t month = first; month < first + abreast && month <= 12; ++month) {
      minis.push_back(MiniMonth(calendar, static_cast<int>(month)));
    }
    std::size_t height = 0;
    for (const Mini& mini : minis) height = std::max(height, mini.lines.size());
    for (std::size_t line = 0; line < height; ++line) {
      std::vector<Piece> pieces;
      for (const Mini& mini : minis) {
        if (line < mini.lines.size()) {
          pieces.insert(pieces.end(), mini.lines[line].begin(), mini.lines[line].end());
        } else {
          pieces.push_back({std::string(kMiniWidth, ' '), Colour::kPlain});
        }
        pieces.push_back({"  ", Colour::kPlain});
      }
      text += Coloured(pieces, options.colour);
    }
    if (first + abreast <= 12) text += "\n";
  }
  return text;
}

// --- notes ---

// What is out of the ordinary, a line for each thing.
std::vector<std::string> Notes(const Calendar& calendar) {
  std::vector<std::string> notes;
  const auto name = [&](std::uint32_t schedule) {
    return Cut(Printable(calendar.schedules[schedule].name), kLongestNoted);
  };
  for (const CalendarDay& day : calendar.days) {
    const std::string date = FormatDate(day.day) + " " + WeekdayOf(day.day) + "  ";
    if (day.change) notes.push_back(date + ChangeText(day));
    if (!day.exclusions.empty()) {
      std::string text = "excluded: " + name(day.exclusions[0].schedule) + " (" + day.exclusions[0].reason + ")";
      if (day.excluded > 1) text += " and " + std::to_string(day.excluded - 1) + " more";
      notes.push_back(date + text);
    }
    std::size_t last = 0;
    std::uint32_t first = 0;
    for (const CalendarEntry& entry : day.entries) {
      if (entry.last && last++ == 0) first = entry.schedule;
    }
    if (last > 0) {
      notes.push_back(date + "last window: " + name(first) +
                      (last > 1 ? " and " + std::to_string(last - 1) + " more" : ""));
    }
  }
  return notes;
}

std::string Totals(const Calendar& calendar) {
  std::string text = Plural(calendar.schedules.size(), "schedule") + ", " + Plural(calendar.windows, "window");
  if (calendar.restarts > 0) text += ", " + Plural(calendar.restarts, "restart");
  if (calendar.excluded > 0) text += ", " + std::to_string(calendar.excluded) + " excluded";
  return text;
}

// Puts a text on as many lines as it needs, broken at blanks.
std::string Wrap(const std::string& text, std::size_t columns) {
  std::string out, line;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find(' ', at), text.size());
    const std::string word = Cut(text.substr(at, end - at), columns);
    if (!line.empty() && TextWidth(line) + 1 + TextWidth(word) > columns) {
      out += line + "\n";
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word;
    at = end + 1;
  }
  return line.empty() ? out : out + line + "\n";
}

}  // namespace

std::string CalendarText(const Calendar& calendar, const CalendarTextOptions& given) {
  CalendarTextOptions options = given;
  options.columns = std::max(options.columns, kFewestColumns);
  const bool year = calendar.span.month == 0;
  std::string text;
  if (options.legend) {
    text += Coloured({{SpanTitle(calendar.span), Colour::kBold}}, options.colour);
    text += "\n";
  }
  text += year ? YearGrid(calendar, options) : MonthGrid(calendar, options);
  const std::vector<std::string> notes = Notes(calendar);
  if (!notes.empty()) text += "\n";
  for (std::size_t i = 0; i < notes.size() && i < kMostNotes; ++i) text += Wrap(notes[i], options.columns);
  if (notes.size() > kMostNotes) text += "and " + std::to_string(notes.size() - kMostNotes) + " more\n";
  if (options.legend) {
    text += "\n" + Wrap(Totals(calendar) + ", zone " + Printable(calendar.zone) + ".", options.columns);
    text += Wrap(year ? "Signs: . : + # few to many windows, x excluded, ~ the clock is set."
                      : "Marks: < today, x excluded, ~ the clock is set; +n restarts, ... of the day before.",
                 options.columns);
  }
  return text;
}

}  // namespace qx
