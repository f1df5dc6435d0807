// platform/database.h: a file of tables that belongs to a program of ours, on SQLite 3.
//
// Readers in other processes see what was committed while one process writes. What was written survives the end of the
// process by any signal; a power cut may take the last seconds.
// Codes that every function may return beside those told: ERROR_NOT_ENOUGH_MEMORY (8), ERROR_BUSY (170) after five
// seconds of somebody else's write, ERROR_DISK_FULL (112) also at the bound of "PRAGMA max_page_count",
// ERROR_FILE_CORRUPT (1392) for a damaged file and one that isn't of SQLite, ERROR_ACCESS_DENIED (5),
// ERROR_INVALID_FUNCTION (1) for a statement that SQLite refuses, ERROR_IO_DEVICE (1117). Threads: a database and its
// statements belong to one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/error_codes.h"

struct sqlite3;
struct sqlite3_stmt;

namespace platform {

inline constexpr ErrorCode ERROR_FILE_CORRUPT = 1392;  // of winerror.h

class Database {
 public:
  enum class Access { kRead, kReadWrite };

  Database() = default;
  Database(Database&& other) noexcept;
  Database& operator=(Database&& other) noexcept;
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;
  ~Database() { Close(); }

  // Opens a file; kReadWrite makes one that is missing, with mode 0600. Asks Operation::kCreateFile.
  //   name     a kernel name
  //   returns  0; ERROR_FILE_NOT_FOUND (2) and ERROR_PATH_NOT_FOUND (3); ERROR_FILE_CORRUPT (1392): an empty file
  //            beside a write-ahead log, which stays. A damaged file may show only later.
  [[nodiscard]] ErrorCode Open(const std::string& name, Access access);
  // Statements on it have to be gone.
  void Close();
  [[nodiscard]] bool IsOpen() const { return m_handle != nullptr; }

  // Carries out statements, with ";" between them, that take and give nothing. Asks Operation::kWriteFile.
  [[nodiscard]] ErrorCode Run(const char* sql);
  // Looks at every page, and compares each index with its table: 0 or ERROR_FILE_CORRUPT (1392).
  [[nodiscard]] ErrorCode Check();

 private:
  friend class Statement;
  sqlite3* m_handle = nullptr;
};

// One statement, made once and run any number of times. Columns and parameters count from 0.
class Statement {
 public:
  Statement() = default;
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement();

  // Asks Operation::kReadFile: the tables are looked up.
  [[nodiscard]] ErrorCode Prepare(Database& database, const char* sql);

  // Values of the next run, in any order; one that isn't given is null.
  Statement& Bind(int parameter, std::int64_t value);
  Statement& Bind(int parameter, std::string_view text);  // copied

  // The next row, or the end: then the statement is ready for the next run, its parameters unset. After a failure too.
  // Asks Operation::kWriteFile.
  [[nodiscard]] ErrorCode Step(bool& row);
  // Runs a statement whose rows nobody wants.
  [[nodiscard]] ErrorCode Run();
  // Leaves the rows that are left.
  void Reset();

  // Of the present row.
  [[nodiscard]] bool IsNull(int column) const;
  [[nodiscard]] std::int64_t Int(int column) const;
  [[nodiscard]] std::string Text(int column) const;

 private:
  sqlite3_stmt* m_handle = nullptr;
  int m_bound = 0;  // the first failure of a Bind
};

}  // namespace platform
