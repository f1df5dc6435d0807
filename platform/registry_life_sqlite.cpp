// The store of the process: opened, closed, checked (registry.h).
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "platform/fault_point.h"
#include "platform/registry.h"
#include "platform/registry_call.h"
#include "platform/registry_connection.h"
#include "platform/registry_scan.h"
#include "platform/registry_schema.h"
#include "platform/testing/registry_hook.h"

namespace platform {
namespace {

using registry::AwaitTurn;
using registry::CheckOrigin;
using registry::CodeFromSqlite;
using registry::Connect;
using registry::Connection;
using registry::g_lock;
using registry::g_store;
using registry::Prepare;
using registry::Prepared;
using registry::Store;
using registry::Use;

}  // namespace

ErrorCode OpenRegistryStore(const std::string& nativePath, std::string* why) {
  std::string unused;
  std::string& reason = why != nullptr ? *why : unused;
  if (const ErrorCode code = FaultAt(Operation::kRegOpenStore, nativePath); code != ERROR_SUCCESS) {
    reason = nativePath + ": can't be opened";
    return code;
  }
  const MutexLock guard(g_lock);
  if (g_store) {
    reason = nativePath + ": a store is open already";
    return ERROR_BUSY;
  }
  auto store = std::make_unique<Store>();
  if (const ErrorCode code = store->Open(nativePath, reason); code != ERROR_SUCCESS) return code;
  g_store = std::move(store);
  return ERROR_SUCCESS;
}

ErrorCode CloseRegistryStore() {
  MutexLock guard(g_lock);
  ErrorCode code = AwaitTurn(guard);
  if (!g_store) return ERROR_BADDB;
  if (code == ERROR_SUCCESS) {
    code = g_store->Shut();
  } else if (g_store->OpenBatch()) {
    g_store->Lose(code);
  }
  g_store.reset();
  return code;
}

bool IsRegistryStoreOpen() {
  const MutexLock guard(g_lock);
  return g_store != nullptr;
}

ErrorCode LimitRegistryGrowth(std::uint32_t morePages) {
  const MutexLock guard(g_lock);
  return g_store ? g_store->LimitGrowth(morePages) : ERROR_BADDB;
}

ErrorCode CheckRegistryStore(const std::string& nativePath, std::string& where) {
  if (const ErrorCode code = FaultAt(Operation::kRegOpenStore, nativePath); code != ERROR_SUCCESS) return code;
  struct stat status {};
  if (::stat(nativePath.c_str(), &status) != 0) {
    where = nativePath + ": " + std::strerror(errno);
    return ErrorCodeFromErrno(errno);
  }
  std::string found;
  Connection db;
  bool isNew = false;
  ErrorCode code = Connect(nativePath, db, found);
  if (code == ERROR_SUCCESS) code = CheckOrigin(db.get(), nativePath, isNew, found);
  struct Check {
    const char* sql;
    bool isRowGood;  // a row "ok" is the good answer, else no row is
  };
  for (const Check& check : {Check{"PRAGMA quick_check(20)", true}, Check{"PRAGMA foreign_key_check", false}}) {
    if (code != ERROR_SUCCESS) break;
    Prepared statement;
    int rc = Prepare(db.get(), check.sql, 0, statement);
    Use use(statement);
    while (rc == SQLITE_OK && (rc = use.Step()) == SQLITE_ROW) {
      rc = SQLITE_OK;
      const std::string text = use.Text(0);
      if (check.isRowGood && text == "ok") continue;
      if (!found.empty()) found += '\n';
      found += nativePath + ": " + (check.isRowGood ? text : text + ": row " + use.Text(1) + " has no key");
      code = ERROR_REGISTRY_CORRUPT;
    }
    if (rc != SQLITE_DONE) {
      if (!found.empty()) found += '\n';
      found += nativePath + ": " + sqlite3_errmsg(db.get());
      code = rc == SQLITE_ERROR ? ERROR_REGISTRY_CORRUPT : CodeFromSqlite(rc);  // the tables aren't those of a store
    }
  }
  where = found;
  return code;
}

std::string RegistryStoreFile() {
  const MutexLock guard(g_lock);
  return g_store ? g_store->Path() : std::string();
}

}  // namespace platform
