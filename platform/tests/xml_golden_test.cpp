#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/text.h"
#include "platform/xml.h"
#include "tests/golden.h"

namespace platform {
namespace {

using Json = nlohmann::json;

// Rows that this parser answers otherwise on purpose, with its own answer.
struct Own {
  bool loaded;
  std::string text;
};
const std::map<std::string, Own> kOwnAnswers = {
    // A value arrives as it left, blanks included.
    {"leading and trailing blanks", {true, "  a b  "}},
    {"only blanks", {true, "   "}},
    {"line ends", {true, "a\nb\n"}},
    // A document type declaration is refused whole, so that no entity can grow a message.
    {"internal DTD entity", {false, ""}},
    // Marked in the recording: the documented object refuses it.
    {"namespace prefix not declared", {false, ""}},
};

TEST(golden_msxml, LoadsAndFindsAsRecorded) {
  int used = 0, own = 0;
  for (const Json& row : LoadGolden("msxml.json").value("load", Json::array())) {
    if (!row.contains("xml")) continue;  // the null text, which no caller has here
    const std::string name = row.at("case");
    ++used;
    bool loaded = row.at("loaded") == -1;
    std::string text = row.value("text", "");
    std::size_t matches = row.at("matches");
    if (const auto other = kOwnAnswers.find(name); other != kOwnAnswers.end()) {
      ++own;
      loaded = other->second.loaded;
      text = other->second.text;
      if (!loaded) matches = 0;
    } else {
      ASSERT_FALSE(row.contains("wine_differs")) << name;
    }
    XmlDocument document;
    ASSERT_EQ(XmlDocument::Create(u"MSXML.DOMDocument", document), 0u);
    const std::u16string tag = WideFromUtf8(row.at("tag").get<std::string>());
    EXPECT_EQ(document.Load(WideFromUtf8(row.at("xml").get<std::string>())), loaded) << name;
    EXPECT_EQ(document.Count(tag), matches) << name;
    XmlElement element;
    ASSERT_EQ(document.FindFirst(tag, element), matches != 0) << name;
    if (matches == 0) continue;
    std::u16string found;
    EXPECT_EQ(element.Text(found), 0u) << name;
    EXPECT_EQ(Utf8FromWide(found), text) << name;
  }
  EXPECT_GT(used, 25);
  EXPECT_EQ(own, static_cast<int>(kOwnAnswers.size()));
}

TEST(golden_msxml, MakesTheObjectByItsIdentifiers) {
  int used = 0;
  for (const Json& row : LoadGolden("msxml.json").value("create", Json::array())) {
    // The other identifiers name later versions of the component, which nobody asks for.
    if (row.value("progid", "") != "MSXML.DOMDocument") continue;
    ++used;
    XmlDocument document;
    EXPECT_EQ(XmlDocument::Create(WideFromUtf8(row.at("progid").get<std::string>()), document), 0u);
    EXPECT_EQ(XmlDocument::Create(WideFromUtf8(row.at("clsid").get<std::string>()), document), 0u);
  }
  EXPECT_EQ(used, 1);
}

}  // namespace
}  // namespace platform
