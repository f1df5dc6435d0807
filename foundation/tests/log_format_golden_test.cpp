// foundation/tests/log_format_golden_test.cpp: the formatter against recorded calls of the system's runtime.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "foundation/include/zfclogformat.h"
#include "tests/golden.h"

namespace {

using nlohmann::json;
using ZepFoundation::FormatLogText;
using ZepFoundation::LogArgument;
using Arguments = std::vector<LogArgument>;

constexpr std::size_t kRecordedRoom = 199;

// The recorded texts hold no character beyond the basic plane.
std::u16string WideRow(const std::string& utf8) {
  std::u16string out;
  for (std::size_t i = 0; i < utf8.size();) {
    const auto byte = static_cast<unsigned char>(utf8[i]);
    const int more = byte < 0x80 ? 0 : byte < 0xE0 ? 1 : 2;
    unsigned code = more == 0 ? byte : more == 1 ? byte & 0x1Fu : byte & 0x0Fu;
    for (int k = 1; k <= more; ++k) code = code << 6 | (static_cast<unsigned char>(utf8[i + k]) & 0x3Fu);
    out += static_cast<char16_t>(code);
    i += 1 + more;
  }
  return out;
}

// What each recorded description of arguments passes.
const std::map<std::string, Arguments>& ArgumentTable() {
  static const std::map<std::string, Arguments> table = {
      {"none", {}},
      {"null", {nullptr}},
      {"L\"abc\"", {u"abc"}},
      {"\"abc\"", {"abc"}},
      {"\"caf\\xe9\" (C locale)", {"caf\xe9"}},
      {"\"\\x80\" (C locale)", {"\x80"}},
      {"L\"\\u4e2d\"", {u"\u4e2d"}},
      {"L\"\\u4e2d\" likewise", {u"\u4e2d"}},
      {"L\"a\\u4e2d\" (C locale)", {u"a\u4e2d"}},
      {"L\"abc\" given where narrow is read (second pass of a log line)", {u"abc"}},
      {"\"Thu Jan 01 00:00:00 1970\\n\", 7, \"1970\\n\"", {"Thu Jan 01 00:00:00 1970\n", 7, "1970\n"}},
      {"\"Thu Jan 01 00:00:00 1970\", 42, 1234567", {"Thu Jan 01 00:00:00 1970", 42, 1234567}},
      {"\"0123456789012345678901234\"", {"0123456789012345678901234"}},
      {"\"short\"", {"short"}},
      {"0x80040200", {0x80040200u}},
      {"0x80090003", {0x80090003u}},
      {"0xabc", {0xabc}},
      {"0x12345", {0x12345}},
      {"0x1234", {reinterpret_cast<const void*>(0x1234)}},
      {"0x4e2d", {u'\u4e2d'}},
      {"0x100000002", {0x100000002LL}},
      {"0x100000002 (64-bit)", {0x100000002LL}},
      {"0", {0}},
      {"1, 2", {1, 2}},
      {"255", {255}},
      {"-1", {-1}},
      {"-5", {-5}},
      {"-5 (32-bit long)", {-5}},
      {"5 (64-bit)", {5LL}},
      {"5", {5}},
      {"7", {7}},
      {"-7", {-7}},
      {"8", {8}},
      {"42", {42}},
      {"-42", {-42}},
      {"300", {300}},
      {"70000", {70000}},
      {"1234567", {1234567}},
      {"5, 30, 0", {5, 30, 0}},
      {"-1, -30, 0", {-1, -30, 0}},
      {"86400.0", {86400.0}},
      {"-0.0", {-0.0}},
      {"1e15", {1e15}},
      {"0.1234565", {0.1234565}},
      {"inf", {std::numeric_limits<double>::infinity()}},
      {"0.5", {0.5}},
      {"2.5", {2.5}},
      {"1.5", {1.5}},
      {"12345.678", {12345.678}},
      {"123456789.0", {123456789.0}},
      {"L'A'", {u'A'}},
      {"'A'", {'A'}},
  };
  return table;
}

// The recorded text ends at a NUL that the conversion wrote.
template <class C>
std::basic_string<C> UpToNul(const std::basic_string<C>& text) {
  return text.substr(0, text.find(C(0)));
}

// How many rows with a documented result there were.
template <class C, class Text>
int CheckRows(const json& rows, Text text) {
  int checked = 0;
  for (const json& row : rows) {
    if (row.contains("wine_differs")) continue;  // an invalid format ends the process there; ours goes on
    const std::string name = row["args"];
    const auto found = ArgumentTable().find(name);
    if (found == ArgumentTable().end()) {
      ADD_FAILURE() << "no arguments for " << name;
      continue;
    }
    std::basic_string<C> out;
    const int result = FormatLogText(out, kRecordedRoom, text(row["format"].get<std::string>()), found->second);
    EXPECT_EQ(result, row["ucrtbase"][0].get<int>()) << row.dump();
    EXPECT_EQ(UpToNul(out), text(row["ucrtbase"][1].get<std::string>())) << row.dump();
    ++checked;
  }
  return checked;
}

template <class C, class Text>
void CheckSizes(const json& rows, const std::basic_string<C>& format, const LogArgument& argument, Text text) {
  ASSERT_FALSE(rows.empty());
  for (const json& row : rows) {
    std::basic_string<C> buffer(10, C('#'));
    const int result = FormatLogText(std::span<C>(buffer).first(row["n"].get<std::size_t>()), format, {{argument}});
    EXPECT_EQ(result, row["ucrtbase"][0].get<int>()) << row.dump();
    EXPECT_EQ(buffer, text(row["ucrtbase"][1].get<std::string>())) << row.dump();
  }
}

const auto kSame = [](const std::string& text) { return text; };

TEST(golden_wprintf, WideFormatsExpandAsRecorded) {
  const json recorded = LoadGolden("wprintf.json");
  EXPECT_GT(CheckRows<char16_t>(recorded["wide"], WideRow), 60);
}

TEST(golden_wprintf, NarrowFormatsExpandAsRecorded) {
  const json recorded = LoadGolden("wprintf.json");
  EXPECT_GT(CheckRows<char>(recorded["narrow"], kSame), 15);
}

TEST(golden_wprintf, WideBuffersAreFilledAsRecorded) {
  CheckSizes<char16_t>(LoadGolden("wprintf.json")["size"], u"%s", u"abcdef", WideRow);
}

TEST(golden_wprintf, NarrowBuffersAreFilledAsRecorded) {
  CheckSizes<char>(LoadGolden("wprintf.json")["size_narrow"], "%s", "abcdef", kSame);
}

}  // namespace
