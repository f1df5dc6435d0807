// Figures of the start with many schedules, against reading the same files and rows and nothing else.
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmarks/bench_service.h"
#include "benchmarks/figure.h"

namespace qx::bench {
namespace {

constexpr std::int64_t kFarStart = 1704906000;  // a time of day
constexpr int kFew = 10000;
constexpr int kMany = 100000;

bool DropCaches() {
  sync();
  const int fd = open("/proc/sys/vm/drop_caches", O_WRONLY | O_CLOEXEC);
  const bool done = fd >= 0 && write(fd, "3", 1) == 1;
  if (fd >= 0) close(fd);
  return done;
}

bool MayDropCaches() { return access("/proc/sys/vm/drop_caches", W_OK) == 0; }

class Store {
 public:
  explicit Store(int count) {
    m_files = Fill(m_service, count, DailyAt(kFarStart, m_service.Directory(), "/bin/true"));
  }

  double Start() {
    const double taken = m_service.Start();
    std::vector<ListRow> rows;
    const Status listed = m_service.Client().ListInfo(u"", 1, rows);
    m_service.Stop();
    if (listed != kStatusOk || rows.size() != 1) throw std::runtime_error("no list");
    return taken;
  }

  // One thread opens, reads and closes every file, and steps over every row.
  double RawRead() {
    const double begin = SteadyNanoseconds();
    std::size_t bytes = 0;
    std::vector<char> buffer(65536);
    for (const std::string& file : m_files) {
      const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
      for (ssize_t got = 0; (got = read(fd, buffer.data(), buffer.size())) > 0;) bytes += static_cast<std::size_t>(got);
      close(fd);
    }
    sqlite3* db = nullptr;
    sqlite3_stmt* scan = nullptr;
    if (sqlite3_open_v2((m_service.Root() + "/registry.db").c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK ||
        sqlite3_prepare_v2(db, "SELECT key, name, type, data FROM vals", -1, &scan, nullptr) != SQLITE_OK) {
      throw std::runtime_error("no rows");
    }
    while (sqlite3_step(scan) == SQLITE_ROW) bytes += static_cast<std::size_t>(sqlite3_column_bytes(scan, 3));
    sqlite3_finalize(scan);
    sqlite3_close(db);
    Keep(bytes);
    return (SteadyNanoseconds() - begin) / 1e6;
  }

 private:
  Service m_service;
  std::vector<std::string> m_files;
};

Store& Of(int count) {
  static std::unique_ptr<Store> few, many;
  std::unique_ptr<Store>& store = count == kFew ? few : many;
  if (!store) store = std::make_unique<Store>(count);
  return *store;
}

double Cold(double (Store::*measured)()) {
  Store& store = Of(kMany);
  if (!DropCaches()) throw std::runtime_error("the caches can't be dropped");
  return (store.*measured)();
}

}  // namespace

std::vector<Figure> StartFigures() {
  std::vector<Figure> figures = {
      {"start/100k-warm", "one thread reads the files and rows", "ms", 2.5, [] { return Of(kMany).Start(); },
       [] { return Of(kMany).RawRead(); }},
      {"start/100k-of-10k", "the start with 10k schedules", "ms", 11, [] { return Of(kMany).Start(); },
       [] { return Of(kFew).Start(); }},
  };
  if (MayDropCaches()) {
    figures.push_back({"start/100k-cold", "one thread reads them, caches dropped", "ms", 1.0,
                       [] { return Cold(&Store::Start); }, [] { return Cold(&Store::RawRead); }});
  }
  return figures;
}

}  // namespace qx::bench
