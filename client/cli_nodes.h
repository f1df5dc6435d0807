// client/cli_nodes.h: changes carried to several nodes: `--nodes` on the changing commands, `nodes exec`, `nodes
// keyfile`.
//
// With --nodes every creation, modification and deletion of a command goes to the named nodes too, after this one. Each
// node gets a result line; a command that was done here and not on every other node ends with kExitSomeNodesFailed.
// Threads: a command runs on one thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "client/cli_online.h"
#include "client/cli_output.h"
#include "client/service_link.h"

namespace CLI {
class App;
}

namespace qx {

struct CommandChoice;

// Of a value, which stands in the body as it is, what the other nodes' parser refuses or, as "&amp;", reads as another
// text, for a message; empty for nothing.
[[nodiscard]] std::string_view WhatCantBeCarried(std::u16string_view text);

// The longest body of an operation that a node takes, in bytes of UTF-8 with its NUL.
inline constexpr std::size_t kLongestNodeBody = 4900;
// The length of the body that a creation or modification of this record sends.
[[nodiscard]] std::size_t NodeBodySize(const SCHEDULE_OBJECT& schedule);
// The length of the body that performing a command sends.
[[nodiscard]] std::size_t NodeBodySize(std::u16string_view command);

// The names of a list "a,b": this node, "localhost" in whatever letters, is added where it is missing, in front.
//   error    a sentence for a name that is empty, stands twice, isn't UTF-8, or has blanks or control characters
//   returns  false then
[[nodiscard]] bool ParseNodeList(const std::string& text, NodeNames& names, std::string& error);

// What one run of a command carries to which nodes.
struct NodeSpread {
  std::string list;     // as --nodes gave it; empty for none
  NodeNames names;      // empty: this node alone
  bool failed = false;  // a node didn't do it
};

// The connector's links, whose changes go to the nodes of `spread`, as far as it names any.
//   context, spread  outlive the links
[[nodiscard]] ServiceConnector SpreadOverNodes(ServiceConnector connect, CliContext& context, NodeSpread& spread);

// Runs a command line on the named nodes, this one excepted.
//   words  one: a whole command line; several: words, quoted where they need it
[[nodiscard]] int RunNodesExec(CliContext& context, const OnlineSettings& settings, const NodeNames& names,
                               const std::vector<std::string>& words);

struct KeyfileArguments {
  std::string file;  // empty: nodes.key in the state directory
  std::string account = "CLUSTER\\qxsvc";
};
// Makes a credentials file with a random secret, which is to be copied to every node.
[[nodiscard]] int RunNodesKeyfile(CliContext& context, const KeyfileArguments& arguments);

// Gives `nodes ...` its name and arguments, and --nodes to the changing commands, which the application has by now.
// `settings` connect by SpreadOverNodes() with the same `spread`; all outlive `app`.
void AddNodeCommands(CLI::App& app, CliContext& context, CommandChoice& choice, const OnlineSettings& settings,
                     NodeSpread& spread);
// Reads the list of nodes, runs the command and says when a node didn't do it.
[[nodiscard]] int RunSpread(CliContext& context, NodeSpread& spread, const std::function<int()>& run);

}  // namespace qx
