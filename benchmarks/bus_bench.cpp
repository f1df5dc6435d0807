// Figures of the bus: a query, the list in pages and a signal after a launch, each against a bare server on the same bus
// that moves the same bytes, or sends the same signal, and does nothing else.
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmarks/bench_service.h"
#include "benchmarks/figure.h"
#include "benchmarks/kept_messages.h"
#include "common/bus_records.h"
#include "platform/bus.h"
#include "platform/text.h"

namespace qx::bench {
namespace {

using platform::BusConnection;
using platform::BusError;
using platform::MessageReader;
using platform::MessageWriter;

constexpr char kBareName[] = "com.korvane.QxBench1";
constexpr char kBarePath[] = "/bare";
constexpr int kCallsARound = 200;
constexpr int kManySchedules = 100000;
constexpr std::int64_t kFarAhead = 6 * 3600;

void Demand(bool good, const char* what) {
  if (!good) throw std::runtime_error(what);
}

// The server's body, in a process of its own; never returns.
//   Echo(s)    gives the text back
//   Launch(x)  waits for that second, starts /bin/true and sends the signal Launched
[[noreturn]] void Serve(const platform::BusAddress& address) {
  BusConnection connection;
  if (connection.Open(address) != 0) _exit(1);
  platform::BusInterface served;
  served.name = kBareName;
  served.methods.push_back({"Echo", {{"s", "text"}}, {{"s", "text"}}, [](MessageReader& call, MessageWriter& reply) {
                              std::string_view text;
                              (void)call.ReadString(text);
                              reply.AppendString(text);
                              return BusError();
                            }});
  served.methods.push_back({"Launch", {{"x", "second"}}, {}, [&](MessageReader& call, MessageWriter&) {
                              std::int64_t second = 0;
                              (void)call.ReadInt64(second);
                              const timespec at{second, 0};
                              clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &at, nullptr);
                              const pid_t job = Spawn({"/bin/true"}, Session::kNew);  // as a job of the service
                              MessageWriter signal;
                              (void)connection.NewSignal(kBarePath, kBareName, "Launched", signal);
                              (void)connection.Send(std::move(signal));
                              while (connection.Process()) {
                              }
                              waitpid(job, nullptr, 0);
                              return BusError();
                            }});
  if (connection.Export(kBarePath, std::move(served)) != 0 || connection.RequestName(kBareName) != 0) _exit(1);
  while (connection.IsOpen()) {
    while (connection.Process()) {
    }
    (void)connection.WaitForWork(60000);
  }
  _exit(0);
}

// The bare server and a client of it.
class Bare {
 public:
  explicit Bare(const platform::BusAddress& address) {
    m_process = fork();
    if (m_process == 0) Serve(address);
    Demand(m_connection.Open(address) == 0, "no bus");
    const timespec pause{0, 1'000'000};
    for (int i = 0; i < 10000; ++i) {
      if (Try("Echo", [](MessageWriter& call) { call.AppendString("x"); })) return;
      nanosleep(&pause, nullptr);
    }
    throw std::runtime_error("no bare server");
  }
  ~Bare() {
    kill(m_process, SIGKILL);
    waitpid(m_process, nullptr, 0);
  }
  BusConnection& Connection() { return m_connection; }

  MessageWriter NewCall(const char* member) {
    MessageWriter call;
    Demand(m_connection.NewCall(kBareName, kBarePath, kBareName, member, call) == 0, "no call");
    return call;
  }

 private:
  template <typename Write>
  bool Try(const char* member, Write write) {
    MessageWriter call = NewCall(member);
    write(call);
    MessageReader reply;
    BusError error;
    std::string_view text;
    return m_connection.Call(std::move(call), reply, error) == 0 && reply.ReadString(text) == 0;
  }

  pid_t m_process = -1;
  BusConnection m_connection;
};

std::int64_t FarFromNow() { return WallNanoseconds() / kNanosecondsPerSecond + kFarAhead; }

// --- one query ---

class Query {
 public:
  Query() {
    m_service.Start();
    m_kept = std::make_unique<KeptMessages>(m_service.BusAddress());
    SCHEDULE_OBJECT schedule = DailyAt(FarFromNow(), m_service.Directory(), "/usr/lib/qx/snapwrap", "-v");
    schedule.bstrDescription = u"Quarter data, volume 17";
    schedule.bstrApplication = u"snapshot";
    schedule.bstrObjectID = u"vol-17";
    Demand(m_service.Client().CreateSchedule(schedule, m_id) == kStatusOk, "not created");
    ScheduleInfo info;
    Demand(m_service.Client().GetScheduleInfo(m_id, info) == kStatusOk, "not read");
    m_record = m_kept->Keep([&](MessageWriter& call) { AppendSchedule(call, info.records()[0]); });
  }
  // Microseconds a call.
  double Ours() {
    const double begin = SteadyNanoseconds();
    for (int i = 0; i < kCallsARound; ++i) {
      ScheduleInfo info;
      Demand(m_service.Client().GetScheduleInfo(m_id, info) == kStatusOk, "not read");
    }
    return (SteadyNanoseconds() - begin) / 1e3 / kCallsARound;
  }
  double Reference() {
    const double begin = SteadyNanoseconds();
    for (int i = 0; i < kCallsARound; ++i) m_kept->Move(m_record);
    return (SteadyNanoseconds() - begin) / 1e3 / kCallsARound;
  }

 private:
  Service m_service;
  std::unique_ptr<KeptMessages> m_kept;
  ScheduleGuid m_id{};
  std::uint32_t m_record = 0;
};

// --- the list in pages ---

class Pages {
 public:
  Pages() {
    SCHEDULE_OBJECT schedule = DailyAt(FarFromNow(), m_service.Directory(), "/usr/lib/qx/snapwrap", "-v");
    schedule.bstrApplication = u"snapshot";
    schedule.bstrObjectID = u"vol-17";
    Fill(m_service, kManySchedules, schedule);
    m_service.Start();
    m_kept = std::make_unique<KeptMessages>(m_service.BusAddress());
    std::u16string last;
    while (true) {
      std::vector<ListRow> page;
      Demand(m_service.Client().ListInfo(last, 0, page) == kStatusOk, "no list");
      if (page.empty()) break;
      last = page.back().id;
      m_pages.push_back(m_kept->Keep([&](MessageWriter& call) {
        call.OpenArray("(" + std::string(kListRowContents) + ")");
        for (const ListRow& row : page) AppendListRow(call, row);
        call.Close();
      }));
    }
  }
  // Milliseconds for the whole list.
  double Ours() {
    const double begin = SteadyNanoseconds();
    SentListRows list;
    Demand(m_service.Client().ListAll(list) == kStatusOk && list.Count() == kManySchedules, "no list");
    return (SteadyNanoseconds() - begin) / 1e6;
  }
  double Reference() {
    const double begin = SteadyNanoseconds();
    for (const std::uint32_t page : m_pages) m_kept->Move(page);
    return (SteadyNanoseconds() - begin) / 1e6;
  }

 private:
  Service m_service;
  std::unique_ptr<KeptMessages> m_kept;
  std::vector<std::uint32_t> m_pages;
};

// --- a signal after a launch ---

class LaunchSignal {
 public:
  LaunchSignal() {
    m_service.Start();
    const auto address = platform::BusAddress::Explicit(m_service.BusAddress());
    m_bare = std::make_unique<Bare>(address);
    const auto hear = [this](MessageReader&) { m_heard = WallNanoseconds(); };
    Demand(m_listener.Open(address) == 0 &&
               m_listener.Subscribe(kBusName, kBusPath, kBusEventsInterface, "NextTimeWindow_Modify", hear) == 0 &&
               m_listener.Subscribe(kBareName, kBarePath, kBareName, "Launched", hear) == 0,
           "not subscribed");
  }
  // Milliseconds from the due second to the signal's arrival, behind the start of a job.
  double Ours() {
    const std::int64_t due = NextDue();
    SCHEDULE_OBJECT schedule = DailyAt(due, m_service.Directory(), "/bin/true");
    ScheduleGuid id{};
    Demand(m_service.Client().CreateSchedule(schedule, id) == kStatusOk, "not created");
    const double late = Await(due);
    (void)m_service.Client().DeleteSchedule(id);
    return late;
  }
  double Reference() {
    const std::int64_t due = NextDue();
    MessageWriter call = m_bare->NewCall("Launch");
    call.AppendInt64(due);
    Demand(m_bare->Connection().CallAsync(std::move(call), [](MessageReader&, const BusError&) {}) == 0, "no call");
    while (m_bare->Connection().Process()) {
    }
    return Await(due);
  }

 private:
  static std::int64_t NextDue() { return (WallNanoseconds() + kNanosecondsPerSecond * 3 / 10) / kNanosecondsPerSecond + 1; }
  double Await(std::int64_t due) {
    m_heard = 0;
    while (m_heard == 0) {
      if (!m_listener.Process() && m_heard == 0) Demand(m_listener.WaitForWork(10000), "no signal");
    }
    return static_cast<double>(m_heard - due * kNanosecondsPerSecond) / 1e6;
  }

  Service m_service;
  std::unique_ptr<Bare> m_bare;
  BusConnection m_listener;
  std::int64_t m_heard = 0;
};

template <typename Bench>
Bench& The() {
  static Bench bench;
  return bench;
}

}  // namespace

std::vector<Figure> BusFigures() {
  return {
      {"bus/query-one", "the same bytes from a bare server", "us", 1.5, [] { return The<Query>().Ours(); },
       [] { return The<Query>().Reference(); }, 15},
      {"bus/list-100k-in-pages", "the same bytes from a bare server", "ms", 2.0, [] { return The<Pages>().Ours(); },
       [] { return The<Pages>().Reference(); }},
      {"bus/signal-after-launch", "a timer, a spawn and a bare signal", "ms", 2.0,
       [] { return The<LaunchSignal>().Ours(); }, [] { return The<LaunchSignal>().Reference(); }, 15},
  };
}

}  // namespace qx::bench
