// The disk that forgets what was not synced.
#include "platform/testing/crash_disk.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "platform/file.h"
#include "platform/profile.h"
#include "platform/registry.h"
#include "platform/testing/temporary_folder.h"
#include "platform/text.h"

namespace platform {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;
using Survives = CrashDisk::Survives;

class CrashDiskTest : public ::testing::Test {
 protected:

  std::string Name(const char* file) const { return m_folder + "/" + file; }
  void Write(const char* file, const std::string& text) const { std::ofstream(Name(file), std::ios::binary) << text; }
  void SyncFile(const char* file) const {
    const int descriptor = ::open(Name(file).c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(::fdatasync(descriptor), 0);
    ::close(descriptor);
  }
  void SyncFolder() const { EXPECT_EQ(SyncDirectory(m_folder), ERROR_SUCCESS); }

  const TemporaryFolder m_temporary{"qxdisk"};
  const std::string m_folder = m_temporary.Path();
};

TEST_F(CrashDiskTest, WhatWasThereAtTheBeginningIsSafe) {
  Write("a", "old");
  std::filesystem::create_directory(Name("d"));
  Write("d/b", "below");
  CrashDisk disk(m_folder);
  EXPECT_THAT(disk.AfterPowerCut(Survives::kSynced),
              UnorderedElementsAre(Pair("a", "old"), Pair("d", std::nullopt), Pair("d/b", "below")));
}

TEST_F(CrashDiskTest, UnsyncedContentsAreLost) {
  Write("a", "old");
  CrashDisk disk(m_folder);
  Write("a", "new");
  EXPECT_THAT(disk.AfterPowerCut(Survives::kSynced), UnorderedElementsAre(Pair("a", "old")));
  EXPECT_THAT(disk.AfterPowerCut(Survives::kAll), UnorderedElementsAre(Pair("a", "new")));
  SyncFile("a");
  EXPECT_THAT(disk.AfterPowerCut(Survives::kSynced), UnorderedElementsAre(Pair("a", "new")));
  EXPECT_EQ(disk.Syncs(), 1);
}

TEST_F(CrashDiskTest, ANameIsSafeWhenItsDirectoryWasSynced) {
  CrashDisk disk(m_folder);
  Write("a", "text");
  SyncFile("a");
  EXPECT_THAT(disk.AfterPowerCut(Survives::kSynced), UnorderedElementsAre());
  SyncFolder();
  EXPECT_THAT(disk.AfterPowerCut(Survives::kSynced), UnorderedElementsAre(Pair("a", "text")));
}

TEST_F(CrashDiskTest, NewDirectoriesAreAsSafeAsTheFileThatIsWrittenThere) {
  std::filesystem::create_directory(Name("there"));
  CrashDisk disk(m_folder);
  for (const char* directory : {"new", "there/a/b/c"}) {
    ASSERT_EQ(CreateDirectories(Name(directory)), ERROR_SUCCESS);
    const std::string file = std::string(directory) + "/f";
    ASSERT_EQ(ReplaceWholeFile(Name(file.c_str()), "text", Durable::kYes), ERROR_SUCCESS);
    EXPECT_THAT(disk.AfterPowerCut(Survives::kSynced), ::testing::Contains(Pair(file, "text")));
  }
}

TEST_F(CrashDiskTest, ANameWithoutSyncedContentsIsAnEmptyFile) {
  CrashDisk disk(m_folder);
  Write("a", "text");
  SyncFolder();
  EXPECT_THAT(disk.AfterPowerCut(Survives::kSynced), UnorderedElementsAre(Pair("a", "")));
  EXPECT_THAT(disk.AfterPowerCut(Survives::kSyncedContents), UnorderedElementsAre(Pair("a", "")));
  EXPECT_THAT(disk.AfterPowerCut(Survives::kSyncedNames), UnorderedElementsAre(Pair("a", "text")));
}

TEST_F(CrashDiskTest, AnUnsyncedDeletionComesBackAlsoAfterItsNumberWasFree) {
  Write("a", "text");
  CrashDisk disk(m_folder);
  std::filesystem::remove(Name("a"));
  Write("b", "other");  // would get the number of the first
  EXPECT_THAT(disk.AfterPowerCut(Survives::kSynced), UnorderedElementsAre(Pair("a", "text")));
  SyncFolder();
  EXPECT_THAT(disk.AfterPowerCut(Survives::kSynced), UnorderedElementsAre(Pair("b", "")));
}

TEST_F(CrashDiskTest, ARenameIsThereOrNotButNeverHalf) {
  Write("a", "text");
  CrashDisk disk(m_folder);
  ASSERT_EQ(RenameFile(Name("a"), Name("b")), ERROR_SUCCESS);
  disk.Look();
  ASSERT_EQ(RenameFile(Name("b"), Name("c")), ERROR_SUCCESS);
  std::set<std::string> seen;
  for (std::uint32_t seed = 0; seed < 100; ++seed) {
    const CrashDisk::Image image = disk.AfterPowerCut(Survives::kSome, seed);
    ASSERT_EQ(image.size(), 1u) << seed;
    EXPECT_EQ(image.begin()->second, "text");
    seen.insert(image.begin()->first);
  }
  EXPECT_THAT(seen, UnorderedElementsAre("a", "b", "c"));
}

TEST_F(CrashDiskTest, SectorsOfUnsyncedContentsArriveByChance) {
  const std::string before(2048, 'o');
  const std::string now(4096, 'n');
  Write("a", before);
  CrashDisk disk(m_folder);
  Write("a", now);
  bool torn = false;
  bool hole = false;
  for (std::uint32_t seed = 0; seed < 200; ++seed) {
    const std::string text = *disk.AfterPowerCut(Survives::kSome, seed).at("a");
    ASSERT_TRUE(text.size() == before.size() || text.size() == now.size());
    for (std::size_t at = 0; at < text.size(); at += 512) {
      ASSERT_EQ(text.substr(at, 512), std::string(512, text[at]));  // a sector is whole
    }
    torn = torn || (text.find('o') != std::string::npos && text.find('n') != std::string::npos);
    hole = hole || text.find('\0') != std::string::npos;
    EXPECT_EQ(disk.AfterPowerCut(Survives::kSome, seed).at("a"), text);
  }
  EXPECT_TRUE(torn);
  EXPECT_TRUE(hole);
}

TEST_F(CrashDiskTest, ADirectoryThatWasMadeIsLostWithAllInIt) {
  CrashDisk disk(m_folder);
  std::filesystem::create_directory(Name("d"));
  Write("d/a", "text");
  SyncFile("d/a");
  EXPECT_EQ(SyncDirectory(Name("d")), ERROR_SUCCESS);
  EXPECT_THAT(disk.AfterPowerCut(Survives::kSynced), UnorderedElementsAre());
  SyncFolder();
  EXPECT_THAT(disk.AfterPowerCut(Survives::kSynced),
              UnorderedElementsAre(Pair("d", std::nullopt), Pair("d/a", "text")));
}

TEST_F(CrashDiskTest, TellsOfEachSyncBeforeItCounts) {
  Write("a", "old");
  CrashDisk disk(m_folder);
  Write("a", "new");
  CrashDisk::Image before;
  disk.OnSync([&] { before = disk.AfterPowerCut(Survives::kSynced); });
  SyncFile("a");
  EXPECT_EQ(before.at("a"), "old");
  EXPECT_EQ(disk.AfterPowerCut(Survives::kSynced).at("a"), "new");
}

TEST_F(CrashDiskTest, FilesElsewhereAreNotWatched) {
  std::filesystem::create_directory(Name("inside"));
  CrashDisk disk(m_folder + "/inside");
  Write("outside", "text");
  SyncFile("outside");
  EXPECT_EQ(disk.Syncs(), 0);
  EXPECT_TRUE(disk.AfterPowerCut(Survives::kAll).empty());
}

TEST_F(CrashDiskTest, RestoringPutsTheImageInTheTreesPlace) {
  Write("gone", "x");
  const CrashDisk::Image image = {{"d", std::nullopt}, {"d/a", "text"}, {"e", std::string("a\0b", 3)}};
  CrashDisk::Restore(image, m_folder);
  CrashDisk disk(m_folder);
  EXPECT_EQ(disk.AfterPowerCut(Survives::kAll), image);
}

// --- the floor's own files are on such a disk what they are meant to be ---

TEST_F(CrashDiskTest, ALoneProfileWriteIsNotSafeAndACommittedBatchIs) {
  const std::u16string path = WideFromUtf8(Name("p.ini"));
  CrashDisk disk(m_folder);
  ASSERT_EQ(WriteProfileString(path, u"s", u"k", u"alone"), ERROR_SUCCESS);
  EXPECT_FALSE(disk.AfterPowerCut(Survives::kSynced).contains("p.ini"));
  ProfileBatch batch(path, ProfileBatch::kSave);
  ASSERT_EQ(WriteProfileString(path, u"s", u"k", u"batch"), ERROR_SUCCESS);
  ASSERT_EQ(batch.Commit(), ERROR_SUCCESS);
  EXPECT_THAT(*disk.AfterPowerCut(Survives::kSynced)["p.ini"], HasSubstr("k=batch"));
}

TEST_F(CrashDiskTest, AClosedKeyIsSafeAndAnOpenOneIsNot) {
  const std::string file = Name("registry.db");
  ASSERT_EQ(OpenRegistryStore(file), ERROR_SUCCESS);
  std::vector<CrashDisk::Image> images;
  {
    CrashDisk disk(m_folder);
    RegistryKey key;
    ASSERT_EQ(CreateKey(Hive::kLocalMachine, u"SOFTWARE\\a", KEY_ALL_ACCESS, key), ERROR_SUCCESS);
    ASSERT_EQ(SetDword(key, u"v", 7), ERROR_SUCCESS);
    images.push_back(disk.AfterPowerCut(Survives::kSynced));
    ASSERT_EQ(key.Close(), ERROR_SUCCESS);
    EXPECT_GT(disk.Syncs(), 0) << "the syncs of the library are watched";
    images.push_back(disk.AfterPowerCut(Survives::kSynced));
  }
  ASSERT_EQ(CloseRegistryStore(), ERROR_SUCCESS);
  for (std::size_t i = 0; i < images.size(); ++i) {
    CrashDisk::Restore(images[i], m_folder);
    ASSERT_EQ(OpenRegistryStore(file), ERROR_SUCCESS);
    RegistryKey key;
    std::uint32_t value = 0;
    EXPECT_EQ(OpenKey(Hive::kLocalMachine, u"SOFTWARE\\a", KEY_READ, key),
              i == 0 ? ERROR_FILE_NOT_FOUND : ERROR_SUCCESS);
    if (i == 1) {
      EXPECT_EQ(ReadRegistryDword(key, u"v", value), ERROR_SUCCESS);
    }
    EXPECT_EQ(value, i == 0 ? 0u : 7u);
    (void)key.Close();
    ASSERT_EQ(CloseRegistryStore(), ERROR_SUCCESS);
  }
}

}  // namespace
}  // namespace platform
