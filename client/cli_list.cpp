#include "client/cli_list.h"

#include <algorithm>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client/cli_session.h"
#include "client/findings.h"
#include "client/json_text.h"
#include "client/terminal_text.h"
#include "client/time_text.h"
#include "platform/clock.h"

namespace qx {
namespace {

using nlohmann::ordered_json;

// Those with a window by time, then those without one, then what can't be read; equals by name, then by ID.
struct Entry {
  std::int64_t rank;
  const SentListRow* row;
};

std::vector<Entry> InOrder(const SentListRows& list) {
  constexpr std::int64_t kWithout = std::int64_t{1} << 32;
  std::vector<Entry> order;
  order.reserve(list.Count());
  list.ForEach([&](const SentListRow& row) {
    const std::int64_t window = row.nextWindow;
    order.push_back({window >= 0 ? window : row.nextWindow == kDamagedKey ? 2 * kWithout : kWithout + window, &row});
  });
  std::stable_sort(order.begin(), order.end(), [](const Entry& a, const Entry& b) {
    return a.rank != b.rank ? a.rank < b.rank : a.row->name < b.row->name;
  });
  return order;
}

// Appends the text in exactly (pad) or at most `width` columns.
void AppendFit(std::string& out, std::string_view text, std::size_t width, bool pad) {
  const std::size_t has = AppendShortened(out, text, width);
  if (pad) out.append(width - has, ' ');
}

// A line's texts, all of which stand elsewhere.
struct Line {
  std::string_view next, name, id, command;
};

struct Widths {
  std::size_t next = 4, name = 4, id = 2, command = 7;
};

// Where the line is too short, first the ID gives way down to eight digits, which still name a schedule, then the
// command, then the name.
Widths Fitted(Widths widths, std::size_t columns) {
  constexpr std::size_t kGaps = 6, kLeastId = 10, kLeastText = 12;
  if (columns == 0) return widths;
  const auto total = [&] { return widths.next + widths.name + widths.id + widths.command + kGaps; };
  const auto shrink = [&](std::size_t& width, std::size_t least) {
    if (total() > columns && width > least) width -= std::min(width - least, total() - columns);
  };
  // A long text doesn't cost the ID its digits.
  shrink(widths.command, 2 * kLeastText);
  shrink(widths.name, 2 * kLeastText);
  shrink(widths.id, kLeastId);
  shrink(widths.command, kLeastText);
  shrink(widths.name, kLeastText);
  shrink(widths.command, kLeastText / 2);
  shrink(widths.name, kLeastText / 2);
  return widths;
}

void AppendLine(std::string& out, const Line& line, const Widths& widths) {
  AppendFit(out, line.next, widths.next, true);
  AppendFit(out.append("  "), line.name, widths.name, true);
  AppendFit(out.append("  "), line.id, widths.id, true);
  AppendFit(out.append("  "), line.command, widths.command, false);
  out.erase(out.find_last_not_of(' ') + 1);
}

// The lines of the rows; copies a text only where it isn't shown as it stands.
class Lines {
 public:
  explicit Lines(const std::vector<Entry>& order) {
    m_lines.reserve(order.size());
    for (const Entry& entry : order) {
      const SentListRow& row = *entry.row;
      m_lines.push_back({Window(row.nextWindow), Shown(row.name), Shown(row.id), Command(row)});
    }
  }
  [[nodiscard]] const std::vector<Line>& All() const { return m_lines; }
  [[nodiscard]] Widths Needed() const {
    Widths widths;
    for (const Line& line : m_lines) {
      widths.next = std::max(widths.next, TextWidth(line.next));
      widths.name = std::max(widths.name, TextWidth(line.name));
      widths.id = std::max(widths.id, TextWidth(line.id));
      widths.command = std::max(widths.command, TextWidth(line.command));
    }
    return widths;
  }

 private:
  std::string_view Keep(std::string text) { return m_texts.emplace_back(std::move(text)); }
  std::string_view Shown(std::string_view text) { return IsPlainAscii(text) ? text : Keep(Printable(text)); }
  std::string_view Command(const SentListRow& row) {
    if (row.parameters.empty()) return Shown(row.wrapper);
    return Shown(Keep(std::string(row.wrapper).append(" ").append(row.parameters)));
  }
  // Rows come by their windows, many of which are the same.
  std::string_view Window(std::int32_t window) {
    if (window == kDamagedKey) return "damaged";
    if (window < 0) return "-";
    if (window != m_window) {
      m_windowText = Keep(FormatInstant(window, m_zone));
      m_window = window;
    }
    return m_windowText;
  }

  const platform::Zone& m_zone = platform::CurrentZone();
  std::deque<std::string> m_texts;
  std::vector<Line> m_lines;
  std::int32_t m_window = kNoWindow;
  std::string_view m_windowText;
};

void PrintTable(CliContext& context, const std::vector<Entry>& order, std::size_t columns) {
  constexpr std::size_t kBlock = 65536;  // bytes of one write
  const Lines lines(order);
  const Widths widths = Fitted(lines.Needed(), columns);
  if (!context.options.noLegend) {
    std::string legend;
    AppendLine(legend, {"NEXT", "NAME", "ID", "COMMAND"}, widths);
    context.out << Paint(context.colourOut, Colour::kBold, legend) << "\n";
  }
  std::string block;
  std::size_t without = 0, damaged = 0;
  for (std::size_t i = 0; i < order.size(); ++i) {
    const bool isDamaged = order[i].row->nextWindow == kDamagedKey;
    damaged += isDamaged;
    without += order[i].row->nextWindow < 0 && !isDamaged;
    if (context.colourOut && isDamaged) {
      std::string line;
      AppendLine(line, lines.All()[i], widths);
      block += Paint(true, Colour::kRed, line);
    } else {
      AppendLine(block, lines.All()[i], widths);
    }
    block += '\n';
    if (block.size() >= kBlock) {
      context.out << block;
      block.clear();
    }
  }
  context.out << block;
  if (context.options.noLegend) return;
  context.out << "\n" << order.size() << (order.size() == 1 ? " schedule" : " schedules");
  if (without > 0) context.out << ", " << without << " without a window to come";
  if (damaged > 0) context.out << ", " << damaged << " damaged";
  context.out << ", zone " << Printable(ZoneText()) << ".\n";
}

ordered_json RowJson(const SentListRow& row) {
  ordered_json out = ordered_json::object();
  out["id"] = row.id;
  out["name"] = row.name;
  out["application"] = row.application;
  out["object_id"] = row.objectId;
  out["task_code"] = row.taskCode;
  out["wrapper"] = row.wrapper;
  out["xml"] = row.xml;
  out["parameters"] = row.parameters;
  out["pre_script"] = row.preScript;
  out["post_script"] = row.postScript;
  out["pass_id"] = row.passId != 0;
  out["next_window"] = row.nextWindow < 0 ? ordered_json(nullptr) : ordered_json(row.nextWindow);
  if (row.nextWindow == kDamagedKey) out["damaged"] = true;
  return out;
}

}  // namespace

int RunList(CliContext& context, const OnlineSettings& settings) {
  Session session(context, settings);
  if (const int exit = session.Begin(); exit != kExitDone) return exit;
  SentListRows list;
  if (const int exit = session.AllRows(list); exit != kExitDone) return exit;
  const std::vector<Entry> order = InOrder(list);
  if (context.options.json) {
    ordered_json out = ordered_json::array();
    for (const Entry& entry : order) out.push_back(RowJson(*entry.row));
    WriteJson(context.out, out);
    return kExitDone;
  }
  BeginPaged(context);
  PrintTable(context, order, settings.columns.value_or(context.columns));
  return kExitDone;
}

}  // namespace qx
