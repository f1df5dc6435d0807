// A program outside the service: lists the schedules, adds one and deletes it again, and shows the events that tell of
// it. It is written against ISchedulerService; the client library carries the calls over the message bus.
//
// usage: watch [BUS-ADDRESS]     without one: the session bus
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "client/scheduler_client.h"
#include "client/status_text.h"
#include "platform/text.h"

namespace {

// Hears the events of the service and writes each as a line.
class Listener : public ISchedulerServiceEvents {
 public:
  void Schedule_Add(const ScheduleGuid& id) override { Tell("added", id); }
  void Schedule_Modify(const ScheduleGuid& id) override { Tell("modified", id); }
  void Schedule_Delete(const ScheduleGuid& id) override { Tell("deleted", id); }
  void NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t) override { Tell("launched", id); }
  void SystemTime_Change(std::int32_t count, const std::vector<std::u16string>&,
                         const std::vector<std::int32_t>&) override {
    std::cout << "event: the clock or the zone changed, " << count << " schedules have new windows\n";
  }

 private:
  void Tell(const char* what, const ScheduleGuid& id) {
    std::cout << "event: " << what << (id == mine ? " mine" : " another") << "\n";
  }

 public:
  ScheduleGuid mine{};
};

// Daily from 03:00 UTC for an hour; dates and times of day travel as seconds since 1970.
SCHEDULE_OBJECT Nightly() {
  SCHEDULE_OBJECT schedule;
  schedule.bstrName = u"example";
  schedule.bstrWrapperBinaryName = u"/bin/true";
  schedule.bstrXMLFilePathName = u"";  // the service's default directory
  schedule.stScheduleRules.lStartTime = 3 * 3600 + 86400;
  schedule.stScheduleRules.dwTimeDuration = 3600 * 1000;
  schedule.stScheduleRules.bRepeatInterval = 1;
  schedule.stScheduleRules.dwRepeatInterval = 1;
  return schedule;
}

// Tells of a failed call; true for one that worked.
bool Worked(const qx::SchedulerClient& client, const char* what, Status status) {
  if (status == kStatusOk) return true;
  std::cerr << what << ": " << (client.LastError().IsSet() ? client.LastError().text : qx::FormatStatus(status))
            << "\n";
  return false;
}

// What a program does with the service: the same code runs inside its process, with its own object in place of the
// client.
Status AddAndDelete(ISchedulerService& service, ScheduleGuid& id) {
  if (const Status status = service.CreateSchedule(Nightly(), id); status != kStatusOk) return status;
  return service.DeleteSchedule(id);
}

}  // namespace

int main(int argc, char** argv) {
  qx::SchedulerClient client;
  const auto bus = argc > 1 ? platform::BusAddress::Explicit(argv[1]) : platform::BusAddress::Session();
  if (!Worked(client, "connect", client.Connect(bus))) return 1;

  std::vector<qx::ListRow> rows;
  if (!Worked(client, "list", client.ListAll(rows))) return 1;
  std::cout << rows.size() << " schedules\n";
  for (const qx::ListRow& row : rows) std::cout << platform::Utf8FromWide(row.name) << "\n";

  const auto listener = std::make_shared<Listener>();
  std::uint32_t cookie = 0;
  if (!Worked(client, "listen", client.Advise(listener, cookie))) return 1;
  if (!Worked(client, "add and delete", AddAndDelete(client, listener->mine))) return 1;
  constexpr std::uint32_t kPatienceMs = 5000;
  for (std::size_t heard = 0; heard < 2;) {
    const std::size_t more = client.WaitForEvents(kPatienceMs);
    if (more == 0) return 1;  // nothing came, or the bus is lost
    heard += more;
  }
  return Worked(client, "stop listening", client.Unadvise(cookie)) ? 0 : 1;
}
