#include "service/service_options.h"

#include <algorithm>
#include <utility>

namespace qx {
namespace {

// An own option: where its value goes, or its flag.
struct OwnOption {
  std::string_view name;
  std::string ServiceOptions::*value;
  bool ServiceOptions::*flag;
};
constexpr OwnOption kOwnOptions[] = {
    {"--root", &ServiceOptions::root, nullptr},       {"--bus", &ServiceOptions::busAddress, nullptr},
    {"--destdir", &ServiceOptions::destdir, nullptr}, {"--foreground", nullptr, &ServiceOptions::foreground},
    {"--registry-only", nullptr, &ServiceOptions::registryOnly},
    {"--version", nullptr, &ServiceOptions::version}, {"--help", nullptr, &ServiceOptions::help},
};

constexpr std::pair<std::string_view, CommandWord> kWords[] = {{"unregserver", CommandWord::kUnregServer},
                                                               {"regserver", CommandWord::kRegServer},
                                                               {"service", CommandWord::kService}};

std::string Lower(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : static_cast<char>(c);
  });
  return lower;
}

}  // namespace

const std::string_view kServiceHelp =
    "Usage: QxSchedService [OPTIONS] [-RegServer | -UnregServer | -Service]\n"
    "\n"
    "Runs the scheduler service. It has to be registered once before.\n"
    "\n"
    "  -RegServer         register: make the state directory and its registry; the bus starts the program on demand\n"
    "  -Service           register as a service of this machine: also a unit of systemd\n"
    "  -UnregServer       take the registration back; schedules stay\n"
    "\n"
    "  --root DIR         state directory (QXSVC_ROOT; /var/lib/qxsvc for root, else ~/.local/state/qxsvc); for one of\n"
    "                     your own, registering writes no files of the host unless --destdir says where\n"
    "  --bus ADDRESS      message bus: session, system or an address (system for root, else session)\n"
    "  --foreground       stay until SIGTERM; without it and without a service manager the program ends with its\n"
    "                     last client\n"
    "  --destdir DIR      put the files of the host below DIR; without --root nothing else is registered (packaging)\n"
    "  --registry-only    register in the state directory alone: the files of the host are a package's (packaging)\n"
    "  --version          print the version\n"
    "  --help             print this\n";

bool ParseServiceArguments(std::span<const char* const> arguments, ServiceOptions& options, std::string& error) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string_view word = arguments[i];
    const std::size_t equals = word.find('=');
    const auto own = std::find_if(std::begin(kOwnOptions), std::end(kOwnOptions), [&](const OwnOption& option) {
      return option.name == (option.value != nullptr ? word.substr(0, equals) : word);
    });
    // An unset variable of a script must not become the default. For a packager "no directory" is the root.
    const auto isEmpty = [&](std::string_view value) { return value.empty() && own->name != "--destdir"; };
    if (own == std::end(kOwnOptions)) {
      if (!options.words.empty()) options.words += ' ';
      options.words += word;
    } else if (own->flag != nullptr) {
      options.*own->flag = true;
    } else if (equals != std::string_view::npos && !isEmpty(word.substr(equals + 1))) {
      options.*own->value = word.substr(equals + 1);
    } else if (equals == std::string_view::npos && i + 1 < arguments.size() && !isEmpty(arguments[i + 1])) {
      options.*own->value = arguments[++i];
    } else {
      error = "option " + std::string(own->name) + " needs a value";
      return false;
    }
  }
  return true;
}

CommandWord FindCommandWord(std::string_view words) {
  const std::string line = Lower(words);
  for (std::size_t cut = line.find_first_of("-/"); cut != std::string::npos; cut = line.find_first_of("-/", cut + 1)) {
    for (const auto& [text, word] : kWords) {
      if (std::string_view(line).substr(cut + 1) == text) return word;
    }
  }
  return CommandWord::kNone;
}

}  // namespace qx
