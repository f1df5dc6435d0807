#include "platform/registry_log_room.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/registry.h"
#include "platform/testing/fault.h"
#include "platform/testing/temporary_folder.h"

namespace platform {
namespace {

namespace fs = std::filesystem;

constexpr std::uintmax_t kRoom = 4194304;

class RegistryLogRoom : public ::testing::Test {
 protected:
  void SetUp() override {
    m_store = m_folder / "registry.db";
    ASSERT_EQ(OpenRegistryStore(m_store.string()), 0u);
  }
  void TearDown() override {
    (void)CloseRegistryStore();
  }
  [[nodiscard]] fs::path Log() const { return m_store.string() + "-wal"; }
  static std::string BytesOf(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }
  static void Set(std::u16string_view name, std::uint32_t value) {
    RegistryKey key;
    ASSERT_EQ(CreateKey(Hive::kCurrentUser, u"A", KEY_ALL_ACCESS, key), 0u);
    ASSERT_EQ(SetDword(key, name, value), 0u);
    ASSERT_EQ(key.Close(), 0u);
  }
  static std::uint32_t Get(std::u16string_view name) {
    RegistryKey key;
    std::uint32_t value = 0;
    EXPECT_EQ(OpenKey(Hive::kCurrentUser, u"A", KEY_READ, key), 0u);
    EXPECT_EQ(ReadRegistryDword(key, name, value), 0u);
    return value;
  }
  // Opens the store as it would be behind a kill now.
  void Kill() {
    const fs::path files = m_folder / "killed";
    fs::create_directory(files);
    for (const fs::path& file : {m_store, Log()}) fs::copy_file(file, files / file.filename());
    ASSERT_EQ(CloseRegistryStore(), 0u);
    m_store = files / "registry.db";
    ASSERT_EQ(OpenRegistryStore(m_store.string()), 0u);
  }

  const TemporaryFolder m_temporary{"qxroom"};
  const fs::path m_folder = m_temporary.Path();
  fs::path m_store;
};

TEST_F(RegistryLogRoom, MakesTheLogAsLongAsItBecomesByItself) {
  ASSERT_LT(fs::file_size(Log()), kRoom);
  ASSERT_EQ(MakeRegistryLogRoom(), 0u);
  EXPECT_EQ(fs::file_size(Log()), kRoom);
  // More than the 1000 pages of 4096 bytes behind which a log begins anew.
  const std::vector<std::byte> data(200000);
  for (std::uint32_t i = 0; i < 30; ++i) {
    RegistryKey key;
    ASSERT_EQ(CreateKey(Hive::kCurrentUser, u"A", KEY_ALL_ACCESS, key), 0u);
    ASSERT_EQ(SetRawValue(key, u"data", REG_BINARY, data), 0u);
    ASSERT_EQ(SetDword(key, u"n", i), 0u);
    ASSERT_EQ(key.Close(), 0u);
  }
  EXPECT_EQ(fs::file_size(Log()), kRoom);
  EXPECT_EQ(Get(u"n"), 29u);
}

TEST_F(RegistryLogRoom, ChangesNothingWhereThereIsRoom) {
  Set(u"n", 1);
  ASSERT_EQ(MakeRegistryLogRoom(), 0u);
  Set(u"n", 2);
  const std::string before = BytesOf(Log());
  ASSERT_EQ(MakeRegistryLogRoom(), 0u);
  EXPECT_TRUE(BytesOf(Log()) == before);
}

TEST_F(RegistryLogRoom, KeepsWhatTheLogHoldsAndWhatComesIntoIt) {
  Set(u"before", 1);
  ASSERT_EQ(MakeRegistryLogRoom(), 0u);
  Set(u"behind", 2);
  ASSERT_NO_FATAL_FAILURE(Kill());
  EXPECT_EQ(Get(u"before"), 1u);
  EXPECT_EQ(Get(u"behind"), 2u);
}

TEST_F(RegistryLogRoom, OpensALogOfNothingButRoom) {
  ASSERT_EQ(CloseRegistryStore(), 0u);  // takes the log away
  ASSERT_FALSE(fs::exists(Log()));
  ASSERT_EQ(OpenRegistryStore(m_store.string()), 0u);
  ASSERT_EQ(MakeRegistryLogRoom(), 0u);
  ASSERT_EQ(BytesOf(Log()), std::string(kRoom, '\0'));
  ASSERT_NO_FATAL_FAILURE(Kill());
  Set(u"n", 3);
  EXPECT_EQ(Get(u"n"), 3u);
  std::string where;
  EXPECT_EQ(CheckRegistryStore(m_store.string(), where), 0u) << where;
}

// A power cut may leave any part of what was not synced.
TEST_F(RegistryLogRoom, IsWholeWithAnyPartOfTheRoom) {
  Set(u"n", 1);
  const std::uintmax_t used = fs::file_size(Log());
  ASSERT_EQ(MakeRegistryLogRoom(), 0u);
  std::vector<fs::path> images;
  for (const std::uintmax_t size : {used + 1, used + 4096, used + 4120, kRoom - 1}) {
    images.push_back(m_folder / std::to_string(size));
    fs::create_directory(images.back());
    for (const fs::path& file : {m_store, Log()}) fs::copy_file(file, images.back() / file.filename());
    fs::resize_file(images.back() / Log().filename(), size);
  }
  for (const fs::path& image : images) {
    ASSERT_EQ(CloseRegistryStore(), 0u);
    m_store = image / "registry.db";
    std::string where;
    EXPECT_EQ(CheckRegistryStore(m_store.string(), where), 0u) << image << ": " << where;
    ASSERT_EQ(OpenRegistryStore(m_store.string()), 0u);
    EXPECT_EQ(Get(u"n"), 1u) << image;
  }
}

TEST_F(RegistryLogRoom, WaitsForNoBatchOfItsOwnProcess) {
  RegistryKey key;
  ASSERT_EQ(CreateKey(Hive::kCurrentUser, u"A", KEY_ALL_ACCESS, key), 0u);
  ASSERT_EQ(SetDword(key, u"n", 1), 0u);
  EXPECT_EQ(MakeRegistryLogRoom(), ERROR_BUSY);
  ASSERT_EQ(key.Close(), 0u);
  EXPECT_EQ(MakeRegistryLogRoom(), 0u);
  EXPECT_EQ(Get(u"n"), 1u);
}

TEST_F(RegistryLogRoom, NeedsAnOpenStore) {
  ASSERT_EQ(CloseRegistryStore(), 0u);
  EXPECT_EQ(MakeRegistryLogRoom(), ERROR_BADDB);
  ASSERT_EQ(OpenRegistryStore(m_store.string()), 0u);
}

TEST_F(RegistryLogRoom, LeavesTheLogAsItIsWhereItCantBeWritten) {
  const std::uintmax_t before = fs::file_size(Log());
  {
    const FaultPlan plan = FaultPlan::FailCall(Operation::kWriteFile, 1, ERROR_DISK_FULL, FaultMode::kOnce);
    EXPECT_EQ(MakeRegistryLogRoom(), ERROR_DISK_FULL);
  }
  EXPECT_EQ(fs::file_size(Log()), before);
  Set(u"n", 4);
  EXPECT_EQ(Get(u"n"), 4u);
}

}  // namespace
}  // namespace platform
