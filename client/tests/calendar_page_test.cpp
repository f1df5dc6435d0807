#include "client/calendar_page.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <functional>
#include <memory>
#include <string>

#include "client/tests/calendar_samples.h"

namespace {

using testing::HasSubstr;
using testing::Not;

class CalendarPageTest : public AtAFixedTime {};

using PageDocument = std::unique_ptr<xmlDoc, void (*)(xmlDocPtr)>;

// Null when the page isn't well-formed.
PageDocument ParsePage(const std::string& page) {
  return {xmlReadMemory(page.data(), static_cast<int>(page.size()), nullptr, nullptr,
                        XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_HUGE),
          xmlFreeDoc};
}

void ForEach(const xmlNode* node, const std::function<void(const xmlNode&)>& visit) {
  for (; node != nullptr; node = node->next) {
    if (node->type == XML_ELEMENT_NODE) visit(*node);
    ForEach(node->children, visit);
  }
}

std::string Name(const xmlNode& node) {
  return reinterpret_cast<const char*>(node.name);
}

std::string Attribute(const xmlNode& node, const char* name) {
  xmlChar* const value = xmlGetProp(const_cast<xmlNode*>(&node), reinterpret_cast<const xmlChar*>(name));
  const std::string text = value == nullptr ? "" : reinterpret_cast<const char*>(value);
  xmlFree(value);
  return text;
}

std::string Content(const xmlNode& node) {
  xmlChar* const value = xmlNodeGetContent(const_cast<xmlNode*>(&node));
  const std::string text = value == nullptr ? "" : reinterpret_cast<const char*>(value);
  xmlFree(value);
  return text;
}

// The text of what a day tells when it is pointed at.
std::string TipOf(const PageDocument& document, const std::string& label) {
  std::string text;
  ForEach(xmlDocGetRootElement(document.get()), [&](const xmlNode& node) {
    if (!Attribute(node, "aria-label").starts_with(label)) return;
    ForEach(node.children, [&](const xmlNode& child) {
      if (Attribute(child, "role") == "tooltip") text = Content(child);
    });
  });
  return text;
}

TEST_F(CalendarPageTest, IsWellFormedWhateverASchedulesNameIs) {
  for (const int month : {0, 2, 10, 12}) {
    const std::string page = qx::CalendarPage(SampleCalendar({2026, month}, kSampleNow, 3));
    EXPECT_TRUE(ParsePage(page)) << month;
    EXPECT_FALSE(ParsePage(page + "<")) << "the check itself";
  }
}

TEST_F(CalendarPageTest, HasNoScriptAndNothingFromOutside) {
  const std::string page = qx::CalendarPage(SampleCalendar({2026, 0}, kSampleNow));
  const PageDocument document = ParsePage(page);
  ASSERT_TRUE(document);
  std::size_t elements = 0;
  ForEach(xmlDocGetRootElement(document.get()), [&](const xmlNode& node) {
    ++elements;
    for (const char* bad : {"script", "img", "iframe", "object", "embed", "base", "a", "form"})
      EXPECT_NE(Name(node), bad);
    for (const xmlAttr* at = node.properties; at != nullptr; at = at->next) {
      const std::string name = reinterpret_cast<const char*>(at->name);
      EXPECT_FALSE(name.starts_with("on")) << name;
      EXPECT_NE(name, "src");
      if (name == "href") {
        EXPECT_EQ(Attribute(node, "href"), "data:,");
      }
    }
    if (Name(node) == "style") {
      EXPECT_THAT(Content(node), Not(HasSubstr("url(")));
      EXPECT_THAT(Content(node), Not(HasSubstr("@import")));
    }
  });
  EXPECT_GT(elements, 1000u);
  EXPECT_THAT(page, HasSubstr("default-src 'none'"));
  EXPECT_THAT(page, Not(HasSubstr("<script")));
}

TEST_F(CalendarPageTest, ShowsTheTextOfAClientAsText) {
  const PageDocument document = ParsePage(qx::CalendarPage(SampleCalendar({2026, 10}, kSampleNow)));
  ASSERT_TRUE(document);
  EXPECT_THAT(
      TipOf(document, "Sunday, 25 October 2026"),
      HasSubstr("<script>alert('x')</script> & \"quarter\" \xEF\xBF\xBD[31m \xEF\xBF\xBD r\xc3\xa9sum\xc3\xa9"));
}

TEST_F(CalendarPageTest, ADayTellsItsWindowsAndWhyTheyAreThere) {
  const PageDocument document = ParsePage(qx::CalendarPage(SampleCalendar({2026, 10}, kSampleNow)));
  ASSERT_TRUE(document);
  const std::string wednesday = TipOf(document, "Wednesday, 14 October 2026");
  EXPECT_THAT(wednesday, HasSubstr("22:00–02:00 nightly backupevery wed · 1 restart"));
  EXPECT_THAT(wednesday, HasSubstr("00:00–02:00 nightly backupevery tue · 3 restarts · window of the day before"));
  EXPECT_THAT(wednesday, HasSubstr("12:15–13:15 farewellinclude · the last one"));
  EXPECT_THAT(TipOf(document, "Sunday, 25 October 2026"), HasSubstr("clock goes back 1h at 03:00"));
  EXPECT_THAT(TipOf(document, "Friday, 30 October 2026"), HasSubstr("nightly backupexcluded; else every fri"));
  EXPECT_THAT(TipOf(document, "Thursday, 8 October 2026"), HasSubstr("poll"));
}

TEST_F(CalendarPageTest, ADayWithoutAnythingSaysSo) {
  qx::CalendarBuilder builder({2026, 2}, kSampleNow, 1);
  const PageDocument document = ParsePage(qx::CalendarPage(builder.Finish()));
  ASSERT_TRUE(document);
  EXPECT_THAT(TipOf(document, "Sunday, 1 February 2026"), HasSubstr("No rule names this day."));
}

TEST_F(CalendarPageTest, WhatADayDoesntShowIsCounted) {
  const PageDocument document = ParsePage(qx::CalendarPage(SampleCalendar({2026, 10}, kSampleNow, 2500, 12)));
  ASSERT_TRUE(document);
  EXPECT_THAT(TipOf(document, "Friday, 30 October 2026"), HasSubstr("and 2,488 more excluded"));
  EXPECT_THAT(TipOf(document, "Sunday, 25 October 2026"), HasSubstr("and 2,488 more"));
}

TEST_F(CalendarPageTest, EscapesMarkupAndReplacesWhatIsNoText) {
  const struct {
    int line;
    std::string text;
    std::string expected;
  } cases[] = {
      {__LINE__, "plain", "plain"},
      {__LINE__, "<&>\"'", "&lt;&amp;&gt;&quot;&#39;"},
      {__LINE__, std::string("a\0b", 3),
       "a\xEF\xBF\xBD"
       "b"},
      {__LINE__, "a\nb\tc",
       "a\xEF\xBF\xBD"
       "b\xEF\xBF\xBD"
       "c"},
      {__LINE__, "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
      {__LINE__, "\xc0\xbc", "\xEF\xBF\xBD\xEF\xBF\xBD"},                  // "<" in two bytes
      {__LINE__, "\xed\xa0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},  // half a pair
      {__LINE__, "\xe2\x82", "\xEF\xBF\xBD\xEF\xBF\xBD"},                  // cut off
      {__LINE__, "\xef\xbf\xbf", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},  // no character
      {__LINE__, "\xe2\x80\xae", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},  // turns the direction of writing
      {__LINE__, "", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(qx::HtmlText(c.text), c.expected) << c.line;
}

}  // namespace
