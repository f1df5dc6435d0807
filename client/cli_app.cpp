#include "client/cli_app.h"

#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <vector>

#include "client/cli_calendar.h"
#include "client/cli_completion.h"
#include "client/cli_config.h"
#include "client/cli_history.h"
#include "client/cli_key_store.h"
#include "client/cli_list.h"
#include "client/cli_nodes.h"
#include "client/cli_record.h"
#include "client/cli_registry.h"
#include "client/cli_usage.h"
#include "client/time_text.h"
#include "foundation/include/zfclog.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/foreground.h"
#include "platform/host.h"
#include "platform/state_home.h"
#include "platform/terminal.h"
#include "platform/text.h"

namespace qx {
namespace {

bool ColourWanted(const std::ostream& stream, const std::ostream& standard, platform::StandardStream which) {
  const auto noColour = platform::EnvironmentVariable(u"NO_COLOR");
  return &stream == &standard && platform::IsTerminal(which) && (!noColour || noColour->empty());
}

void AddGlobalOptions(CLI::App& app, GlobalOptions& options) {
  // The last one counts: an alias of the shell may give another beforehand.
  app.add_option("--root", options.root, "State directory of the service")->type_name("DIR")->take_last();
  app.add_option("--bus", options.bus, "Bus of the service: session, system or an address")
      ->type_name("ADDRESS")
      ->take_last();
  app.add_flag("--no-pager", options.noPager, "Write straight to the output, also on a terminal");
  app.add_flag("--no-legend", options.noLegend, "No headings and totals");
  app.add_flag("-q,--quiet", options.quiet, "Errors only");
  app.add_flag("--json", options.json, "Data as JSON");
}

// Whether a program of that name, or the file itself where it has a separator, is there.
bool IsProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) return platform::FileExists(name);
  const std::string path = platform::Utf8FromWide(platform::EnvironmentVariable(u"PATH").value_or(u"/usr/bin:/bin"));
  for (std::string_view rest = path;;) {
    const std::string_view directory = rest.substr(0, rest.find(':'));
    if (platform::FileExists(std::string(directory) + "/" + name)) return true;
    if (directory.size() == rest.size()) return false;
    rest.remove_prefix(directory.size() + 1);
  }
}

// The pager as a command line of the shell: $PAGER, else less or more. Empty: none is there or none is wanted.
std::string PagerCommand() {
  if (const auto named = platform::EnvironmentVariable(u"PAGER")) {
    const std::string pager = platform::Utf8FromWide(*named);
    const std::size_t begin = pager.find_first_not_of(' ');
    if (begin == std::string::npos || pager == "cat") return "";
    return IsProgram(pager.substr(begin, pager.find(' ', begin) - begin)) ? pager : "";
  }
  for (const char* pager : {"less", "more"}) {
    if (IsProgram(pager)) return pager;
  }
  return "";
}

// The first word that is neither an option of every command nor the value of one; the program's name isn't looked at.
std::vector<const char*>::iterator FirstWord(const CLI::App& app, std::vector<const char*>& words) {
  auto at = words.begin();
  while (at != words.end() && ++at != words.end() && (*at)[0] == '-' && std::string_view(*at) != "--") {
    const CLI::Option* option = app.get_option_no_throw(*at);
    if (option != nullptr && option->get_items_expected_max() > 0) ++at;
  }
  return at;
}

int RunChosen(CliContext& context, const CLI::App& app, const CommandChoice& choice) {
  if (choice.run) return choice.run();
  if (choice.byDefault) return choice.byDefault();
  context.err << HelpText(app);
  return kExitUsage;
}

}  // namespace

bool UseZone(CliContext& context, const std::string& zone) {
  if (!IsKnownZone(zone)) {
    PrintError(context, "--zone: unknown zone: \"" + zone +
                            "\" (allowed: a name as Europe/Berlin or UTC, or a rule as "
                            "CET-1CEST,M3.5.0,M10.5.0/3)");
    return false;
  }
  (void)platform::PutEnvironment(("TZ=" + zone).c_str());
  platform::TzSet();
  context.zoneChosen = true;
  return true;
}

void AddOfflineCommands(CLI::App& app, CliContext& context, CommandChoice& choice) {
  struct NextState {
    NextArguments arguments;
    bool batch = false;
    std::string zone;
  };
  const auto next = std::make_shared<NextState>();
  CLI::App* nextCommand = app.add_subcommand("next", "Show the coming windows of a schedule or a schedule file");
  CLI::Option* source =
      nextCommand->add_option("SCHEDULE|FILE", next->arguments.source, "Schedule file, - for the input, or schedule");
  CLI::Option* batch = nextCommand->add_flag("--batch", next->batch, "Answer queries, JSON Lines in and out");
  nextCommand->add_option("-n,--count", next->arguments.count, "How many windows (10)")
      ->type_name("N")
      ->check(CLI::Range(std::int64_t{1}, kNextMostWindows))
      ->excludes(batch);
  nextCommand->add_option("--from", next->arguments.from, "The first window behind this instant (now)")
      ->type_name("TIME")
      ->excludes(batch);
  nextCommand->add_flag("--why", next->arguments.why, "Name the rule that gives each day")->excludes(batch);
  nextCommand->add_flag("--allow-relative-paths", next->arguments.allowRelativePaths,
                        "Take relative paths in the file");
  nextCommand->add_option("--zone", next->zone, "Zone to compute in (the local one)")->type_name("ZONE");
  source->excludes(batch);
  nextCommand->callback([&context, &choice, next, source] {
    choice.run = [&context, &choice, next, given = source->count() > 0] {
      if (!next->zone.empty() && !UseZone(context, next->zone)) return static_cast<int>(kExitUsage);
      if (next->batch) return RunNextBatch(context);
      if (!given) {
        PrintError(context, "next: a schedule or a file is needed");
        return static_cast<int>(kExitUsage);
      }
      return RunNext(context, next->arguments, choice.schedules);
    };
  });

  struct CheckState {
    CheckArguments arguments;
    std::string zone;
  };
  const auto check = std::make_shared<CheckState>();
  CLI::App* checkCommand = app.add_subcommand("check", "Tell everything that is wrong in schedule files");
  checkCommand->add_option("FILE", check->arguments.files, "Schedule files, - for the input")->required();
  checkCommand->add_flag("--allow-relative-paths", check->arguments.allowRelativePaths, "Take relative paths");
  checkCommand->add_flag("--strict", check->arguments.strict, "Warnings count as errors");
  checkCommand->add_option("--zone", check->zone, "Zone to read times in (the local one)")->type_name("ZONE");
  checkCommand->callback([&context, &choice, check] {
    choice.run = [&context, check] {
      if (!check->zone.empty() && !UseZone(context, check->zone)) return static_cast<int>(kExitUsage);
      return RunCheck(context, check->arguments);
    };
  });
}

void AddRegistryCommands(CLI::App& app, CliContext& context, CommandChoice& choice) {
  struct State {
    std::string key;
    std::string name;
    std::string data;
    std::string type = "REG_SZ";
  };
  const auto state = std::make_shared<State>();
  CLI::App* reg = app.add_subcommand("reg", "Look at and change the key store of the service");
  reg->require_subcommand(1);
  constexpr const char* kKeyHelp = "Key, as HKLM\\SOFTWARE\\NAME";

  CLI::App* list = reg->add_subcommand("list", "List the keys and values of a key");
  list->add_option("KEY", state->key, kKeyHelp)->required();
  list->callback([&context, &choice, state] {
    choice.run = [&context, state] {
      return WithKeyStore(context, false,
                          [&] { return RegList(state->key, context.options.json, context.out, context.err); });
    };
  });

  CLI::App* get = reg->add_subcommand("get", "Show one value");
  get->add_option("KEY", state->key, kKeyHelp)->required();
  get->add_option("NAME", state->name, "Name of the value, \"\" for the default one")->required();
  get->callback([&context, &choice, state] {
    choice.run = [&context, state] {
      return WithKeyStore(context, false, [&] {
        return RegGet(state->key, state->name, context.options.json, context.out, context.err);
      });
    };
  });

  CLI::App* set = reg->add_subcommand("set", "Set a value; makes the key when absent");
  set->add_option("KEY", state->key, kKeyHelp)->required();
  set->add_option("NAME", state->name, "Name of the value, \"\" for the default one")->required();
  set->add_option("DATA", state->data, "Its data")->required();
  set->add_option("--type", state->type, "REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ, REG_DWORD or REG_BINARY (REG_SZ)")
      ->type_name("TYPE");
  set->callback([&context, &choice, state] {
    choice.run = [&context, state] {
      return WithKeyStore(context, true, [&] {
        return RegSet(state->key, state->name, state->data, state->type, context.err);
      });
    };
  });

  CLI::App* remove = reg->add_subcommand("delete", "Delete a value, or without a name the key with all below it");
  remove->add_option("KEY", state->key, kKeyHelp)->required();
  CLI::Option* name = remove->add_option("NAME", state->name, "Name of the value");
  remove->callback([&context, &choice, state, name] {
    choice.run = [&context, state, named = name->count() > 0] {
      return WithKeyStore(context, false, [&] {
        return RegDelete(state->key, named ? std::optional(state->name) : std::nullopt, context.err);
      });
    };
  });
}

void AddConfigCommands(CLI::App& app, CliContext& context, CommandChoice& choice) {
  struct State {
    std::string path;
    std::string filter;
    std::uint32_t size = 0;
    bool off = false;
  };
  const auto state = std::make_shared<State>();
  CLI::App* config = app.add_subcommand("config", "Look at and change settings in the key store of the service");
  config->require_subcommand(1);

  CLI::App* trace = config->add_subcommand("trace", "Trace of the schedule rules; without an option, what is set");
  CLI::Option* path = trace->add_option("--path", state->path, "Trace file, from the root")->type_name("FILE");
  CLI::Option* filter =
      trace->add_option("--filter", state->filter, "error, warning, inform, debug, with commas; short for short lines")
          ->type_name("WORDS");
  CLI::Option* size = trace->add_option("--size", state->size, "Set the file aside from this size (0: every record)")
                          ->type_name("KIB")
                          ->check(CLI::Range(std::uint32_t{0}, kTraceMostKib));
  trace->add_flag("--off", state->off, "Trace nothing; path and size stay")->excludes(path, filter, size);
  trace->callback([&context, &choice, state, path, filter, size] {
    TraceSettings settings;
    if (path->count() > 0) settings.path = state->path;
    if (filter->count() > 0) settings.filter = state->filter;
    if (size->count() > 0) settings.kibibytes = state->size;
    settings.off = state->off;
    choice.run = [&context, settings] { return RunConfigTrace(context, settings); };
  });

  const auto named = std::make_shared<ConfigArguments>();
  CLI::App* get = config->add_subcommand("get", "Show all settings, or the value of one");
  get->add_option("SETTING", named->name, "Its name: " + SettingNames());
  get->callback([&context, &choice, named] {
    choice.run = [&context, named] { return RunConfigGet(context, named->name); };
  });
  CLI::App* set = config->add_subcommand("set", "Change a setting; the service takes it at its next start");
  set->add_option("SETTING", named->name, "Its name: " + SettingNames())->required();
  set->add_option("VALUE", named->value, "Its value")->required();
  set->add_option("--destdir", named->destination, "Below it the unit's drop-in is written (the root)")
      ->type_name("DIR");
  set->callback([&context, &choice, named] {
    choice.run = [&context, named] { return RunConfigSet(context, *named); };
  });
}

void AddOnlineCommands(CLI::App& app, CliContext& context, CommandChoice& choice, const OnlineSettings& settings) {
  struct State {
    std::string schedule;
    std::string file;
    bool allowRelativePaths = false;
    RemoveArguments remove;
  };
  const auto state = std::make_shared<State>();
  const auto command = [&](const char* name, const char* help, std::function<int()> run) {
    CLI::App* added = app.add_subcommand(name, help);
    added->callback([&choice, run = std::move(run)] { choice.run = run; });
    return added;
  };
  constexpr const char* kScheduleHelp = "ID, the beginning of its digits (4 or more), or name";

  command("list", "List the schedules by next window (the default command)",
          [&context, &settings] { return RunList(context, settings); });
  command("show", "Show a schedule with its next windows",
          [&context, &settings, state] { return RunShow(context, settings, state->schedule); })
      ->add_option("SCHEDULE", state->schedule, kScheduleHelp)
      ->required();
  command("status", "Show what the service says about itself",
          [&context, &settings] { return RunStatus(context, settings); });
  CLI::App* add = command("add", "Create a schedule from a schedule file; writes its ID", [&context, &settings, state] {
    return RunAdd(context, settings, state->file, state->allowRelativePaths);
  });
  add->add_option("FILE", state->file, "Schedule file, - for the input")->required();
  add->add_flag("--allow-relative-paths", state->allowRelativePaths, "Take relative paths in the file");
  CLI::App* remove = command("rm", "Delete schedules, with a backup of each", [&context, &settings, state] {
    return RunRemove(context, settings, state->remove);
  });
  remove->add_option("SCHEDULE", state->remove.schedules, kScheduleHelp)->required();
  remove->add_flag("-y,--yes", state->remove.yes, "Don't ask");
  remove->add_flag("--no-backup", state->remove.noBackup, "Delete without a backup");
  command("monitor", "Show the events of the service as they come",
          [&context, &settings] { return RunMonitor(context, settings); });
  command("refresh", "Have the service read its store again",
          [&context, &settings] { return RunRefresh(context, settings); });
  choice.byDefault = [&context, &settings] { return RunList(context, settings); };
  choice.schedules = [&settings](CliContext& asking, const std::string& schedule, SCHEDULE_OBJECT& record) {
    return FetchSchedule(asking, settings, schedule, asking.zoneChosen, record);
  };
}

int RunQxsched(int argc, const char* const* argv, std::istream& in, std::ostream& out, std::ostream& err,
               const OnlineSettings& given) {
  ZepFoundation::SetServiceLogWriter(ZepFoundation::NullServiceLogWriter());
  CliContext context{in, out, err, {}};
  platform::OutputPager pager;
  bool paged = false;
  try {
    context.colourOut = ColourWanted(out, std::cout, platform::StandardStream::kOutput);
    context.colourErr = ColourWanted(err, std::cerr, platform::StandardStream::kError);
    if (&out == &std::cout) context.columns = platform::TerminalColumns(platform::StandardStream::kOutput);
    if (&out == &std::cout && platform::IsTerminal(platform::StandardStream::kOutput)) {
      context.startPager = [&] {
        const std::string command = paged ? "" : PagerCommand();
        if (command.empty()) return;
        out.flush();
        // A text of one screen is left where it is; colours go through; the screen isn't cleared.
        paged = pager.Start({"/bin/sh", "-c", command}, {"LESS=FRSX"}) == platform::ERROR_SUCCESS;
      };
    }
    CommandChoice choice;
    NodeSpread spread;
    OnlineSettings settings = given;
    settings.connect = SpreadOverNodes(given.connect, context, spread);
    CLI::App app("Shows, checks and changes the schedules of the scheduler service.", "qxsched");
    app.set_version_flag("--version", std::string("qxsched ") + QX_VERSION);
    app.require_subcommand(0, 1);
    app.fallthrough();  // the global options may also stand behind the command
    AddGlobalOptions(app, context.options);
    // Every family of commands is given its names here.
    AddOfflineCommands(app, context, choice);
    AddRegistryCommands(app, context, choice);
    AddConfigCommands(app, context, choice);
    AddOnlineCommands(app, context, choice, settings);
    AddChangeCommands(app, context, choice, settings);
    AddNodeCommands(app, context, choice, settings, spread);
    AddCalendarCommand(app, context, choice, settings);
    AddLogCommand(app, context, choice);
    AddRecordCommand(app, context, choice, settings);
    AddHistoryCommand(app, context, choice);
    AddCompletionCommand(app, context, choice);
    if (argc > 1 && std::string_view(argv[1]) == kCompleteWord) {
      return RunComplete(context, app, settings, {argv + 2, argv + argc});
    }
    UseHelpForm(app);
    std::vector<const char*> words(argv, argv + argc);
    const auto first = FirstWord(app, words);
    if (first != words.end() && std::string_view(*first) == "help") {  // "help COMMAND" for "COMMAND --help"
      words.erase(first);
      words.push_back("--help");
    }
    if (TellEmptyValue(context, app, words)) return kExitUsage;
    const auto written = [&](int exit) {
      out.flush();
      pager.Finish();
      // Who leaves the pager has seen enough.
      if (out || exit != kExitDone || paged) return exit;
      PrintError(context, "the output can't be written");
      return static_cast<int>(kExitFailed);
    };
    try {
      app.parse(static_cast<int>(words.size()), words.data());
      if (TellEmptyValue(context, app, words)) return kExitUsage;
    } catch (const CLI::CallForHelp&) {
      if (TellUnknownWord(context, app)) return kExitUsage;
      out << HelpText(app);
      return written(kExitDone);
    } catch (const CLI::CallForVersion&) {
      out << app.version() << "\n";
      return written(kExitDone);
    } catch (const CLI::ParseError& error) {
      TellMistake(context, app, error);
      return kExitUsage;
    }
    platform::SetStateDirectory(context.options.root.empty() ? platform::DefaultStateDirectory()
                                                             : context.options.root);
    return written(RunSpread(context, spread, [&] { return RunChosen(context, app, choice); }));
  } catch (const std::exception& error) {
    PrintError(context, error.what());
    return kExitFailed;
  }
}

}  // namespace qx
