// The names and arguments of the commands that change schedules, and of log.
#include <CLI/CLI.hpp>
#include <memory>

#include "client/cli_app.h"
#include "client/cli_apply.h"
#include "client/cli_change.h"
#include "client/cli_log.h"

namespace qx {
namespace {

constexpr const char* kScheduleHelp = "ID, the beginning of its digits (4 or more), or name";
constexpr const char* kRelativeHelp = "Take relative paths";

}  // namespace

void AddChangeCommands(CLI::App& app, CliContext& context, CommandChoice& choice, const OnlineSettings& settings) {
  struct State {
    std::string schedule;
    bool allowRelativePaths = false;
    bool undo = false;
    SetArguments set;
    ApplyArguments apply;
    DiffArguments diff;
    ExportArguments exported;
    RestoreArguments restore;
  };
  const auto state = std::make_shared<State>();
  const auto command = [&](const char* name, const char* help, std::function<int()> run) {
    CLI::App* added = app.add_subcommand(name, help);
    added->callback([&choice, run = std::move(run)] { choice.run = run; });
    return added;
  };

  CLI::App* edit = command(
      "edit", "Change a schedule in $VISUAL or $EDITOR, with a backup",
      [&context, &settings, state] { return RunEdit(context, settings, state->schedule, state->allowRelativePaths); });
  edit->add_option("SCHEDULE", state->schedule, kScheduleHelp)->required();
  edit->add_flag("--allow-relative-paths", state->allowRelativePaths, kRelativeHelp);

  CLI::App* set = command("set", "Change single keys of a schedule",
                          [&context, &settings, state] { return RunSet(context, settings, state->set); });
  set->add_option("SCHEDULE", state->set.schedule, kScheduleHelp)->required();
  set->add_option("KEY=VALUE", state->set.assignments,
                  "A key of the schedule file, as window.start=22:00 or days.every=mon,fri; lists also with += and -=; "
                  "an empty value takes the key away")
      ->required();
  set->add_flag("--dry-run", state->set.dryRun, "Tell what would change, change nothing");
  set->add_flag("--allow-relative-paths", state->set.allowRelativePaths, kRelativeHelp);

  CLI::App* skip = command("skip", "Leave out the day of the next window", [&context, &settings, state] {
    return RunSkip(context, settings, state->schedule, state->undo);
  });
  skip->add_option("SCHEDULE", state->schedule, kScheduleHelp)->required();
  skip->add_flag("--undo", state->undo, "Take the earliest day that is left out back");

  CLI::App* run = command("run", "Have the service start the job of a schedule now", [&context, &settings, state] {
    return RunLaunch(context, settings, state->schedule);
  });
  run->add_option("SCHEDULE", state->schedule, kScheduleHelp)->required();
  run->footer(
      "The schedule is modified to what it is, with the order to start the job. So a schedule that has run out is\n"
      "refused, and a job that can't be started isn't told: see qxsched log.");

  CLI::App* apply = command("apply", "Create or change the schedules that files describe, by their names",
                            [&context, &settings, state] { return RunApply(context, settings, state->apply); });
  apply->add_option("FILE|DIR", state->apply.path, "Schedule file, or a directory with files *.toml")->required();
  apply->add_flag("--dry-run", state->apply.dryRun, "Tell what would be done, do nothing");
  apply->add_flag("--allow-relative-paths", state->apply.allowRelativePaths, kRelativeHelp);

  CLI::App* diff = command("diff", "Show what apply would change",
                           [&context, &settings, state] { return RunDiff(context, settings, state->diff); });
  diff->add_option("FILE|DIR", state->diff.path, "Schedule file, or a directory with files *.toml")->required();
  diff->add_flag("--exit-code", state->diff.exitCode, "End with 1 when something differs");
  diff->add_flag("--allow-relative-paths", state->diff.allowRelativePaths, kRelativeHelp);

  CLI::App* exported = command("export", "Write schedules as schedule files",
                               [&context, &settings, state] { return RunExport(context, settings, state->exported); });
  exported->add_option("SCHEDULE", state->exported.schedules, std::string(kScheduleHelp) + "; none: all")
      ->expected(0, -1);
  exported->add_option("-o,--output", state->exported.directory, "A file each in this directory")->type_name("DIR");
  exported->add_flag("--force", state->exported.force, "Write over files that are there");

  CLI::App* restore = command("restore", "Create a schedule from a backup; it has a new ID",
                              [&context, &settings, state] { return RunRestore(context, settings, state->restore); });
  restore->add_option("FILE", state->restore.file, "A backup that rm, edit or apply wrote")->required();
  restore->add_flag("--copy", state->restore.copy, "Also while the schedule of the backup is still there");
}

void AddLogCommand(CLI::App& app, CliContext& context, CommandChoice& choice) {
  struct State {
    std::uint32_t lines = 0;
    bool follow = false;
  };
  const auto state = std::make_shared<State>();
  CLI::App* log = app.add_subcommand("log", "Show the service log");
  CLI::Option* lines = log->add_option("-n,--lines", state->lines, "The last N lines (all; with --follow 10)");
  lines->type_name("N");
  log->add_flag("-f,--follow", state->follow, "Go on with new lines; Ctrl-C ends");
  log->callback([&context, &choice, state, lines] {
    LogArguments arguments;
    if (lines->count() > 0) arguments.lines = state->lines;
    arguments.follow = state->follow;
    choice.run = [&context, arguments] { return RunLog(context, arguments); };
  });
}

}  // namespace qx
