#include "platform/registry_log_room.h"

#include <algorithm>
#include <array>

#include "platform/fault_point.h"
#include "platform/registry_call.h"

namespace platform {
namespace registry {
namespace {

int FillUpTo(sqlite3_file* file, sqlite3_int64 end) {
  static constexpr std::array<unsigned char, 65536> kZeros{};  // written, since only bytes that were have their blocks
  sqlite3_int64 size = 0;
  int rc = file->pMethods->xFileSize(file, &size);
  if (rc != SQLITE_OK || size >= end) return rc;
  while (rc == SQLITE_OK && size < end) {
    const auto piece = std::min<sqlite3_int64>(end - size, kZeros.size());
    rc = file->pMethods->xWrite(file, kZeros.data(), static_cast<int>(piece), size);
    size += piece;
  }
  return rc == SQLITE_OK ? file->pMethods->xSync(file, SQLITE_SYNC_NORMAL | SQLITE_SYNC_DATAONLY) : rc;
}

}  // namespace

// Whoever reads the log takes zeros for its end. They are written under the lock of writers: a frame of another process
// must not come to lie where they go.
ErrorCode Store::MakeLogRoom() {
  if (const ErrorCode code = Settle(); code != ERROR_SUCCESS) return code;
  if (m_batch) return ERROR_BUSY;
  if (const int rc = Run(kBegin); rc != SQLITE_DONE) return CodeFromSqlite(rc);
  sqlite3_file* log = nullptr;
  int rc = sqlite3_file_control(m_db.get(), "main", SQLITE_FCNTL_JOURNAL_POINTER, &log);
  if (rc == SQLITE_OK && log != nullptr && log->pMethods != nullptr) rc = FillUpTo(log, kLogRoom);
  (void)Run(kRollback);
  return CodeFromSqlite(rc);
}

}  // namespace registry

ErrorCode MakeRegistryLogRoom() {
  const MutexLock lock(registry::g_lock);
  if (!registry::g_store) return ERROR_BADDB;
  if (const ErrorCode code = FaultAt(Operation::kWriteFile, registry::g_store->Path()); code != ERROR_SUCCESS) {
    return code;
  }
  return registry::g_store->MakeLogRoom();
}

}  // namespace platform
