#include "platform/xml.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/guid.h"
#include "platform/testing/fault.h"
#include "platform/text.h"

namespace platform {
namespace {

XmlDocument Made() {
  XmlDocument document;
  EXPECT_EQ(CoInitialize(), 0u);
  EXPECT_EQ(XmlDocument::Create(u"MSXML.DOMDocument", document), 0u);
  return document;
}

std::string TextOf(std::u16string_view xml, std::u16string_view tag) {
  XmlDocument document = Made();
  XmlElement element;
  std::u16string text = u"?";
  EXPECT_TRUE(document.Load(xml));
  EXPECT_TRUE(document.FindFirst(tag, element));
  EXPECT_EQ(element.Text(text), 0u);
  return Utf8FromWide(text);
}

TEST(XmlDocument, RefusesWhatIsNotWellFormed) {
  const std::u16string_view kTexts[] = {
      u"",          u"   ",           u"text",         u"<a>",          u"<a></b>",  u"<a>A&B</a>",
      u"<a>&b</a>", u"<a>a < b</a>",  u"<a>]]></a>",   u"<a>&nope;</a>", u"<a/><b/>", u"<a/>x",
      u"<a>\u0001</a>", u"<p:a/>",    u"<a b=1/>",     u"<a",           u"<a>\0</a>",
  };
  for (const std::u16string_view text : kTexts) EXPECT_FALSE(Made().Load(text)) << Utf8FromWide(text);
}

TEST(XmlDocument, RefusesEveryDocumentTypeDeclaration) {
  EXPECT_FALSE(Made().Load(u"<!DOCTYPE a><a/>"));
  EXPECT_FALSE(Made().Load(u"<!DOCTYPE a [<!ENTITY e \"val\">]><a>&e;</a>"));
  EXPECT_FALSE(Made().Load(u"<!DOCTYPE a [<!ENTITY e SYSTEM \"/etc/hostname\">]><a>&e;</a>"));
  EXPECT_FALSE(Made().Load(u"<!DOCTYPE a SYSTEM \"http://127.0.0.1:1/a.dtd\"><a/>"));
}

TEST(XmlDocument, RefusesDeepAndLongTexts) {
  std::u16string deep;
  for (int i = 0; i < 2000; ++i) deep += u"<a>";
  for (int i = 0; i < 2000; ++i) deep += u"</a>";
  EXPECT_FALSE(Made().Load(deep));
  const std::u16string lengthy = u"<a>" + std::u16string(kXmlMaxUnits, u'x') + u"</a>";
  EXPECT_FALSE(Made().Load(lengthy));
}

TEST(XmlDocument, FindsTheFirstOfSeveralInDocumentOrder) {
  EXPECT_EQ(TextOf(u"<r><q><n>deep</n></q><n>late</n></r>", u"n"), "deep");
  EXPECT_EQ(TextOf(u"<r><n>a<b>x</b><!-- no --><![CDATA[<&>]]></n></r>", u"n"), "ax<&>");
  EXPECT_EQ(TextOf(u"<n>root</n>", u"n"), "root");
}

TEST(XmlDocument, KeepsWideTextAndReplacesLoneSurrogates) {
  EXPECT_EQ(TextOf(u"<n>\u00e9\u20ac\U0001F600</n>", u"n"), "\u00e9\u20ac\U0001F600");
  const char16_t lone[] = {u'<', u'n', u'>', 0xD800, u'<', u'/', u'n', u'>'};
  EXPECT_EQ(TextOf({lone, 8}, u"n"), "\uFFFD");
}

TEST(XmlDocument, IsEmptyAfterARefusedText) {
  XmlDocument document = Made();
  ASSERT_TRUE(document.Load(u"<n/>"));
  ASSERT_FALSE(document.Load(u"<n>"));
  XmlElement element;
  EXPECT_FALSE(document.FindFirst(u"n", element));
}

TEST(XmlDocument, IsMadeByItsIdentifierAlone) {
  XmlDocument document;
  EXPECT_EQ(XmlDocument::Create(u"Other.Document", document), kInvalidClassString);
  EXPECT_EQ(XmlDocument::Create(u"{nothing}", document), kInvalidClassString);
  EXPECT_EQ(XmlDocument::Create(u"{00000000-0000-0000-0000-000000000001}", document), kXmlNotRegistered);
  EXPECT_FALSE(document);
  EXPECT_FALSE(document.Load(u"<n/>"));
}

TEST(XmlDocument, FailsByTheSeam) {
  XmlDocument document = Made();
  ASSERT_TRUE(document.Load(u"<n>x</n>"));
  XmlElement element;
  ASSERT_TRUE(document.FindFirst(u"n", element));
  std::u16string text = u"as before";
  const auto fails = [](Operation operation) { return FaultPlan::FailCall(operation, 1, kXmlFailed); };
  {
    const FaultPlan plan = fails(Operation::kCoInitialize);
    EXPECT_EQ(CoInitialize(), kXmlFailed);
  }
  {
    const FaultPlan plan = fails(Operation::kXmlText);
    EXPECT_EQ(element.Text(text), kXmlFailed);
    EXPECT_EQ(text, u"as before");
  }
  {
    const FaultPlan plan = fails(Operation::kXmlFind);
    EXPECT_THROW((void)document.FindFirst(u"n", element), XmlError);
  }
  {
    const FaultPlan plan = fails(Operation::kXmlLoad);
    EXPECT_FALSE(document.Load(u"<n/>"));
  }
  const FaultPlan plan = fails(Operation::kXmlCreate);
  EXPECT_EQ(XmlDocument::Create(u"MSXML.DOMDocument", document), kXmlFailed);
}

}  // namespace
}  // namespace platform
