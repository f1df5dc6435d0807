// The recorded behaviour of the registry calls, row by row.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/registry.h"
#include "platform/testing/temporary_folder.h"
#include "tests/golden.h"

namespace {

using namespace platform;
using nlohmann::json;

std::string Hex(const unsigned char* data, std::size_t size) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (std::size_t i = 0; i < size; ++i) {
    out += kDigits[data[i] >> 4];
    out += kDigits[data[i] & 15];
  }
  return out;
}

// A store in a fresh directory with the key that the rows were recorded under.
class golden_registry : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(OpenRegistryStore(m_folder / "registry.db"), 0u);
    ASSERT_EQ(CreateKey(Hive::kCurrentUser, u"Software\\GoldenReg", KEY_ALL_ACCESS, m_base), 0u);
    m_golden = LoadGolden("registry.json");
  }
  void TearDown() override {
    if (m_base) {
      EXPECT_EQ(m_base.Close(), 0u);
    }
    EXPECT_EQ(CloseRegistryStore(), 0u);
  }

  // Runs `run` for each row of a table that isn't in `leftOut`; every row has to be known to one of them.
  void ForRows(const char* table, const std::vector<std::string>& leftOut,
               const std::function<bool(const json& row)>& run) {
    ASSERT_TRUE(m_golden.contains(table));
    ASSERT_FALSE(m_golden[table].empty());
    for (const json& row : m_golden[table]) {
      SCOPED_TRACE(row.dump());
      if (std::find(leftOut.begin(), leftOut.end(), row["case"].get<std::string>()) != leftOut.end()) continue;
      EXPECT_TRUE(run(row)) << "no such case in this test";
    }
  }

  const TemporaryFolder m_temporary{"qxreg"};
  const std::filesystem::path m_folder = m_temporary.Path();
  RegistryKey m_base;
  json m_golden;
};

using KeyCall = std::function<ErrorCode(RegistryKey& out, bool* created)>;

TEST_F(golden_registry, OpensAndCreatesKeysAsRecorded) {
  const std::u16string name255(255, u'n');
  const std::u16string name256(256, u'n');
  RegistryKey empty;
  RegistryKey closed;
  ASSERT_EQ(OpenKey(m_base, u"", KEY_READ, closed), 0u);
  ASSERT_EQ(closed.Close(), 0u);
  const auto create = [&](std::u16string_view name) -> KeyCall {
    return
        [this, name](RegistryKey& out, bool* created) { return CreateKey(m_base, name, KEY_ALL_ACCESS, out, created); };
  };
  const auto open = [&](const RegistryKey& parent, std::u16string_view name) -> KeyCall {
    return [&parent, name](RegistryKey& out, bool*) { return OpenKey(parent, name, KEY_READ, out); };
  };
  const auto openRoot = [&](Hive hive, std::u16string_view name) -> KeyCall {
    return [hive, name](RegistryKey& out, bool*) { return OpenKey(hive, name, KEY_READ, out); };
  };
  struct Case {
    KeyCall call;
    ErrorCode documented = 0;  // expected where the row carries wine_differs
  };
  const std::map<std::string, Case> cases = {
      {"missing key", {open(m_base, u"NotThere")}},
      {"create", {create(u"Made")}},
      {"create again", {create(u"Made")}},
      {"create with leading backslash", {create(u"\\Lead")}},
      {"create with trailing backslash", {create(u"Trail\\")}},
      {"create with doubled backslash", {create(u"Dou\\\\ble")}},
      {"create empty name", {create(u"")}},
      {"create name of 255", {create(name255)}},
      {"create name of 256", {create(name256), ERROR_INVALID_PARAMETER}},
      {"create directly under HKEY_LOCAL_MACHINE",
       {[](RegistryKey& out, bool* created) {
          return CreateKey(Hive::kLocalMachine, u"GoldenReg", KEY_ALL_ACCESS, out, created);
        },
        ERROR_INVALID_PARAMETER}},
      {"null sub key on a root", {openRoot(Hive::kCurrentUser, {})}},
      {"empty sub key on a root", {openRoot(Hive::kCurrentUser, u"")}},
      {"null sub key on a key", {open(m_base, {})}},
      {"missing middle", {open(m_base, u"NotThere\\Made")}},
      {"leading backslash", {open(m_base, u"\\Made")}},
      {"trailing backslash", {open(m_base, u"Made\\")}},
      {"only a backslash", {open(m_base, u"\\")}},
      {"bad handle", {open(closed, u"Made")}},
      {"null handle", {open(empty, u"Made")}},
      {"HKEY_DYN_DATA 0x80000006", {openRoot(Hive::kDynData, u""), ERROR_INVALID_HANDLE}},
      {"root 0x80000007", {openRoot(Hive{0x80000007}, u"")}},
      {"HKEY_CURRENT_CONFIG", {openRoot(Hive::kCurrentConfig, u"")}},
      {"HKLM\\SAM\\SAM for writing", {openRoot(Hive::kLocalMachine, u"SAM\\SAM")}},
  };
  // Left out: volatile keys, since every key of this store lasts.
  ForRows("open_create", {"volatile key", "stable key under volatile key"}, [&](const json& row) {
    const auto found = cases.find(row["case"]);
    if (found == cases.end()) return false;
    const bool differs = row.contains("wine_differs");
    RegistryKey key;
    int disposition = 99;
    bool created = false;
    const ErrorCode code = found->second.call(key, &created);
    if (code == 0) disposition = created ? 1 : 2;
    EXPECT_EQ(code, differs ? found->second.documented : row["result"].get<ErrorCode>());
    if (!differs && row.contains("disposition")) {
      EXPECT_EQ(disposition, row["disposition"]);
    }
    EXPECT_EQ(key.IsOpen(), code == 0);
    return true;
  });
}

struct Setting {
  std::u16string name;
  std::vector<unsigned char> data;
  bool isNull = false;
};

TEST_F(golden_registry, SetsQueriesAndDeletesValuesAsRecorded) {
  const std::vector<unsigned char> abc = {'a', 0, 'b', 0, 'c', 0, 0, 0};
  std::vector<unsigned char> long300;
  for (int i = 0; i < 300; ++i) long300.insert(long300.end(), {'b', 0});
  long300.insert(long300.end(), {0, 0});
  const std::map<std::string, Setting> settings = {
      {"string with NUL", {u"Str", abc}},
      {"string without NUL", {u"NoNul", abc}},
      {"string, odd size", {u"Odd", abc}},
      {"no bytes", {u"None", {0}}},
      {"dword", {u"Dword", {1, 2, 3, 4}}},
      {"dword of 2 bytes", {u"Dword2", {1, 2}}},
      {"binary", {u"Bin", {1, 2, 3}}},
      {"type 77", {u"T77", {9}}},
      {"default value", {u"", {'d', 0, 'f', 0, '2', 0, 0, 0}}},
      {"null data, size 4", {u"Null4", {}, true}},
      {"null data, size 0", {u"Null0", {}, true}},
      {"string of 300", {u"Long", long300}},
  };
  ASSERT_EQ(SetString(m_base, u"Empty", u""), 0u);
  const std::array<std::byte, 8> eight{};
  ASSERT_EQ(SetValue(m_base, u"Dword8", REG_DWORD, eight), 0u);
  const std::map<std::string, std::u16string> queries = {
      {"string, other case", u"STR"},
      {"string, exact", u"Str"},
      {"string, too small", u"Str"},
      {"string, no data", u"Str"},
      {"string, no data, size 5", u"Str"},
      {"string, data without size pointer", u"Str"},
      {"stored without NUL, large buffer", u"NoNul"},
      {"stored without NUL, exact", u"NoNul"},
      {"stored without NUL, 7", u"NoNul"},
      {"empty string", u"Empty"},
      {"no bytes", u"None"},
      {"dword", u"Dword"},
      {"dword of 2", u"Dword2"},
      {"dword of 8, size 4", u"Dword8"},
      {"binary", u"Bin"},
      {"default by empty", u""},
      {"default by null", u""},
      {"missing", u"NotThere"},
      {"string of 300 into 255", u"Long"},
      {"string of 300 into 602", u"Long"},
      {"null data stored", u"Null4"},
  };
  const std::map<std::string, std::u16string> deletions = {
      {"present, other case", u"sTR"}, {"again", u"Str"}, {"default", u""}};

  ForRows("values", {}, [&](const json& row) {
    const std::string name = row["case"];
    const ErrorCode expected = row["result"];
    if (row["call"] == "RegSetValueExW") {
      const auto found = settings.find(name);
      if (found == settings.end()) return false;
      const Setting& setting = found->second;
      EXPECT_EQ(SetValue(m_base, setting.name, row["type"].get<std::uint32_t>(),
                         setting.isNull ? nullptr : setting.data.data(), row["size"].get<std::uint32_t>()),
                expected);
      return true;
    }
    if (row["call"] == "RegDeleteValueW") {
      const auto found = deletions.find(name);
      if (found == deletions.end()) return false;
      EXPECT_EQ(DeleteValue(m_base, found->second), expected);
      return true;
    }
    const auto found = queries.find(name);
    if (row["call"] != "RegQueryValueExW" || found == queries.end()) return false;
    std::array<unsigned char, 1024> buffer;
    buffer.fill(0xCC);
    std::uint32_t type = 99;
    std::uint32_t size = row["size_in"];
    const bool hasSize = name != "string, data without size pointer";
    const bool isNullName = name == "default by null";
    EXPECT_EQ(QueryValue(m_base, isNullName ? std::u16string_view() : found->second, &type,
                         row["data"] ? buffer.data() : nullptr, hasSize ? &size : nullptr),
              expected);
    EXPECT_EQ(type, row["type"]);
    EXPECT_EQ(size, row["size_out"]);
    EXPECT_EQ(Hex(buffer.data(), 12), row["first_bytes"]);
    return true;
  });
}

std::u16string Widen(const std::string& text) {
  return {text.begin(), text.end()};
}

TEST_F(golden_registry, EnumeratesAsRecorded) {
  for (const char16_t* name : {u"b", u"C", u"a", u"{B}", u"_x", u"10", u"9"}) {
    RegistryKey child;
    ASSERT_EQ(CreateKey(m_base, name, KEY_WRITE, child), 0u);
  }
  for (const char16_t* name : {u"vb", u"vC", u"va", u""}) ASSERT_EQ(SetString(m_base, name, u"x"), 0u);
  RegistryKey readOnly;
  ASSERT_EQ(OpenKey(m_base, u"", KEY_READ, readOnly), 0u);

  const auto enumerated = [&](bool values, ErrorCode& end) {
    std::vector<std::u16string> names;
    std::u16string name;
    std::uint32_t type = 0;
    std::vector<std::byte> data;
    for (std::uint32_t i = 0;; ++i) {
      end = values ? EnumValue(m_base, i, name, type, data) : EnumKey(m_base, i, name);
      if (end != 0) return names;
      names.push_back(name);
    }
  };
  ForRows("enumerate", {}, [&](const json& row) {
    const std::string name = row["case"];
    if (name.starts_with("order, ")) {
      // No order is promised by the calls: compared as sets.
      ErrorCode end = 0;
      auto names = enumerated(row["call"] == "RegEnumValueW", end);
      std::vector<std::u16string> expected;
      for (const std::string text : row["names"]) expected.push_back(Widen(text));
      std::sort(names.begin(), names.end());
      std::sort(expected.begin(), expected.end());
      EXPECT_EQ(names, expected);
      EXPECT_EQ(end, row["end_code"]);
      return true;
    }
    const ErrorCode expected = row["result"];
    if (name == "name {B}, size as given") {
      ErrorCode end = 0;
      const auto names = enumerated(false, end);
      const auto at = std::find(names.begin(), names.end(), u"{B}");
      EXPECT_NE(at, names.end());
      std::u16string buffer(8, u'#');
      std::uint32_t length = row["size_in"];
      EXPECT_EQ(EnumKey(m_base, static_cast<std::uint32_t>(at - names.begin()), buffer.data(), &length), expected);
      EXPECT_EQ(length, row["size_out"]);
      EXPECT_EQ(buffer, Widen(row["buffer"]));
      return true;
    }
    if (name == "data too small") {
      std::array<char16_t, 10> buffer{};
      std::array<unsigned char, 2> data{};
      std::uint32_t length = 10;
      std::uint32_t type = 99;
      std::uint32_t size = data.size();
      EXPECT_EQ(EnumValue(m_base, 0, buffer.data(), &length, &type, data.data(), &size), expected);
      EXPECT_EQ(length, row["name_size"]);
      EXPECT_EQ(type, row["type"]);
      EXPECT_EQ(size, row["size_out"]);
      return true;
    }
    if (name == "7 keys, 4 values") {  // keys have no class here, so "max_class" is left out
      KeyInfo info;
      EXPECT_EQ(QueryInfoKey(m_base, info), expected);
      EXPECT_EQ(info.subKeyCount, row["subkeys"]);
      EXPECT_EQ(info.maxSubKeyLength, row["max_subkey"]);
      EXPECT_EQ(info.valueCount, row["values"]);
      EXPECT_EQ(info.maxValueNameLength, row["max_value_name"]);
      EXPECT_EQ(info.maxValueLength, row["max_value_data"]);
      return true;
    }
    if (name == "bad handle") {
      std::u16string text;
      EXPECT_EQ(EnumKey(RegistryKey(), 0, text), expected);
      return true;
    }
    if (name == "handle opened for reading") {
      EXPECT_EQ(row["call"] == "RegSetValueExW" ? SetString(readOnly, u"va", u"y") : DeleteValue(readOnly, u"va"),
                expected);
      return true;
    }
    return false;
  });
}

TEST_F(golden_registry, DeletesKeysAsRecorded) {
  RegistryKey made;
  ASSERT_EQ(CreateKey(m_base, u"Parent\\Child\\Leaf", KEY_WRITE, made), 0u);
  ASSERT_EQ(CreateKey(m_base, u"WithValues", KEY_WRITE, made), 0u);
  ASSERT_EQ(SetString(made, u"v", u"x"), 0u);
  RegistryKey stale;
  ASSERT_EQ(CreateKey(m_base, u"Gone", KEY_ALL_ACCESS, stale), 0u);
  ASSERT_EQ(SetString(stale, u"v", u"x"), 0u);
  ASSERT_EQ(DeleteKey(m_base, u"Gone"), 0u);

  ForRows("delete", {}, [&](const json& row) {
    const std::string name = row["case"];
    RegistryKey root;
    ErrorCode code = 0;
    if (name == "missing") {
      code = DeleteKey(m_base, u"NotThere");
    } else if (name == "key with sub keys") {
      code = DeleteKey(m_base, u"Parent");
    } else if (name == "key with values only") {
      code = DeleteKey(m_base, u"WithValues");
    } else if (name == "path of several elements") {
      code = DeleteKey(m_base, u"Parent\\Child\\Leaf");
    } else if (name == "null name") {
      code = DeleteKey(m_base, {});
    } else if (name == "bad handle") {
      code = DeleteKey(RegistryKey(), u"Parent");
    } else if (name == "on the handle of a deleted key") {
      std::uint32_t size = 0;
      code = row["call"] == "RegSetValueExW" ? SetString(stale, u"v", u"y")
                                             : QueryValue(stale, u"v", nullptr, nullptr, &size);
    } else if (name == "under the handle of a deleted key") {
      RegistryKey child;
      code = CreateKey(stale, u"Child", KEY_WRITE, child);
    } else if (name == "root") {
      EXPECT_EQ(OpenKey(Hive::kLocalMachine, u"", KEY_READ, root), 0u);
      code = root.Close();
    } else if (name == "null") {
      code = root.Close();
    } else {
      return false;
    }
    EXPECT_EQ(code, row["result"].get<ErrorCode>());
    return true;
  });
}

// Left out: the table "save", since there is no call that saves a key to a hive file, nor the privilege it needs.

}  // namespace
