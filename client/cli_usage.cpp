#include "client/cli_usage.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <vector>

#include "client/cli_suggest.h"

namespace qx {
namespace {

// The library's form without what says nothing to a user: the types of texts, and which options exclude each other
// (the error tells).
class HelpForm : public CLI::Formatter {
 public:
  [[nodiscard]] std::string make_option_opts(const CLI::Option* option) const override {
    std::string text;
    const std::string type = option->get_type_name();
    if (option->get_type_size() != 0 && !option->get_positional()) {
      text += " " + type.substr(0, type.find(':'));
      const std::size_t range = type.find(" in [");
      if (range != std::string::npos) text += type.substr(range);
    }
    if (option->get_expected_max() == CLI::detail::expected_max_vector_size) text += " ...";
    if (option->get_required() && !option->get_positional()) text += " (required)";
    return text;
  }
};

// The command that was read, and its words from the program's name on.
const CLI::App& CommandRead(const CLI::App& app, std::string& words) {
  const CLI::App* at = &app;
  words = app.get_name();
  while (!at->get_subcommands().empty()) {
    at = at->get_subcommands().front();
    words += " " + at->get_name();
  }
  return *at;
}

std::vector<std::string> NamesOfCommands(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::App* below : command.get_subcommands([](const CLI::App*) { return true; })) {
    names.push_back(below->get_name());
  }
  return names;
}

void AddNamesOfOptions(const CLI::App& command, std::vector<std::string>& names) {
  for (const CLI::Option* option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
}

void HintAt(CliContext& context, const std::string& suggestion, const std::string& words) {
  PrintHint(context, (suggestion.empty() ? "" : "did you mean " + suggestion + "? ") + "see " + words + " --help");
}

}  // namespace

void UseHelpForm(CLI::App& app) {
  app.formatter(std::make_shared<HelpForm>());
  for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; })) UseHelpForm(*command);
}

std::string HelpText(const CLI::App& app) {
  std::string text = app.help();
  if (!app.get_subcommands().empty()) {
    text += "\nOptions of every command (--json, --bus, --root and others): " + app.get_name() + " --help\n";
  }
  return text;
}

bool TellUnknownWord(CliContext& context, const CLI::App& app) {
  const std::vector<std::string> left = app.remaining(true);
  if (left.empty()) return false;
  std::string words;
  const CLI::App& command = CommandRead(app, words);
  const std::string& word = left.front();
  if (word.starts_with('-')) {
    std::vector<std::string> options;
    AddNamesOfOptions(command, options);
    if (&command != &app) AddNamesOfOptions(app, options);
    if (std::find(options.begin(), options.end(), word) != options.end()) {  // behind "--" it is none
      PrintError(context, "unexpected argument \"" + word + "\"");
      HintAt(context, "", words);
      return true;
    }
    PrintError(context, "unknown option \"" + word + "\"");
    HintAt(context, Suggest(word.substr(0, word.find('=')), options), words);
    return true;
  }
  const std::vector<std::string> commands = NamesOfCommands(command);
  PrintError(context, (commands.empty() ? "unexpected argument \"" : "unknown command \"") + word + "\"");
  HintAt(context, Suggest(word, commands), words);
  return true;
}

bool TellEmptyValue(CliContext& context, const CLI::App& app, const std::vector<const char*>& words) {
  const auto refuse = [&](std::string_view option) {
    std::string command;
    (void)CommandRead(app, command);
    PrintError(context, std::string(option) + ": the value is empty");
    HintAt(context, "", command);
    return true;
  };
  // The library takes the next word for the value of such a one.
  for (const std::string_view word : words) {
    if (word == "--") break;
    if (word.size() > 3 && word.starts_with("--") && word.find('=') == word.size() - 1) return refuse(word);
  }
  for (const CLI::App* at = &app;; at = at->get_subcommands().front()) {
    for (const CLI::Option* option : at->get_options()) {
      if (option->get_positional() || option->get_name() == "--destdir") continue;
      for (const std::string& value : option->results()) {
        if (value.empty()) return refuse(option->get_name());
      }
    }
    if (at->get_subcommands().empty()) return false;
  }
}

void TellMistake(CliContext& context, const CLI::App& app, const CLI::ParseError& error) {
  const bool unknown = dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr;
  std::string words;
  const CLI::App& command = CommandRead(app, words);
  // A command that needs another one behind it got a word that is none.
  const bool noCommand =
      dynamic_cast<const CLI::RequiredError*>(&error) != nullptr && !NamesOfCommands(command).empty();
  if ((unknown || noCommand) && TellUnknownWord(context, app)) return;
  PrintError(context, error.what());
  HintAt(context, "", words);
}

}  // namespace qx
