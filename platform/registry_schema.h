// platform/registry_schema.h: what the key store's file holds, and whose it is.
//
// For the files of the store alone. Threads: one connection serves one thread at a time.
#pragma once

#include <string>

#include "platform/registry_connection.h"

namespace platform::registry {

// Whose file this is. Changes nothing in it.
//   isNew    nothing was ever written to it
//   returns  ERROR_REGISTRY_CORRUPT: no store; ERROR_NOT_SUPPORTED (50): a newer one
[[nodiscard]] ErrorCode CheckOrigin(sqlite3* db, const std::string& path, bool& isNew, std::string& why);
// Makes tables, roots and first keys; nothing where another process was first. All or nothing.
[[nodiscard]] ErrorCode MakeSchema(sqlite3* db);

inline constexpr const char* kInsertKeySql = "INSERT INTO keys(parent, name, fold) VALUES(?,?,?)";

}  // namespace platform::registry
