// The figure of `qxsched list` with many schedules, against moving the same bytes over the bus and printing the same text.
#include <sys/wait.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/bench_service.h"
#include "benchmarks/figure.h"
#include "common/bus_records.h"
#include "platform/bus.h"

namespace qx::bench {
namespace {

constexpr std::int64_t kFarStart = 1704906000;  // a time of day
constexpr int kSchedules = 10000;
constexpr std::size_t kPageRows = 1000;  // of qxsched
constexpr std::uint32_t kTurnMs = 50;
constexpr std::string_view kEchoName = "com.korvane.QxSchedBench";
constexpr std::string_view kEchoPath = "/com/korvane/QxSchedBench";

// Answers each call with one string of the asked length, on a connection and a thread of its own.
class Mover {
 public:
  explicit Mover(const std::string& address) {
    platform::BusInterface interface;
    interface.name = kEchoName;
    interface.methods.push_back({"Move",
                                 {{"u", "bytes"}},
                                 {{"s", "text"}},
                                 [](platform::MessageReader& call, platform::MessageWriter& reply) {
                                   std::uint32_t bytes = 0;
                                   (void)call.ReadUint32(bytes);
                                   reply.AppendString(std::string(bytes, 'x'));
                                   return platform::BusError();
                                 }});
    if (m_server.Open(platform::BusAddress::Explicit(address)) != 0 ||
        m_server.Export(kEchoPath, std::move(interface)) != 0 || m_server.RequestName(kEchoName) != 0 ||
        m_client.Open(platform::BusAddress::Explicit(address)) != 0) {
      throw std::runtime_error("no echo on the bus");
    }
    m_thread = std::thread([this] {
      while (!m_end) {
        while (m_server.Process()) {
        }
        (void)m_server.WaitForWork(kTurnMs);
      }
    });
  }
  Mover(const Mover&) = delete;
  Mover& operator=(const Mover&) = delete;
  ~Mover() {
    m_end = true;
    m_thread.join();
  }
  void Move(std::size_t bytes) {
    platform::MessageWriter call;
    platform::MessageReader reply;
    platform::BusError error;
    std::string_view text;
    if (m_client.NewCall(kEchoName, kEchoPath, kEchoName, "Move", call) != 0) throw std::runtime_error("no call");
    call.AppendUint32(static_cast<std::uint32_t>(bytes));
    if (m_client.Call(std::move(call), reply, error) != 0 || reply.ReadString(text) != 0 || text.size() != bytes) {
      throw std::runtime_error("no echo: " + error.text);
    }
  }

 private:
  platform::BusConnection m_server;
  platform::BusConnection m_client;
  std::atomic<bool> m_end = false;
  std::thread m_thread;
};

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
    // The bytes of each page that qxsched reads.
    std::vector<ListRow> rows;
    if (m_service.Client().ListAll(rows) != kStatusOk || rows.size() != kSchedules) throw std::runtime_error("no list");
    platform::BusConnection measure;
    if (measure.Open(platform::BusAddress::Explicit(m_service.BusAddress())) != 0) throw std::runtime_error("no bus");
    for (std::size_t i = 0; i < rows.size(); i += kPageRows) {
      platform::MessageWriter page;
      if (measure.NewCall(kEchoName, kEchoPath, kEchoName, "Page", page) != 0) throw std::runtime_error("no message");
      page.OpenArray("(" + std::string(kListRowContents) + ")");
      for (std::size_t row = i; row < std::min(i + kPageRows, rows.size()); ++row) AppendListRow(page, rows[row]);
      page.Close();
      m_pages.push_back(page.BytesSoFar());
    }
    m_mover = std::make_unique<Mover>(m_service.BusAddress());
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
  // Milliseconds of moving as many bytes in as many calls, and of a program that prints the same text.
  double Reference() {
    const double begin = SteadyNanoseconds();
    for (const std::size_t bytes : m_pages) m_mover->Move(bytes);
    const double moved = (SteadyNanoseconds() - begin) / 1e6;
    return moved + RunShell("exec cat '" + Text() + "' > '" + Text() + ".copy'");
  }

 private:
  [[nodiscard]] std::string Text() const { return m_service.Directory() + "/list.txt"; }
  Service m_service;
  std::vector<std::size_t> m_pages;
  std::unique_ptr<Mover> m_mover;
};

}  // namespace

std::vector<Figure> ListFigures() {
  const auto bench = std::make_shared<std::unique_ptr<ListBench>>();
  const auto made = [bench]() -> ListBench& {
    if (!*bench) *bench = std::make_unique<ListBench>();
    return **bench;
  };
  return {{"qxsched-list/10k-schedules", "moving the same bytes over the bus, and cat of the same text", "ms", 3,
           [made] { return made().Ours(); }, [made] { return made().Reference(); }, 11}};
}

}  // namespace qx::bench
