#include "client/cli_completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <ostream>
#include <set>
#include <sstream>

#include "client/cli_app.h"
#include "client/cli_config.h"
#include "client/cli_session.h"
#include "client/schedule_keys.h"
#include "client/terminal_text.h"
#include "platform/file.h"
#include "platform/state_home.h"
#include "platform/text.h"

namespace qx {
namespace {

constexpr const char* kFiles = ":files";

constexpr const char* kBashScript = R"script(# bash completion of qxsched; load it with: source <(qxsched completion bash)
_qxsched() {
  local current=${COMP_WORDS[COMP_CWORD]} line value
  local tick=\' ticked="'\\''" banged="\"'!'\""
  local -a words=("${COMP_WORDS[@]:1:COMP_CWORD}")
  COMPREPLY=()
  # The program wants the word itself, without the shell's quoting.
  local bare=$current
  case $current in
    \'*) bare=${current#?} ;;
    *) bare=${current#\"} bare=${bare//\\\\/$'\1'} bare=${bare//\\/} bare=${bare//$'\1'/\\} ;;
  esac
  words[COMP_CWORD - 1]=$bare
  while IFS= read -r line; do
    if [[ $line == :files ]]; then
      compopt -o default
      continue
    fi
    value=${line%%$'\t'*}
    [[ $value == *= ]] && compopt -o nospace
    # Whatever a name holds, it is one word and nothing that the shell runs.
    case $current in
      \"*)
        value=${value//\\/\\\\} value=${value//\"/\\\"} value=${value//\$/\\\$} value=${value//\`/\\\`}
        COMPREPLY+=("${value//!/$banged}")
        ;;
      \'*) COMPREPLY+=("${value//$tick/$ticked}") ;;
      *) COMPREPLY+=("$(printf %q "$value")") ;;
    esac
  done < <("${1:-qxsched}" __complete "${words[@]}" 2>/dev/null)
}
complete -F _qxsched qxsched
)script";

constexpr const char* kZshScript = R"script(#compdef qxsched
# zsh completion of qxsched; load it with: source <(qxsched completion zsh), or put it into a directory of $fpath
_qxsched() {
  local line value files=''
  local -a values shown
  while IFS= read -r line; do
    if [[ $line == :files ]]; then
      files=yes
      continue
    fi
    value=${line%%$'\t'*}
    values+=("$value")
    if [[ $line == *$'\t'* ]]; then
      shown+=("$value  -- ${line#*$'\t'}")
    else
      shown+=("$value")
    fi
  done < <("${words[1]}" __complete "${(@Q)words[2,CURRENT-1]}" "${(Q)PREFIX}" 2>/dev/null)
  if (( ${#values} )); then
    if [[ ${values[1]} == *= ]]; then
      compadd -S '' -l -d shown -a values
    else
      compadd -l -d shown -a values
    fi
  fi
  [[ -n $files ]] && _files
}
if [[ ${funcstack[1]} == _qxsched ]]; then
  _qxsched "$@"
elif (( $+functions[compdef] )); then
  compdef _qxsched qxsched
fi
)script";

constexpr const char* kFishScript = R"script(# fish completion of qxsched; load it with: qxsched completion fish | source
function __qxsched_complete
    set -l typed (commandline -opc)
    # The program wants the word itself, without the shell's quoting.
    set -l current (commandline -ct | string replace -r '^["\']' '' | string unescape)
    for line in ($typed[1] __complete $typed[2..] "$current" 2>/dev/null)
        if test "$line" = :files
            __fish_complete_path "$current"
        else
            printf '%s\n' $line
        end
    end
end
complete -c qxsched -f -a '(__qxsched_complete)'
)script";

// What is offered, of which only what begins as the word does is written.
class Offer {
 public:
  Offer(CliContext& context, std::string word) : m_context(context), m_word(std::move(word)) {}
  void Add(const std::string& text, const std::string& about = "") {
    if (!text.starts_with(m_word) || text.find_first_of("\t\r\n") != std::string::npos) return;
    if (!m_written.insert(text).second) return;
    m_context.out << text << (about.empty() ? "" : "\t" + Printable(about)) << "\n";
  }
  void AddFiles() { m_context.out << kFiles << "\n"; }
  void AddList(std::string_view names) {
    while (!names.empty()) {
      const std::size_t comma = names.find(", ");
      Add(std::string(names.substr(0, comma)));
      names = comma == std::string_view::npos ? std::string_view() : names.substr(comma + 2);
    }
  }
  [[nodiscard]] const std::string& Word() const { return m_word; }

 private:
  CliContext& m_context;
  std::string m_word;
  std::set<std::string> m_written;
};

void OfferSchedules(CliContext& context, const OnlineSettings& settings, Offer& offer) {
  std::ostringstream nowhere;
  CliContext quiet{context.in, nowhere, nowhere, context.options};
  Session session(quiet, settings);
  std::vector<ListRow> rows;
  if (session.Connect() != kExitDone || session.AllRows(rows) != kExitDone) return;
  for (const ListRow& row : rows) {
    const std::string name = platform::Utf8FromWide(row.name);
    if (!name.empty()) offer.Add(name, platform::Utf8FromWide(row.wrapper));
  }
  if (offer.Word().empty()) return;  // names are what people remember
  for (const ListRow& row : rows) {
    const std::string id = platform::Utf8FromWide(row.id);
    const std::string name = platform::Utf8FromWide(row.name);
    offer.Add(id, name);
    if (id.size() > 2) offer.Add(id.substr(1, id.size() - 2), name);
  }
}

// What an option takes, by its name and the name of its value.
void OfferValue(const CLI::Option& option, Offer& offer) {
  const std::string name = option.get_name();
  const std::string type = option.get_type_name();
  if (name == "--bus") {
    offer.AddList("session, system");
  } else if (name == "--type") {
    offer.AddList("REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ, REG_DWORD, REG_BINARY");
  } else if (name == "--filter") {
    offer.AddList("error, warning, inform, debug, short");
  } else if (type.find("DIR") != std::string::npos || type.find("FILE") != std::string::npos) {
    offer.AddFiles();
  }
}

void OfferOptions(const CLI::App& app, Offer& offer) {
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) offer.Add("--" + name, option->get_description());
    if (offer.Word() == "-") {
      for (const std::string& name : option->get_snames()) offer.Add("-" + name, option->get_description());
    }
  }
}

void OfferArgument(CliContext& context, const OnlineSettings& settings, const std::string& name, Offer& offer) {
  if (name.find("SCHEDULE") != std::string::npos) OfferSchedules(context, settings, offer);
  if (name.find("FILE") != std::string::npos || name.find("DIR") != std::string::npos) offer.AddFiles();
  if (name == "SHELL") offer.AddList("bash, zsh, fish");
  if (name == "SETTING") offer.AddList(SettingNames());
  if (name == "KEY=VALUE") {
    for (const std::string& key : SettableKeys()) offer.Add(key + "=");
  }
}

const CLI::Option* OptionNamed(const CLI::App& app, const std::string& word) {
  for (const CLI::Option* option : app.get_options()) {
    if (!option->get_positional() && option->check_name(word)) return option;
  }
  return nullptr;
}

bool TakesValue(const CLI::Option& option) {
  return option.get_items_expected_max() > 0;
}

}  // namespace

int RunComplete(CliContext& context, const CLI::App& app, const OnlineSettings& settings,
                const std::vector<std::string>& words) {
  Offer offer(context, words.empty() ? "" : words.back());
  const CLI::App* command = &app;
  std::size_t positionals = 0;
  const CLI::Option* waiting = nullptr;  // the option whose value comes next
  bool optionsEnded = false;
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    const std::string& word = words[i];
    if (waiting != nullptr) {
      if (waiting->get_name() == "--root") context.options.root = word;
      if (waiting->get_name() == "--bus") context.options.bus = word;
      waiting = nullptr;
      continue;
    }
    if (!optionsEnded && word == "--") {
      optionsEnded = true;
      continue;
    }
    if (!optionsEnded && word.size() > 1 && word[0] == '-') {
      const std::size_t equals = word.find('=');
      const std::string name = word.substr(0, equals);
      const CLI::Option* option = OptionNamed(*command, name);
      if (option == nullptr) option = OptionNamed(app, name);
      if (option == nullptr || !TakesValue(*option)) continue;
      if (equals == std::string::npos) {
        waiting = option;
      } else if (name == "--root") {
        context.options.root = word.substr(equals + 1);
      } else if (name == "--bus") {
        context.options.bus = word.substr(equals + 1);
      }
      continue;
    }
    const CLI::App* below = nullptr;
    for (const CLI::App* sub : command->get_subcommands([](const CLI::App*) { return true; })) {
      if (sub->get_name() == word) below = sub;
    }
    if (positionals == 0 && below != nullptr) {
      command = below;
    } else {
      ++positionals;
    }
  }
  platform::SetStateDirectory(context.options.root.empty() ? platform::DefaultStateDirectory() : context.options.root);
  if (waiting != nullptr) {
    OfferValue(*waiting, offer);
    return kExitDone;
  }
  if (!optionsEnded && offer.Word().starts_with('-')) {
    OfferOptions(*command, offer);
    if (command != &app) OfferOptions(app, offer);
    return kExitDone;
  }
  if (positionals == 0) {
    for (const CLI::App* sub : command->get_subcommands([](const CLI::App*) { return true; })) {
      offer.Add(sub->get_name(), sub->get_description());
    }
  }
  std::vector<const CLI::Option*> arguments;
  for (const CLI::Option* option : command->get_options()) {
    if (option->get_positional()) arguments.push_back(option);
  }
  if (arguments.empty()) return kExitDone;
  // The last one may take any number.
  const CLI::Option* argument = nullptr;
  if (positionals < arguments.size()) {
    argument = arguments[positionals];
  } else if (arguments.back()->get_items_expected_max() > 1) {
    argument = arguments.back();
  }
  if (argument != nullptr) OfferArgument(context, settings, argument->get_name(true), offer);
  return kExitDone;
}

int RunCompletion(CliContext& context, const std::string& shell) {
  const std::pair<std::string_view, const char*> scripts[] = {
      {"bash", kBashScript}, {"zsh", kZshScript}, {"fish", kFishScript}};
  for (const auto& [name, script] : scripts) {
    if (name != shell) continue;
    context.out << script;
    return kExitDone;
  }
  PrintError(context, "completion: \"" + shell + "\" is no shell that is known (allowed: bash, zsh, fish)");
  return kExitUsage;
}

void AddCompletionCommand(CLI::App& app, CliContext& context, CommandChoice& choice) {
  const auto shell = std::make_shared<std::string>();
  CLI::App* completion = app.add_subcommand("completion", "Write the completion script of a shell");
  completion->add_option("SHELL", *shell, "bash, zsh or fish")->required();
  completion->callback([&context, &choice, shell] {
    choice.run = [&context, shell] { return RunCompletion(context, *shell); };
  });
}

}  // namespace qx
