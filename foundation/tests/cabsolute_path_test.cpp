// foundation/tests/cabsolute_path_test.cpp
#include "foundation/include/zfcabsolutepath.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfcxplat.h"
#include "foundation/tests/narrow.h"

namespace ZepFoundation {
namespace {

struct FormCase {
  int line;
  const char16_t* text;
  const char* whole;
  const char* dos;
  const char* unc;  // with the server "srv"
  const char* url;
};
const FormCase kFormCases[] = {
    {__LINE__, u"C:\\dir\\file", "C:\\dir\\file", "C:\\dir\\file", "\\\\srv\\C$\\dir\\file", "file://C:/dir/file"},
    {__LINE__, u"C:\\", "C:\\", "C:\\", "\\\\srv\\C$\\", "file://C:/"},
    {__LINE__, u"C:dir", "C:dir", "C:dir", "\\\\srv\\C$\\dir", "file://C:/dir"},
    {__LINE__, u"\\\\s\\d$\\x", "\\\\s\\d$\\x", "d:\\x", "\\\\srv\\d$\\x", "file://s/d$/x"},
    {__LINE__, u"\\\\s\\share\\x", "\\\\s\\share\\x", "\\\\s\\share\\x", "\\\\srv\\share\\x", "file://s/share/x"},
    {__LINE__, u"file://C|/x/y", "file://C:/x/y", "C:\\x\\y", "\\\\srv\\C$\\x\\y", "file://C:/x/y"},
    {__LINE__, u"http://h/share/x", "http://h/share/x", "\\\\h\\share\\x", "\\\\srv\\share\\x", "http://h/share/x"},
    {__LINE__, u"\\dir\\x", "\\dir\\x", "\\dir\\x", "\\dir\\x", "file:///dir/x"},
    {__LINE__, u"dir/x", "dir/x", "dir/x", "dir/x", "file:///dir/x"},
};
TEST(AbsolutePath, BuildsTheSamePlaceInEachForm) {
  for (const FormCase& c : kFormCases) {
    const CAbsolutePath path(c.text);
    EXPECT_EQ(Narrow(path.Text()), c.whole) << c.line;
    EXPECT_EQ(Narrow(path.AsDOS().Text()), c.dos) << c.line;
    EXPECT_EQ(Narrow(path.AsUNC(u"srv").Text()), c.unc) << c.line;
    EXPECT_EQ(Narrow(path.AsURL().Text()), c.url) << c.line;
    // What was built reads back as what it is.
    for (const CAbsolutePath& form : {path.AsDOS(), path.AsUNC(u"srv"), path.AsURL()}) {
      EXPECT_EQ(CAbsolutePath(form.Text()), form) << c.line << ' ' << Narrow(form.Text());
    }
  }
}

TEST(AbsolutePath, NamesThisMachineAsTheServerOfADrive) {
  EXPECT_EQ(CAbsolutePath(u"C:\\x").AsUNC().Text(), wcstring(u"\\\\") + wcstring(XPlat::MachineName()) + u"\\C$\\x");
  EXPECT_EQ(CAbsolutePath(u"\\\\s\\share\\x").AsUNC().Text(), u"\\\\s\\share\\x");
}

TEST(AbsolutePath, TakesAnotherServerIntoItsUrl) {
  EXPECT_EQ(CAbsolutePath(u"http://h/x").AsURL(u"www").Text(), u"http://www/x");
  EXPECT_EQ(CAbsolutePath(u"\\\\s\\share\\x").AsURL(u"www").Text(), u"file://www/share/x");
  EXPECT_EQ(CAbsolutePath(u"C:\\x").AsURL(u"www").Text(), u"file://www/C$/x");
}

TEST(AbsolutePath, KeepsItsAnnotationsInEveryForm) {
  EXPECT_EQ(CAbsolutePath(u"C:\\x?k=v").AsURL().TextWithAnnotations(), u"file://C:/x?k=v");
}

TEST(AbsolutePath, JoinsAVolumeAndAPath) {
  EXPECT_EQ(CAbsolutePath(CVolume(u"D:"), CPath(u"\\a\\b")).Text(), u"D:\\a\\b");
  EXPECT_EQ(CAbsolutePath().Text(), u"");
  EXPECT_EQ(CAbsolutePath(static_cast<const char16_t*>(nullptr)).Text(), u"");
}

TEST(AbsolutePath, IsRelatedOnOneVolumeAlone) {
  const CAbsolutePath path(u"C:\\a");
  EXPECT_EQ(path, CAbsolutePath(u"C:\\a\\"));
  EXPECT_FALSE(path == CAbsolutePath(u"D:\\a"));
  EXPECT_TRUE(path.IsAncestorOf(CAbsolutePath(u"C:\\a\\b\\c")));
  EXPECT_FALSE(path.IsAncestorOf(CAbsolutePath(u"D:\\a\\b\\c")));
  EXPECT_TRUE(path.IsParentOf(CAbsolutePath(u"C:\\a\\b")));
  EXPECT_FALSE(path.IsParentOf(CAbsolutePath(u"D:\\a\\b")));
  EXPECT_TRUE(path.IsSiblingOf(CAbsolutePath(u"C:\\b")));
  EXPECT_FALSE(path.IsSiblingOf(CAbsolutePath(u"D:\\b")));
}

TEST(AbsolutePath, LosesARootOnItsOwnVolume) {
  CAbsolutePath path(u"C:\\a\\b");
  EXPECT_FALSE(path.RemoveRoot(CAbsolutePath(u"D:\\a")));
  EXPECT_FALSE(path.RemoveRoot(CAbsolutePath(u"C:\\b")));
  EXPECT_EQ(path.Text(), u"C:\\a\\b");
  EXPECT_TRUE(path.RemoveRoot(CAbsolutePath(u"C:\\a")));
  EXPECT_EQ(path.Text(), u"b");
}

TEST(AbsolutePath, IsItsWholeTextInStreams) {
  bostrstream out(CByteOrder::kBigEndian);
  out << CAbsolutePath(u"C:\\a?k=v");
  bistrstream in(out.view().data(), static_cast<std::streamsize>(out.view().size()), CByteOrder::kBigEndian);
  CAbsolutePath path;
  in >> path;
  EXPECT_EQ(path.TextWithAnnotations(), u"C:\\a?k=v");
  std::istringstream narrow("http://h/x");
  narrow >> path;
  std::ostringstream text;
  text << path;
  EXPECT_EQ(text.str(), "http://h/x");
}

TEST(AbsolutePath, ReadsUnitsUpToAZeroUnitInItsSecondBinaryForm) {
  const char units[] = {'C', 0, ':', 0, '\\', 0, 'a', 0, 0, 0, 'x', 0};
  bistrstream in(units, sizeof units, CByteOrder::kLittleEndian);
  CAbsolutePath path;
  path.BinaryIn2(in);
  EXPECT_EQ(path.Text(), u"C:\\a");
  path.BinaryIn2(in);  // no zero unit comes
  EXPECT_TRUE(in.fail());
  EXPECT_EQ(path.Text(), u"C:\\a");
}

}  // namespace
}  // namespace ZepFoundation
