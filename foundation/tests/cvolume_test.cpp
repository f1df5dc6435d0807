// foundation/tests/cvolume_test.cpp
#include "foundation/include/zfcvolume.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "foundation/include/zfcbytes.h"
#include "foundation/tests/narrow.h"

namespace ZepFoundation {
namespace {

struct VolumeCase {
  int line;
  const char16_t* text;
  CVolume::Kind kind;
  EURLType type;
  const char* server;
  const char* share;
  const char* written;
};
const VolumeCase kVolumeCases[] = {
    {__LINE__, u"", CVolume::eUnknown, eURLNone, "", "", ""},
    {__LINE__, u"dir\\file", CVolume::eUnknown, eURLNone, "", "", ""},
    {__LINE__, u"//server/share", CVolume::eUnknown, eURLNone, "", "", ""},
    {__LINE__, u"dir\\\\file", CVolume::eUnknown, eURLNone, "", "", ""},
    {__LINE__, u"C:", CVolume::eDrive, eURLNone, "", "", "C:"},
    {__LINE__, u"c:\\dir", CVolume::eDrive, eURLNone, "", "", "c:"},
    {__LINE__, u"C:dir", CVolume::eDrive, eURLNone, "", "", "C:"},
    {__LINE__, u"::\\\\x", CVolume::eDrive, eURLNone, "", "", "::"},  // the second character decides
    {__LINE__, u"\\\\server\\share\\dir", CVolume::eUNC, eURLNone, "server", "share", "\\\\server\\share"},
    {__LINE__, u"\\\\server\\share", CVolume::eUNC, eURLNone, "server", "share", "\\\\server\\share"},
    {__LINE__, u"\\\\server", CVolume::eUNC, eURLNone, "server", "", "\\\\server"},
    {__LINE__, u"\\\\", CVolume::eUNC, eURLNone, "", "", "\\\\"},
    {__LINE__, u"http://host/dir", CVolume::eURL, eURLHttp, "host", "", "http://host"},
    {__LINE__, u"HTTPS://host:8080/dir", CVolume::eURL, eURLHttps, "host:8080", "", "https://host:8080"},
    {__LINE__, u"ftp://host", CVolume::eURL, eURLFtp, "host", "", "ftp://host"},
    {__LINE__, u"dtfs://h/x", CVolume::eURL, eURLDtfs, "h", "", "dtfs://h"},
    {__LINE__, u"pkzip://h/x", CVolume::eURL, eURLPkzip, "h", "", "pkzip://h"},
    {__LINE__, u"news://h/x", CVolume::eURL, eURLNews, "h", "", "news://h"},
    {__LINE__, u"sp$://h/x", CVolume::eURL, eURLSp, "h", "", "sp$://h"},
    {__LINE__, u"bent://h/x", CVolume::eURL, eURLBent, "h", "", "bent://h"},
    {__LINE__, u"sm://h/x", CVolume::eURL, eURLSm, "h", "", "//h"},
    {__LINE__, u"gopher://h/x", CVolume::eURL, eURLNone, "h", "", "//h"},
    {__LINE__, u"http:\\\\host\\dir", CVolume::eURL, eURLHttp, "host", "", "http:\\\\host"},
    {__LINE__, u"http://host/dir\\\\name\\x", CVolume::eURL, eURLHttp, "name", "", "http:\\\\name"},
    {__LINE__, u"file://C|/a|b", CVolume::eURL, eURLFile, "C:", "", "file://C:"},
    {__LINE__, u"http://C|/a", CVolume::eURL, eURLHttp, "C|", "", "http://C|"},
    {__LINE__, u"file:///C|/a", CVolume::eURL, eURLFile, "", "", "file://"},
};
TEST(Volume, ReadsTheBeginningOfAnAddress) {
  for (const VolumeCase& c : kVolumeCases) {
    const CVolume volume(c.text);
    EXPECT_EQ(volume.VolumeKind(), c.kind) << c.line;
    EXPECT_EQ(volume.URLType(), c.type) << c.line;
    EXPECT_EQ(Narrow(volume.ServerName()), c.server) << c.line;
    EXPECT_EQ(Narrow(volume.ShareName()), c.share) << c.line;
    EXPECT_EQ(Narrow(volume.VolumeName()), c.written) << c.line;
  }
}

TEST(Volume, TurnsTheFirstBarOfAFileIntoAColon) {
  EXPECT_EQ(CVolume(u"file://C|").VolumeName(), u"file://C:");
  EXPECT_EQ(CVolume(u"file://C|D|").VolumeName(), u"file://C:D|");
}

TEST(Volume, ReadsTheSchemeSmAndDoesNotWriteIt) {
  EXPECT_EQ(CVolume(u"sm://h").URLType(), eURLSm);
  EXPECT_EQ(CVolume(eURLSm, u"h", 0).VolumeName(), u"//h");
}

TEST(Volume, IsMadeOfItsParts) {
  EXPECT_EQ(CVolume(u"server", u"share", 1).VolumeName(), u"\\\\server\\share");
  EXPECT_EQ(CVolume(u"server", u"share", 1).VolumeFlag(), 1);
  EXPECT_EQ(CVolume(eURLFtp, u"host", 0).VolumeName(), u"ftp://host");
  EXPECT_EQ(CVolume(eURLNone, u"host", 0).VolumeName(), u"//host");
  EXPECT_EQ(CVolume(eURLFtp, u"host", 0).VolumeSeparator(), u'/');
}

TEST(Volume, TakesNewParts) {
  CVolume volume(u"\\\\server\\share");
  volume.ServerName(u"other");
  EXPECT_EQ(volume.VolumeName(), u"\\\\other\\share");
  volume.ShareName(u"data");
  EXPECT_EQ(volume.VolumeName(), u"\\\\other\\data");
  volume.VolumeName(u"http://host/dir");
  EXPECT_EQ(volume.VolumeName(), u"http://host");
  volume.ServerName(u"www");
  EXPECT_EQ(volume.VolumeName(), u"http://www");
  volume.VolumeName(u"C:\\dir");
  volume.ServerName(u"server");
  EXPECT_EQ(volume.VolumeName(), u"\\\\server");
  volume.VolumeName(volume.VolumeName());
  EXPECT_EQ(volume.ServerName(), u"server");
}

TEST(Volume, IsEqualByKindTypeAndName) {
  EXPECT_EQ(CVolume(u"C:\\x"), CVolume(u"C:\\y", 1));
  EXPECT_FALSE(CVolume(u"C:") == CVolume(u"D:"));
  EXPECT_FALSE(CVolume(u"http://h") == CVolume(u"ftp://h"));
  EXPECT_FALSE(CVolume(u"C:") == CVolume(u"file://C:"));
}

TEST(Volume, IsItsNameInStreams) {
  bostrstream out(CByteOrder::kBigEndian);
  out << CVolume(u"\\\\server\\share\\dir");
  bistrstream in(out.view().data(), static_cast<std::streamsize>(out.view().size()), CByteOrder::kBigEndian);
  CVolume volume;
  in >> volume;
  EXPECT_EQ(volume.ShareName(), u"share");
  std::istringstream narrow(" C:\\x");
  narrow >> volume;
  std::ostringstream text;
  text << volume;
  EXPECT_EQ(text.str(), "C:");
  in >> volume;
  EXPECT_TRUE(in.fail());
  EXPECT_EQ(volume.VolumeName(), u"C:");
}

}  // namespace
}  // namespace ZepFoundation
