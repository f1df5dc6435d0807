// Every platform call of the client library fails, against the real program: the call says so, the service has whole
// schedules, and the next connection works.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "platform/testing/fault_sweep.h"
#include "tests/running_service.h"

namespace qx::testing {
namespace {

using platform::SweptFault;

class ClientLibrarySweep : public ::testing::Test {
 protected:
  void SetUp() override {
    m_service.Register();
    m_service.Start();
    m_service.Connect(m_judge);
    ASSERT_EQ(m_judge.CreateSchedule(Job("kept"), m_kept), 0u) << m_judge.LastError().text;
  }
  SCHEDULE_OBJECT Job(const std::string& name) const { return m_service.Job(name, platform::NowSeconds() + 36000); }
  // The IDs that the service lists.
  std::set<std::u16string> Listed() {
    std::vector<ListRow> rows;
    EXPECT_EQ(m_judge.ListAll(rows), 0u) << m_judge.LastError().text;
    std::set<std::u16string> ids;
    for (const ListRow& row : rows) {
      EXPECT_NE(row.nextWindow, kDamagedKey);
      ids.insert(row.id);
    }
    return ids;
  }

  RunningService m_service;
  SchedulerClient m_judge;
  ScheduleGuid m_kept{};
};

TEST_F(ClientLibrarySweep, EachCallIsCarriedOutOrSaysWhyNot) {
  struct Call {
    const char* name;
    std::function<Status(SchedulerClient&)> make;
    bool changes;  // a lost answer leaves open what was done
  };
  ScheduleGuid made{};
  ScheduleGuid doomed{};
  std::uint32_t count = 0;
  ScheduleList list;
  ScheduleInfo info;
  std::vector<ListRow> rows;
  ServiceProperties properties;
  SCHEDULE_OBJECT changed = Job("kept");
  changed.bstrDescription = u"changed";
  const auto sink = std::make_shared<EventLog>();
  const Call kCalls[] = {
      {"connect", [](SchedulerClient&) { return Status{0}; }, false},
      {"create", [&](SchedulerClient& client) { return client.CreateSchedule(Job("made"), made); }, true},
      {"modify", [&](SchedulerClient& client) { return client.ModifySchedule(m_kept, changed); }, true},
      {"read", [&](SchedulerClient& client) { return client.GetScheduleInfo(m_kept, info); }, false},
      {"list", [&](SchedulerClient& client) { return client.ListSchedule(count, list); }, false},
      {"list in pages", [&](SchedulerClient& client) { return client.ListAll(rows); }, false},
      {"properties", [&](SchedulerClient& client) { return client.Properties(properties); }, false},
      {"refresh", [](SchedulerClient& client) { return client.Refresh(); }, false},
      {"delete", [&](SchedulerClient& client) { return client.DeleteSchedule(doomed); }, true},
      {"advise and unadvise",
       [&](SchedulerClient& client) {
         std::uint32_t cookie = 0;
         const Status status = client.Advise(sink, cookie);
         return status == 0 ? client.Unadvise(cookie) : status;
       },
       false},
      {"process of the service",
       [](SchedulerClient& client) {
         std::uint32_t process = 0;
         return client.ServiceProcess(process);
       },
       false},
  };
  for (const Call& call : kCalls) {
    Status connected = 0;
    Status status = 0;
    std::set<std::u16string> before;
    (void)platform::RunSweep({
        .name = std::string("client library: ") + call.name,
        .prepare =
            [&] {
              for (const std::u16string& id : Listed()) {
                if (id == platform::GuidText(m_kept)) continue;
                ScheduleGuid other{};
                ASSERT_EQ(platform::ClsidFromString(id, other), 0u);
                ASSERT_EQ(m_judge.DeleteSchedule(other), 0u);
              }
              ASSERT_EQ(m_judge.CreateSchedule(Job("doomed"), doomed), 0u);
              before = Listed();
              list = {};
              info = {};
              rows.clear();
            },
        .operation =
            [&] {
              SchedulerClient client;
              connected = client.Connect(m_service.Bus().ForClients());
              status = connected == 0 ? call.make(client) : connected;
            },
        .judge =
            [&](const SweptFault* fault) {
              if (fault == nullptr) {
                ASSERT_EQ(status, 0u);
              }
              const std::set<std::u16string> now = Listed();
              if (!call.changes) {
                EXPECT_EQ(now, before);
              } else if (status == 0 && call.name == std::string_view("create")) {
                EXPECT_TRUE(now.contains(platform::GuidText(made)));
              } else if (status == 0 && call.name == std::string_view("delete")) {
                EXPECT_FALSE(now.contains(platform::GuidText(doomed)));
              }
              EXPECT_TRUE(now.contains(platform::GuidText(m_kept)));
              if (status == 0 && call.name == std::string_view("list in pages")) {
                EXPECT_EQ(rows.size(), before.size());
              }
              if (status != 0) {
                EXPECT_TRUE(rows.empty());
              }
            },
        .explain = [&] { return "status " + std::to_string(status); },
    });
    if (HasFailure()) return;
  }
}

}  // namespace
}  // namespace qx::testing
