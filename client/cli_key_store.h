// client/cli_key_store.h: the key store of the state directory, opened for a command, and the sentences of its codes.
//
// Threads: a command runs on one thread.
#pragma once

#include <functional>
#include <string_view>

#include "client/cli_output.h"
#include "platform/error_codes.h"

namespace qx {

// Opens the key store, runs `command` over it and closes it.
//   create   make the store when the state directory has none
//   command  its result is the exit code
//   returns  kExitNotFound: no store; kExitPermission; kExitFailed: another process keeps it, or it is damaged; all
//            told on `err`
[[nodiscard]] int WithKeyStore(CliContext& context, bool create, const std::function<int()>& command);

// The sentence of a code that the store gives.
[[nodiscard]] std::string_view RegistryErrorSentence(platform::ErrorCode code);

}  // namespace qx
