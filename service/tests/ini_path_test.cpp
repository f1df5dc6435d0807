#include "service/ini_path.h"

#include <gtest/gtest.h>

namespace {

constexpr ScheduleGuid kNamed = platform::GuidConstant(u"{0A1B2C3D-0000-0000-0000-00000000000F}");
const std::u16string kName = u"{0A1B2C3D-0000-0000-0000-00000000000F}.ini";
const std::u16string kDefault(qx::kDefaultIniDirectory);

struct PathCase {
  int line;
  const char16_t* xml;
  std::u16string_view separators;
  std::u16string directory;
};
const PathCase kPaths[] = {
    {__LINE__, u"C:\\dir\\job.xml", qx::kBackslashOnly, u"C:\\dir\\"},
    {__LINE__, u"C:\\dir\\", qx::kBackslashOnly, u"C:\\dir\\"},
    {__LINE__, u"\\job.xml", qx::kBackslashOnly, u"\\"},
    {__LINE__, u"job.xml", qx::kBackslashOnly, kDefault},
    {__LINE__, u"", qx::kBackslashOnly, kDefault},
    {__LINE__, u"/srv/qx/job.xml", qx::kBackslashOnly, kDefault},  // forward slashes only: no directory
    {__LINE__, u"/srv\\qx/job.xml", qx::kBackslashOnly, u"/srv\\"},
    {__LINE__, u"/srv/qx/job.xml", qx::kHostSeparators, u"/srv/qx/"},
    {__LINE__, u"/srv\\qx/job.xml", qx::kHostSeparators, u"/srv\\qx/"},
    {__LINE__, u"C:\\dir\\job.xml", qx::kHostSeparators, u"C:\\dir\\"},
    {__LINE__, u"job.xml", qx::kHostSeparators, kDefault},
};

TEST(IniPath, StandsBesideTheXmlFileElseInTheDefaultDirectory) {
  for (const PathCase& c : kPaths) {
    EXPECT_EQ(qx::IniDirectory(c.xml, c.separators), c.directory) << c.line;
    EXPECT_EQ(qx::IniPath(kNamed, c.xml, c.separators), c.directory + kName) << c.line;
  }
}

TEST(IniPath, HasOneMoreBackslashInTheOldPathBehindADirectoryOnly) {
  for (const PathCase& c : kPaths) {
    const std::u16string more = c.directory == kDefault ? u"" : u"\\";
    EXPECT_EQ(qx::OldIniPath(kNamed, c.xml, c.separators), c.directory + more + kName) << c.line;
  }
}

TEST(IniPath, NamesTheDefaultDirectoryWithoutADrive) {
  EXPECT_EQ(kDefault, u"\\Documents and Settings\\All Users\\Application Data\\KORVANE\\QxSnapExchangeBackup\\");
}

}  // namespace
