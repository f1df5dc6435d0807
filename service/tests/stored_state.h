// service/tests/stored_state.h: what the stores hold of all schedules, byte by byte, to be compared.
#pragma once

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "platform/registry.h"
#include "platform/text.h"

namespace qx::testing {

struct StoredValue {
  std::uint32_t type = 0;
  std::vector<std::byte> data;
  friend bool operator==(const StoredValue&, const StoredValue&) = default;
};
using StoredKey = std::map<std::u16string, StoredValue>;  // by the values' names

struct StoredState {
  std::map<std::string, StoredKey> keys;     // by the schedules' braced IDs
  std::map<std::string, std::string> files;  // contents by name
  std::string failure;                       // why the store couldn't be read, empty when it could
  friend bool operator==(const StoredState&, const StoredState&) = default;
};

// Reads every key below "Schedules" from the open store, and every file of `folder` that names a schedule.
inline StoredState ReadStoredState(const std::string& folder) {
  StoredState state;
  const auto fail = [&](const char* call, platform::ErrorCode code) {
    state.failure = std::string(call) + " failed with " + std::to_string(code);
    return state;
  };
  platform::RegistryKey schedules;
  if (const auto rc =
          platform::OpenKey(platform::Hive::kLocalMachine, u"SOFTWARE\\KORVANE\\QxSvc\\CurrentVersion\\Schedules",
                            platform::KEY_READ, schedules);
      rc != platform::ERROR_SUCCESS) {
    return fail("OpenKey(Schedules)", rc);
  }
  std::u16string name;
  platform::ErrorCode rc = platform::ERROR_SUCCESS;
  for (std::uint32_t i = 0; (rc = platform::EnumKey(schedules, i, name)) == platform::ERROR_SUCCESS; ++i) {
    platform::RegistryKey key;
    rc = platform::OpenKey(schedules, name, platform::KEY_READ, key);
    if (rc != platform::ERROR_SUCCESS) return fail("OpenKey", rc);
    StoredKey& values = state.keys[platform::Utf8FromWide(name)];
    std::u16string valueName;
    StoredValue value;
    for (std::uint32_t v = 0;
         (rc = platform::EnumValue(key, v, valueName, value.type, value.data)) == platform::ERROR_SUCCESS; ++v) {
      values[valueName] = value;
    }
    if (rc != platform::ERROR_NO_MORE_ITEMS) return fail("EnumValue", rc);
  }
  if (rc != platform::ERROR_NO_MORE_ITEMS) return fail("EnumKey", rc);
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string file = entry.path().filename();
    if (file.find(".ini") == std::string::npos) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    state.files[file] = text.str();
  }
  return state;
}

// What belongs to other schedules than `id`: their keys and all files that don't bear its text.
inline StoredState Without(StoredState state, const std::string& id) {
  state.keys.erase(id);
  std::erase_if(state.files, [&](const auto& file) { return file.first.find(id) != std::string::npos; });
  return state;
}

}  // namespace qx::testing
