#include "platform/bus_block.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "platform/bus.h"

namespace platform {
namespace {

constexpr const char* kPath = "/test/Object";
constexpr const char* kInterface = "test.Interface";

using Values = std::vector<BusValue>;

BusValue Row(std::string id, std::uint32_t code, std::string last) {
  return BusValue::Struct({BusValue::String(std::move(id)), BusValue::Uint32(code), BusValue::String(std::move(last))});
}
BusValue Rows(Values rows) {
  return BusValue::Array("(sus)", std::move(rows));
}

BusValue ManyRows(int count) {
  Values rows;
  for (int i = 0; i < count; ++i)
    rows.push_back(Row(std::string(static_cast<std::size_t>(i % 40), 'x'), 5, std::to_string(i)));
  return Rows(std::move(rows));
}

BusValue Rules() {
  return BusValue::Dict({{"start", BusValue::Int32(-1)},
                         {"days", BusValue::Array("n", {BusValue::Int16(1), BusValue::Int16(-7), BusValue::Int16(31)})},
                         {"none", BusValue::Array("i", {})},
                         {"dates", BusValue::Array("i", {BusValue::Int32(1), BusValue::Int32(2)})}});
}

// Whether the library gets arrays as a whole or value by value.
class BusBlock : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    detail::AppendValueByValue(GetParam());
    ASSERT_EQ(BusConnection::OpenPair(m_server, m_client), ERROR_SUCCESS);
    ASSERT_EQ(m_client.Subscribe("", kPath, kInterface, "Value",
                                 [this](MessageReader& signal) {
                                   m_came = true;
                                   while (!signal.AtEnd() && signal.ReadValue(m_read.emplace_back()) == ERROR_SUCCESS) {
                                   }
                                 }),
              ERROR_SUCCESS);
  }
  void TearDown() override { detail::AppendValueByValue(false); }

  MessageWriter NewSignal() {
    MessageWriter signal;
    EXPECT_EQ(m_server.NewSignal(kPath, kInterface, "Value", signal), ERROR_SUCCESS);
    return signal;
  }
  // What arrives of the values.
  Values Exchange(const Values& values) {
    MessageWriter signal = NewSignal();
    for (const BusValue& value : values) signal.AppendValue(value);
    EXPECT_EQ(signal.Result(), ERROR_SUCCESS);
    m_came = false;
    m_read.clear();
    const bool isSent = m_server.Send(std::move(signal)) == ERROR_SUCCESS;
    EXPECT_TRUE(isSent);
    while (isSent && !m_came && m_server.IsOpen() && m_client.IsOpen()) {
      (void)m_server.Process();
      (void)m_client.Process();
    }
    EXPECT_EQ(m_came, isSent);
    return m_read;
  }

  BusConnection m_server;
  BusConnection m_client;
  bool m_came = false;
  Values m_read;
};

INSTANTIATE_TEST_SUITE_P(Ways, BusBlock, testing::Bool(),
                         [](const auto& way) { return way.param ? "ValueByValue" : "AsAWhole"; });

TEST_P(BusBlock, ArraysArriveAsTheyWereSent) {
  const BusValue rules = Rules();
  const Values kCases[] = {
      {Rows({})},
      {Rows({Row("a", 1, "")})},
      {Rows({Row("", 1, "abc"), Row("abcdefg", 2, "abcdefgh"), Row("\xC3\xA4", 3, "")})},
      {BusValue::Int32(0), Rows({Row("", 1, ""), Row("", 2, "")}), BusValue::String("behind"),
       Rows({Row("x", 3, "y")})},
      {ManyRows(20000)},
      {BusValue::Array("(s)",
                       {BusValue::Struct({BusValue::String("only")}), BusValue::Struct({BusValue::String("")})})},
      {BusValue::Array("(us)", {BusValue::Struct({BusValue::Uint32(7), BusValue::String("not first")})})},
      {BusValue::Array("(sx)", {BusValue::Struct({BusValue::String("a"), BusValue::Int64(-1)}),
                                BusValue::Struct({BusValue::String("bc"), BusValue::Int64(1)})})},
      {BusValue::Array("(sai(ss)v)",
                       {BusValue::Struct({BusValue::String("a"), BusValue::Array("i", {BusValue::Int32(1)}),
                                          BusValue::Struct({BusValue::String("b"), BusValue::String("c")}),
                                          BusValue::Variant(BusValue::Int16(3))}),
                        BusValue::Struct({BusValue::String("d"), BusValue::Array("i", {}),
                                          BusValue::Struct({BusValue::String("e"), BusValue::String("")}),
                                          BusValue::Variant(Rows({Row("f", 4, "g"), Row("h", 5, "i")}))})})},
      {rules},
      {BusValue::Dict({{"name", BusValue::String("n")}, {"rules", rules}})},
      {BusValue::Dict({{"rules", rules}, {"name", BusValue::String("n")}})},
      {BusValue::Array("a{sv}", {rules, BusValue::Dict({}), BusValue::Dict({{"rules", rules}}), rules})},
      {BusValue::Struct({BusValue::Bool(true), rules, BusValue::Bool(false)})},
      {BusValue::Array("s", {BusValue::String("a"), BusValue::String("bcd")})},
      {BusValue::Array("b", {BusValue::Bool(true), BusValue::Bool(false)})},
      {BusValue::Array("x", {BusValue::Int64(1), BusValue::Int64(2)})},
      {BusValue::Array("as", {BusValue::Array("s", {}), BusValue::Array("s", {BusValue::String("a")})})},
      {BusValue::Array("v", {BusValue::Variant(BusValue::Int64(1)), BusValue::Variant(BusValue::Variant(rules))})},
      {BusValue::Array(
          "(sog)", {BusValue::Struct({BusValue::String("a"), {"o", std::string("/a/b")}, {"g", std::string("a{sv}")}}),
                    BusValue::Struct({BusValue::String("b"), {"o", std::string("/")}, {"g", std::string()}})})},
  };
  for (const Values& values : kCases) EXPECT_EQ(Exchange(values), values) << values.front().type;
}

// The library itself judges a text that stands in no array.
TEST_P(BusBlock, AnArrayTakesTheTextsThatTheLibraryTakes) {
  std::vector<std::string> texts = {"",
                                    "plain",
                                    "seven b",
                                    "eight by",
                                    "nine byte",
                                    std::string("a\0b", 3),
                                    std::string(9, '\0'),
                                    "12345678\x80",
                                    "12345678\xC3\xA4",
                                    "\xC0\x80",
                                    "\xED\xA0\x80",
                                    "\xED\x9F\xBF",
                                    "\xEF\xB7\x8F",
                                    "\xEF\xB7\x90",
                                    "\xEF\xB7\xAF",
                                    "\xEF\xB7\xB0",
                                    "\xEF\xBF\xBD",
                                    "\xEF\xBF\xBE",
                                    "\xEF\xBF\xBF",
                                    "\xF0\x9F\xBF\xBD",
                                    "\xF0\x9F\xBF\xBE",
                                    "\xF0\x9F\xBE\xBF",
                                    "\xF0\xA0\xBF\xBF",
                                    "\xF3\xAF\xBF\xBF",
                                    "\xF4\x8F\xBF\xBD",
                                    "\xF4\x8F\xBF\xBF",
                                    "\xF4\x90\x80\x80",
                                    "\xC3",
                                    "\xE2\x82"};
  std::mt19937 random(20260101);
  constexpr unsigned char kBytes[] = {0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xAF, 0xB7,
                                      0xBE, 0xBF, 0xC2, 0xE1, 0xEF, 0xF0, 0xF4};
  for (int i = 0; i < 20000; ++i) {
    std::string text;
    for (std::size_t left = 1 + random() % 6; left != 0; --left)
      text += static_cast<char>(kBytes[random() % std::size(kBytes)]);
    texts.push_back(text);
  }
  for (const std::string& text : texts) {
    MessageWriter alone = NewSignal();
    alone.AppendString(text);
    MessageWriter inside = NewSignal();
    inside.OpenArray("s");
    inside.AppendString(text);
    inside.Close();
    ASSERT_EQ(inside.Result(), alone.Result()) << testing::PrintToString(text);
  }
}

TEST_P(BusBlock, RefusesWhatIsNotOfTheTypeThatStandsNext) {
  using Write = void (*)(MessageWriter&);
  struct Case {
    const char* what;
    Write write;
  };
  constexpr Case kCases[] = {
      {"a number for a text", [](MessageWriter& w) { w.OpenArray("s"), w.AppendInt32(1); }},
      {"a text for a number", [](MessageWriter& w) { w.OpenArray("i"), w.AppendString("1"); }},
      {"another number", [](MessageWriter& w) { w.OpenArray("i"), w.AppendUint32(1); }},
      {"another struct", [](MessageWriter& w) { w.OpenArray("(si)"), w.OpenStruct("su"); }},
      {"a struct cut short", [](MessageWriter& w) { w.OpenArray("(si)"), w.OpenStruct("s"); }},
      {"a struct for an entry", [](MessageWriter& w) { w.OpenArray("{sv}"), w.OpenStruct("sv"); }},
      {"an entry for a struct", [](MessageWriter& w) { w.OpenArray("(sv)"), w.OpenDictEntry("sv"); }},
      {"another array", [](MessageWriter& w) { w.OpenArray("ai"), w.OpenArray("u"); }},
      {"a field too many",
       [](MessageWriter& w) { w.OpenArray("(s)"), w.OpenStruct("s"), w.AppendString(""), w.AppendString(""); }},
      {"a field too few",
       [](MessageWriter& w) { w.OpenArray("(si)"), w.OpenStruct("si"), w.AppendString(""), w.Close(); }},
      {"an empty variant", [](MessageWriter& w) { w.OpenArray("v"), w.OpenVariant("i"), w.Close(); }},
      {"a variant of two", [](MessageWriter& w) { w.OpenArray("v"), w.OpenVariant("ii"); }},
      {"a variant of none", [](MessageWriter& w) { w.OpenArray("v"), w.OpenVariant(""); }},
      {"no type", [](MessageWriter& w) { w.OpenArray(""); }},
      {"two types", [](MessageWriter& w) { w.OpenArray("ii"); }},
      {"an unknown type", [](MessageWriter& w) { w.OpenArray("z"); }},
      {"an empty struct", [](MessageWriter& w) { w.OpenArray("()"); }},
      {"a struct without its end", [](MessageWriter& w) { w.OpenArray("(s"); }},
      {"an entry whose key is a variant", [](MessageWriter& w) { w.OpenArray("{vs}"); }},
      {"an entry of three", [](MessageWriter& w) { w.OpenArray("{sss}"); }},
      {"an entry in a struct", [](MessageWriter& w) { w.OpenArray("({sv})"); }},
      {"a bad path",
       [](MessageWriter& w) {
         w.AppendValue(BusValue::Array("o", {{"o", std::string("a")}}));
       }},
      {"a bad type text",
       [](MessageWriter& w) {
         w.AppendValue(BusValue::Array("g", {{"g", std::string("(")}}));
       }},
  };
  for (const Case& c : kCases) {
    MessageWriter signal = NewSignal();
    c.write(signal);
    EXPECT_NE(signal.Result(), ERROR_SUCCESS) << c.what;
    EXPECT_NE(m_server.Send(std::move(signal)), ERROR_SUCCESS) << c.what;
  }
}

TEST_P(BusBlock, AMessageWithAnOpenArrayIsNotSent) {
  MessageWriter signal = NewSignal();
  signal.OpenArray("s");
  EXPECT_EQ(m_server.Send(std::move(signal)), ERROR_INVALID_DATA);
}

TEST_P(BusBlock, ContainersAreNotNestedWithoutEnd) {
  MessageWriter signal = NewSignal();
  signal.OpenArray("v");
  for (int i = 0; i < 200; ++i) signal.OpenVariant("v");
  EXPECT_EQ(signal.Result(), ERROR_INVALID_DATA);
}

TEST_P(BusBlock, AnArrayAboveTheLimitOfTheProtocolIsRefused) {
  MessageWriter signal = NewSignal();
  signal.OpenArray("s");
  const std::string text(std::size_t{1} << 20, 'x');
  for (int i = 0; i < 65; ++i) signal.AppendString(text);
  signal.Close();
  EXPECT_NE(signal.Result(), ERROR_SUCCESS);
}

}  // namespace
}  // namespace platform
