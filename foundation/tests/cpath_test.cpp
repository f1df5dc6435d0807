// foundation/tests/cpath_test.cpp
#include "foundation/include/zfcpath.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "foundation/include/zfcbytes.h"
#include "foundation/tests/narrow.h"

namespace ZepFoundation {
namespace {

using ::testing::ElementsAre;

// The elements as narrow text.
std::vector<std::string> Elements(const CPath& path) {
  std::vector<std::string> texts;
  for (std::size_t i = 0; i < path.Count(); ++i) texts.emplace_back(path[i].Text().ascii());
  return texts;
}
// --- reading a text ---

struct ReadCase {
  int line;
  const char16_t* text;
  char16_t separator;
  bool rooted;
  std::vector<std::string> elements;
  const char* path;
};
const ReadCase kReadCases[] = {
    {__LINE__, u"", u'\\', false, {}, ""},
    {__LINE__, u"\\", u'\\', true, {}, "\\"},
    {__LINE__, u"\\\\", u'\\', true, {}, "\\"},
    {__LINE__, u"a", u'\\', false, {"a"}, "a"},
    {__LINE__, u"a\\b", u'\\', false, {"a", "b"}, "a\\b"},
    {__LINE__, u"\\a\\b", u'\\', true, {"a", "b"}, "\\a\\b"},
    {__LINE__, u"a\\\\b", u'\\', false, {"a", "", "b"}, "a\\\\b"},  // only at the very end an empty piece is skipped
    {__LINE__, u"\\\\server\\share", u'\\', true, {"", "server", "share"}, "\\\\server\\share"},
    {__LINE__, u"a/b", u'\\', false, {"a", "b"}, "a/b"},
    {__LINE__, u"/a/b/", u'\\', true, {"a", "b"}, "/a/b"},
    {__LINE__, u"\\a\\b", u'/', true, {"a", "b"}, "\\a\\b"},
    {__LINE__, u"a\\b/c", u'\\', false, {"a", "b/c"}, "a\\b/c"},  // its own separator is there: the other is text
    {__LINE__, u"a\\b/c", u':', false, {"a\\b/c"}, "a\\b/c"},
    {__LINE__, u":a:b", u':', true, {"a", "b"}, ":a:b"},
};
TEST(Path, ReadsItsTextIntoElements) {
  for (const ReadCase& c : kReadCases) {
    const CPath path(c.text, 0, c.separator);
    EXPECT_EQ(path.Rooted(), c.rooted) << c.line;
    EXPECT_EQ(Elements(path), c.elements) << c.line;
    EXPECT_EQ(Narrow(path.Path()), c.path) << c.line;
  }
}

TEST(Path, LosesATrailingSeparatorWhenRootedAndHasNoEmptyLastElement) {
  const CPath path(u"\\a\\b\\");
  EXPECT_THAT(Elements(path), ElementsAre("a", "b"));
  EXPECT_EQ(path.Path(), u"\\a\\b");
}

TEST(Path, TakesTheSlashForItsSeparatorWhereTheTextHasOnlySlashes) {
  CPath path(u"a/b");
  EXPECT_EQ(path.Separator(), u'/');
  path += CPathElement(u"c");
  EXPECT_EQ(path.Path(), u"a/b/c");
}

TEST(Path, HandsItsFlagAndSeparatorToEachElement) {
  const CPath path(u"a/b", 7);
  EXPECT_EQ(path[1].Flag(), 7);
  EXPECT_EQ(path[1].Separator(), u'/');
}

TEST(Path, ThrowsForAnElementThatIsNotThere) {
  const CPath path(u"a\\b");
  EXPECT_THROW((void)path[2], std::out_of_range);
}

TEST(Path, TakesNullForAnEmptyText) {
  EXPECT_TRUE(CPath(static_cast<const char16_t*>(nullptr)).Empty());
}

// --- annotations ---

TEST(Path, BeginsItsAnnotationsAtAQuestionMarkWithAnEqualsSignBehindIt) {
  const CPath path(u"\\a\\b?k=v&n=1=2");
  EXPECT_THAT(Elements(path), ElementsAre("a", "b"));
  EXPECT_EQ(path.AnnotationValue(u"k"), u"v");
  EXPECT_EQ(path.AnnotationValue(u"n"), u"1=2");
  EXPECT_EQ(path.Path(), u"\\a\\b");
}

TEST(Path, KeepsAQuestionMarkWithoutAnEqualsSignInItsLastElement) {
  const CPath path(u"a=b\\c?d");
  EXPECT_THAT(Elements(path), ElementsAre("a=b", "c?d"));
  EXPECT_TRUE(path.Annotations().empty());
}

struct AnnotationCase {
  int line;
  const char16_t* text;
  const char* written;
};
const AnnotationCase kAnnotationCases[] = {
    {__LINE__, u"a?k=v", "a?k=v"},   {__LINE__, u"a\\?k=v", "a?k=v"},
    {__LINE__, u"a?b&k=v", "a?k=v"},                                     // a pair without "=" is skipped
    {__LINE__, u"a?k=v&", "a?k=v"},  {__LINE__, u"a?k=1&k=2", "a?k=2"},  // the later value
    {__LINE__, u"a?=v", "a?=v"},     {__LINE__, u"a?k=", "a?k="},
    {__LINE__, u"?k=v", "?k=v"},     {__LINE__, u"a?z=1&b=2?3", "a?b=2?3&z=1"},
};
TEST(Path, WritesItsAnnotationsSoThatTheyAreReadAgain) {
  for (const AnnotationCase& c : kAnnotationCases) {
    const CPath path(c.text);
    const wcstring written = path.PathWithAnnotations();
    EXPECT_EQ(Narrow(written), c.written) << c.line;
    const CPath again(written);
    EXPECT_EQ(again, path) << c.line;
    EXPECT_EQ(again.Annotations(), path.Annotations()) << c.line;
  }
}

TEST(Path, KeepsASeparatorAtTheEndOfItsLastAnnotation) {
  for (const char16_t* const value : {u"C:\\", u"usr/", u"\\", u"x", u"C:"}) {
    for (const char16_t separator : {u'\\', u'/', u':'}) {
      CPath path(u"a", 0, separator);
      ASSERT_TRUE(path.AddAnnotation(u"k", value));
      EXPECT_EQ(CPath(path.PathWithAnnotations(), 0, separator).AnnotationValue(u"k"), value);
      EXPECT_EQ(CPath(path.PathWithAnnotations()).AnnotationValue(u"k"), value);
    }
  }
}

// What has no text of its own, as the header lists it: the text that is written, and what it reads as.
TEST(Path, IsReadAsAnotherOneWhereNoTextStandsForIt) {
  const auto joined = [](const char16_t* first, const char16_t* element) {
    CPath path(first);
    path += CPathElement(element);
    return path;
  };
  const auto swallowed = [](const char16_t* text) {
    CPath path(text);
    (void)path.Swallow(1);
    return path;
  };
  const struct {
    int line;
    CPath path;
    const char* written;
    bool rooted;
    std::vector<std::string> elements;
  } cases[] = {
      {__LINE__, joined(u"a", u""), "a\\", false, {"a"}},                 // an empty last element
      {__LINE__, swallowed(u"a\\\\b"), "\\b", true, {"b"}},             // an empty first one
      {__LINE__, joined(u"a", u"b\\c"), "a\\b\\c", false, {"a", "b", "c"}},  // the separator in an element
      {__LINE__, joined(u"", u"a/b"), "a/b", false, {"a", "b"}},          // the other separator in the only element
      {__LINE__, joined(u"a", u"b?c=d"), "a\\b?c=d", false, {"a", "b"}},  // a question mark before an equals sign
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Narrow(c.path.PathWithAnnotations()), c.written) << c.line;
    const CPath again(c.path.PathWithAnnotations());
    EXPECT_EQ(again.Rooted(), c.rooted) << c.line;
    EXPECT_EQ(Elements(again), c.elements) << c.line;
  }
  // The same where the path has a second element, or a root: the separator stands in the text.
  for (const CPath& path : {joined(u"a", u"b/c"), joined(u"\\", u"a/b")}) {
    EXPECT_EQ(CPath(path.PathWithAnnotations()), path);
  }
}

TEST(Path, RefusesAnAnnotationThatItsFormCannotHold) {
  CPath path(u"a");
  EXPECT_FALSE(path.AddAnnotation(u"k=", u"v"));
  EXPECT_FALSE(path.AddAnnotation(u"k&", u"v"));
  EXPECT_FALSE(path.AddAnnotation(u"k", u"v&w"));
  EXPECT_TRUE(path.Annotations().empty());
  EXPECT_TRUE(path.AddAnnotation(u"k", u"v=w"));
  EXPECT_EQ(CPath(path.PathWithAnnotations()).AnnotationValue(u"k"), u"v=w");
}

TEST(Path, AddsFindsAndDeletesAnnotations) {
  CPath path(u"a?k=v");
  EXPECT_TRUE(path.AddAnnotation(u"b", u"1"));
  EXPECT_TRUE(path.AddAnnotation(u"b", u"2"));
  EXPECT_EQ(path.AnnotationBegin()->first, u"b");
  EXPECT_EQ(std::distance(path.AnnotationBegin(), path.AnnotationEnd()), 2);
  EXPECT_EQ(path.AnnotationValue(u"b"), u"2");
  EXPECT_EQ(path.AnnotationValue(u"c"), u"");
  EXPECT_TRUE(path.DeleteAnnotation(u"k"));
  EXPECT_FALSE(path.DeleteAnnotation(u"k"));
  path.ClearAnnotations();
  EXPECT_EQ(path.PathWithAnnotations(), u"a");
}

// --- text ---

TEST(Path, IsEmptyTextForABareRootWhereTheFlagAsksForIt) {
  CPath path(u"\\a");
  ASSERT_TRUE(path.Lop(1));
  EXPECT_EQ(path.Path(0), u"\\");
  EXPECT_EQ(path.Path(1), u"");
  EXPECT_EQ(path.Path(0), u"\\");  // whatever was kept for the flag
}

TEST(Path, BuildsItsTextAnewAfterEachChange) {
  CPath path(u"\\a\\b");
  EXPECT_EQ(path.Path(1), u"\\a\\b");
  path += CPathElement(u"c");
  EXPECT_EQ(path.Path(1), u"\\a\\b\\c");
  EXPECT_TRUE(path.Swallow(1));
  EXPECT_EQ(path.Path(1), u"\\b\\c");
  path.Rooted(0);
  EXPECT_EQ(path.Path(1), u"b\\c");
  path.Path(u"x/y/", u'/');
  EXPECT_EQ(path.Path(1), u"x/y");
  EXPECT_FALSE(path.Rooted());
}

TEST(Path, TakesItsOwnTextAsANewOne) {
  CPath path(u"\\a?k=v");
  path.Path(path.Path(1), path.Separator());
  EXPECT_EQ(path.PathWithAnnotations(), u"\\a");
}

// --- changing ---

struct LopCase {
  int line;
  int count;
  bool exact;
  const char* left;
};
const LopCase kLopCases[] = {
    {__LINE__, 0, true, "a\\b"}, {__LINE__, 1, true, "a"},      {__LINE__, 2, true, ""},
    {__LINE__, 3, false, ""},    {__LINE__, -1, false, "a\\b"},
};
TEST(Path, LopsElementsOffItsEndAndAllAnnotations) {
  for (const LopCase& c : kLopCases) {
    CPath path(u"a\\b?k=v");
    EXPECT_EQ(path.Lop(c.count), c.exact) << c.line;
    EXPECT_EQ(Narrow(path.PathWithAnnotations()), c.left) << c.line;
  }
}

TEST(Path, RemovesBothOfTwoElementsWhenThreeAreLoppedAndReturnsFalse) {
  CPath path(u"a\\b");
  EXPECT_FALSE(path.Lop(3));
  EXPECT_TRUE(path.Empty());
}

const LopCase kSwallowCases[] = {
    {__LINE__, 0, true, "a\\b?k=v"}, {__LINE__, 1, true, "b?k=v"},      {__LINE__, 2, true, "?k=v"},
    {__LINE__, 3, false, "?k=v"},    {__LINE__, -1, false, "a\\b?k=v"},
};
TEST(Path, SwallowsElementsOffItsFrontAndKeepsAnnotations) {
  for (const LopCase& c : kSwallowCases) {
    CPath path(u"a\\b?k=v");
    EXPECT_EQ(path.Swallow(c.count), c.exact) << c.line;
    EXPECT_EQ(Narrow(path.PathWithAnnotations()), c.left) << c.line;
  }
}

struct NormalizeCase {
  int line;
  const char16_t* text;
  bool done;
  const char* path;
};
const NormalizeCase kNormalizeCases[] = {
    {__LINE__, u"\\a\\.\\b", true, "\\a\\b"},  {__LINE__, u"\\a\\..\\b", true, "\\b"},
    {__LINE__, u"\\a\\b\\..\\..", true, "\\"}, {__LINE__, u"\\a\\b\\.\\..\\c\\..\\d", true, "\\a\\d"},
    {__LINE__, u"\\...\\a", true, "\\...\\a"}, {__LINE__, u"\\a\\..\\..\\b", false, "\\a\\..\\..\\b"},
    {__LINE__, u"\\..", false, "\\.."},        {__LINE__, u"a\\.\\b", false, "a\\.\\b"},
};
TEST(Path, NormalizesWithinItsElementsAlone) {
  for (const NormalizeCase& c : kNormalizeCases) {
    CPath path(c.text);
    EXPECT_EQ(path.Normalize(), c.done) << c.line;
    EXPECT_EQ(Narrow(path.Path()), c.path) << c.line;
  }
}

TEST(Path, FailsToNormalizeMoreStepsUpThanElementsAndStaysAsItIs) {
  CPath path(u"\\a\\.\\..\\..\\b?k=v");
  EXPECT_FALSE(path.Normalize());
  EXPECT_EQ(path.PathWithAnnotations(), u"\\a\\.\\..\\..\\b?k=v");
}

TEST(Path, JoinsAnotherPathAndItsAnnotationsToItsEnd) {
  CPath path(u"\\a?k=1&m=2");
  path += CPath(u"/b/c?k=3");
  EXPECT_EQ(path.PathWithAnnotations(), u"\\a\\b\\c?k=3&m=2");
  const CPath third = CPath(u"\\x") + CPath(u"y");
  EXPECT_EQ(third.Path(), u"\\x\\y");
}

TEST(Path, TakesItsTextFromOneOfItsElements) {
  CPath path(u"\\some\\element of many characters");
  path.Path(path[1].Text(), u'\\');
  EXPECT_EQ(path.Path(), u"element of many characters");
}

TEST(Path, JoinsItselfToItsEnd) {
  CPath path(u"a\\b");
  path += path;
  EXPECT_EQ(path.Path(), u"a\\b\\a\\b");
}

TEST(Path, IsCopiedWhetherItWasReadOrNot) {
  const CPath unread(u"\\a\\b?k=v");
  const CPath copy = unread;
  CPath changed = copy;
  EXPECT_TRUE(changed.Lop(1));
  const CPath copyOfChanged = changed;
  EXPECT_EQ(copy, unread);
  EXPECT_EQ(copyOfChanged.Path(1), u"\\a");
}

// --- relations ---

struct RelationCase {
  int line;
  const char16_t* a;
  const char16_t* b;
  bool ancestor, parent, sibling;
};
const RelationCase kRelationCases[] = {
    {__LINE__, u"\\a", u"\\a\\b", true, true, false},
    {__LINE__, u"\\a", u"\\a\\b\\c", true, false, false},
    {__LINE__, u"\\a\\b", u"\\a\\c", false, false, true},
    {__LINE__, u"\\a\\b", u"\\a\\b", false, false, true},
    {__LINE__, u"\\a\\b", u"\\x\\b", false, false, false},
    {__LINE__, u"\\a\\b", u"\\a", false, false, false},
    {__LINE__, u"\\a", u"\\A\\b", false, false, false},
    {__LINE__, u"", u"a", true, true, false},
    {__LINE__, u"", u"", false, false, true},
    {__LINE__, u"a", u"\\a\\b", true, true, false},  // the root has no part in it
};
TEST(Path, KnowsItsRelations) {
  for (const RelationCase& c : kRelationCases) {
    const CPath a(c.a);
    const CPath b(c.b);
    EXPECT_EQ(a.IsAncestorOf(b), c.ancestor) << c.line;
    EXPECT_EQ(a.IsParentOf(b), c.parent) << c.line;
    EXPECT_EQ(a.IsSiblingOf(b), c.sibling) << c.line;
  }
}

TEST(Path, IsEqualByRootAndElements) {
  EXPECT_EQ(CPath(u"\\a\\b?k=v"), CPath(u"/a/b/", 1));
  EXPECT_FALSE(CPath(u"\\a") == CPath(u"a"));
  EXPECT_FALSE(CPath(u"\\a") == CPath(u"\\a\\b"));
  EXPECT_TRUE(CPath(u"b") < CPath(u"\\a"));
  EXPECT_TRUE(CPath(u"\\a\\z") < CPath(u"\\b"));
  EXPECT_FALSE(CPath(u"a") < CPath(u"a"));
}

TEST(Path, LosesARootThatItBeginsWith) {
  CPath path(u"\\a\\b\\c?k=v");
  EXPECT_FALSE(path.RemoveRoot(CPath(u"\\b")));
  EXPECT_FALSE(path.RemoveRoot(CPath(u"a")));
  EXPECT_FALSE(path.RemoveRoot(CPath(u"\\a\\b\\c\\d")));
  EXPECT_EQ(path.PathWithAnnotations(), u"\\a\\b\\c?k=v");
  EXPECT_TRUE(path.RemoveRoot(CPath(u"\\a")));
  EXPECT_EQ(path.PathWithAnnotations(), u"b\\c?k=v");
  EXPECT_TRUE(path.RemoveRoot(path));
  EXPECT_TRUE(path.Empty());
}

struct OrderCase {
  int line;
  const char16_t* a;
  const char16_t* b;
  bool before;
};
const OrderCase kOrderCases[] = {
    {__LINE__, u"z", u"\\a", true},  // relative first
    {__LINE__, u"\\a", u"z", false},
    {__LINE__, u"", u"\\", true},
    {__LINE__, u"", u"a", true},  // empty first
    {__LINE__, u"a", u"", false},
    {__LINE__, u"", u"", false},
    {__LINE__, u"\\z\\a", u"\\a\\b", true},  // the last element decides
    {__LINE__, u"\\a\\b", u"\\z\\a", false},
    {__LINE__, u"\\a\\x", u"\\b\\x", true},
    {__LINE__, u"\\x", u"\\a\\x", true},  // the one that runs out first
    {__LINE__, u"\\a\\x", u"\\x", false},
    {__LINE__, u"\\a\\x", u"\\a\\x", false},
};
TEST(Path, OrdersForVisitingByElementsFromTheLast) {
  for (const OrderCase& c : kOrderCases) EXPECT_EQ(CPath(c.a).EfficientOrder(CPath(c.b)), c.before) << c.line;
}

TEST(Path, OrdersForVisitingStrictly) {
  std::vector<CPath> paths;
  for (const OrderCase& c : kOrderCases) {
    paths.emplace_back(c.a);
    paths.emplace_back(c.b);
  }
  const auto before = [](const CPath& a, const CPath& b) { return a.EfficientOrder(b); };
  std::sort(paths.begin(), paths.end(), before);
  for (std::size_t i = 0; i < paths.size(); ++i) {
    for (std::size_t j = i; j < paths.size(); ++j) EXPECT_FALSE(paths[j].EfficientOrder(paths[i])) << i << ' ' << j;
  }
}

// --- elements ---

struct ElementCase {
  int line;
  const char16_t* text;
  const char* name;
  const char* extension;
};
const ElementCase kElementCases[] = {
    {__LINE__, u"a.txt", "a", "txt"},
    {__LINE__, u"a.tar.gz", "a.tar", "gz"},
    {__LINE__, u"a", "a", ""},
    {__LINE__, u"a.", "a", ""},
    {__LINE__, u".profile", ".profile", ""},
    {__LINE__, u"..", "..", ""},
    {__LINE__, u".", ".", ""},
    {__LINE__, u"", "", ""},
    {__LINE__, u".a.b", ".a", "b"},
};
TEST(PathElement, SplitsIntoNameAndExtension) {
  for (const ElementCase& c : kElementCases) {
    const CPathElement element(c.text);
    EXPECT_EQ(Narrow(element.Name()), c.name) << c.line;
    EXPECT_EQ(Narrow(element.Extension()), c.extension) << c.line;
  }
}

TEST(PathElement, KeepsAnExtensionUnlessItMayBeReplaced) {
  CPathElement element(u"a.txt");
  element.Extension(u"ini", 0);
  EXPECT_EQ(element.Text(), u"a.txt");
  element.Extension(u"ini", 1);
  EXPECT_EQ(element.Text(), u"a.ini");
  element.Extension(u"", 1);
  EXPECT_EQ(element.Text(), u"a");
  element.Extension(u"log", 0);
  EXPECT_EQ(element.Text(), u"a.log");
}

TEST(PathElement, ComparesByItsTextAlone) {
  EXPECT_EQ(CPathElement(u"a", 0, u'\\'), CPathElement(u"a", 1, u'/'));
  EXPECT_LT(CPathElement(u"A"), CPathElement(u"a"));
}

// --- streams ---

TEST(Path, IsItsTextAsAWideStringInABinaryStream) {
  bostrstream out(CByteOrder::kBigEndian);
  out << CPath(u"\\a?k=v");
  bostrstream text(CByteOrder::kBigEndian);
  wcstring(u"\\a?k=v").BinaryOut(text);
  EXPECT_EQ(out.view(), text.view());
  bistrstream in(out.view().data(), static_cast<std::streamsize>(out.view().size()), CByteOrder::kBigEndian);
  CPath path(u"x", 3);
  in >> path;
  EXPECT_TRUE(in.good());
  EXPECT_EQ(path.PathWithAnnotations(), u"\\a?k=v");
  EXPECT_EQ(path[0].Flag(), 3);
}

TEST(Path, StaysAsItWasWhenABinaryStreamFails) {
  const char bytes[] = {0, 0, 0, 9, 'a', 0};
  bistrstream in(bytes, sizeof bytes, CByteOrder::kBigEndian);
  CPath path(u"\\x");
  in >> path;
  EXPECT_TRUE(in.fail());
  EXPECT_EQ(path.Path(), u"\\x");
}

TEST(Path, IsOneWordOfANarrowStream) {
  std::istringstream in("  \\a\\b?k=v rest");
  CPath path;
  CPathElement element;
  in >> path >> element;
  EXPECT_EQ(path.PathWithAnnotations(), u"\\a\\b?k=v");
  EXPECT_EQ(element.Text(), u"rest");
  in >> path;
  EXPECT_TRUE(in.fail());
  EXPECT_EQ(path.Path(), u"\\a\\b");
  std::ostringstream out;
  out << path << ' ' << element;
  EXPECT_EQ(out.str(), "\\a\\b?k=v rest");
}

TEST(PathElement, IsItsTextInABinaryStream) {
  bostrstream out(CByteOrder::kLittleEndian);
  out << CPathElement(u"a\\b");
  bistrstream in(out.view().data(), static_cast<std::streamsize>(out.view().size()), CByteOrder::kLittleEndian);
  CPathElement element;
  in >> element;
  EXPECT_EQ(element.Text(), u"a\\b");
}

}  // namespace
}  // namespace ZepFoundation
