#include "service/service_bus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <thread>

#include "common/bus_records.h"
#include "foundation/testing/captured_log.h"
#include "platform/after_answer.h"
#include "platform/event.h"
#include "platform/testing/private_bus.h"
#include "platform/testing/virtual_clock.h"
#include "platform/text.h"
#include "service/scheduler_service.h"

namespace qx {
namespace {

using platform::BusConnection;
using platform::BusError;
using platform::BusValue;
using platform::ERROR_SUCCESS;
using platform::MessageReader;
using platform::MessageWriter;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Notes the calls and answers what it was told to.
class FakeService : public ISchedulerService {
 public:
  Status CreateSchedule(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id) override {
    id = CLSID_SchedulerService;
    if (duringCreation) duringCreation();
    return Note("CreateSchedule " + Text(schedule.bstrName));
  }
  Status DeleteSchedule(const ScheduleGuid& id) override { return Note("DeleteSchedule " + Text(id)); }
  Status ModifySchedule(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule) override {
    return Note("ModifySchedule " + Text(id) + " " + Text(schedule.bstrName));
  }
  Status ListSchedule(std::uint32_t& count, ScheduleList& schedules) override {
    if (throws) throw std::runtime_error("thrown");
    count = static_cast<std::uint32_t>(listed.size());
    if (!listed.empty()) Fill(schedules, listed);
    return Note("ListSchedule");
  }
  Status GetScheduleInfo(const ScheduleGuid& id, ScheduleInfo& schedule) override {
    if (!info.empty()) Fill(schedule, info);
    return Note("GetScheduleInfo " + Text(id));
  }
  Status CreateScheduleOnNodes(const SCHEDULE_OBJECT& schedule, ScheduleGuid& id, std::uint32_t count,
                               const NodeNames& names, NodeResults& results) override {
    id = CLSID_SchedulerService;
    return NoteNodes("CreateScheduleOnNodes " + Text(schedule.bstrName), count, names, results);
  }
  Status DeleteScheduleOnNodes(const ScheduleGuid& id, std::uint32_t count, const NodeNames& names,
                               NodeResults& results) override {
    return NoteNodes("DeleteScheduleOnNodes " + Text(id), count, names, results);
  }
  Status ModifyScheduleOnNodes(const ScheduleGuid& id, const SCHEDULE_OBJECT& schedule, std::uint32_t count,
                               const NodeNames& names, NodeResults& results) override {
    return NoteNodes("ModifyScheduleOnNodes " + Text(id) + " " + Text(schedule.bstrName), count, names, results);
  }
  Status Refresh() override {
    if (duringRefresh) duringRefresh();
    return Note("Refresh");
  }
  Status Notify_NextTimeWindow_Modify(const ScheduleGuid& id, std::int32_t window) override {
    return Note("Notify_NextTimeWindow_Modify " + Text(id) + " " + std::to_string(window));
  }
  Status Notify_SystemTime_Change(std::int32_t count, const std::vector<std::u16string>& ids,
                                  const std::vector<std::int32_t>& windows) override {
    return Note("Notify_SystemTime_Change " + std::to_string(count) + " " + std::to_string(ids.size()) + " " +
                std::to_string(windows.size()));
  }
  Status UpdateList(std::int32_t type, const BSTR& value, std::uint32_t&, std::vector<std::u16string>&) override {
    return Note("UpdateList " + std::to_string(type) + " " + Text(value));
  }
  Status PerformOperationOnNodes(const BSTR& data, std::uint32_t count, const NodeNames& names,
                                 NodeResults& results) override {
    return NoteNodes("PerformOperationOnNodes " + Text(data), count, names, results);
  }

  std::vector<std::string> calls;
  std::function<void()> duringCreation;
  std::function<void()> duringRefresh;
  Status answer = kStatusOk;
  bool throws = false;
  std::vector<SCHEDULE_OBJECT_EX> listed;
  std::vector<SCHEDULE_OBJECT> info;

 private:
  template <class Record>
  static void Fill(platform::RecordArray<Record>& array, const std::vector<Record>& records) {
    Record* data = nullptr;
    ASSERT_EQ(array.Create(records.size(), "test"), 0u);
    ASSERT_EQ(array.AccessData(data, "test"), 0u);
    std::copy(records.begin(), records.end(), data);
    ASSERT_EQ(array.UnaccessData("test"), 0u);
  }
  static std::string Text(const BSTR& text) { return text ? platform::Utf8FromWide(*text) : "null"; }
  static std::string Text(const ScheduleGuid& id) { return platform::Utf8FromWide(platform::GuidText(id)); }
  Status Note(std::string call) {
    calls.push_back(std::move(call));
    return answer;
  }
  Status NoteNodes(std::string call, std::uint32_t count, const NodeNames& names, NodeResults& results) {
    call += " " + std::to_string(count);
    for (const std::u16string& name : names) call += " " + platform::Utf8FromWide(name);
    for (const std::int32_t result : results) call += " " + std::to_string(result);
    results = {0, 1};
    return Note(std::move(call));
  }
};

class ServiceBus : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(BusConnection::OpenPair(m_server, m_client), ERROR_SUCCESS);
    ASSERT_EQ(m_bus.Export(m_server), ERROR_SUCCESS);
  }
  // The reply's values, or the error.
  BusError Call(std::string_view member, const std::vector<BusValue>& arguments,
                std::vector<BusValue>* values = nullptr, std::string_view interfaceName = kBusServiceInterface) {
    MessageWriter call;
    EXPECT_EQ(m_client.NewCall("", kBusPath, interfaceName, member, call), ERROR_SUCCESS);
    for (const BusValue& argument : arguments) call.AppendValue(argument);
    std::optional<BusError> answer;
    EXPECT_EQ(m_client.CallAsync(std::move(call),
                                 [&](MessageReader& reply, const BusError& error) {
                                   answer = error;
                                   while (values != nullptr && !reply.AtEnd()) {
                                     if (reply.ReadValue(values->emplace_back()) != ERROR_SUCCESS) break;
                                   }
                                 }),
              ERROR_SUCCESS);
    while (!answer && m_server.IsOpen() && m_client.IsOpen()) {
      (void)m_server.Process();
      (void)m_client.Process();
    }
    return answer.value_or(BusError::Failed("the connection was lost"));
  }

  // Somebody who waits until a creation tells of its change.
  std::thread WaitForCreation() {
    EXPECT_EQ(m_created.Create(1), ERROR_SUCCESS);
    m_service.duringCreation = [this] { m_created.Set(0); };
    return std::thread([this] {
      platform::WaitResult result;
      EXPECT_EQ(m_created.Wait(platform::kWaitForever, result), ERROR_SUCCESS);
    });
  }

  ZepFoundation::CapturedServiceLog m_log;
  platform::Apartment m_apartment;
  platform::EventSet m_created;
  FakeService m_service;
  CProxyISchedulerServiceEvents m_events;
  CServiceBus m_bus{m_apartment, m_service, m_events};
  BusConnection m_server;
  BusConnection m_client;
};

const std::string kId = "{99E6EA90-FFAE-46F2-B940-62519E6E0FD6}";
const BusValue kIdValue = BusValue::String(kId);
const BusValue kSchedule = BusValue::Dict({{"bstrName", BusValue::String("n")}});

BusValue Strings(const std::vector<std::string>& texts) {
  std::vector<BusValue> values;
  for (const std::string& text : texts) values.push_back(BusValue::String(text));
  return BusValue::Array("s", std::move(values));
}
BusValue Numbers(const std::vector<std::int32_t>& numbers) {
  std::vector<BusValue> values;
  for (const std::int32_t number : numbers) values.push_back(BusValue::Int32(number));
  return BusValue::Array("i", std::move(values));
}

struct MethodCase {
  int line;
  const char* member;
  std::vector<BusValue> arguments;
  std::string call;               // as the service meets it
  std::vector<BusValue> outputs;  // behind the status
};

std::vector<MethodCase> MethodCases() {
  const std::vector<BusValue> nodes = {BusValue::Uint32(2), Strings({"a", "b"}), Numbers({7, 8})};
  const auto with = [&](std::vector<BusValue> arguments) {
    arguments.insert(arguments.end(), nodes.begin(), nodes.end());
    return arguments;
  };
  const BusValue results = Numbers({0, 1});
  return {
      {__LINE__, "CreateSchedule", {kSchedule}, "CreateSchedule n", {kIdValue}},
      {__LINE__, "DeleteSchedule", {kIdValue}, "DeleteSchedule " + kId, {}},
      {__LINE__, "ModifySchedule", {kIdValue, kSchedule}, "ModifySchedule " + kId + " n", {}},
      {__LINE__, "ListSchedule", {}, "ListSchedule", {BusValue::Uint32(0), BusValue::Array("(ussssssssu)", {})}},
      {__LINE__, "GetScheduleInfo", {kIdValue}, "GetScheduleInfo " + kId, {BusValue::Array("a{sv}", {})}},
      {__LINE__, "CreateScheduleOnNodes", with({kSchedule}), "CreateScheduleOnNodes n 2 a b 7 8", {kIdValue, results}},
      {__LINE__, "DeleteScheduleOnNodes", with({kIdValue}), "DeleteScheduleOnNodes " + kId + " 2 a b 7 8", {results}},
      {__LINE__,
       "ModifyScheduleOnNodes",
       with({kIdValue, kSchedule}),
       "ModifyScheduleOnNodes " + kId + " n 2 a b 7 8",
       {results}},
      {__LINE__, "Refresh", {}, "Refresh", {}},
      {__LINE__,
       "Notify_NextTimeWindow_Modify",
       {kIdValue, BusValue::Int32(-1)},
       "Notify_NextTimeWindow_Modify " + kId + " -1",
       {}},
      {__LINE__,
       "Notify_SystemTime_Change",
       {BusValue::Int32(1), Strings({"x"}), Numbers({5})},
       "Notify_SystemTime_Change 1 1 1",
       {}},
      {__LINE__,
       "UpdateList",
       {BusValue::Int32(2), BusValue::String("v")},
       "UpdateList 2 v",
       {BusValue::Uint32(0), Strings({})}},
      {__LINE__,
       "PerformOperationOnNodes",
       with({BusValue::String("d")}),
       "PerformOperationOnNodes d 2 a b 7 8",
       {results}},
  };
}

// Whoever waits for a change is woken behind its reply, or ahead of the next call.
TEST_F(ServiceBus, WakesWhoeverWaitsForAChangeWhenItsReplyIsSent) {
  std::thread waiter = WaitForCreation();
  EXPECT_FALSE(Call("CreateSchedule", {BusValue::Dict({})}).IsSet());
  (void)m_apartment.Step(0);
  waiter.join();
}

// There may be a hundred thousand of them, and a new job due before they are all sent.
TEST_F(ServiceBus, WakesWhoeverWaitsForAChangeAheadOfTheNoticesThatAreQueued) {
  std::vector<std::string> order;
  m_apartment.Post([&] { order.emplace_back("notice"); });
  m_service.duringCreation = [&] { platform::AfterAnswer::LeaveFirst([&] { order.emplace_back("wake"); }); };
  EXPECT_FALSE(Call("CreateSchedule", {BusValue::Dict({})}).IsSet());
  EXPECT_THAT(order, IsEmpty());
  (void)m_apartment.Step(0);
  EXPECT_THAT(order, ElementsAre("wake", "notice"));
}

// Nobody works in the apartment any more.
TEST_F(ServiceBus, WakesWhoeverWaitsForAChangeThatCameBehindTheEnd) {
  m_apartment.Quit();
  EXPECT_FALSE(m_apartment.Step(0));
  std::thread waiter = WaitForCreation();
  EXPECT_FALSE(Call("CreateSchedule", {BusValue::Dict({})}).IsSet());
  waiter.join();
}

TEST_F(ServiceBus, WakesWhoeverWaitsForAChangeAheadOfALongCall) {
  std::thread waiter = WaitForCreation();
  m_service.duringRefresh = [&] { waiter.join(); };  // a call that takes until then
  EXPECT_FALSE(Call("CreateSchedule", {BusValue::Dict({})}).IsSet());
  EXPECT_FALSE(Call("Refresh", {}).IsSet());
}

TEST_F(ServiceBus, EachMethodHandsItsArgumentsOnAndAnswersStatusAndOutputs) {
  for (const Status status : {kStatusOk, kStatusFailure, kStatusRegistryRead}) {
    m_service.answer = status;
    for (const MethodCase& c : MethodCases()) {
      m_service.calls.clear();
      std::vector<BusValue> values;
      EXPECT_EQ(Call(c.member, c.arguments, &values).text, "") << "line " << c.line;
      EXPECT_THAT(m_service.calls, ElementsAre(c.call)) << "line " << c.line;
      std::vector<BusValue> expected = {BusValue::Int32(static_cast<std::int32_t>(status))};
      expected.insert(expected.end(), c.outputs.begin(), c.outputs.end());
      EXPECT_TRUE(values == expected) << c.member << ", line " << c.line;
    }
  }
}

TEST_F(ServiceBus, AnOperationThatIsNotCarriedOutIsABusError) {
  m_service.answer = kStatusNotSupported;
  for (const MethodCase& c : MethodCases()) {
    EXPECT_EQ(Call(c.member, c.arguments).name, kBusErrorNotSupported) << c.member;
  }
}

TEST_F(ServiceBus, RefusedArgumentsDontReachTheService) {
  const BusValue noId = BusValue::String("x");
  for (MethodCase& c : MethodCases()) {
    for (std::size_t i = 0; i < c.arguments.size(); ++i) {
      std::vector<BusValue> arguments = c.arguments;
      if (arguments[i] == kIdValue) {
        arguments[i] = noId;
      } else if (arguments[i] == kSchedule) {
        arguments[i] = BusValue::Dict({{"nothing", BusValue::Int32(1)}});
      } else if (arguments[i].type == "as") {
        arguments[i] = Strings({"a\nb"});
      } else if (arguments[i].type == "s") {
        arguments[i] = BusValue::String("a\rb");
      } else {
        continue;  // any number is taken
      }
      EXPECT_EQ(Call(c.member, arguments).name, platform::kBusErrorInvalidArgs) << c.member << " argument " << i;
    }
  }
  EXPECT_TRUE(m_service.calls.empty());
}

TEST_F(ServiceBus, AListAboveTheLimitIsRefusedNamingListInfo) {
  SCHEDULE_OBJECT_EX large;
  large.bstrParameters = std::u16string(std::size_t{1} << 20, u'x');
  m_service.listed.assign(ReplyLimit() >> 20, large);  // with the other fields a little above
  const BusError error = Call("ListSchedule", {});
  EXPECT_EQ(error.name, platform::kBusErrorLimitsExceeded);
  EXPECT_THAT(error.text, ::testing::HasSubstr("com.korvane.QxSched1.Manager.ListInfo"));
  m_service.listed.resize(2);
  std::vector<BusValue> values;
  EXPECT_EQ(Call("ListSchedule", {}, &values).text, "");
  ASSERT_EQ(values.size(), 3u);
  EXPECT_EQ(values[1], BusValue::Uint32(2));
  EXPECT_EQ(std::get<std::vector<BusValue>>(values[2].data).size(), 2u);
}

TEST_F(ServiceBus, AnExceptionOfTheServiceAnswersTheCallerAndNoMore) {
  m_service.throws = true;
  EXPECT_EQ(Call("ListSchedule", {}).name, platform::kBusErrorFailed);
  m_service.throws = false;
  EXPECT_EQ(Call("ListSchedule", {}).text, "");
}

TEST_F(ServiceBus, TellsAZoneThatIsNoTextOfTheBus) {
  const platform::ScopedZone zone("Z\xFFZ");
  std::vector<BusValue> values;
  const BusError error = Call("Get", {BusValue::String(std::string(kBusManagerInterface)), BusValue::String("Zone")},
                              &values, "org.freedesktop.DBus.Properties");
  EXPECT_FALSE(error.IsSet()) << error.text;
  ASSERT_EQ(values.size(), 1u);
  EXPECT_EQ(std::get<std::vector<BusValue>>(values[0].data)[0], BusValue::String("Z\xEF\xBF\xBDZ"));
}

TEST_F(ServiceBus, WithoutAConnectionEventsAreDropped) {
  m_events.Fire_Schedule_Add(CLSID_SchedulerService);
  m_events.Fire_SystemTime_Change(1, {u"x"}, {1});
  EXPECT_TRUE(m_log.texts(1).empty());
}

TEST_F(ServiceBus, AReaderOfAPropertyIsAClientUntilItLeaves) {
  const platform::PrivateBus daemon;
  CServiceBus::Options options;
  options.address = daemon.ForClients();
  bool left = false;
  options.lastClientLeft = [&] { left = true; };
  ASSERT_EQ(m_bus.Start(std::move(options)), ERROR_SUCCESS);
  BusConnection client;
  ASSERT_EQ(client.Open(daemon.ForClients()), ERROR_SUCCESS);
  MessageWriter call;
  ASSERT_EQ(client.NewCall(kBusName, kBusPath, "org.freedesktop.DBus.Properties", "Get", call), ERROR_SUCCESS);
  call.AppendString(kBusManagerInterface);
  call.AppendString("TraceLevel");
  bool answered = false;
  ASSERT_EQ(client.CallAsync(std::move(call),
                             [&](MessageReader&, const BusError& error) {
                               answered = true;
                               EXPECT_EQ(error.text, "");
                             }),
            ERROR_SUCCESS);
  while (m_bus.ClientCount() == 0) ASSERT_TRUE(m_apartment.Step(platform::Apartment::kForever));
  while (!answered && client.IsOpen()) {
    if (!client.Process()) (void)client.WaitForWork(platform::Apartment::kForever);
  }
  EXPECT_TRUE(answered);
  EXPECT_FALSE(left);
  client.Close();
  while (!left) ASSERT_TRUE(m_apartment.Step(platform::Apartment::kForever));
  EXPECT_EQ(m_bus.ClientCount(), 0u);
}

// One command after the other: the second one's call has come when the first one's leaving is heard of.
TEST_F(ServiceBus, TheLastClientHasNotLeftWhereTheNextOnesCallHasComeAlready) {
  const platform::PrivateBus daemon;
  CServiceBus::Options options;
  options.address = daemon.ForClients();
  int left = 0;
  options.lastClientLeft = [&] { ++left; };
  ASSERT_EQ(m_bus.Start(std::move(options)), ERROR_SUCCESS);
  BusConnection first, second;
  ASSERT_EQ(second.Open(daemon.ForClients()), ERROR_SUCCESS);
  ASSERT_EQ(first.Open(daemon.ForClients()), ERROR_SUCCESS);
  bool answered = false;
  const auto subscribe = [&](BusConnection& client) {
    MessageWriter call;
    ASSERT_EQ(client.NewCall(kBusName, kBusPath, kBusManagerInterface, "Subscribe", call), ERROR_SUCCESS);
    answered = false;
    ASSERT_EQ(client.CallAsync(std::move(call), [&](MessageReader&, const BusError&) { answered = true; }),
              ERROR_SUCCESS);
  };
  const auto await = [&](BusConnection& client) {
    while (!answered && client.IsOpen()) {
      ASSERT_TRUE(m_apartment.Step(0));
      (void)client.Process();
    }
  };
  // What the daemon answers lies behind what it passed on.
  const auto ask = [&](std::string_view member, std::string_view name, bool& has) {
    MessageWriter question;
    MessageReader reply;
    BusError error;
    ASSERT_EQ(second.NewCall("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", member, question),
              ERROR_SUCCESS);
    question.AppendString(name);
    ASSERT_EQ(second.Call(std::move(question), reply, error), ERROR_SUCCESS) << error.text;
    ASSERT_EQ(reply.ReadBool(has), ERROR_SUCCESS);
  };
  subscribe(first);
  await(first);
  ASSERT_EQ(m_bus.ClientCount(), 1u);
  const std::string name(first.UniqueName());
  first.Close();
  bool isThere = true;
  while (isThere) ASSERT_NO_FATAL_FAILURE(ask("NameHasOwner", name, isThere));
  subscribe(second);
  ASSERT_NO_FATAL_FAILURE(ask("NameHasOwner", name, isThere));
  await(second);
  ASSERT_TRUE(m_apartment.Step(0));
  EXPECT_EQ(left, 0);
  EXPECT_EQ(m_bus.ClientCount(), 1u);
  second.Close();
  while (left == 0) ASSERT_TRUE(m_apartment.Step(platform::Apartment::kForever));
  EXPECT_EQ(left, 1);
}

// A server that its last client left meets the next one's call on its way.
TEST_F(ServiceBus, AnswersTheCallsThatTheBusPassedOnAheadOfItsEnd) {
  const platform::PrivateBus daemon;
  CServiceBus::Options options;
  options.address = daemon.ForClients();
  ASSERT_EQ(m_bus.Start(std::move(options)), ERROR_SUCCESS);
  BusConnection client;
  ASSERT_EQ(client.Open(daemon.ForClients()), ERROR_SUCCESS);
  MessageWriter call;
  ASSERT_EQ(client.NewCall(kBusName, kBusPath, kBusServiceInterface, "Refresh", call), ERROR_SUCCESS);
  std::optional<BusError> answer;
  ASSERT_EQ(client.CallAsync(std::move(call), [&](MessageReader&, const BusError& error) { answer = error; }),
            ERROR_SUCCESS);
  // What the daemon answers here lies behind what it passed on.
  MessageWriter question;
  MessageReader reply;
  BusError error;
  ASSERT_EQ(client.NewCall("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId", question),
            ERROR_SUCCESS);
  ASSERT_EQ(client.Call(std::move(question), reply, error), ERROR_SUCCESS) << error.text;
  m_bus.Stop();
  while (!answer && client.IsOpen()) {
    if (!client.Process()) (void)client.WaitForWork(platform::Apartment::kForever);
  }
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->text, "");
  EXPECT_THAT(m_service.calls, ElementsAre("Refresh"));
}

}  // namespace
}  // namespace qx
