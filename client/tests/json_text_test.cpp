#include "client/json_text.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "client/terminal_text.h"
#include "platform/text.h"

namespace {

using nlohmann::ordered_json;

TEST(JsonText, IsReadAsTheSameTextAndHasNothingThatATerminalObeys) {
  std::u16string all;
  for (char32_t c = 0; c < 0x10000; ++c) {
    if (c < 0xD800 || c > 0xDFFF) all += static_cast<char16_t>(c);
  }
  const ordered_json value = {{"key\u009B", platform::Utf8FromWide(all + u"\U0001F600")}, {"number", -1.5}};
  const std::string text = qx::JsonText(value);
  EXPECT_EQ(ordered_json::parse(text), value);
  EXPECT_EQ(qx::Printable(text), text);
}

TEST(JsonText, LeavesOtherCharactersAndReplacesWhatIsNoText) {
  EXPECT_EQ(qx::JsonText(ordered_json("caf\u00e9 \u20ac \U0001F600")), "\"caf\u00e9 \u20ac \U0001F600\"");
  EXPECT_EQ(qx::JsonText(ordered_json("a\xff\u202eb\u202e")), "\"a\uFFFD\\u202Eb\\u202E\"");
}

}  // namespace
