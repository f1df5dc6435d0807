// Bad input from the bus: whatever a client sends, the service answers, goes on, and keeps what it has.
//
// The messages are random but repeatable: a failing test shows the number it began with, and QX_SEED gives another one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "platform/registry.h"
#include "tests/running_service.h"

namespace qx::testing {
namespace {

namespace fs = std::filesystem;
using platform::BusConnection;
using platform::BusError;
using platform::BusValue;
using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using platform::MessageReader;
using platform::MessageWriter;

constexpr int kMessages = 1500;
constexpr int kHostileRecords = 150;

struct Member {
  std::string_view interface;
  const char* name;
  std::vector<std::string> arguments;  // types
};
const std::vector<Member> kMembers = {
    {kBusServiceInterface, "CreateSchedule", {"a{sv}"}},
    {kBusServiceInterface, "DeleteSchedule", {"s"}},
    {kBusServiceInterface, "ModifySchedule", {"s", "a{sv}"}},
    {kBusServiceInterface, "ListSchedule", {}},
    {kBusServiceInterface, "GetScheduleInfo", {"s"}},
    {kBusServiceInterface, "CreateScheduleOnNodes", {"a{sv}", "u", "as", "ai"}},
    {kBusServiceInterface, "DeleteScheduleOnNodes", {"s", "u", "as", "ai"}},
    {kBusServiceInterface, "ModifyScheduleOnNodes", {"s", "a{sv}", "u", "as", "ai"}},
    {kBusServiceInterface, "Refresh", {}},
    {kBusServiceInterface, "Notify_NextTimeWindow_Modify", {"s", "i"}},
    {kBusServiceInterface, "Notify_SystemTime_Change", {"i", "as", "ai"}},
    {kBusServiceInterface, "UpdateList", {"i", "s"}},
    {kBusServiceInterface, "PerformOperationOnNodes", {"s", "u", "as", "ai"}},
    {kBusManagerInterface, "ListInfo", {"s", "u"}},
    {kBusManagerInterface, "Subscribe", {}},
};

struct Key {
  const char* name;
  const char* type;
  std::size_t most;  // elements of an array
};
constexpr Key kRuleKeys[] = {
    {"lStartTime", "i", 0},       {"lEndTime", "i", 0},          {"dwTimeDuration", "u", 0},
    {"bEffectiveDate", "u", 0},   {"lEffectiveDate", "i", 0},    {"bRestartInterval", "u", 0},
    {"dwRestartInterval", "u", 0}, {"bRepeatInterval", "u", 0},  {"dwRepeatInterval", "i", 0},
    {"lAnchorDate", "i", 0},      {"adwDaysOfMonth", "an", 32},  {"bLastDayOfMonth", "u", 0},
    {"dwDaysOfWeek0", "au", 7},   {"dwDaysOfWeek1", "au", 7},    {"dwDaysOfWeek2", "au", 7},
    {"dwDaysOfWeek3", "au", 7},   {"dwDaysOfWeek4", "au", 7},    {"alIncludeDates", "ai", 365},
    {"alExcludeDates", "ai", 365},
};
constexpr Key kRecordKeys[] = {
    {"bstrName", "s", 0},       {"bstrDescription", "s", 0}, {"bstrApplication", "s", 0},
    {"bstrObjectID", "s", 0},   {"dwTaskOpCode", "u", 0},    {"bstrWrapperBinaryName", "s", 0},
    {"bstrXMLFilePathName", "s", 0}, {"bstrParameters", "s", 0}, {"bstrPreScript", "s", 0},
    {"bstrPostScript", "s", 0}, {"bRunNow", "u", 0},         {"bUseGUID", "u", 0},
    {"lNextTimeWindow", "i", 0},
};

using Entries = std::vector<std::pair<std::string, BusValue>>;

class Dice {
 public:
  explicit Dice(std::uint64_t seed) : m_engine(seed) {}
  std::size_t Below(std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(m_engine); }
  bool OneIn(std::size_t n) { return Below(n) == 0; }
  std::uint64_t Bits() { return m_engine(); }

  // Numbers near the edges more often than others.
  std::int64_t Number() {
    constexpr std::int64_t kEdges[] = {0, 1, -1, 2, 31, 32, 365, 366, INT16_MAX, INT16_MIN, INT32_MAX, INT32_MIN,
                                       UINT32_MAX, INT64_MAX, INT64_MIN, 86400, 2145916799, 2145916800};
    return OneIn(2) ? kEdges[Below(std::size(kEdges))] : static_cast<std::int64_t>(Bits());
  }
  std::string Text() {
    static const std::string kTexts[] = {
        "", "x", "%s%n%x", "[General]", "m_Name=1", "../../etc/passwd", "{99E6EA90-FFAE-46F2-B940-62519E6E0FD6}",
        "{99E6EA90-FFAE-46F2-B940-62519E6E0FDG}", "\"'\\", "\xF0\x9F\x95\x90 \xC3\xA4", std::string(3000, 'y'),
        "\xEF\xBF\xBD", "a\tb", " blank ", "C:\\x\\y", "\\Documents and Settings\\z"};
    return kTexts[Below(std::size(kTexts))];
  }
  std::string Type(int depth = 0) {
    constexpr std::string_view kBasic = "ybnqiuxtdsog";
    switch (depth > 3 ? 0 : Below(8)) {
      case 1:
        return "a" + Type(depth + 1);
      case 2:
        return "(" + Type(depth + 1) + Type(depth + 1) + ")";
      case 3:
        return "a{s" + Type(depth + 1) + "}";
      case 4:
        return "v";
      case 5:
        return "a{sv}";
      default:
        return std::string(1, kBasic[Below(kBasic.size())]);
    }
  }
  BusValue Value(const std::string& type, int depth = 0) {
    switch (type[0]) {
      case 'b':
        return BusValue::Bool(OneIn(2));
      case 'n':
        return BusValue::Int16(static_cast<std::int16_t>(Number()));
      case 'i':
        return BusValue::Int32(static_cast<std::int32_t>(Number()));
      case 'x':
        return BusValue::Int64(Number());
      case 'y':
        return {type, static_cast<std::uint64_t>(Bits() & 0xFF)};
      case 'q':
        return BusValue::Uint16(static_cast<std::uint16_t>(Number()));
      case 'u':
        return BusValue::Uint32(static_cast<std::uint32_t>(Number()));
      case 't':
        return {type, static_cast<std::uint64_t>(Number())};
      case 'd':
        return {type, static_cast<double>(Number()) / 3};
      case 's':
        return BusValue::String(Text());
      case 'o':
        return {type, std::string(OneIn(2) ? "/" : "/com/korvane/QxSched1")};
      case 'g':
        return {type, std::string(OneIn(2) ? "" : "a{sv}")};
      case 'v':
        return BusValue::Variant(Value(Type(depth + 1), depth + 1));
      case 'a': {
        const std::string element = type.substr(1);
        std::vector<BusValue> elements;
        for (std::size_t n = depth > 2 ? 0 : Below(4); n > 0; --n) {
          elements.push_back(element[0] == '{' ? Entry(element, depth + 1) : Value(element, depth + 1));
        }
        return BusValue::Array(element, std::move(elements));
      }
      default: {  // a struct of two fields, as Type() makes them
        const std::size_t end = First(type, 1);
        return BusValue::Struct({Value(type.substr(1, end - 1), depth + 1),
                                 Value(type.substr(end, type.size() - end - 1), depth + 1)});
      }
    }
  }

 private:
  // Behind the first complete type from `at`.
  static std::size_t First(const std::string& type, std::size_t at) {
    while (type[at] == 'a') ++at;
    if (type[at] != '(' && type[at] != '{') return at + 1;
    int open = 0;
    do {
      if (type[at] == '(' || type[at] == '{') ++open;
      if (type[at] == ')' || type[at] == '}') --open;
      ++at;
    } while (open > 0);
    return at;
  }
  BusValue Entry(const std::string& type, int depth) {
    const std::string inner = type.substr(2, type.size() - 3);
    return {type, std::vector<BusValue>{BusValue::String(Text()), Value(inner, depth)}};
  }

  std::mt19937_64 m_engine;
};

std::uint64_t Seed() {
  const char* const given = std::getenv("QX_SEED");
  return given != nullptr ? std::strtoull(given, nullptr, 10) : 20260101;
}

class Storm : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(service.Bus().Address().empty()) << "no dbus-daemon";
    ASSERT_NO_FATAL_FAILURE(service.Register());
    ASSERT_NO_FATAL_FAILURE(service.Start());
    ASSERT_NO_FATAL_FAILURE(service.Connect(client));
    for (const char* name : {"one", "two"}) {
      ScheduleGuid id;
      ASSERT_EQ(client.CreateSchedule(service.Job(name, platform::NowSeconds() + 6 * 3600), id), 0u);
      ids.push_back(platform::Utf8FromWide(platform::GuidText(id)));
    }
    ASSERT_EQ(raw.Open(service.Bus().ForClients()), ERROR_SUCCESS);
    before = Kept();
  }

  // Everything that a client may see and all files of the schedules.
  std::map<std::string, std::string> Kept() {
    std::map<std::string, std::string> kept;
    for (const auto& entry : fs::directory_iterator(service.Jobs())) {
      kept[entry.path()] = RunningService::ReadFile(entry.path());
    }
    std::vector<ListRow> rows;
    EXPECT_EQ(client.ListAll(rows), 0u) << client.LastError().text;
    for (const ListRow& row : rows) {
      kept[platform::Utf8FromWide(row.id)] =
          platform::Utf8FromWide(row.name + u"|" + row.application + u"|" + row.objectId + u"|" + row.wrapper + u"|" +
                                 row.xml + u"|" + row.parameters) +
          "|" + std::to_string(row.taskCode) + "|" + std::to_string(row.passId) + "|" + std::to_string(row.nextWindow);
    }
    return kept;
  }
  void ExpectNothingChanged() {
    EXPECT_TRUE(Kept() == before);
    platform::RegistryKey schedules;
    platform::KeyInfo info;
    ASSERT_EQ(platform::OpenRegistryStore(service.Root() + "/registry.db"), ERROR_SUCCESS);
    ASSERT_EQ(platform::OpenKey(platform::Hive::kLocalMachine,
                                u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules", platform::KEY_READ, schedules),
              ERROR_SUCCESS);
    EXPECT_EQ(platform::QueryInfoKey(schedules, info), ERROR_SUCCESS);
    EXPECT_EQ(info.subKeyCount, ids.size());
    (void)schedules.Close();
    EXPECT_EQ(platform::CloseRegistryStore(), ERROR_SUCCESS);
  }

  // Sends a call and waits; the error's name, "0" or a status.
  std::string Answer(std::string_view path, std::string_view interface, std::string_view member,
                     const std::vector<BusValue>& arguments, std::string* text = nullptr) {
    MessageWriter call;
    MessageReader reply;
    BusError error;
    EXPECT_EQ(raw.NewCall(kBusName, path, interface, member, call), ERROR_SUCCESS) << member;
    for (const BusValue& argument : arguments) call.AppendValue(argument);
    EXPECT_EQ(call.Result(), ERROR_SUCCESS) << member;
    const ErrorCode rc = raw.Call(std::move(call), reply, error, kPatience);
    if (rc != ERROR_SUCCESS) {
      if (text != nullptr) *text = error.text;
      return error.name;
    }
    std::int32_t status = -1;
    (void)reply.ReadInt32(status);
    return std::to_string(status);
  }

  BusValue Argument(const std::string& type, bool good) {
    if (!good) return dice.Value(dice.Type());
    if (type == "a{sv}") return BusValue::Dict(Record());
    if (type == "s") return BusValue::String(dice.OneIn(2) ? ids[dice.Below(ids.size())] : dice.Text());
    return dice.Value(type);
  }
  // A record with some of its keys, of the right types.
  Entries Record() {
    Entries entries = Keys(kRecordKeys);
    if (dice.OneIn(2)) entries.emplace_back("stScheduleRules", BusValue::Dict(Keys(kRuleKeys)));
    return entries;
  }
  template <std::size_t N>
  Entries Keys(const Key (&keys)[N]) {
    Entries entries;
    for (const Key& key : keys) {
      if (dice.OneIn(3)) entries.emplace_back(key.name, dice.Value(key.type));
    }
    return entries;
  }
  // The same with one thing in it that can't be: the service has to refuse it whatever else it says.
  Entries PoisonedRecord() {
    Entries entries = Record();
    const auto add = [&](std::string key, BusValue value) {
      std::erase_if(entries, [&](const auto& entry) { return entry.first == key; });
      entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(dice.Below(entries.size() + 1)),
                     {std::move(key), std::move(value)});
    };
    const auto inRules = [&](std::string key, BusValue value) {
      Entries rules = Keys(kRuleKeys);
      std::erase_if(rules, [&](const auto& entry) { return entry.first == key; });
      rules.emplace_back(std::move(key), std::move(value));
      add("stScheduleRules", BusValue::Dict(std::move(rules)));
    };
    switch (dice.Below(7)) {
      case 0:
        add("bstr" + dice.Text(), dice.Value("s"));
        break;
      case 1:
        inRules("dwDaysOfWeek" + std::to_string(5 + dice.Below(100)), dice.Value("au"));
        break;
      case 2:
        for (const char* mark : {"\n", "\r", "x\r\n[General]\r\nm_Name=y"}) {
          if (dice.OneIn(2)) add(kRecordKeys[dice.Below(4)].name, BusValue::String(dice.Text() + mark));
        }
        add("bstrName", BusValue::String("\n"));
        break;
      case 3: {
        const Key& key = kRecordKeys[dice.Below(std::size(kRecordKeys))];
        add(key.name, dice.Value(std::string(key.type) == "s" ? "u" : "s"));
        break;
      }
      case 4: {
        const Key& key = kRuleKeys[dice.Below(std::size(kRuleKeys))];
        inRules(key.name, dice.Value(key.most != 0 ? "ax" : "t"));
        break;
      }
      case 5: {
        const Key* key = &kRuleKeys[dice.Below(std::size(kRuleKeys))];
        while (key->most == 0) key = &kRuleKeys[dice.Below(std::size(kRuleKeys))];
        const std::string element = key->type + 1;
        std::vector<BusValue> many(key->most + 1 + dice.Below(1000), dice.Value(element));
        inRules(key->name, BusValue::Array(element, std::move(many)));
        break;
      }
      default:
        add("dwTaskOpCode", BusValue::Uint32(1));
        entries.emplace_back("dwTaskOpCode", BusValue::Uint32(1));  // twice
    }
    return entries;
  }

  RunningService service;
  SchedulerClient client;
  BusConnection raw;
  std::vector<std::string> ids;
  std::map<std::string, std::string> before;
  Dice dice{Seed()};
};

TEST_F(Storm, ArgumentsOfWrongTypesAreRefusedAndChangeNothing) {
  SCOPED_TRACE("seed " + std::to_string(Seed()));
  for (int i = 0; i < kMessages; ++i) {
    const Member& member = kMembers[dice.Below(kMembers.size())];
    std::vector<BusValue> arguments;
    std::string types;
    for (const std::string& type : member.arguments) arguments.push_back(Argument(type, dice.OneIn(2)));
    if (dice.OneIn(4)) arguments.push_back(dice.Value(dice.Type()));
    if (dice.OneIn(8) && !arguments.empty()) arguments.pop_back();
    std::string expected;
    for (const std::string& type : member.arguments) expected += type;
    for (const BusValue& argument : arguments) types += argument.type;
    if (types == expected) continue;  // this one is well formed
    ASSERT_EQ(Answer(kBusPath, member.interface, member.name, arguments), platform::kBusErrorInvalidArgs)
        << "message " << i << ": " << member.name << " with " << types;
  }
  ExpectNothingChanged();
}

TEST_F(Storm, RecordsWithOneBadKeyAreRefusedAndChangeNothing) {
  SCOPED_TRACE("seed " + std::to_string(Seed()));
  for (int i = 0; i < kMessages; ++i) {
    const bool create = dice.OneIn(2);
    std::vector<BusValue> arguments;
    if (!create) arguments.push_back(BusValue::String(ids[dice.Below(ids.size())]));
    arguments.push_back(BusValue::Dict(PoisonedRecord()));
    std::string text;
    ASSERT_EQ(Answer(kBusPath, kBusServiceInterface, create ? "CreateSchedule" : "ModifySchedule", arguments, &text),
              platform::kBusErrorInvalidArgs)
        << "message " << i;
    ASSERT_NE(text.find('\''), std::string::npos) << "message " << i << " names no key: " << text;
  }
  ExpectNothingChanged();
}

TEST_F(Storm, ObjectsInterfacesAndMembersThatAreNotThereAreRefused) {
  SCOPED_TRACE("seed " + std::to_string(Seed()));
  const std::string paths[] = {"/", "/com", "/com/korvane/QxSched1/x", std::string(kBusPath)};
  const std::string interfaces[] = {"com.korvane.QxSched1", "org.example.Nothing", std::string(kBusServiceInterface),
                                    std::string(kBusEventsInterface)};
  const std::string members[] = {"createschedule", "CreateSchedule", "Schedule_Add", "Nothing", "Introspect"};
  int refused = 0;
  for (int i = 0; i < kMessages / 3; ++i) {
    const std::string& path = paths[dice.Below(std::size(paths))];
    const std::string& interface = interfaces[dice.Below(std::size(interfaces))];
    const std::string& member = members[dice.Below(std::size(members))];
    if (path == kBusPath && interface == kBusServiceInterface && member == "CreateSchedule") continue;
    const std::string answer = Answer(path, interface, member, {dice.Value(dice.Type())});
    ASSERT_THAT(answer, ::testing::StartsWith("org.freedesktop.DBus.Error.Unknown"))
        << path << " " << interface << " " << member;
    ++refused;
  }
  EXPECT_GT(refused, 100);
  // Properties that are there can't be set.
  for (const char* property : {"Version", "Zone", "Port", "NextWakeUp", "Nothing"}) {
    EXPECT_THAT(Answer(kBusPath, "org.freedesktop.DBus.Properties", "Set",
                       {BusValue::String(std::string(kBusManagerInterface)), BusValue::String(property),
                        BusValue::Variant(BusValue::String("x"))}),
                ::testing::StartsWith("org.freedesktop.DBus.Error."));
  }
  ExpectNothingChanged();
}

TEST_F(Storm, WellFormedCallsWithSenselessValuesAreAnsweredAndChangeNothing) {
  SCOPED_TRACE("seed " + std::to_string(Seed()));
  for (int i = 0; i < kMessages; ++i) {
    const Member& member = kMembers[dice.Below(kMembers.size())];
    const std::string name = member.name;
    if (name.find("OnNodes") != std::string::npos || name == "CreateSchedule" || name == "ModifySchedule") continue;
    std::vector<BusValue> arguments;
    for (const std::string& type : member.arguments) arguments.push_back(dice.Value(type));
    const std::string answer = Answer(kBusPath, member.interface, member.name, arguments);
    ASSERT_TRUE(answer == "0" || answer == "1" || answer == platform::kBusErrorInvalidArgs ||
                answer == std::to_string(static_cast<std::int32_t>(kStatusRegistryRead)) ||
                answer == std::to_string(static_cast<std::int32_t>(kStatusNotFoundForDelete)))
        << "message " << i << ": " << name << " " << answer;
  }
  ExpectNothingChanged();
}

TEST_F(Storm, RecordsOfSenselessRulesAreCreatedAndDeletedOrRefused) {
  SCOPED_TRACE("seed " + std::to_string(Seed()));
  int created = 0;
  for (int i = 0; i < kHostileRecords; ++i) {
    Entries rules = Keys(kRuleKeys);
    Entries entries = {{"bstrName", BusValue::String(dice.Text())},
                       {"bstrWrapperBinaryName", BusValue::String("/bin/true")},
                       {"bstrXMLFilePathName", BusValue::String(service.Jobs() + "/storm.xml")},
                       {"stScheduleRules", BusValue::Dict(std::move(rules))}};
    MessageWriter call;
    MessageReader reply;
    BusError error;
    ASSERT_EQ(raw.NewCall(kBusName, kBusPath, kBusServiceInterface, "CreateSchedule", call), ERROR_SUCCESS);
    call.AppendValue(BusValue::Dict(std::move(entries)));
    ASSERT_EQ(raw.Call(std::move(call), reply, error, kPatience), ERROR_SUCCESS) << "record " << i << ": " << error.text;
    std::int32_t status = -1;
    std::string_view id;
    ASSERT_EQ(reply.ReadInt32(status), ERROR_SUCCESS);
    ASSERT_EQ(reply.ReadString(id), ERROR_SUCCESS);
    if (status != 0) continue;
    ++created;
    ASSERT_EQ(Answer(kBusPath, kBusServiceInterface, "GetScheduleInfo", {BusValue::String(std::string(id))}), "0");
    ASSERT_EQ(Answer(kBusPath, kBusServiceInterface, "DeleteSchedule", {BusValue::String(std::string(id))}), "0");
  }
  EXPECT_GT(created, 0);
  ExpectNothingChanged();
}

TEST_F(Storm, AClientThatFloodsAndLeavesDisturbsNobody) {
  BusConnection flood;
  ASSERT_EQ(flood.Open(service.Bus().ForClients()), ERROR_SUCCESS);
  for (int i = 0; i < 3000; ++i) {
    MessageWriter call;
    ASSERT_EQ(flood.NewCall(kBusName, kBusPath, kBusServiceInterface, "GetScheduleInfo", call), ERROR_SUCCESS);
    call.AppendString(ids[0]);
    ASSERT_EQ(flood.CallAsync(std::move(call), [](MessageReader&, const BusError&) {}), ERROR_SUCCESS);
  }
  flood.Close();  // without having read one reply
  EXPECT_EQ(Answer(kBusPath, kBusServiceInterface, "UpdateList", {BusValue::Int32(0), BusValue::String("")}), "0");
  ExpectNothingChanged();
}

TEST_F(Storm, AMessageOfManyMebibytesIsRefusedForItsFirstBadKey) {
  Entries entries;
  for (int i = 0; i < 20000; ++i) entries.emplace_back("k" + std::to_string(i), BusValue::String(std::string(1000, 'x')));
  std::string text;
  EXPECT_EQ(Answer(kBusPath, kBusServiceInterface, "CreateSchedule", {BusValue::Dict(std::move(entries))}, &text),
            platform::kBusErrorInvalidArgs);
  EXPECT_EQ(text, "unknown key 'k0'");
  ExpectNothingChanged();
}

}  // namespace
}  // namespace qx::testing
