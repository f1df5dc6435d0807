#include "client/cli_nodes.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>
#include <utility>

#include "client/cli_app.h"
#include "client/cli_session.h"
#include "client/json_text.h"
#include "client/output_lock.h"
#include "client/schedule_json.h"
#include "client/status_text.h"
#include "platform/file.h"
#include "platform/interrupt.h"
#include "platform/process.h"
#include "platform/security.h"
#include "platform/text.h"

namespace qx {
namespace {

using nlohmann::ordered_json;
using platform::Utf8FromWide;

constexpr std::u16string_view kLocalhost = u"localhost";
constexpr std::string_view kKeyfileName = "nodes.key";

// Of a body all that doesn't come from the record or the command: tags, identifier and the final NUL
// (docs/formats/wire.md); the numbers are counted with the values.
constexpr std::string_view kEmptyFormA =
    "<QxSchedService><AppName></AppName><ObjID></ObjID><TaskOpcode></TaskOpcode><Wrapper></Wrapper><XMLFilePath>"
    "</XMLFilePath><Parameters></Parameters><PreScript></PreScript><PostScript></PostScript><UseGuid>0</UseGuid>"
    "<DATA1>00000000</DATA1><DATA2>0000</DATA2><DATA3>0000</DATA3><DATA4>0000</DATA4><DATA5>000000000000</DATA5>"
    "<MSG_TYPE>1</MSG_TYPE></QxSchedService>";
constexpr std::string_view kEmptyFormC = "<QxSchedService><OpData>/<OpData><MSG_TYPE>256</MSG_TYPE></QxSchedService>";

// The texts of a record that travel.
constexpr BSTR SCHEDULE_OBJECT::*kTravelling[] = {
    &SCHEDULE_OBJECT::bstrApplication,     &SCHEDULE_OBJECT::bstrObjectID,   &SCHEDULE_OBJECT::bstrWrapperBinaryName,
    &SCHEDULE_OBJECT::bstrXMLFilePathName, &SCHEDULE_OBJECT::bstrParameters, &SCHEDULE_OBJECT::bstrPreScript,
    &SCHEDULE_OBJECT::bstrPostScript};

void WarnOfLength(CliContext& context, std::size_t size) {
  if (size <= kLongestNodeBody) return;
  PrintNote(context, "warning: the operation takes " + std::to_string(size) + " bytes, the other nodes take at most " +
                         std::to_string(kLongestNodeBody) + ": they will refuse it");
}

// What the other nodes won't take is told ahead; it is sent all the same.
void WarnOfRecord(CliContext& context, const SCHEDULE_OBJECT& schedule) {
  WarnOfLength(context, NodeBodySize(schedule));
  for (const auto field : kTravelling) {
    const std::u16string text = (schedule.*field).value_or(u"");
    const std::string_view what = WhatCantBeCarried(text);
    if (what.empty()) continue;
    PrintNote(context, "warning: \"" + Utf8FromWide(text) + "\" has " + std::string(what) +
                           ", which can't be carried: the other nodes will refuse the operation or read another text");
  }
}

// The result of one node for people.
std::string ResultText(std::int32_t result, bool local) {
  if (result == 0) return "done";
  if (result == 1) {
    return local ? FormatStatus(1)
                 : "no answer, or the operation failed there (the log of this node or of that one says why)";
  }
  return FormatStatus(static_cast<Status>(result));
}

// A line for each node; true when all did it.
//   own  whether this node takes part
bool ShowResults(CliContext& context, const NodeNames& names, const NodeResults& results, bool own) {
  bool all = true;
  ordered_json list = ordered_json::array();
  for (std::size_t i = 0; i < names.size(); ++i) {
    const bool local = names[i] == kLocalhost;
    if (local && !own) continue;
    const std::string name = Utf8FromWide(names[i]);
    const std::string text = ResultText(results[i], local);
    all = all && results[i] == 0;
    if (context.options.json) {
      list.push_back({{"node", name}, {"status", HexStatus(static_cast<Status>(results[i]))}, {"text", text}});
    } else if (results[i] != 0) {
      PrintError(context, name + ": " + text);
    } else {
      PrintNote(context, name + ": " + text);
    }
  }
  if (context.options.json) {
    const platform::MutexLock hold(OutputLock());
    WriteJson(context.out, ordered_json{{"nodes", list}});
  }
  return all;
}

// The service's object with the changes going to several nodes.
class SpreadService final : public ISchedulerService {
 public:
  SpreadService(ISchedulerService& inner, CliContext& context, NodeSpread& spread)
      : m_inner(inner), m_context(context), m_spread(spread) {}

  Status CreateSchedule(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id) override {
    WarnOfRecord(m_context, schedule);
    return Carry([&](auto count, auto& results) {
      return m_inner.CreateScheduleOnNodes(schedule, id, count, m_spread.names, results);
    });
  }
  Status DeleteSchedule(const ScheduleGuid& id) override {
    return Carry(
        [&](auto count, auto& results) { return m_inner.DeleteScheduleOnNodes(id, count, m_spread.names, results); });
  }
  Status ModifySchedule(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule) override {
    WarnOfRecord(m_context, schedule);
    return Carry([&](auto count, auto& results) {
      return m_inner.ModifyScheduleOnNodes(id, schedule, count, m_spread.names, results);
    });
  }
  Status ListSchedule(std::uint32_t& count, ScheduleList& schedules) override {
    return m_inner.ListSchedule(count, schedules);
  }
  Status GetScheduleInfo(const ScheduleGuid& id, ScheduleInfo& schedule) override {
    return m_inner.GetScheduleInfo(id, schedule);
  }
  Status CreateScheduleOnNodes(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id, std::uint32_t count,
                               const NodeNames& names, NodeResults& results) override {
    return m_inner.CreateScheduleOnNodes(schedule, id, count, names, results);
  }
  Status DeleteScheduleOnNodes(const ScheduleGuid& id, std::uint32_t count, const NodeNames& names,
                               NodeResults& results) override {
    return m_inner.DeleteScheduleOnNodes(id, count, names, results);
  }
  Status ModifyScheduleOnNodes(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule, std::uint32_t count,
                               const NodeNames& names, NodeResults& results) override {
    return m_inner.ModifyScheduleOnNodes(id, schedule, count, names, results);
  }
  Status Refresh() override { return m_inner.Refresh(); }
  Status Notify_NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t window) override {
    return m_inner.Notify_NextTimeWindow_Modify(id, window);
  }
  Status Notify_SystemTime_Change(std::int32_t count, const std::vector<std::u16string>& ids,
                                  const std::vector<std::int32_t>& windows) override {
    return m_inner.Notify_SystemTime_Change(count, ids, windows);
  }
  Status UpdateList(std::int32_t type, const BSTR& value, std::uint32_t& count,
                    std::vector<std::u16string>& ids) override {
    return m_inner.UpdateList(type, value, count, ids);
  }
  Status PerformOperationOnNodes(const BSTR& data, std::uint32_t count, const NodeNames& names,
                                 NodeResults& results) override {
    return m_inner.PerformOperationOnNodes(data, count, names, results);
  }

 private:
  // The command goes on by what happened here; what happened elsewhere is shown and kept.
  template <class Call>
  Status Carry(Call call) {
    // No entry that the service never set can read as done.
    NodeResults results(m_spread.names.size(), 1);
    const Status status = call(static_cast<std::uint32_t>(results.size()), results);
    const auto local = static_cast<std::size_t>(
        std::find(m_spread.names.rbegin(), m_spread.names.rend(), kLocalhost).base() - m_spread.names.begin() - 1);
    results.resize(m_spread.names.size(), 1);
    if (status != kStatusOk && status != kStatusFailure) return status;  // nothing was begun, or no answer came
    if (results[local] != 0) return static_cast<Status>(results[local]);
    if (!ShowResults(m_context, m_spread.names, results, true)) m_spread.failed = true;
    return kStatusOk;
  }

  ISchedulerService& m_inner;
  CliContext& m_context;
  NodeSpread& m_spread;
};

class SpreadLink final : public ServiceLink {
 public:
  SpreadLink(std::unique_ptr<ServiceLink> inner, CliContext& context, NodeSpread& spread)
      : m_inner(std::move(inner)), m_service(m_inner->Service(), context, spread) {}
  ISchedulerService& Service() override { return m_service; }
  Status ListInfo(const std::u16string& afterId, std::uint32_t limit, std::vector<ListRow>& rows) override {
    return m_inner->ListInfo(afterId, limit, rows);
  }
  Status ListAll(std::vector<ListRow>& rows) override { return m_inner->ListAll(rows); }
  Status ListRows(SentListRows& list) override { return m_inner->ListRows(list); }
  Status ReadProperties(ServiceProperties& properties) override { return m_inner->ReadProperties(properties); }
  Status Listen(ISchedulerServiceEvents& sink) override { return m_inner->Listen(sink); }
  bool WaitForEvents(std::uint32_t limitMs) override { return m_inner->WaitForEvents(limitMs); }
  [[nodiscard]] platform::BusError LastError() const override { return m_inner->LastError(); }

 private:
  std::unique_ptr<ServiceLink> m_inner;
  SpreadService m_service;
};

// A list as "a, b" would change this node and then find no " b".
bool CanBeNodeName(std::string_view name) {
  return platform::IsValidUtf8(name) && std::none_of(name.begin(), name.end(), [](char c) {
           return static_cast<unsigned char>(c) <= 0x20 || c == 0x7F;
         });
}

// Names of hosts are the same in either case of their letters.
std::u16string InSmallLetters(std::u16string name) {
  for (char16_t& c : name) c += c >= u'A' && c <= u'Z' ? u'a' - u'A' : 0;
  return name;
}

// A word so that the command line's rules give it back; a program's name with quotation marks may have no such form.
std::string Quoted(const std::string& word, bool program) {
  // A program's name knows no backslash rule, and no marks but one in front and the next one.
  const bool isPlain = word.find_first_of(program ? " \t" : " \t\"") == std::string::npos && !word.starts_with('"');
  if (!word.empty() && isPlain) return word;
  if (program) return "\"" + word + "\"";
  std::string quoted = "\"";
  std::size_t backslashes = 0;
  for (const char c : word) {
    if (c == '\\') {
      ++backslashes;
      continue;
    }
    quoted.append(c == '"' ? 2 * backslashes + 1 : backslashes, '\\');
    backslashes = 0;
    quoted += c;
  }
  return quoted.append(2 * backslashes, '\\') + "\"";
}

}  // namespace

std::string_view WhatCantBeCarried(std::u16string_view text) {
  if (text.find_first_of(u"<&") != text.npos) return R"(a "<" or "&")";
  if (text.find(u"]]>") != text.npos) return R"(a "]]>")";
  const bool refused = std::any_of(text.begin(), text.end(), [](char16_t c) {
    return c < 0x20 && c != u'\t' && c != u'\n' && c != u'\r';
  });
  return refused ? "a control character" : "";
}

std::size_t NodeBodySize(const SCHEDULE_OBJECT& schedule) {
  std::size_t size = kEmptyFormA.size() + 1 + std::to_string(schedule.dwTaskOpCode).size();
  for (const auto field : kTravelling) size += Utf8FromWide((schedule.*field).value_or(u"")).size();
  return size;
}

std::size_t NodeBodySize(std::u16string_view command) { return kEmptyFormC.size() + 1 + Utf8FromWide(command).size(); }

bool ParseNodeList(const std::string& text, NodeNames& names, std::string& error) {
  names.clear();
  for (std::string_view rest = text;;) {
    const std::string_view name = rest.substr(0, rest.find(','));
    std::u16string wide = platform::WideFromUtf8(name);
    const std::u16string folded = InSmallLetters(wide);
    // The service knows this spelling alone, and would go to itself by any other.
    if (folded == kLocalhost) wide = folded;
    if (name.empty()) {
      error = "--nodes: a name is empty (allowed: names or addresses with commas between them)";
      return false;
    }
    if (!CanBeNodeName(name)) {
      error = "--nodes: \"" + std::string(name) +
              "\" is no node's name (allowed: names or addresses with commas between them, without blanks)";
      return false;
    }
    if (std::any_of(names.begin(), names.end(), [&](const auto& other) { return InSmallLetters(other) == folded; })) {
      error = "--nodes: \"" + std::string(name) + "\" stands twice";
      return false;
    }
    names.push_back(wide);
    if (name.size() == rest.size()) break;
    rest.remove_prefix(name.size() + 1);
  }
  if (std::find(names.begin(), names.end(), kLocalhost) == names.end()) {
    names.insert(names.begin(), std::u16string(kLocalhost));
  }
  return true;
}

ServiceConnector SpreadOverNodes(ServiceConnector connect, CliContext& context, NodeSpread& spread) {
  return [connect = std::move(connect), &context, &spread](const platform::BusAddress& address,
                                                           std::unique_ptr<ServiceLink>& link) {
    const platform::ErrorCode code = connect(address, link);
    if (code == platform::ERROR_SUCCESS && !spread.names.empty()) {
      link = std::make_unique<SpreadLink>(std::move(link), context, spread);
    }
    return code;
  };
}

int RunNodesExec(CliContext& context, const OnlineSettings& settings, const NodeNames& names,
                 const std::vector<std::string>& words) {
  std::string line;
  if (words.size() == 1) {
    line = words.front();
  } else {
    for (const std::string& word : words) line += (line.empty() ? "" : " ") + Quoted(word, line.empty());
  }
  if (!platform::IsValidUtf8(line)) {
    PrintError(context, "the command \"" + line + "\" isn't UTF-8: another one would be carried in its place");
    return kExitUsage;
  }
  if (words.front().empty()) {
    PrintError(context, "the command is empty");
    return kExitUsage;
  }
  const std::u16string command = platform::WideFromUtf8(line);
  if (words.size() > 1 && Utf8FromWide(platform::SplitCommandLine(command).front()) != words.front()) {
    PrintError(context, "a program with a '\"' in front, or beside blanks, can't be carried: " + words.front());
    return kExitUsage;
  }
  if (names.size() < 2) {
    PrintError(context, "--nodes: a node other than this one is needed");
    return kExitUsage;
  }
  if (command.find(u"/<OpData>") != std::u16string::npos) {
    PrintError(context, "a command with \"/<OpData>\" in it can't be carried: it would be cut there");
    return kExitUsage;
  }
  WarnOfLength(context, NodeBodySize(std::u16string_view(command)));
  Session session(context, settings);
  if (const int exit = session.Connect(); exit != kExitDone) return exit;
  NodeResults results(names.size(), 1);
  const Status status = session.Wait("have the command run on the nodes", true, [&] {
    return session.Link().Service().PerformOperationOnNodes(command, static_cast<std::uint32_t>(names.size()), names,
                                                            results);
  });
  results.resize(names.size(), 1);
  if (status != kStatusOk && status != kStatusFailure) {
    const bool lost = session.IsLost();
    const int exit = session.Fail(status, "");
    if (lost) PrintHint(context, "on which nodes the command ran isn't known");
    return exit;
  }
  return ShowResults(context, names, results, false) ? kExitDone : kExitSomeNodesFailed;
}

int RunNodesKeyfile(CliContext& context, const KeyfileArguments& arguments) {
  const std::string file =
      arguments.file.empty() ? platform::StateDirectory() + "/" + std::string(kKeyfileName) : arguments.file;
  const std::size_t cut = arguments.account.find('\\');
  const std::string domain = arguments.account.substr(0, cut);
  const std::string user = cut == std::string::npos ? "" : arguments.account.substr(cut + 1);
  const auto isWord = [](const std::string& word) {
    return !word.empty() && word.size() <= 100 && std::all_of(word.begin(), word.end(), [](unsigned char c) {
      return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '.' || c == '-' ||
             c == '_';
    });
  };
  if (!isWord(domain) || !isWord(user)) {
    PrintError(context, "--account: \"" + arguments.account + "\" is no account (allowed: DOMAIN\\USER of letters, "
                                                              "digits, dots, dashes and underscores)");
    return kExitUsage;
  }
  switch (const platform::ErrorCode code = platform::MakeCredentialsFile(file, domain, user)) {
    case platform::ERROR_SUCCESS:
      break;
    case platform::ERROR_FILE_EXISTS:
      PrintError(context, file + " is there already; it was left as it is");
      PrintHint(context, "remove it first to have a new secret, and give that to all nodes");
      return kExitFailed;
    default:
      PrintError(context, file + " can't be made: " + FormatStatus(platform::StatusFromErrorCode(code)));
      return code == platform::ERROR_ACCESS_DENIED ? kExitPermission : kExitFailed;
  }
  context.out << file << "\n";
  PrintHint(context, "copy it to the same place on every node, owned by the service's account, mode 0600: whoever "
                     "reads it commands every node");
  return kExitDone;
}

void AddNodeCommands(CLI::App& app, CliContext& context, CommandChoice& choice, const OnlineSettings& settings,
                     NodeSpread& spread) {
  struct State {
    std::string nodes;
    std::vector<std::string> words;
    KeyfileArguments keyfile;
  };
  const auto state = std::make_shared<State>();
  constexpr const char* kNodesHelp =
      "Names or addresses with commas between them; this node is added where it is missing";

  CLI::App* nodes = app.add_subcommand("nodes", "Other nodes of the cluster");
  nodes->require_subcommand(1);
  CLI::App* exec =
      nodes->add_subcommand("exec", "Run a command on other nodes, under the account of the service there");
  exec->add_option("--nodes", state->nodes, kNodesHelp)->required()->type_name("LIST");
  exec->add_option("COMMAND", state->words, "The command line, or its words behind --")->required();
  exec->callback([&context, &choice, &settings, state] {
    choice.run = [&context, &settings, state] {
      NodeNames names;
      std::string error;
      if (ParseNodeList(state->nodes, names, error)) return RunNodesExec(context, settings, names, state->words);
      PrintError(context, error);
      return static_cast<int>(kExitUsage);
    };
  });
  CLI::App* keyfile = nodes->add_subcommand("keyfile", "Make the file of the nodes' common secret");
  CLI::Option* const file =
      keyfile->add_option("FILE", state->keyfile.file, "The file (nodes.key in the state directory)");
  keyfile->add_option("--account", state->keyfile.account, "The common account (CLUSTER\\qxsvc)")
      ->type_name("DOMAIN\\USER");
  keyfile->callback([&context, &choice, state, file] {
    choice.run = [&context, state, isGiven = file->count() > 0] {
      if (!isGiven || !state->keyfile.file.empty()) return RunNodesKeyfile(context, state->keyfile);
      // A script's unset variable must not give this node a secret.
      PrintError(context, "FILE: the value is empty");
      return static_cast<int>(kExitUsage);
    };
  });

  for (const char* name : {"add", "rm", "apply", "edit", "set"}) {
    app.get_subcommand(name)
        ->add_option("--nodes", spread.list, std::string("Change it on these nodes too. ") + kNodesHelp)
        ->type_name("LIST");
  }
}

int RunSpread(CliContext& context, NodeSpread& spread, const std::function<int()>& run) {
  std::string error;
  if (!spread.list.empty() && !ParseNodeList(spread.list, spread.names, error)) {
    PrintError(context, error);
    return kExitUsage;
  }
  const int exit = run();
  return exit == kExitDone && spread.failed ? static_cast<int>(kExitSomeNodesFailed) : exit;
}

}  // namespace qx
