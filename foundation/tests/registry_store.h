// foundation/tests/registry_store.h: a fresh directory with an open key store in it, for a test's life.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "platform/registry.h"
#include "platform/testing/temporary_folder.h"
#include "platform/text.h"

namespace ZepFoundation {

class WithRegistryStore : public testing::Test {
 protected:
  WithRegistryStore() {
    EXPECT_EQ(platform::OpenRegistryStore((m_root / "registry.db").string()), 0u);
  }
  ~WithRegistryStore() override {
    if (platform::IsRegistryStoreOpen()) platform::CloseRegistryStore();
  }
  void Reopen() {
    ASSERT_EQ(platform::CloseRegistryStore(), 0u);
    ASSERT_EQ(platform::OpenRegistryStore((m_root / "registry.db").string()), 0u);
  }
  [[nodiscard]] std::u16string WideName(const char* name) const {
    return platform::WideFromUtf8((m_root / name).string());
  }
  [[nodiscard]] std::string Contents(const char* name) const {
    std::ifstream in(m_root / name, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  const platform::TemporaryFolder m_temporary{"qxfound"};
  const std::filesystem::path m_root = m_temporary.Path();
};

}  // namespace ZepFoundation
