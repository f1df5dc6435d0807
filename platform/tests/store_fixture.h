// platform/tests/store_fixture.h: for tests: an open key store in a fresh directory.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "platform/registry.h"
#include "platform/testing/temporary_folder.h"

namespace platform {

class StoreFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    m_path = m_folder / "registry.db";
    ASSERT_EQ(OpenRegistryStore(m_path), 0u);
  }
  void TearDown() override {
    if (IsRegistryStoreOpen()) (void)CloseRegistryStore();
  }
  void Reopen() {
    ASSERT_EQ(CloseRegistryStore(), 0u);
    ASSERT_EQ(OpenRegistryStore(m_path), 0u);
  }

  const TemporaryFolder m_temporary{"qxreg"};
  const std::filesystem::path m_folder = m_temporary.Path();
  std::string m_path;
};

}  // namespace platform
