// platform/tests/store_fixture.h: for tests: an open key store in a fresh directory.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "platform/registry.h"

namespace platform {

class StoreFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string name = (std::filesystem::temp_directory_path() / "qxregXXXXXX").string();
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    m_folder = name;
    m_path = m_folder / "registry.db";
    ASSERT_EQ(OpenRegistryStore(m_path), 0u);
  }
  void TearDown() override {
    if (IsRegistryStoreOpen()) (void)CloseRegistryStore();
    std::filesystem::remove_all(m_folder);
  }
  void Reopen() {
    ASSERT_EQ(CloseRegistryStore(), 0u);
    ASSERT_EQ(OpenRegistryStore(m_path), 0u);
  }

  std::filesystem::path m_folder;
  std::string m_path;
};

}  // namespace platform
