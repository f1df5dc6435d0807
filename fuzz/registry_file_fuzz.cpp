// A key store's file as a damaged disk gives it back: whatever its bytes, every call answers, and the check comes to an
// end. A store that opens is read in each of the ways there are, changed and closed.
#include <cstdio>
#include <string>
#include <vector>

#include "common/registry_keys.h"
#include "fuzz/fuzz_target.h"
#include "platform/registry.h"
#include "platform/registry_scan.h"
#include "platform/registry_sub_keys.h"
#include "service/list_info.h"

using platform::ErrorCode;
using platform::Hive;
using platform::RegistryKey;
using qx::fuzz::Require;

namespace {

constexpr std::uint32_t kMost = 40;  // keys or values of a key that are looked at
constexpr int kMostLevels = 8;
constexpr std::u16string_view kNames[] = {u"WrapperBinary", u"UseGUID"};
constexpr std::string_view kScanned[] = {"WrapperBinary", "UseGUID"};

void ReadValues(const RegistryKey& key) {
  std::u16string name, text;
  std::uint32_t type = 0, number = 0;
  std::vector<std::byte> data;
  for (std::uint32_t i = 0; i < kMost; ++i) {
    if (platform::EnumValue(key, i, name, type, data) != 0) break;
    (void)platform::ReadRegistryString(key, name, text);
    (void)platform::ReadRegistryDword(key, name, number);
  }
}

void ReadTree(const RegistryKey& key, int depth) {
  platform::KeyInfo info;
  (void)platform::QueryInfoKey(key, info);
  ReadValues(key);
  (void)platform::ReadSubKeys(key, u"", kMost, kNames, [](const platform::SubKeyValues& sub) {
    std::u16string text;
    std::uint32_t number = 0;
    (void)sub.Text(0, text);
    (void)sub.Dword(1, number);
  });
  std::u16string name;
  for (std::uint32_t i = 0; i < kMost && depth < kMostLevels; ++i) {
    RegistryKey child;
    if (platform::EnumKey(key, i, name) != 0) break;
    if (platform::OpenKey(key, name, platform::KEY_READ, child) == 0) ReadTree(child, depth + 1);
  }
}

void Change() {
  RegistryKey key;
  if (platform::CreateKey(Hive::kLocalMachine, u"SOFTWARE\\fuzz", platform::KEY_ALL_ACCESS, key) == 0) {
    const ErrorCode set = platform::SetString(key, u"night", u"run");
    const ErrorCode closed = key.Close();
    std::u16string text;
    if (set == 0 && closed == 0 &&
        platform::OpenKey(Hive::kLocalMachine, u"SOFTWARE\\fuzz", platform::KEY_READ, key) == 0 &&
        platform::ReadRegistryString(key, u"night", text) == 0) {
      Require(text == u"run", "what was written is read");
    }
  }
  (void)key.Close();
  (void)platform::DeleteTree(Hive::kLocalMachine, u"SOFTWARE");
}

}  // namespace

QX_FUZZ_TARGET(registry_file) {
  const std::string path = qx::fuzz::WriteScratch("damaged.db", qx::fuzz::Text(data, size));
  for (const char* beside : {"-wal", "-shm", "-journal"}) (void)std::remove((path + beside).c_str());
  std::string where;
  if (platform::CheckRegistryStore(path, where) != 0) Require(!where.empty(), "a refusal says why");
  if (platform::IsRegistryStoreOpen()) (void)platform::CloseRegistryStore();  // of another target
  std::string why;
  if (platform::OpenRegistryStore(path, &why) != 0) {
    Require(!why.empty(), "a failure says why");
    return 0;
  }
  {
    platform::RegistryScan scan;
    if (scan.Open(path, Hive::kLocalMachine, qx::kSchedulesKey)) {
      (void)scan.Read(kScanned, 4, [](platform::RegistryScan::Batch&& batch) { return batch.Size() <= 4; });
    }
  }
  for (const Hive hive : {Hive::kClassesRoot, Hive::kCurrentUser, Hive::kLocalMachine, Hive::kUsers}) {
    RegistryKey root;
    if (platform::OpenKey(hive, u"", platform::KEY_READ, root) == 0) ReadTree(root, 0);
  }
  qx::CListInfo list;
  (void)list.Page(u"", 0, [](const qx::SentListRow&) { return true; });
  Change();
  (void)platform::CloseRegistryStore();
  return 0;
}
