#include "platform/database.h"

#include <sqlite3.h>

#include <utility>

#include "platform/fault_point.h"
#include "platform/file.h"
#include "platform/sqlite_file.h"

namespace platform {
namespace {

constexpr int kBusyTimeoutMs = 5000;

ErrorCode CodeFrom(int result) {
  switch (result & 0xFF) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
      return ERROR_SUCCESS;
    case SQLITE_FULL:
      return ERROR_DISK_FULL;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return ERROR_BUSY;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return ERROR_FILE_CORRUPT;
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
    case SQLITE_CANTOPEN:
      return ERROR_ACCESS_DENIED;
    case SQLITE_NOMEM:
      return ERROR_NOT_ENOUGH_MEMORY;
    case SQLITE_ERROR:
    case SQLITE_MISUSE:
    case SQLITE_RANGE:
    case SQLITE_CONSTRAINT:
      return ERROR_INVALID_FUNCTION;
    default:
      return ERROR_IO_DEVICE;
  }
}

}  // namespace

Database::Database(Database&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}

Database& Database::operator=(Database&& other) noexcept {
  if (this != &other) {
    Close();
    m_handle = std::exchange(other.m_handle, nullptr);
  }
  return *this;
}

ErrorCode Database::Open(const std::string& name, Access access) {
  Close();
  // Our own opening first: it tells why not, and makes a file that others can't read.
  File file;
  const bool writes = access == Access::kReadWrite;
  if (const ErrorCode code = file.Open(name, writes ? File::Access::kReadWrite : File::Access::kRead,
                                       writes ? File::Disposition::kOpenAlways : File::Disposition::kOpenExisting);
      code != ERROR_SUCCESS) {
    return code;
  }
  file.Close();
  if (sqlite::HasLostItsBeginning(name)) return ERROR_FILE_CORRUPT;
  const int flags = (writes ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY) | SQLITE_OPEN_NOMUTEX;
  const int result = sqlite3_open_v2(sqlite::PlainPath(name).c_str(), &m_handle, flags, nullptr);
  if (result != SQLITE_OK) {
    Close();
    return CodeFrom(result);
  }
  sqlite3_busy_timeout(m_handle, kBusyTimeoutMs);
  return ERROR_SUCCESS;
}

void Database::Close() {
  sqlite3_close(m_handle);
  m_handle = nullptr;
}

ErrorCode Database::Run(const char* sql) {
  if (const ErrorCode fault = FaultAt(Operation::kWriteFile, sql); fault != ERROR_SUCCESS) return fault;
  if (m_handle == nullptr) return ERROR_INVALID_HANDLE;
  return CodeFrom(sqlite3_exec(m_handle, sql, nullptr, nullptr, nullptr));
}

ErrorCode Database::Check() {
  Statement check;
  bool row = false;
  if (const ErrorCode code = check.Prepare(*this, "PRAGMA integrity_check(1)"); code != ERROR_SUCCESS) return code;
  if (const ErrorCode code = check.Step(row); code != ERROR_SUCCESS) return code;
  return row && check.Text(0) == "ok" ? ERROR_SUCCESS : ERROR_FILE_CORRUPT;
}

Statement::~Statement() {
  sqlite3_finalize(m_handle);
}

ErrorCode Statement::Prepare(Database& database, const char* sql) {
  sqlite3_finalize(std::exchange(m_handle, nullptr));
  if (const ErrorCode fault = FaultAt(Operation::kReadFile, sql); fault != ERROR_SUCCESS) return fault;
  if (database.m_handle == nullptr) return ERROR_INVALID_HANDLE;
  return CodeFrom(sqlite3_prepare_v2(database.m_handle, sql, -1, &m_handle, nullptr));
}

Statement& Statement::Bind(int parameter, std::int64_t value) {
  if (m_handle == nullptr) return *this;  // Step() says so
  const int result = sqlite3_bind_int64(m_handle, parameter + 1, value);
  if (m_bound == SQLITE_OK) m_bound = result;
  return *this;
}

Statement& Statement::Bind(int parameter, std::string_view text) {
  if (m_handle == nullptr) return *this;
  const int result = sqlite3_bind_text64(m_handle, parameter + 1, text.empty() ? "" : text.data(), text.size(),
                                         SQLITE_TRANSIENT, SQLITE_UTF8);
  if (m_bound == SQLITE_OK) m_bound = result;
  return *this;
}

ErrorCode Statement::Step(bool& row) {
  row = false;
  ErrorCode code = m_handle == nullptr ? ErrorCode{ERROR_INVALID_HANDLE} : CodeFrom(m_bound);
  if (code == ERROR_SUCCESS) code = FaultAt(Operation::kWriteFile, sqlite3_sql(m_handle));
  if (code == ERROR_SUCCESS) {
    const int result = sqlite3_step(m_handle);
    row = result == SQLITE_ROW;
    code = CodeFrom(result);
  }
  if (!row) Reset();
  return code;
}

ErrorCode Statement::Run() {
  bool row = false;
  const ErrorCode code = Step(row);
  Reset();
  return code;
}

void Statement::Reset() {
  if (m_handle == nullptr) return;
  sqlite3_reset(m_handle);
  sqlite3_clear_bindings(m_handle);
  m_bound = SQLITE_OK;
}

bool Statement::IsNull(int column) const {
  return sqlite3_column_type(m_handle, column) == SQLITE_NULL;
}

std::int64_t Statement::Int(int column) const {
  return sqlite3_column_int64(m_handle, column);
}

std::string Statement::Text(int column) const {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(m_handle, column));
  return text == nullptr ? std::string()
                         : std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(m_handle, column)));
}

}  // namespace platform
