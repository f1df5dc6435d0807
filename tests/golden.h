// tests/golden.h: for tests: recorded answers of the described system's calls.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/test_paths.h"

// A file of tests/data/golden, or of the folder that QX_GOLDEN_DIR names. One that isn't there fails the test and is an
// empty object.
inline nlohmann::json LoadGolden(const std::string& name) {
  const char* const folder = std::getenv("QX_GOLDEN_DIR");
  const std::string path = (folder != nullptr ? std::string(folder) : test_paths::Data() + "/golden") + "/" + name;
  std::ifstream file(path);
  EXPECT_TRUE(file.is_open()) << path;
  return file.is_open() ? nlohmann::json::parse(file) : nlohmann::json::object();
}
