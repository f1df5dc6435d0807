// Figures of durable changes, against the same files and values written with sync and one echo over the bus.
#include <fcntl.h>
#include <sqlite3.h>
#include <stdio.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmarks/bench_service.h"
#include "benchmarks/figure.h"
#include "platform/bus.h"
#include "platform/guid.h"
#include "platform/text.h"

namespace qx::bench {
namespace {

constexpr std::int64_t kFarStart = 1704906000;  // a time of day
constexpr int kChangesARound = 4;  // few, in many rounds: the disk is shared with others, whose bursts hit both alike
constexpr int kRounds = 45;
constexpr int kFew = 100;
constexpr int kMany = 100000;

struct Value {
  const char* name;
  bool isText;
  bool isModified;  // by a modification too
};
constexpr Value kValues[] = {
    {"Application", true, false},   {"ObjectID", true, false},       {"TaskOPCODE", false, false},
    {"LastOperation", false, true}, {"OperationTime", false, true},  {"UseGUID", false, false},
    {"WrapperBinary", true, true},  {"XMLFilePathName", true, true}, {"Parameters", true, true},
    {"PreScript", true, true},      {"PostScript", true, true},
};

void Demand(bool good, const char* what) {
  if (!good) throw std::runtime_error(what);
}

// The same values in one transaction of a database with the same promise.
class Values {
 public:
  explicit Values(const std::string& path) {
    Demand(sqlite3_open(path.c_str(), &m_db) == SQLITE_OK, "no database");
    Run("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
        "CREATE TABLE vals(key TEXT, name TEXT, type INTEGER, data BLOB, PRIMARY KEY(key, name)) WITHOUT ROWID;");
    Prepare("INSERT OR REPLACE INTO vals VALUES(?,?,?,?)", m_set);
    Prepare("DELETE FROM vals WHERE key=?", m_delete);
  }
  Values(const Values&) = delete;
  Values& operator=(const Values&) = delete;
  ~Values() {
    sqlite3_finalize(m_set);
    sqlite3_finalize(m_delete);
    sqlite3_close(m_db);
  }

  enum class Which { kAll, kModified };
  void Set(const std::string& key, const std::string& directory, Which which = Which::kAll) {
    Run("BEGIN IMMEDIATE");
    const std::u16string text = platform::WideFromUtf8(directory + "/");
    const std::uint32_t number = ++m_number;
    for (const Value& value : kValues) {
      if (which == Which::kModified && !value.isModified) continue;
      if (value.isText) {
        SetOne(key, value.name, 1, text.data(), 2 * text.size() + 2);
      } else {
        SetOne(key, value.name, 4, &number, sizeof number);
      }
    }
    Run("COMMIT");
  }
  void Delete(const std::string& key) {
    Run("BEGIN IMMEDIATE");
    sqlite3_bind_text(m_delete, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    Demand(sqlite3_step(m_delete) == SQLITE_DONE, "not deleted");
    sqlite3_reset(m_delete);
    Run("COMMIT");
  }

 private:
  void Run(const char* sql) { Demand(sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql); }
  void Prepare(const char* sql, sqlite3_stmt*& out) {
    Demand(sqlite3_prepare_v2(m_db, sql, -1, &out, nullptr) == SQLITE_OK, sql);
  }
  void SetOne(const std::string& key, const char* name, int type, const void* data, std::size_t size) {
    sqlite3_bind_text(m_set, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    sqlite3_bind_text(m_set, 2, name, -1, SQLITE_STATIC);
    sqlite3_bind_int(m_set, 3, type);
    sqlite3_bind_blob(m_set, 4, data, static_cast<int>(size), SQLITE_STATIC);
    Demand(sqlite3_step(m_set) == SQLITE_DONE, "not set");
    sqlite3_reset(m_set);
  }

  sqlite3* m_db = nullptr;
  sqlite3_stmt* m_set = nullptr;
  sqlite3_stmt* m_delete = nullptr;
  std::uint32_t m_number = 0;
};

class Store {
 public:
  explicit Store(int count) {
    const std::vector<std::string> files =
        Fill(m_service, count, DailyAt(kFarStart, m_service.Directory(), "/bin/true"));
    std::ifstream in(files.front(), std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    m_text = text.str();
    sync();  // so that no round meets the writing back of the fixture
    m_values = std::make_unique<Values>(m_service.Directory() + "/yardstick.db");
    m_service.Start();
    Demand(m_echo.Open(platform::BusAddress::Explicit(m_service.BusAddress())) == 0, "no bus");
    Set();
    Delete();  // warms both ways up
    Create();
    Remove();
  }

  // Milliseconds a change, by the service.
  double Create() {
    const SCHEDULE_OBJECT schedule = DailyAt(kFarStart, m_service.Directory(), "/bin/true");
    return Timed([&] {
      Demand(m_service.Client().CreateSchedule(schedule, m_ids.emplace_back()) == kStatusOk, "not created");
    });
  }
  double Remove() {
    return Timed([&] {
      Demand(m_service.Client().DeleteSchedule(m_ids.back()) == kStatusOk, "not deleted");
      m_ids.pop_back();
    });
  }

  // Of one schedule, with other parameters each time.
  double Modify() {
    SCHEDULE_OBJECT schedule = DailyAt(kFarStart, m_service.Directory(), "/bin/true");
    if (m_ids.empty()) {
      Demand(m_service.Client().CreateSchedule(schedule, m_ids.emplace_back()) == kStatusOk, "not created");
    }
    return Timed([&] {
      schedule.bstrParameters = platform::WideFromUtf8(std::to_string(++m_change));
      Demand(m_service.Client().ModifySchedule(m_ids.front(), schedule) == kStatusOk, "not modified");
    });
  }

  // The same by hand.
  double Change() {
    if (m_keys.empty()) {
      m_keys.emplace_back("{changed}");
      ReplaceFile(m_keys.back());
      m_values->Set(m_keys.back(), m_service.Directory());
    }
    return Timed([&] {
      ReplaceFile(m_keys.front());
      m_values->Set(m_keys.front(), m_service.Directory(), Values::Which::kModified);
      Echo();
    });
  }
  double Set() {
    return Timed([&] {
      ScheduleGuid id{};
      Demand(platform::CreateGuid(id) == 0, "no GUID");
      m_keys.push_back(platform::Utf8FromWide(platform::GuidText(id)));
      ReplaceFile(m_keys.back());
      m_values->Set(m_keys.back(), m_service.Directory());
      Echo();
    });
  }
  double Delete() {
    return Timed([&] {
      Demand(unlink((m_service.Directory() + "/" + m_keys.back() + ".ini").c_str()) == 0, "not unlinked");
      SyncDirectory();
      m_values->Delete(m_keys.back());
      m_keys.pop_back();
      Echo();
    });
  }

 private:
  template <typename Change>
  static double Timed(Change change) {
    const double begin = SteadyNanoseconds();
    for (int i = 0; i < kChangesARound; ++i) change();
    return (SteadyNanoseconds() - begin) / 1e6 / kChangesARound;
  }

  void ReplaceFile(const std::string& name) {
    const std::string path = m_service.Directory() + "/" + name + ".ini";
    const std::string fresh = path + ".new";
    const int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    Demand(fd >= 0 && write(fd, m_text.data(), m_text.size()) == static_cast<ssize_t>(m_text.size()) &&
               fdatasync(fd) == 0 && close(fd) == 0 && rename(fresh.c_str(), path.c_str()) == 0,
           "not replaced");
    SyncDirectory();
  }
  void SyncDirectory() {
    const int fd = open(m_service.Directory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    Demand(fd >= 0 && fsync(fd) == 0 && close(fd) == 0, "not synced");
  }
  void Echo() {
    platform::MessageWriter call;
    platform::MessageReader reply;
    platform::BusError error;
    Demand(m_echo.NewCall("com.korvane.QxSched1", "/com/korvane/QxSched1", "org.freedesktop.DBus.Peer", "Ping", call) ==
                   0 &&
               m_echo.Call(std::move(call), reply, error) == 0,
           "no echo");
  }

  Service m_service;
  std::string m_text;
  std::unique_ptr<Values> m_values;
  platform::BusConnection m_echo;
  std::vector<ScheduleGuid> m_ids;
  std::vector<std::string> m_keys;
  int m_change = 0;
};

Store& Of(int count) {
  static std::unique_ptr<Store> few, many;
  std::unique_ptr<Store>& store = count == kFew ? few : many;
  if (!store) store = std::make_unique<Store>(count);
  return *store;
}

double Remove(int count) {
  Of(count).Create();
  return Of(count).Remove();
}

double Delete(int count) {
  Of(count).Set();
  return Of(count).Delete();
}

}  // namespace

std::vector<Figure> StoreFigures() {
  constexpr char kYardstick[] = "the same files, values and an echo";
  constexpr char kAlone[] = "the same with 100 schedules";
  return {
      {"durable/create", kYardstick, "ms", 1.25, [] { return Of(kFew).Create(); }, [] { return Of(kFew).Set(); }, kRounds},
      {"durable/delete", kYardstick, "ms", 1.25, [] { return Remove(kFew); }, [] { return Delete(kFew); }, kRounds},
      {"durable/modify", kYardstick, "ms", 1.25, [] { return Of(kFew).Modify(); }, [] { return Of(kFew).Change(); }, kRounds},
      {"durable/create-beside-100k", kAlone, "ms", 1.1, [] { return Of(kMany).Create(); },
       [] { return Of(kFew).Create(); }, kRounds},
      {"durable/delete-beside-100k", kAlone, "ms", 1.1, [] { return Remove(kMany); }, [] { return Remove(kFew); }, kRounds},
      {"durable/modify-beside-100k", kAlone, "ms", 1.1, [] { return Of(kMany).Modify(); },
       [] { return Of(kFew).Modify(); }, kRounds},
  };
}

}  // namespace qx::bench
