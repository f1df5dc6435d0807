#include "platform/bus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/bus_hello.h"
#include "platform/bus_presence.h"
#include "platform/descriptor.h"
#include "platform/testing/fault.h"
#include "platform/testing/private_bus.h"
#include "platform/testing/temporary_folder.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* kPath = "/test/Object";
constexpr const char* kInterface = "test.Interface";
constexpr const char* kName = "test.Name";

struct Answer {
  bool came = false;
  BusError error;
  std::vector<BusValue> values;
};

using Arguments = std::vector<BusValue>;

void AppendAll(MessageWriter& writer, const Arguments& arguments) {
  for (const BusValue& argument : arguments) writer.AppendValue(argument);
}

std::vector<BusValue> ReadAll(MessageReader& reader) {
  std::vector<BusValue> values;
  while (!reader.AtEnd()) {
    values.emplace_back();
    EXPECT_EQ(reader.ReadValue(values.back()), ERROR_SUCCESS);
  }
  return values;
}

// Two ends in one thread, stepped in turn.
class BusPair : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(BusConnection::OpenPair(server, client), ERROR_SUCCESS); }

  void Turn() {
    const bool served = server.Process();
    const bool called = client.Process();
    if (served || called) return;
    if (!server.WaitForWork(0) && !client.WaitForWork(0)) (void)client.WaitForWork(1);
  }

  void StepUntil(const std::function<bool()>& done) {
    for (int i = 0; i < 10000 && !done(); ++i) Turn();
    EXPECT_TRUE(done());
  }

  Answer CallMember(std::string_view interfaceName, std::string_view member, const Arguments& arguments) {
    MessageWriter call;
    EXPECT_EQ(client.NewCall("", kPath, interfaceName, member, call), ERROR_SUCCESS);
    AppendAll(call, arguments);
    Answer answer;
    EXPECT_EQ(client.CallAsync(std::move(call),
                               [&](MessageReader& reply, const BusError& error) {
                                 answer.came = true;
                                 answer.error = error;
                                 answer.values = ReadAll(reply);
                               }),
              ERROR_SUCCESS);
    StepUntil([&] { return answer.came; });
    return answer;
  }
  Answer Call(std::string_view member, const Arguments& arguments = {}) {
    return CallMember(kInterface, member, arguments);
  }

  void Serve(BusMethod method) {
    BusInterface served;
    served.name = kInterface;
    served.methods.push_back(std::move(method));
    ASSERT_EQ(server.Export(kPath, std::move(served)), ERROR_SUCCESS);
  }

  BusConnection server;
  BusConnection client;
};

TEST_F(BusPair, AnswersACallWithWhatTheHandlerWrote) {
  Serve({"Add", {{"i", "a"}, {"i", "b"}}, {{"i", "sum"}}, [](MessageReader& call, MessageWriter& reply) {
           std::int32_t a = 0, b = 0;
           EXPECT_EQ(call.ReadInt32(a), ERROR_SUCCESS);
           EXPECT_EQ(call.ReadInt32(b), ERROR_SUCCESS);
           EXPECT_EQ(call.Path(), kPath);
           EXPECT_EQ(call.Interface(), kInterface);
           EXPECT_EQ(call.Member(), "Add");
           EXPECT_EQ(call.Signature(), "ii");
           reply.AppendInt32(a + b);
           return BusError{};
         }});
  const Answer answer = Call("Add", {BusValue::Int32(20), BusValue::Int32(22)});
  EXPECT_FALSE(answer.error.IsSet());
  EXPECT_THAT(answer.values, ElementsAre(BusValue::Int32(42)));
}

TEST_F(BusPair, CarriesEveryKindOfValueUnchanged) {
  const Arguments all = {
      BusValue::Bool(true),
      BusValue::Int16(-32768),
      BusValue::Uint16(65535),
      BusValue::Int32(-2147483647 - 1),
      BusValue::Uint32(4294967295u),
      BusValue::Int64(INT64_MIN),
      {"t", std::uint64_t{UINT64_MAX}},
      {"y", std::uint64_t{255}},
      {"d", 1.5},
      {"o", std::string("/a/b")},
      {"g", std::string("a{sv}")},
      BusValue::String("gr\xC3\xBC\xC3\x9F dich"),
      BusValue::String(""),
      BusValue::Array("n", {BusValue::Int16(1), BusValue::Int16(-1)}),
      BusValue::Array("(su)", {BusValue::Struct({BusValue::String("x"), BusValue::Uint32(7)})}),
      BusValue::Array("s", {}),
      BusValue::Dict({{"k", BusValue::Int32(1)}, {"nested", BusValue::Dict({{"inner", BusValue::Bool(false)}})}}),
      BusValue::Variant(BusValue::Array("i", {BusValue::Int32(5)})),
  };
  std::vector<BusArgument> types;
  for (const BusValue& value : all) types.push_back({value.type, "v"});
  Serve({"Echo", types, types, [](MessageReader& call, MessageWriter& reply) {
           AppendAll(reply, ReadAll(call));
           return BusError{};
         }});
  const Answer answer = Call("Echo", all);
  EXPECT_FALSE(answer.error.IsSet()) << answer.error.text;
  EXPECT_EQ(answer.values, all);
}

TEST_F(BusPair, ReadsADictionaryKeyByKeyAndSeesAWrongTypeBeforeReadingIt) {
  std::string log;
  Serve({"Create", {{"a{sv}", "record"}}, {}, [&](MessageReader& call, MessageWriter&) {
           EXPECT_EQ(call.EnterArray("{sv}"), ERROR_SUCCESS);
           while (!call.AtEnd()) {
             std::string_view key;
             EXPECT_EQ(call.EnterDictEntry("sv"), ERROR_SUCCESS);
             EXPECT_EQ(call.ReadString(key), ERROR_SUCCESS);
             const MessageReader::Next next = call.PeekType();
             EXPECT_EQ(next.kind, BusKind::kVariant);
             log += std::string(key) + ":" + std::string(next.contents) + " ";
             EXPECT_EQ(call.EnterVariant("x"), ERROR_INVALID_DATA);
             if (next.contents == "s") {
               std::string_view text;
               std::int32_t number = 77;
               EXPECT_EQ(call.EnterVariant("s"), ERROR_SUCCESS);
               EXPECT_EQ(call.ReadInt32(number), ERROR_INVALID_DATA);
               EXPECT_EQ(number, 77);
               EXPECT_EQ(call.ReadString(text), ERROR_SUCCESS);
               EXPECT_EQ(call.ReadString(text), ERROR_NO_MORE_ITEMS);
               log += std::string(text) + " ";
               EXPECT_EQ(call.Exit(), ERROR_SUCCESS);
             }
             EXPECT_EQ(call.Exit(), ERROR_SUCCESS);  // skips what wasn't read
           }
           EXPECT_EQ(call.Exit(), ERROR_SUCCESS);
           EXPECT_EQ(call.Exit(), ERROR_INVALID_FUNCTION);
           EXPECT_TRUE(call.AtEnd());
           EXPECT_EQ(call.Skip(), ERROR_NO_MORE_ITEMS);
           call.Rewind();
           EXPECT_EQ(call.PeekType().kind, BusKind::kArray);
           EXPECT_EQ(call.PeekType().contents, "{sv}");
           return BusError{};
         }});
  Call("Create", {BusValue::Dict({{"bstrName", BusValue::String("n")},
                                  {"adwDaysOfMonth", BusValue::Array("n", {BusValue::Int16(1)})},
                                  {"bstrObjectID", BusValue::String("o")}})});
  EXPECT_EQ(log, "bstrName:s n adwDaysOfMonth:an bstrObjectID:s o ");
}

TEST_F(BusPair, CarriesWholeArraysOfNumbersAsItCarriesTheirElements) {
  const std::vector<BusValue> expected = {
      BusValue::Array("n", {BusValue::Int16(1), BusValue::Int16(-32768), BusValue::Int16(3)}),
      BusValue::Array("i", {}),
      BusValue::Array("u", {BusValue::Uint32(4294967295u)}),
  };
  std::array<std::int16_t, 2> shorts = {7, 7};
  std::array<std::int32_t, 2> longs = {7, 7};
  std::array<std::uint32_t, 3> words = {7, 7, 7};
  Serve({"Echo", {{"an", "n"}, {"ai", "i"}, {"au", "u"}}, {{"an", "n"}, {"ai", "i"}, {"au", "u"}},
         [&](MessageReader& call, MessageWriter& reply) {
           std::size_t count = 77;
           EXPECT_EQ(call.ReadArray(longs, count), ERROR_INVALID_DATA);  // of another type: nothing moves
           EXPECT_EQ(count, 77u);
           EXPECT_EQ(call.ReadArray(shorts, count), ERROR_SUCCESS);
           EXPECT_EQ(count, 3u);  // more than fit
           EXPECT_EQ(call.ReadArray(longs, count), ERROR_SUCCESS);
           EXPECT_EQ(count, 0u);
           EXPECT_EQ(call.ReadArray(words, count), ERROR_SUCCESS);
           EXPECT_EQ(count, 1u);
           EXPECT_EQ(call.ReadArray(words, count), ERROR_NO_MORE_ITEMS);
           const std::int16_t sent[] = {1, -32768, 3};
           reply.AppendArray(sent);
           reply.AppendArray(std::span<const std::int32_t>());
           reply.AppendArray(std::span<const std::uint32_t>(words).first(1));
           MessageWriter same;
           EXPECT_EQ(server.NewSignal(kPath, kInterface, "S", same), ERROR_SUCCESS);
           AppendAll(same, expected);
           EXPECT_EQ(reply.BytesSoFar(), same.BytesSoFar());
           return BusError{};
         }});
  const Answer answer = Call("Echo", expected);
  EXPECT_FALSE(answer.error.IsSet()) << answer.error.text;
  EXPECT_EQ(answer.values, expected);
  EXPECT_THAT(shorts, ElementsAre(1, -32768));
  EXPECT_THAT(longs, ElementsAre(7, 7));
  EXPECT_THAT(words, ElementsAre(4294967295u, 7u, 7u));
}

TEST_F(BusPair, AnswersARefusalByItsNameAndText) {
  Serve({"Refuse", {}, {{"i", "status"}}, [](MessageReader&, MessageWriter& reply) {
           reply.AppendInt32(1);  // thrown away
           return BusError::InvalidArgs("unknown key 'schedule.x%s'");
         }});
  const Answer answer = Call("Refuse");
  EXPECT_EQ(answer.error.name, kBusErrorInvalidArgs);
  EXPECT_EQ(answer.error.text, "unknown key 'schedule.x%s'");
  EXPECT_THAT(answer.values, IsEmpty());
}

struct BadReply {
  const char* what;
  BusMethodHandler handler;
  const char* text;
};

TEST_F(BusPair, AnswersEveryHandlerThatGoesWrongWithAnError) {
  const BadReply kCases[] = {
      {"throws", [](MessageReader&, MessageWriter&) -> BusError { throw std::runtime_error("secret"); },
       "an internal error ended the call"},
      {"throws a number", [](MessageReader&, MessageWriter&) -> BusError { throw 3; },
       "an internal error ended the call"},
      {"finds no memory", [](MessageReader&, MessageWriter&) -> BusError { throw std::bad_alloc(); },
       "no memory is left for this call"},
      {"writes nothing", [](MessageReader&, MessageWriter&) { return BusError{}; },
       "the reply is not of the declared type"},
      {"writes another type",
       [](MessageReader&, MessageWriter& reply) {
         reply.AppendString("x");
         return BusError{};
       },
       "the reply is not of the declared type"},
      {"leaves a container open",
       [](MessageReader&, MessageWriter& reply) {
         reply.Close();
         reply.AppendInt32(1);
         return BusError{};
       },
       "the reply could not be built"},
      {"writes ill-formed text",
       [](MessageReader&, MessageWriter& reply) {
         reply.AppendString("\xED\xA0\x80");
         return BusError{};
       },
       "a text of the reply is not valid UTF-8"},
      {"writes a NUL",
       [](MessageReader&, MessageWriter& reply) {
         reply.AppendString(std::string_view("a\0b", 3));
         return BusError{};
       },
       "a text of the reply is not valid UTF-8"},
      {"gives an error without a proper name",
       [](MessageReader&, MessageWriter&) { return BusError{"nodots", "t"}; }, "the error of this call has no valid text"},
      {"gives an error with ill-formed text",
       [](MessageReader&, MessageWriter&) { return BusError::InvalidArgs("\xFF"); },
       "the error of this call has no valid text"},
  };
  BusInterface served;
  served.name = kInterface;
  int number = 0;
  for (const BadReply& bad : kCases) {
    served.methods.push_back({"M" + std::to_string(number++), {}, {{"i", "status"}}, bad.handler});
  }
  ASSERT_EQ(server.Export(kPath, std::move(served)), ERROR_SUCCESS);
  number = 0;
  for (const BadReply& bad : kCases) {
    const Answer answer = Call("M" + std::to_string(number++));
    EXPECT_EQ(answer.error.name, kBusErrorFailed) << bad.what;
    EXPECT_EQ(answer.error.text, bad.text) << bad.what;
  }
  EXPECT_TRUE(server.IsOpen());
}

TEST_F(BusPair, RefusesArgumentsOfAnotherTypeBeforeTheHandler) {
  bool called = false;
  Serve({"Take", {{"i", "number"}}, {}, [&](MessageReader&, MessageWriter&) {
           called = true;
           return BusError{};
         }});
  const Answer answer = Call("Take", {BusValue::String("x")});
  EXPECT_EQ(answer.error.name, kBusErrorInvalidArgs);
  EXPECT_FALSE(called);
}

TEST_F(BusPair, ServesSeveralInterfacesOfOneObjectOnceEach) {
  const auto interfaceNamed = [](std::string name) {
    BusInterface served;
    served.name = std::move(name);
    served.methods.push_back({"Which", {}, {{"s", "name"}}, [n = served.name](MessageReader&, MessageWriter& reply) {
                                reply.AppendString(n);
                                return BusError{};
                              }});
    return served;
  };
  EXPECT_EQ(server.Export(kPath, interfaceNamed("test.One")), ERROR_SUCCESS);
  EXPECT_EQ(server.Export(kPath, interfaceNamed("test.Two")), ERROR_SUCCESS);
  EXPECT_EQ(server.Export(kPath, interfaceNamed("test.Two")), ERROR_ALREADY_EXISTS);
  EXPECT_EQ(server.Export(kPath, interfaceNamed("no-dots")), ERROR_INVALID_PARAMETER);
  EXPECT_THAT(CallMember("test.One", "Which", {}).values, ElementsAre(BusValue::String("test.One")));
  EXPECT_THAT(CallMember("test.Two", "Which", {}).values, ElementsAre(BusValue::String("test.Two")));
}

TEST_F(BusPair, TellsNamesOfAllArgumentsInIntrospection) {
  BusInterface served;
  served.name = kInterface;
  const auto nothing = [](MessageReader&, MessageWriter&) { return BusError{}; };
  served.methods.push_back({"Create", {{"a{sv}", "schedule"}}, {{"i", "status"}, {"s", "schedule_id"}}, nothing});
  served.methods.push_back({"Refresh", {}, {{"i", "status"}}, nothing});
  served.signals.push_back({"Changed", {{"s", "schedule_id"}, {"i", "next"}}});
  served.properties.push_back({"Port", "u", [](auto, MessageWriter& writer) { writer.AppendUint32(4888); }});
  ASSERT_EQ(server.Export(kPath, std::move(served)), ERROR_SUCCESS);
  const Answer answer = CallMember("org.freedesktop.DBus.Introspectable", "Introspect", {});
  ASSERT_EQ(answer.values.size(), 1u);
  const auto& xml = std::get<std::string>(answer.values[0].data);
  EXPECT_THAT(xml, AllOf(HasSubstr("<arg type=\"a{sv}\" name=\"schedule\" direction=\"in\"/>"),
                         HasSubstr("<arg type=\"i\" name=\"status\" direction=\"out\"/>"),
                         HasSubstr("<arg type=\"s\" name=\"schedule_id\" direction=\"out\"/>"),
                         HasSubstr("<signal name=\"Changed\">"), HasSubstr("<arg type=\"i\" name=\"next\"/>"),
                         HasSubstr("<property name=\"Port\" type=\"u\" access=\"read\">")));
}

TEST_F(BusPair, ReadsPropertiesAndCatchesAGetterThatThrows) {
  BusInterface served;
  served.name = kInterface;
  served.properties.push_back({"Port", "u", [](auto, MessageWriter& writer) { writer.AppendUint32(4888); }});
  served.properties.push_back({"Bad", "u", [](auto, MessageWriter&) { throw std::runtime_error("x"); }});
  served.properties.push_back({"Wrong", "u", [](auto, MessageWriter& writer) { writer.AppendString("x"); }});
  ASSERT_EQ(server.Export(kPath, std::move(served)), ERROR_SUCCESS);
  const auto get = [&](const char* name) {
    return CallMember("org.freedesktop.DBus.Properties", "Get", {BusValue::String(kInterface), BusValue::String(name)});
  };
  EXPECT_THAT(get("Port").values, ElementsAre(BusValue::Variant(BusValue::Uint32(4888))));
  EXPECT_EQ(get("Bad").error.name, kBusErrorFailed);
  EXPECT_EQ(get("Wrong").error.name, kBusErrorFailed);
  EXPECT_TRUE(get("Missing").error.IsSet());
}

TEST_F(BusPair, DeliversSignalsInOrderToEachWhoMatches) {
  std::vector<std::string> all;
  std::vector<std::string> one;
  ASSERT_EQ(client.Subscribe("", kPath, kInterface, "",
                             [&](MessageReader& signal) { all.emplace_back(signal.Member()); }),
            ERROR_SUCCESS);
  ASSERT_EQ(client.Subscribe("", "", "", "Second",
                             [&](MessageReader& signal) {
                               std::string_view text;
                               EXPECT_EQ(signal.ReadString(text), ERROR_SUCCESS);
                               one.emplace_back(text);
                             }),
            ERROR_SUCCESS);
  for (const char* member : {"First", "Second", "Third"}) {
    MessageWriter signal;
    ASSERT_EQ(server.NewSignal(kPath, kInterface, member, signal), ERROR_SUCCESS);
    signal.AppendString(member);
    ASSERT_EQ(server.Send(std::move(signal)), ERROR_SUCCESS);
  }
  StepUntil([&] { return all.size() == 3; });
  EXPECT_THAT(all, ElementsAre("First", "Second", "Third"));
  EXPECT_THAT(one, ElementsAre("Second"));
}

TEST_F(BusPair, GoesOnAfterASignalHandlerThatThrows) {
  int seen = 0;
  ASSERT_EQ(client.Subscribe("", "", "", "", [&](MessageReader&) {
              ++seen;
              throw std::runtime_error("x");
            }),
            ERROR_SUCCESS);
  for (int i = 0; i < 2; ++i) {
    MessageWriter signal;
    ASSERT_EQ(server.NewSignal(kPath, kInterface, "S", signal), ERROR_SUCCESS);
    ASSERT_EQ(server.Send(std::move(signal)), ERROR_SUCCESS);
  }
  StepUntil([&] { return seen == 2; });
}

TEST_F(BusPair, KnowsTheUserOfTheOtherEnd) {
  std::uint32_t user = 12345;
  Serve({"Who", {}, {}, [&](MessageReader& call, MessageWriter&) {
           EXPECT_EQ(call.SenderUser(user), ERROR_SUCCESS);
           EXPECT_EQ(call.Sender(), "");
           return BusError{};
         }});
  EXPECT_FALSE(Call("Who").error.IsSet());
  EXPECT_EQ(user, geteuid());
}

TEST_F(BusPair, ShowsALostConnectionAndAnswersWhatWasPending) {
  Answer answer;
  MessageWriter call;
  ASSERT_EQ(client.NewCall("", kPath, kInterface, "Never", call), ERROR_SUCCESS);
  ASSERT_EQ(client.CallAsync(std::move(call),
                             [&](MessageReader&, const BusError& error) {
                               answer.came = true;
                               answer.error = error;
                             }),
            ERROR_SUCCESS);
  server.Close();
  EXPECT_FALSE(server.IsOpen());
  StepUntil([&] { return !client.IsOpen(); });
  EXPECT_TRUE(answer.came);
  EXPECT_TRUE(answer.error.IsSet());
  MessageWriter late;
  EXPECT_EQ(client.NewCall("", kPath, kInterface, "Late", late), ERROR_NOT_CONNECTED);
  EXPECT_EQ(client.Subscribe("", "", "", "", [](MessageReader&) {}), ERROR_NOT_CONNECTED);
  EXPECT_EQ(client.PollDescriptor(), -1);
}

TEST_F(BusPair, MayBeClosedByAHandler) {
  Serve({"Close", {}, {}, [&](MessageReader&, MessageWriter&) {
           server.Close();
           EXPECT_FALSE(server.IsOpen());
           return BusError{};
         }});
  MessageWriter call;
  ASSERT_EQ(client.NewCall("", kPath, kInterface, "Close", call), ERROR_SUCCESS);
  ASSERT_EQ(client.CallAsync(std::move(call), [](MessageReader&, const BusError&) {}), ERROR_SUCCESS);
  StepUntil([&] { return !client.IsOpen(); });
}

TEST_F(BusPair, FailsToSendWithTheInjectedCode) {
  const FaultPlan plan = FaultPlan::FailCall(Operation::kBusSend, 1, 1722, kFromThenOn);
  MessageWriter signal;
  ASSERT_EQ(server.NewSignal(kPath, kInterface, "S", signal), ERROR_SUCCESS);
  EXPECT_EQ(server.Send(std::move(signal)), 1722u);
  MessageWriter call;
  ASSERT_EQ(client.NewCall("", kPath, kInterface, "M", call), ERROR_SUCCESS);
  MessageReader reply;
  BusError error;
  EXPECT_EQ(client.Call(std::move(call), reply, error), 1722u);
  EXPECT_EQ(error.name, kBusErrorFailed);
}

TEST_F(BusPair, TimesOutACallThatHasALimit) {
  MessageWriter call;
  ASSERT_EQ(client.NewCall("", kPath, kInterface, "M", call), ERROR_SUCCESS);
  StepUntil([&] { return !client.WaitForWork(0) && !server.WaitForWork(0); });
  MessageReader reply;
  BusError error;
  EXPECT_EQ(client.Call(std::move(call), reply, error, 5), ERROR_TIMEOUT);
  EXPECT_EQ(error.name, kBusErrorNoReply);
  EXPECT_TRUE(client.IsOpen());
}

TEST_F(BusPair, RefusesToSendAMessageThatCouldNotBeBuilt) {
  MessageWriter signal;
  ASSERT_EQ(server.NewSignal(kPath, kInterface, "S", signal), ERROR_SUCCESS);
  signal.AppendString("\xC3");
  signal.AppendInt32(1);  // does nothing any more
  EXPECT_EQ(signal.Result(), ERROR_NO_UNICODE_TRANSLATION);
  EXPECT_EQ(server.Send(std::move(signal)), ERROR_NO_UNICODE_TRANSLATION);
  EXPECT_EQ(server.Send(MessageWriter()), ERROR_INVALID_HANDLE);
  EXPECT_EQ(server.NewSignal("no slash", kInterface, "S", signal), ERROR_INVALID_PARAMETER);
}

TEST_F(BusPair, CarriesAValidTextAsAnyOther) {
  const std::string_view kTexts[] = {"", "a", "abc", "abcd", "\xC3\xA9t\xC3\xA9 \xF0\x9F\x99\x82"};
  Serve({"Twice", {}, {{"as", "looked_at"}, {"as", "valid"}}, [&](MessageReader&, MessageWriter& reply) {
           reply.OpenArray("s");
           for (const std::string_view text : kTexts) reply.AppendString(text);
           reply.Close();
           const std::size_t first = reply.BytesSoFar();
           reply.OpenArray("s");
           for (const std::string_view text : kTexts) reply.AppendValid(text);
           reply.Close();
           EXPECT_EQ(reply.BytesSoFar(), (first + 3) / 4 * 4 + first);
           return BusError{};
         }});
  const Answer answer = Call("Twice", {});
  ASSERT_EQ(answer.values.size(), 2u);
  EXPECT_EQ(std::get<Arguments>(answer.values[0].data).size(), std::size(kTexts));
  EXPECT_EQ(answer.values[0], answer.values[1]);
}

TEST(MessageWriter, FailsWithoutAMessage) {
  MessageWriter writer;
  writer.AppendValid("a");
  writer.AppendInt32(1);
  writer.OpenArray("i");
  EXPECT_EQ(writer.Result(), ERROR_INVALID_HANDLE);
  EXPECT_EQ(writer.BytesSoFar(), 0u);
}

TEST(MessageReader, IsAtItsEndWithoutAMessage) {
  MessageReader reader;
  std::int32_t number = 5;
  std::uint32_t user = 0;
  EXPECT_TRUE(reader.AtEnd());
  EXPECT_EQ(reader.ReadInt32(number), ERROR_NO_MORE_ITEMS);
  EXPECT_EQ(reader.EnterArray("i"), ERROR_NO_MORE_ITEMS);
  EXPECT_EQ(reader.Skip(), ERROR_NO_MORE_ITEMS);
  EXPECT_EQ(reader.SenderUser(user), ERROR_INVALID_HANDLE);
  EXPECT_EQ(reader.Sender(), "");
  EXPECT_EQ(number, 5);
}

// The sizes are worked out by hand from the marshalling rules of the protocol.
struct SizeCase {
  int line;
  Arguments values;
  std::size_t bytes;
};

TEST_F(BusPair, CountsTheBytesOfABody) {
  const SizeCase kCases[] = {
      {__LINE__, {}, 0},
      {__LINE__, {BusValue::Bool(true)}, 4},
      {__LINE__, {BusValue::Int16(1), BusValue::Int32(1)}, 8},
      {__LINE__, {BusValue::Int32(1), BusValue::Int64(1)}, 16},
      {__LINE__, {BusValue::String("abc")}, 8},
      {__LINE__, {BusValue::String("abcd"), BusValue::Uint32(1)}, 16},
      {__LINE__, {BusValue::Array("x", {})}, 8},
      {__LINE__, {BusValue::Array("n", {BusValue::Int16(1)})}, 6},
      {__LINE__, {BusValue::Variant(BusValue::Int32(1))}, 8},
      {__LINE__, {BusValue::Dict({{"a", BusValue::Int32(1)}})}, 8 + 8 + 4 + 4},  // "a" 6, "i" 3 (15 to 18), pad to 20
      {__LINE__,
       {BusValue::Array("(su)", {BusValue::Struct({BusValue::String("x"), BusValue::Uint32(1)}),
                                 BusValue::Struct({BusValue::String("x"), BusValue::Uint32(1)})})},
       8 + 12 + 4 + 12},
  };
  for (const SizeCase& c : kCases) {
    MessageWriter signal;
    ASSERT_EQ(server.NewSignal(kPath, kInterface, "S", signal), ERROR_SUCCESS);
    AppendAll(signal, c.values);
    EXPECT_EQ(signal.Result(), ERROR_SUCCESS) << "line " << c.line;
    EXPECT_EQ(signal.BytesSoFar(), c.bytes) << "line " << c.line;
  }
}

TEST_F(BusPair, RefusesValuesThatDoNotFitTheirTypeText) {
  const BusValue kBad[] = {
      {"", true},
      {"i", std::monostate{}},
      {"n", std::int64_t{40000}},
      {"u", std::uint64_t{1} << 32},
      {"i", std::uint64_t{1}},
      {"b", std::int64_t{1}},
      {"s", std::int64_t{1}},
      {"i", std::string("1")},
      {"ii", std::int64_t{1}},
      {"v", std::vector<BusValue>{}},
      {"ai", std::vector<BusValue>{BusValue::String("x")}},
      {"q", std::vector<BusValue>{}},
  };
  for (const BusValue& bad : kBad) {
    MessageWriter signal;
    ASSERT_EQ(server.NewSignal(kPath, kInterface, "S", signal), ERROR_SUCCESS);
    signal.AppendValue(bad);
    EXPECT_NE(signal.Result(), ERROR_SUCCESS) << bad.type;
  }
}

TEST(BusConnection, FailsToOpenWithTheInjectedCode) {
  BusConnection connection;
  const FaultPlan plan = FaultPlan::FailCall(Operation::kBusConnect, 1, 5);
  EXPECT_EQ(connection.Open(BusAddress::Session()), 5u);
  EXPECT_FALSE(connection.IsOpen());
}

TEST(BusConnection, FailsToOpenWhereNobodyListens) {
  BusConnection connection;
  EXPECT_EQ(connection.Open(BusAddress::Explicit("unix:path=/nonexistent/bus")), ERROR_FILE_NOT_FOUND);
  EXPECT_NE(connection.Open(BusAddress::Explicit("nonsense")), ERROR_SUCCESS);
  EXPECT_FALSE(connection.IsOpen());
  connection.Close();
  EXPECT_FALSE(connection.Process());
  EXPECT_EQ(connection.UniqueName(), "");
}

TEST(BusConnection, WaitsForASilentDaemonNoLongerThanForACall) {
  EXPECT_EQ(detail::g_busHelloLimitMs.load(), 25000u);
  const TemporaryFolder folder("qx-silent");
  const std::string name = folder.Path() + "/bus";
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  ASSERT_LT(name.size(), sizeof address.sun_path);
  name.copy(address.sun_path, name.size());
  const Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener.Get(), 4), 0);
  detail::g_busHelloLimitMs = 20;
  BusConnection connection;
  EXPECT_EQ(connection.Open(BusAddress::Explicit("unix:path=" + name)), ERROR_TIMEOUT);
  detail::g_busHelloLimitMs = 25000;
  EXPECT_FALSE(connection.IsOpen());
}

// A service on an apartment of its own thread, behind a daemon.
class DaemonTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_THAT(bus.Address(), StartsWith("unix:")); }
  PrivateBus bus;
};

TEST_F(DaemonTest, GivesANameToOneConnectionOnly) {
  BusConnection first, second;
  ASSERT_EQ(first.Open(bus.ForClients()), ERROR_SUCCESS);
  ASSERT_EQ(second.Open(bus.ForClients()), ERROR_SUCCESS);
  EXPECT_THAT(first.UniqueName(), StartsWith(":"));
  EXPECT_NE(first.UniqueName(), second.UniqueName());
  EXPECT_EQ(first.RequestName(kName), ERROR_SUCCESS);
  EXPECT_EQ(first.RequestName(kName), ERROR_SUCCESS);
  EXPECT_EQ(second.RequestName(kName), ERROR_ALREADY_EXISTS);
  first.ReleaseName(kName);
  EXPECT_EQ(second.RequestName(kName), ERROR_SUCCESS);
  const FaultPlan plan = FaultPlan::FailCall(Operation::kBusRequestName, 1, 5);
  EXPECT_EQ(second.RequestName(kName), 5u);
}

// A client of a bus that marshals by hand, in the byte order that this machine doesn't have.
class OtherByteOrder {
 public:
  static constexpr bool kIsBig = std::endian::native == std::endian::little;

  explicit OtherByteOrder(const std::string& address) {
    sockaddr_un to = {};
    to.sun_family = AF_UNIX;
    const std::string path = address.substr(std::string("unix:path=").size());
    path.substr(0, path.find(',')).copy(to.sun_path, sizeof to.sun_path - 1);
    EXPECT_EQ(connect(m_socket, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
    std::string user;
    for (const char digit : std::to_string(geteuid())) user += std::string("3") + digit;  // in hexadecimal
    Say(std::string(1, '\0') + "AUTH EXTERNAL " + user + "\r\n");
    char answer[256];
    EXPECT_GT(recv(m_socket, answer, sizeof answer, 0), 2);
    EXPECT_EQ(std::string(answer, 2), "OK");
    Say("BEGIN\r\n");
    Send(1, "/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello", "org.freedesktop.DBus", "", "");
  }
  OtherByteOrder(const OtherByteOrder&) = delete;
  OtherByteOrder& operator=(const OtherByteOrder&) = delete;
  ~OtherByteOrder() { close(m_socket); }

  static void Number(std::string& bytes, std::uint64_t value, std::size_t size) {
    Pad(bytes, size);
    for (std::size_t i = 0; i < size; ++i) {
      bytes += static_cast<char>(value >> (8 * (kIsBig ? size - 1 - i : i)));
    }
  }
  // A call (1) or a signal (4).
  void Send(int type, const std::string& path, const std::string& interface, const std::string& member,
            const std::string& destination, const std::string& signature, const std::string& body) {
    std::string fields;
    const auto field = [&](int code, char kind, const std::string& text) {
      if (text.empty()) return;
      Pad(fields, 8);
      fields += std::string{static_cast<char>(code), 1, kind, 0};
      if (kind == 'g') {
        fields += static_cast<char>(text.size());
      } else {
        Number(fields, text.size(), 4);
      }
      fields += text + '\0';
    };
    field(1, 'o', path);
    field(2, 's', interface);
    field(3, 's', member);
    field(6, 's', destination);
    field(8, 'g', signature);
    std::string message = {kIsBig ? 'B' : 'l', static_cast<char>(type), 0, 1};
    Number(message, body.size(), 4);
    Number(message, ++m_serial, 4);
    Number(message, fields.size(), 4);
    message += fields;
    Pad(message, 8);
    Say(message + body);
  }

 private:
  static void Pad(std::string& bytes, std::size_t to) { bytes.resize((bytes.size() + to - 1) / to * to); }
  void Say(const std::string& bytes) {
    EXPECT_EQ(send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }

  const int m_socket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::uint32_t m_serial = 0;
};

TEST_F(DaemonTest, ReadsArraysOfASenderOfTheOtherByteOrder) {
  BusConnection receiver;
  ASSERT_EQ(receiver.Open(bus.ForClients()), ERROR_SUCCESS);
  bool came = false;
  ASSERT_EQ(receiver.Subscribe("", kPath, kInterface, "Numbers",
                               [&](MessageReader& signal) {
                                 came = true;
                                 std::array<std::int16_t, 2> shorts = {};
                                 std::array<std::uint32_t, 1> words = {};
                                 std::size_t count = 0;
                                 EXPECT_EQ(signal.ReadArray(shorts, count), ERROR_SUCCESS);
                                 EXPECT_EQ(count, 3u);  // more than fit
                                 EXPECT_THAT(shorts, ElementsAre(1, -2));
                                 EXPECT_EQ(signal.ReadArray(words, count), ERROR_SUCCESS);
                                 EXPECT_EQ(count, 1u);
                                 EXPECT_THAT(words, ElementsAre(0x01020304u));
                                 EXPECT_EQ(signal.ReadArray(words, count), ERROR_NO_MORE_ITEMS);
                               }),
            ERROR_SUCCESS);
  OtherByteOrder sender(bus.Address());
  std::string body;
  OtherByteOrder::Number(body, 6, 4);
  for (const std::int16_t number : {1, -2, 3}) OtherByteOrder::Number(body, static_cast<std::uint16_t>(number), 2);
  OtherByteOrder::Number(body, 4, 4);
  OtherByteOrder::Number(body, 0x01020304, 4);
  sender.Send(4, kPath, kInterface, "Numbers", "", "anau", body);
  while (receiver.Process() || !came) ASSERT_TRUE(came || receiver.WaitForWork(60000));
}

TEST_F(DaemonTest, ServesCallsTellsSendersAndNoticesWhoLeaves) {
  Apartment apartment;
  std::vector<std::string> senders;
  std::vector<std::string> gone;
  std::uint32_t user = 12345;
  std::string clientName;
  std::thread service([&] {
    BusPresence presence(apartment);
    BusPresence::Options options;
    options.address = bus.ForClients();
    options.setUp = [&](BusConnection& connection) {
      BusInterface served;
      served.name = kInterface;
      served.methods.push_back({"Echo", {{"s", "text"}}, {{"s", "text"}}, [&](MessageReader& call, MessageWriter& reply) {
                                  std::string_view text;
                                  EXPECT_EQ(call.ReadString(text), ERROR_SUCCESS);
                                  EXPECT_EQ(call.SenderUser(user), ERROR_SUCCESS);
                                  senders.emplace_back(call.Sender());
                                  reply.AppendString(text);
                                  return BusError{};
                                }});
      if (const ErrorCode rc = connection.Export(kPath, std::move(served)); rc != ERROR_SUCCESS) return rc;
      const ErrorCode rc = connection.WatchDepartures([&](std::string_view name) {
        gone.emplace_back(name);
        if (name == clientName) apartment.Quit();
      });
      return rc != ERROR_SUCCESS ? rc : connection.RequestName(kName);
    };
    EXPECT_EQ(presence.Start(std::move(options)), ERROR_SUCCESS);
    EXPECT_NE(presence.Connection(), nullptr);
    apartment.Run();
  });
  {
    std::promise<void> running;
    apartment.Post([&] { running.set_value(); });
    running.get_future().wait();  // the service is set up
    BusConnection client;
    ASSERT_EQ(client.Open(bus.ForClients()), ERROR_SUCCESS);
    apartment.Send([&] { clientName = client.UniqueName(); });
    MessageWriter call;
    ASSERT_EQ(client.NewCall(kName, kPath, kInterface, "Echo", call), ERROR_SUCCESS);
    call.AppendString("hello");
    MessageReader reply;
    BusError error;
    ASSERT_EQ(client.Call(std::move(call), reply, error), ERROR_SUCCESS) << error.text;
    std::string_view text;
    EXPECT_EQ(reply.ReadString(text), ERROR_SUCCESS);
    EXPECT_EQ(text, "hello");

    ASSERT_EQ(client.NewCall(kName, kPath, kInterface, "Nothing", call), ERROR_SUCCESS);
    EXPECT_EQ(client.Call(std::move(call), reply, error), ERROR_REQUEST_REFUSED);
    EXPECT_EQ(error.name, "org.freedesktop.DBus.Error.UnknownMethod");

    ASSERT_EQ(client.NewCall("test.Absent", kPath, kInterface, "Echo", call), ERROR_SUCCESS);
    EXPECT_EQ(client.Call(std::move(call), reply, error), ERROR_REQUEST_REFUSED);
    EXPECT_EQ(error.name, kBusErrorServiceUnknown);
  }
  service.join();
  EXPECT_THAT(senders, ElementsAre(clientName));
  EXPECT_THAT(gone, testing::Contains(clientName));
  EXPECT_EQ(user, geteuid());
}

TEST_F(DaemonTest, ReportsACallWhoseServiceLeavesInTheMiddle) {
  BusConnection service, client;
  ASSERT_EQ(service.Open(bus.ForClients()), ERROR_SUCCESS);
  ASSERT_EQ(service.RequestName(kName), ERROR_SUCCESS);
  ASSERT_EQ(client.Open(bus.ForClients()), ERROR_SUCCESS);
  MessageWriter call;
  ASSERT_EQ(client.NewCall(kName, kPath, kInterface, "M", call), ERROR_SUCCESS);
  BusError seen;
  ASSERT_EQ(client.CallAsync(std::move(call), [&](MessageReader&, const BusError& error) { seen = error; }),
            ERROR_SUCCESS);
  service.Close();
  while (!seen.IsSet()) {
    if (!client.Process()) (void)client.WaitForWork(1000);
  }
  EXPECT_TRUE(seen.name == kBusErrorNoReply || seen.name == kBusErrorServiceUnknown) << seen.name;
}

}  // namespace
}  // namespace platform
