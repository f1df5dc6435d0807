#include "client/history_metrics.h"

namespace qx {
namespace {

void Head(std::string& text, const std::string& name, const char* type, const char* help) {
  text += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void Add(std::string& text, const std::string& name, const char* type, const char* help, const std::string& value) {
  Head(text, name, type, help);
  text += name + " " + value + "\n";
}

}  // namespace

std::string MetricsText(const HistoryRecorder& recorder, std::int64_t begun, std::uint64_t bytes) {
  const auto count = [&](HistoryKind kind) { return std::to_string(recorder.Count(kind)); };
  std::string text;
  Add(text, "qxsched_recorder_start_time_seconds", "gauge", "When the recorder began.", std::to_string(begun));
  Add(text, "qxsched_service_up", "gauge", "Whether the service is on the bus.", recorder.IsUp() ? "1" : "0");
  Add(text, "qxsched_schedules", "gauge", "Schedules that are known.", std::to_string(recorder.ScheduleCount()));
  if (const auto next = recorder.NextWindow()) {
    Add(text, "qxsched_next_window_time_seconds", "gauge", "The earliest window that is due or to come.",
        std::to_string(*next));
  }
  if (const auto last = recorder.LastLaunch()) {
    Add(text, "qxsched_last_launch_time_seconds", "gauge", "The last launch that was heard.", std::to_string(*last));
  }
  Add(text, "qxsched_launches_total", "counter", "Launches that were heard; how the jobs ended isn't known.",
      count(HistoryKind::kLaunch));
  Add(text, "qxsched_missed_windows_total", "counter", "Windows that passed without a launch.",
      count(HistoryKind::kMissed));
  Add(text, "qxsched_unknown_windows_total", "counter", "Windows that passed, launched or not.",
      count(HistoryKind::kUnknown));
  Head(text, "qxsched_changes_total", "counter", "Changes of schedules.");
  for (const HistoryKind kind : {HistoryKind::kAdded, HistoryKind::kModified, HistoryKind::kDeleted}) {
    text += std::string("qxsched_changes_total{change=\"") + HistoryKindText(kind) + "\"} " + count(kind) + "\n";
  }
  Add(text, "qxsched_clock_changes_total", "counter", "Changes of the clock or zone that the service told of.",
      count(HistoryKind::kClockChange));
  Add(text, "qxsched_history_bytes", "gauge", "Size of the history file in use.", std::to_string(bytes));
  return text;
}

}  // namespace qx
