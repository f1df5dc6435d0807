#include "common/bus_records.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/text.h"

namespace qx {
namespace {

using platform::BusConnection;
using platform::BusError;
using platform::BusValue;
using platform::ERROR_SUCCESS;
using platform::MessageReader;
using platform::MessageWriter;

constexpr std::string_view kEchoInterface = "com.example.Echo";

// Two ends of a connection; the server's end runs `serve` for each call of Echo, whose argument and result are `type`.
class Echo {
 public:
  Echo(std::string type, platform::BusMethodHandler serve) {
    EXPECT_EQ(BusConnection::OpenPair(m_server, m_client), ERROR_SUCCESS);
    platform::BusInterface interface;
    interface.name = kEchoInterface;
    interface.methods.push_back({"Echo", {{type, "in"}}, {{type, "out"}}, std::move(serve)});
    EXPECT_EQ(m_server.Export(kBusPath, std::move(interface)), ERROR_SUCCESS);
  }

  // Calls with what `write` appends; `read` gets the reply.
  BusError Call(const std::function<void(MessageWriter&)>& write, const std::function<void(MessageReader&)>& read) {
    MessageWriter call;
    EXPECT_EQ(m_client.NewCall("", kBusPath, kEchoInterface, "Echo", call), ERROR_SUCCESS);
    write(call);
    std::optional<BusError> answer;
    const platform::ErrorCode sent =
        m_client.CallAsync(std::move(call), [&](MessageReader& reply, const BusError& error) {
          answer = error;
          if (!error.IsSet()) read(reply);
        });
    if (sent != ERROR_SUCCESS) return BusError::Failed("the call can't be sent: " + std::to_string(sent));
    while (!answer && m_server.IsOpen() && m_client.IsOpen()) {
      (void)m_server.Process();
      (void)m_client.Process();
    }
    return answer.value_or(BusError::Failed("the connection was lost"));
  }

 private:
  BusConnection m_server;
  BusConnection m_client;
};

// Reads a schedule as a request and sends it back as a reply.
class ScheduleEcho {
 public:
  explicit ScheduleEcho(Reading reading = Reading::kRequest)
      : m_echo(std::string(kScheduleType), [this, reading](MessageReader& call, MessageWriter& reply) {
          BusError error = ReadSchedule(call, reading, received);
          AppendSchedule(reply, received);
          return error;
        }) {}

  BusError Call(const SCHEDULE_OBJECT& schedule) {
    return m_echo.Call(
        [&](MessageWriter& call) { AppendSchedule(call, schedule); },
        [&](MessageReader& reply) { EXPECT_EQ(ReadSchedule(reply, Reading::kReply, returned).text, ""); });
  }
  BusError Call(const BusValue& value) {
    return m_echo.Call([&](MessageWriter& call) { call.AppendValue(value); },
                       [&](MessageReader& reply) { EXPECT_EQ(reply.ReadValue(returnedValue), ERROR_SUCCESS); });
  }

  SCHEDULE_OBJECT received;
  SCHEDULE_OBJECT returned;
  BusValue returnedValue;

 private:
  Echo m_echo;
};

using Entries = std::vector<std::pair<std::string, BusValue>>;

BusValue Rules(Entries entries) {
  return BusValue::Dict({{"stScheduleRules", BusValue::Dict(std::move(entries))}});
}
BusValue Schedule(Entries entries) {
  return BusValue::Dict(std::move(entries));
}

BusValue Numbers(std::string_view type, std::size_t count, std::int64_t value) {
  std::vector<BusValue> elements;
  for (std::size_t i = 0; i < count; ++i) {
    if (type == "n") elements.push_back(BusValue::Int16(static_cast<std::int16_t>(value)));
    if (type == "i") elements.push_back(BusValue::Int32(static_cast<std::int32_t>(value)));
    if (type == "u") elements.push_back(BusValue::Uint32(static_cast<std::uint32_t>(value)));
  }
  return BusValue::Array(type, std::move(elements));
}

template <class Array>
Array Repeated(std::size_t count, typename Array::value_type value) {
  Array array{};
  std::fill_n(array.begin(), count, value);
  return array;
}

struct FieldCase {
  int line;
  const char* key;
  BusValue value;
  std::function<void(SCHEDULE_OBJECT&)> set;
};

std::vector<FieldCase> ScheduleFieldCases() {
  using S = SCHEDULE_OBJECT;
  return {
      {__LINE__, "bstrName", BusValue::String("n"), [](S& s) { s.bstrName = u"n"; }},
      {__LINE__, "bstrDescription", BusValue::String("ü €"), [](S& s) { s.bstrDescription = u"ü €"; }},
      {__LINE__, "bstrApplication", BusValue::String("a"), [](S& s) { s.bstrApplication = u"a"; }},
      {__LINE__, "bstrObjectID", BusValue::String(""), [](S& s) { s.bstrObjectID = u""; }},
      {__LINE__, "dwTaskOpCode", BusValue::Uint32(4294967295u), [](S& s) { s.dwTaskOpCode = 4294967295u; }},
      {__LINE__, "bstrWrapperBinaryName", BusValue::String("w"), [](S& s) { s.bstrWrapperBinaryName = u"w"; }},
      {__LINE__, "bstrXMLFilePathName", BusValue::String("x"), [](S& s) { s.bstrXMLFilePathName = u"x"; }},
      {__LINE__, "bstrParameters", BusValue::String("p"), [](S& s) { s.bstrParameters = u"p"; }},
      {__LINE__, "bstrPreScript", BusValue::String("q"), [](S& s) { s.bstrPreScript = u"q"; }},
      {__LINE__, "bstrPostScript", BusValue::String("r"), [](S& s) { s.bstrPostScript = u"r"; }},
      {__LINE__, "bRunNow", BusValue::Uint32(7), [](S& s) { s.bRunNow = 7; }},
      {__LINE__, "bRunNow", BusValue::Bool(true), [](S& s) { s.bRunNow = 1; }},
      {__LINE__, "bUseGUID", BusValue::Uint32(1), [](S& s) { s.bUseGUID = 1; }},
      {__LINE__, "bUseGUID", BusValue::Bool(false), [](S& s) { s.bUseGUID = 0; }},
      {__LINE__, "lNextTimeWindow", BusValue::Int32(-1), [](S& s) { s.lNextTimeWindow = -1; }},
  };
}

std::vector<FieldCase> RuleFieldCases() {
  using S = SCHEDULE_OBJECT;
  using Week = std::array<std::uint32_t, kDaysOfWeekCount>;
  using Month = std::array<std::int16_t, kDaysOfMonthCount>;
  using Dates = std::array<std::int32_t, kSpecificDateCount>;
  return {
      {__LINE__, "lStartTime", BusValue::Int32(1), [](S& s) { s.stScheduleRules.lStartTime = 1; }},
      {__LINE__, "lEndTime", BusValue::Int32(-2), [](S& s) { s.stScheduleRules.lEndTime = -2; }},
      {__LINE__, "dwTimeDuration", BusValue::Uint32(3), [](S& s) { s.stScheduleRules.dwTimeDuration = 3; }},
      {__LINE__, "bEffectiveDate", BusValue::Bool(true), [](S& s) { s.stScheduleRules.bEffectiveDate = 1; }},
      {__LINE__, "bEffectiveDate", BusValue::Uint32(2), [](S& s) { s.stScheduleRules.bEffectiveDate = 2; }},
      {__LINE__, "lEffectiveDate", BusValue::Int32(5), [](S& s) { s.stScheduleRules.lEffectiveDate = 5; }},
      {__LINE__, "bRestartInterval", BusValue::Bool(true), [](S& s) { s.stScheduleRules.bRestartInterval = 1; }},
      {__LINE__, "dwRestartInterval", BusValue::Uint32(7), [](S& s) { s.stScheduleRules.dwRestartInterval = 7; }},
      {__LINE__, "bRepeatInterval", BusValue::Bool(true), [](S& s) { s.stScheduleRules.bRepeatInterval = 1; }},
      {__LINE__, "dwRepeatInterval", BusValue::Int32(-9), [](S& s) { s.stScheduleRules.dwRepeatInterval = -9; }},
      {__LINE__, "lAnchorDate", BusValue::Int32(10), [](S& s) { s.stScheduleRules.lAnchorDate = 10; }},
      {__LINE__, "adwDaysOfMonth", Numbers("n", 32, -1),
       [](S& s) { s.stScheduleRules.adwDaysOfMonth = Repeated<Month>(32, -1); }},
      {__LINE__, "bLastDayOfMonth", BusValue::Uint32(1), [](S& s) { s.stScheduleRules.bLastDayOfMonth = 1; }},
      {__LINE__, "dwDaysOfWeek0", Numbers("u", 7, 1),
       [](S& s) { s.stScheduleRules.dwDaysOfWeek0 = Repeated<Week>(7, 1); }},
      {__LINE__, "dwDaysOfWeek1", Numbers("u", 6, 2),
       [](S& s) { s.stScheduleRules.dwDaysOfWeek1 = Repeated<Week>(6, 2); }},
      {__LINE__, "dwDaysOfWeek2", Numbers("u", 1, 3),
       [](S& s) { s.stScheduleRules.dwDaysOfWeek2 = Repeated<Week>(1, 3); }},
      {__LINE__, "dwDaysOfWeek3", Numbers("u", 0, 4), [](S& s) { s.stScheduleRules.dwDaysOfWeek3 = Week{}; }},
      {__LINE__, "dwDaysOfWeek4", Numbers("u", 7, 5),
       [](S& s) { s.stScheduleRules.dwDaysOfWeek4 = Repeated<Week>(7, 5); }},
      {__LINE__, "alIncludeDates", Numbers("i", 365, 86400),
       [](S& s) { s.stScheduleRules.alIncludeDates = Repeated<Dates>(365, 86400); }},
      {__LINE__, "alExcludeDates", Numbers("i", 2, 172800),
       [](S& s) { s.stScheduleRules.alExcludeDates = Repeated<Dates>(2, 172800); }},
  };
}

TEST(BusRecords, ReadsEveryFieldOfAScheduleByItsName) {
  for (const FieldCase& c : ScheduleFieldCases()) {
    ScheduleEcho echo;
    SCHEDULE_OBJECT expected;
    c.set(expected);
    EXPECT_EQ(echo.Call(Schedule({{c.key, c.value}})).text, "") << "line " << c.line;
    EXPECT_TRUE(echo.received == expected) << c.key << ", line " << c.line;
  }
}

TEST(BusRecords, ReadsEveryFieldOfTheRulesByItsName) {
  for (const FieldCase& c : RuleFieldCases()) {
    ScheduleEcho echo;
    SCHEDULE_OBJECT expected;
    c.set(expected);
    EXPECT_EQ(echo.Call(Rules({{c.key, c.value}})).text, "") << "line " << c.line;
    EXPECT_TRUE(echo.received == expected) << c.key << ", line " << c.line;
  }
}

TEST(BusRecords, TakesAnAbsentStringAsNullAndAnAbsentNumberAsZero) {
  ScheduleEcho echo;
  echo.received.bstrName = u"left over";
  echo.received.stScheduleRules.lStartTime = 9;
  EXPECT_EQ(echo.Call(Schedule({})).text, "");
  EXPECT_TRUE(echo.received == SCHEDULE_OBJECT());
}

struct RefusalCase {
  int line;
  BusValue value;
  const char* text;
};

TEST(BusRecords, RefusesWhatIsNoScheduleNamingTheKeyAndReadsNothing) {
  const RefusalCase kCases[] = {
      {__LINE__, Schedule({{"foo", BusValue::Int32(1)}}), "unknown key 'foo'"},
      {__LINE__, Schedule({{"bstrname", BusValue::String("")}}), "unknown key 'bstrname'"},
      {__LINE__, Schedule({{"", BusValue::String("")}}), "unknown key ''"},
      {__LINE__, Rules({{"foo", BusValue::Int32(1)}}), "unknown key 'stScheduleRules.foo'"},
      {__LINE__, Rules({{"bstrName", BusValue::String("")}}), "unknown key 'stScheduleRules.bstrName'"},
      {__LINE__, Schedule({{"lStartTime", BusValue::Int32(1)}}), "unknown key 'lStartTime'"},
      {__LINE__, Schedule({{"bRunNow", BusValue::Uint32(1)}, {"bRunNow", BusValue::Uint32(0)}}),
       "key 'bRunNow' is given twice"},
      {__LINE__, Schedule({{"bstrName", BusValue::Int32(1)}}), "wrong type of key 'bstrName': expected 's', got 'i'"},
      {__LINE__, Schedule({{"dwTaskOpCode", BusValue::Int32(1)}}),
       "wrong type of key 'dwTaskOpCode': expected 'u', got 'i'"},
      {__LINE__, Schedule({{"dwTaskOpCode", BusValue::Bool(true)}}),
       "wrong type of key 'dwTaskOpCode': expected 'u', got 'b'"},
      {__LINE__, Schedule({{"bUseGUID", BusValue::Int32(1)}}), "wrong type of key 'bUseGUID': expected 'u', got 'i'"},
      {__LINE__, Schedule({{"lNextTimeWindow", BusValue::Uint32(1)}}),
       "wrong type of key 'lNextTimeWindow': expected 'i', got 'u'"},
      {__LINE__, Schedule({{"stScheduleRules", BusValue::Int32(1)}}),
       "wrong type of key 'stScheduleRules': expected 'a{sv}', got 'i'"},
      {__LINE__, Rules({{"dwRepeatInterval", BusValue::Uint32(1)}}),
       "wrong type of key 'stScheduleRules.dwRepeatInterval': expected 'i', got 'u'"},
      {__LINE__, Rules({{"dwTimeDuration", BusValue::Bool(true)}}),
       "wrong type of key 'stScheduleRules.dwTimeDuration': expected 'u', got 'b'"},
      {__LINE__, Rules({{"adwDaysOfMonth", Numbers("i", 1, 1)}}),
       "wrong type of key 'stScheduleRules.adwDaysOfMonth': expected 'an', got 'ai'"},
      {__LINE__, Rules({{"dwDaysOfWeek0", Numbers("i", 1, 1)}}),
       "wrong type of key 'stScheduleRules.dwDaysOfWeek0': expected 'au', got 'ai'"},
      {__LINE__, Rules({{"alIncludeDates", BusValue::Variant(BusValue::Int32(1))}}),
       "wrong type of key 'stScheduleRules.alIncludeDates': expected 'ai', got 'v'"},
      {__LINE__, Rules({{"adwDaysOfMonth", Numbers("n", 33, 0)}}),
       "too many elements in key 'stScheduleRules.adwDaysOfMonth': at most 32"},
      {__LINE__, Rules({{"dwDaysOfWeek4", Numbers("u", 8, 0)}}),
       "too many elements in key 'stScheduleRules.dwDaysOfWeek4': at most 7"},
      {__LINE__, Rules({{"alIncludeDates", Numbers("i", 366, 1)}}),
       "too many elements in key 'stScheduleRules.alIncludeDates': at most 365"},
      {__LINE__, Rules({{"alExcludeDates", Numbers("i", 1000, 1)}}),
       "too many elements in key 'stScheduleRules.alExcludeDates': at most 365"},
      {__LINE__, Schedule({{"bstrName", BusValue::String("a\rb")}}), "a line end in key 'bstrName'"},
      {__LINE__, Schedule({{"bstrDescription", BusValue::String("\n")}}), "a line end in key 'bstrDescription'"},
      {__LINE__, Schedule({{"bstrApplication", BusValue::String("a\n")}}), "a line end in key 'bstrApplication'"},
      {__LINE__, Schedule({{"bstrObjectID", BusValue::String("a\r\n")}}), "a line end in key 'bstrObjectID'"},
      {__LINE__, Schedule({{"bstrWrapperBinaryName", BusValue::String("\r")}}),
       "a line end in key 'bstrWrapperBinaryName'"},
      {__LINE__, Schedule({{"bstrXMLFilePathName", BusValue::String("x\ny")}}),
       "a line end in key 'bstrXMLFilePathName'"},
      {__LINE__, Schedule({{"bstrParameters", BusValue::String("x\ny")}}), "a line end in key 'bstrParameters'"},
      {__LINE__, Schedule({{"bstrPreScript", BusValue::String("x\ny")}}), "a line end in key 'bstrPreScript'"},
      {__LINE__, Schedule({{"bstrPostScript", BusValue::String("x\ny")}}), "a line end in key 'bstrPostScript'"},
  };
  for (const RefusalCase& c : kCases) {
    ScheduleEcho echo;
    echo.received.bstrName = u"before";
    const SCHEDULE_OBJECT before = echo.received;
    const BusError error = echo.Call(c.value);
    EXPECT_EQ(error.name, platform::kBusErrorInvalidArgs) << "line " << c.line;
    EXPECT_EQ(error.text, c.text) << "line " << c.line;
    EXPECT_TRUE(echo.received == before) << "line " << c.line;
  }
}

TEST(BusRecords, ShowsALineEndOfAReplyAsItIs) {
  ScheduleEcho echo(Reading::kReply);
  SCHEDULE_OBJECT schedule;
  schedule.bstrParameters = u"two\nlines";
  EXPECT_EQ(echo.Call(schedule).text, "");
  EXPECT_TRUE(echo.returned == schedule);
}

TEST(BusRecords, LeavesNullStringsAndTrailingZerosOutOfAReply) {
  ScheduleEcho echo;
  ASSERT_EQ(echo.Call(Rules({{"dwDaysOfWeek0", Numbers("u", 7, 0)}, {"adwDaysOfMonth", Numbers("n", 3, 1)}})).text, "");
  const auto& entries = std::get<std::vector<BusValue>>(echo.returnedValue.data);
  std::vector<std::string> keys;
  for (const BusValue& entry : entries) {
    keys.push_back(std::get<std::string>(std::get<std::vector<BusValue>>(entry.data)[0].data));
  }
  EXPECT_THAT(keys,
              ::testing::ElementsAre("dwTaskOpCode", "bRunNow", "bUseGUID", "lNextTimeWindow", "stScheduleRules"));
  const BusValue& rulesVariant = std::get<std::vector<BusValue>>(entries.back().data)[1];
  const BusValue& rules = std::get<std::vector<BusValue>>(rulesVariant.data)[0];
  std::size_t found = 0;
  for (const BusValue& entry : std::get<std::vector<BusValue>>(rules.data)) {
    const auto& pair = std::get<std::vector<BusValue>>(entry.data);
    const BusValue& value = std::get<std::vector<BusValue>>(pair[1].data)[0];
    const std::string& key = std::get<std::string>(pair[0].data);
    if (key == "dwDaysOfWeek0") {
      EXPECT_EQ(value, Numbers("u", 0, 0));
      ++found;
    }
    if (key == "adwDaysOfMonth") {
      EXPECT_EQ(value, Numbers("n", 3, 1));
      ++found;
    }
  }
  EXPECT_EQ(found, 2u);
}

TEST(BusRecords, SendsALoneSurrogateAndANulAsReplacementCharacters) {
  ScheduleEcho echo;
  SCHEDULE_OBJECT schedule;
  schedule.bstrName = std::u16string{u'a', char16_t(0xD800), u'b', u'\0', u'c'};
  EXPECT_EQ(echo.Call(schedule).text, "");
  EXPECT_TRUE(echo.received.bstrName == u"a\uFFFDb\uFFFDc");
}

TEST(BusRecords, SendsANoncharacterAsAReplacementCharacter) {
  for (const char16_t* text : {u"a\uFFFEb", u"a\uFFFFb", u"a\uFDD0b", u"a\uFDEFb", u"a\U0001FFFEb", u"a\U0010FFFFb"}) {
    ScheduleEcho echo;
    SCHEDULE_OBJECT schedule;
    schedule.bstrName = std::u16string(text);
    EXPECT_EQ(echo.Call(schedule).text, "");
    EXPECT_TRUE(echo.received.bstrName == u"a\uFFFDb");
  }
  ScheduleEcho echo;
  SCHEDULE_OBJECT schedule;
  schedule.bstrName = std::u16string(u"\uFDCF\uFDF0\uFFFD\U0001FFFD\U00020000");  // their neighbours are characters
  EXPECT_EQ(echo.Call(schedule).text, "");
  EXPECT_TRUE(echo.received.bstrName == schedule.bstrName);
}

// The library doesn't look at these texts again, and the bus ends a connection that sends others.
TEST(BusRecords, MakesATextThatTheBusTakesOfAnyUnits) {
  const auto unit = rc::gen::oneOf(rc::gen::arbitrary<std::uint16_t>(), rc::gen::inRange<std::uint16_t>(0, 0x90),
                                   rc::gen::inRange<std::uint16_t>(0xD7F0, 0xE010),
                                   rc::gen::inRange<std::uint16_t>(0xFDC0, 0xFE00),
                                   rc::gen::element<std::uint16_t>(0xFFFD, 0xFFFE, 0xFFFF));
  EXPECT_TRUE(rc::check([&] {
    std::u16string text;
    for (const std::uint16_t c : *rc::gen::container<std::vector<std::uint16_t>>(unit)) text += char16_t(c);
    std::string sent;
    AppendSentText(sent, text);
    RC_ASSERT(platform::IsValidUtf8(sent));
    RC_ASSERT(sent.find('\0') == std::string::npos);
    ScheduleEcho echo;  // reads texts with a look at each
    SCHEDULE_OBJECT schedule;
    schedule.bstrName = text;
    RC_PRE(text.find_first_of(u"\r\n") == std::u16string::npos);
    RC_ASSERT(echo.Call(schedule).text == "");
    RC_ASSERT(*echo.received.bstrName == platform::WideFromUtf8(sent));
  }));
}

// --- the round trip ---

rc::Gen<BSTR> AnyText() {
  return rc::gen::map(rc::gen::maybe(rc::gen::container<std::u32string>(rc::gen::oneOf(
                          rc::gen::inRange<char32_t>(0x20, 0x7F), rc::gen::inRange<char32_t>(0xA0, 0xD800),
                          rc::gen::inRange<char32_t>(0x10000, 0x110000)))),
                      [](const rc::Maybe<std::u32string>& text) {
                        if (!text) return BSTR();
                        std::u16string wide;
                        for (const char32_t c : *text) {
                          if ((c & 0xFFFE) == 0xFFFE) continue;  // a noncharacter comes back as another one
                          if (c < 0x10000) {
                            wide += static_cast<char16_t>(c);
                          } else {
                            wide += static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10));
                            wide += static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF));
                          }
                        }
                        return BSTR(wide);
                      });
}

template <class Array>
void FillAny(Array& array) {
  using Element = typename Array::value_type;
  const std::size_t count = *rc::gen::inRange<std::size_t>(0, array.size() + 1);
  for (std::size_t i = 0; i < count; ++i) array[i] = *rc::gen::arbitrary<Element>();
}

SCHEDULE_OBJECT AnySchedule() {
  SCHEDULE_OBJECT s;
  for (BSTR* text : {&s.bstrName, &s.bstrDescription, &s.bstrApplication, &s.bstrObjectID, &s.bstrWrapperBinaryName,
                     &s.bstrXMLFilePathName, &s.bstrParameters, &s.bstrPreScript, &s.bstrPostScript}) {
    *text = *AnyText();
  }
  SCHEDULE_RULE& r = s.stScheduleRules;
  for (std::uint32_t* number : {&s.dwTaskOpCode, &s.bRunNow, &s.bUseGUID, &r.dwTimeDuration, &r.bEffectiveDate,
                                &r.bRestartInterval, &r.dwRestartInterval, &r.bRepeatInterval, &r.bLastDayOfMonth}) {
    *number = *rc::gen::arbitrary<std::uint32_t>();
  }
  for (std::int32_t* number :
       {&s.lNextTimeWindow, &r.lStartTime, &r.lEndTime, &r.lEffectiveDate, &r.dwRepeatInterval, &r.lAnchorDate}) {
    *number = *rc::gen::arbitrary<std::int32_t>();
  }
  FillAny(r.adwDaysOfMonth);
  for (auto* week : {&r.dwDaysOfWeek0, &r.dwDaysOfWeek1, &r.dwDaysOfWeek2, &r.dwDaysOfWeek3, &r.dwDaysOfWeek4}) {
    FillAny(*week);
  }
  FillAny(r.alIncludeDates);
  FillAny(r.alExcludeDates);
  return s;
}

TEST(BusRecords, AnyScheduleComesBackAsItWent) {
  EXPECT_TRUE(rc::check("a schedule survives the way there and back", [] {
    ScheduleEcho echo;
    const SCHEDULE_OBJECT schedule = AnySchedule();
    RC_ASSERT(echo.Call(schedule).text == "");
    RC_ASSERT(echo.received == schedule);
    RC_ASSERT(echo.returned == schedule);
  }));
}

// --- the smaller records ---

TEST(BusRecords, TheShortFormKeepsEveryFieldAndSendsANullStringAsEmpty) {
  SCHEDULE_OBJECT_EX received;
  SCHEDULE_OBJECT_EX returned;
  Echo echo("(ussssssssu)", [&](MessageReader& call, MessageWriter& reply) {
    BusError error = ReadScheduleEx(call, received);
    AppendScheduleEx(reply, received);
    return error;
  });
  SCHEDULE_OBJECT_EX sent;
  sent.dwTaskOpCode = 1;
  sent.bstrScheduleID = u"id";
  sent.bstrApplication = u"application";
  sent.bstrObjectID = u"object";
  sent.bstrWrapperBinaryName = u"wrapper";
  sent.bstrXMLFilePathName = u"xml";
  sent.bstrParameters = u"parameters";
  sent.bstrPreScript = u"pre";
  sent.bUseGUID = 2;
  const BusError error = echo.Call([&](MessageWriter& call) { AppendScheduleEx(call, sent); },
                                   [&](MessageReader& reply) { EXPECT_EQ(ReadScheduleEx(reply, returned).text, ""); });
  EXPECT_EQ(error.text, "");
  sent.bstrPostScript = u"";
  EXPECT_TRUE(received == sent);
  EXPECT_TRUE(returned == sent);
}

TEST(BusRecords, ARowOfThePagedListKeepsEveryField) {
  ListRow received;
  ListRow returned;
  Echo echo("(ssssusssssui)", [&](MessageReader& call, MessageWriter& reply) {
    BusError error = ReadListRow(call, received);
    AppendListRow(reply, received);
    return error;
  });
  const ListRow sent = {u"id", u"name", u"app", u"object", 4, u"wrapper", u"xml", u"param", u"pre", u"post", 1, -2};
  const BusError error = echo.Call([&](MessageWriter& call) { AppendListRow(call, sent); },
                                   [&](MessageReader& reply) { EXPECT_EQ(ReadListRow(reply, returned).text, ""); });
  EXPECT_EQ(error.text, "");
  EXPECT_TRUE(received == sent);
  EXPECT_TRUE(returned == sent);
}

struct IdCase {
  int line;
  const char* text;
  bool valid;
};

TEST(BusRecords, AnIdentifierIsItsBracedTextOfEitherCase) {
  const IdCase kCases[] = {
      {__LINE__, "{99E6EA90-FFAE-46F2-B940-62519E6E0FD6}", true},
      {__LINE__, "{99e6ea90-ffae-46f2-b940-62519e6e0fd6}", true},
      {__LINE__, "", false},
      {__LINE__, "99E6EA90-FFAE-46F2-B940-62519E6E0FD6", false},
      {__LINE__, "{99E6EA90-FFAE-46F2-B940-62519E6E0FD6", false},
      {__LINE__, "{99E6EA90-FFAE-46F2-B940-62519E6E0FD6} ", false},
      {__LINE__, "{99E6EA90-FFAE-46F2-B940-62519E6E0FG6}", false},
      {__LINE__, "{99E6EA90FFAE-46F2-B940-62519E6E0FD6-}", false},
      {__LINE__, "{99E6EA90-FFAE-46F2-B940-62519E6E0FDé}", false},
  };
  for (const IdCase& c : kCases) {
    ScheduleGuid received;
    Echo echo("s", [&](MessageReader& call, MessageWriter& reply) {
      BusError error = ReadScheduleId(call, "schedule_id", received);
      AppendScheduleId(reply, received);
      return error;
    });
    std::string back;
    const BusError error = echo.Call([&](MessageWriter& call) { call.AppendString(c.text); },
                                     [&](MessageReader& reply) {
                                       std::string_view text;
                                       EXPECT_EQ(reply.ReadString(text), ERROR_SUCCESS);
                                       back = text;
                                     });
    if (c.valid) {
      EXPECT_EQ(error.text, "") << "line " << c.line;
      EXPECT_EQ(back, "{99E6EA90-FFAE-46F2-B940-62519E6E0FD6}") << "line " << c.line;
      EXPECT_TRUE(received == CLSID_SchedulerService);
    } else {
      EXPECT_EQ(error.name, platform::kBusErrorInvalidArgs) << "line " << c.line;
      EXPECT_EQ(error.text, "key 'schedule_id' is no identifier in braces") << "line " << c.line;
      EXPECT_TRUE(received == ScheduleGuid());
    }
  }
}

TEST(BusRecords, ArraysOfTextsAndNumbersComeBackAsTheyWent) {
  std::vector<std::u16string> texts;
  std::vector<std::int32_t> numbers;
  Echo echo("(asai)", [&](MessageReader& call, MessageWriter& reply) {
    EXPECT_EQ(call.EnterStruct("asai"), ERROR_SUCCESS);
    BusError error = ReadTexts(call, Reading::kRequest, "node_names", texts);
    if (!error.IsSet()) error = ReadNumbers(call, "results", numbers);
    reply.OpenStruct("asai");
    AppendTexts(reply, texts);
    AppendNumbers(reply, numbers);
    reply.Close();
    return error;
  });
  const auto send = [&](const std::vector<std::u16string>& names) {
    return echo.Call(
        [&](MessageWriter& call) {
          call.OpenStruct("asai");
          AppendTexts(call, names);
          AppendNumbers(call, {1, -2, 3});
          call.Close();
        },
        [](MessageReader&) {});
  };
  EXPECT_EQ(send({u"one", u"", u"drei"}).text, "");
  EXPECT_THAT(texts, ::testing::ElementsAre(u"one", u"", u"drei"));
  EXPECT_THAT(numbers, ::testing::ElementsAre(1, -2, 3));
  EXPECT_EQ(send({u"one\n"}).text, "a line end in key 'node_names'");
  EXPECT_THAT(texts, ::testing::ElementsAre(u"one", u"", u"drei"));
}

TEST(BusRecords, RefusesAReplyAboveTheLimitNamingTheCallThatPages) {
  BusConnection server;
  BusConnection client;
  ASSERT_EQ(BusConnection::OpenPair(server, client), ERROR_SUCCESS);
  MessageWriter writer;
  ASSERT_EQ(client.NewCall("", kBusPath, kEchoInterface, "Echo", writer), ERROR_SUCCESS);
  const std::string text(1024 - 5, 'x');  // with its length and terminator 1024 bytes
  for (int i = 0; i < 1024; ++i) writer.AppendString(text);
  ASSERT_EQ(writer.BytesSoFar(), std::size_t{1} << 20);
  EXPECT_FALSE(CheckReplySize(writer, std::size_t{1} << 20).IsSet());
  writer.AppendUint32(0);
  const BusError error = CheckReplySize(writer, std::size_t{1} << 20);
  EXPECT_EQ(error.name, platform::kBusErrorLimitsExceeded);
  EXPECT_EQ(
      error.text,
      "the reply would take more than 1 MiB; read the schedules in pages with com.korvane.QxSched1.Manager.ListInfo");
}

}  // namespace
}  // namespace qx
