// The figure of `qxsched list` with many schedules, against moving the same bytes over the bus and printing the same text.
#include <sys/wait.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmarks/bench_service.h"
#include "benchmarks/figure.h"
#include "benchmarks/kept_messages.h"
#include "common/bus_records.h"
#include "platform/bus.h"

namespace qx::bench {
namespace {

constexpr std::int64_t kFarStart = 1704906000;  // a time of day
constexpr int kSchedules = 10000;
constexpr std::size_t kPageRows = 1000;  // of qxsched

double RunShell(const std::string& script) {
  const double begin = SteadyNanoseconds();
  int status = 0;
  (void)waitpid(Spawn({"/bin/sh", "-c", script}), &status, 0);
  if (status != 0) throw std::runtime_error("failed: " + script);
  return (SteadyNanoseconds() - begin) / 1e6;
}

class ListBench {
 public:
  ListBench() {
    (void)Fill(m_service, kSchedules, DailyAt(kFarStart, m_service.Directory(), "/bin/true"));
    m_service.Start();
    // The pages as qxsched reads them.
    std::vector<ListRow> rows;
    if (m_service.Client().ListAll(rows) != kStatusOk || rows.size() != kSchedules) throw std::runtime_error("no list");
    m_kept = std::make_unique<KeptMessages>(m_service.BusAddress());
    for (std::size_t i = 0; i < rows.size(); i += kPageRows) {
      m_pages.push_back(m_kept->Keep([&](platform::MessageWriter& page) {
        page.OpenArray("(" + std::string(kListRowContents) + ")");
        for (std::size_t row = i; row < std::min(i + kPageRows, rows.size()); ++row) AppendListRow(page, rows[row]);
        page.Close();
      }));
    }
  }

  // Milliseconds of the whole program, its output going into a file.
  double Ours() {
    const double taken = RunShell("exec '" + ProgramBeside("qxsched") + "' --root '" + m_service.Root() + "' --bus '" +
                                  m_service.BusAddress() + "' list > '" + Text() + "'");
    std::ifstream in(Text());
    std::string line;
    int lines = 0;
    while (std::getline(in, line)) ++lines;
    if (lines < kSchedules) throw std::runtime_error("the list isn't whole");
    return taken;
  }
  // Milliseconds of moving the same pages, and of a program that prints the same text.
  double Reference() {
    const double begin = SteadyNanoseconds();
    for (const std::uint32_t page : m_pages) m_kept->Move(page);
    const double moved = (SteadyNanoseconds() - begin) / 1e6;
    return moved + RunShell("exec cat '" + Text() + "' > '" + Text() + ".copy'");
  }

 private:
  [[nodiscard]] std::string Text() const { return m_service.Directory() + "/list.txt"; }
  Service m_service;
  std::vector<std::uint32_t> m_pages;
  std::unique_ptr<KeptMessages> m_kept;
};

}  // namespace

std::vector<Figure> ListFigures() {
  const auto bench = std::make_shared<std::unique_ptr<ListBench>>();
  const auto made = [bench]() -> ListBench& {
    if (!*bench) *bench = std::make_unique<ListBench>();
    return **bench;
  };
  return {{"qxsched-list/10k-schedules", "the same bytes from a bare server, and cat of the same text", "ms", 3,
           [made] { return made().Ours(); }, [made] { return made().Reference(); }, 11}};
}

}  // namespace qx::bench
