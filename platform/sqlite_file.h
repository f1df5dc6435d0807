// platform/sqlite_file.h: what has to be known of a file before SQLite is handed it.
//
// For the key store and for database.h. Threads: any.
#pragma once

#include <string>

namespace platform::sqlite {

// Whether the file is empty while its write-ahead log holds something, which no store of ours comes to by itself. SQLite
// takes such a log for a leftover and removes it, so nothing may open it.
[[nodiscard]] bool HasLostItsBeginning(const std::string& path);

// A file's name as SQLite takes it: it gives some names a meaning of their own (":memory:", "file:...").
[[nodiscard]] std::string PlainPath(const std::string& path);

}  // namespace platform::sqlite
