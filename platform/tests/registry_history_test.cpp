// Thousands of calls of the key store one after the other, and what it has to hold behind each: with handles that stay
// open over deletions and losses, with another process that writes between, with a disk that is full and memory that
// runs out in the midst of a call, and with power that goes in the midst of a commit.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "platform/registry.h"
#include "platform/registry_sub_keys.h"
#include "platform/testing/crash_disk.h"
#include "platform/testing/fault.h"
#include "platform/testing/registry_hook.h"
#include "platform/testing/temporary_folder.h"

namespace platform {
namespace {

constexpr std::uint32_t kManyPages = 1000000;
constexpr std::size_t kMostHandles = 12;

struct Name {
  std::u16string written;
  std::u16string folded;
};
const Name kNames[] = {
    {u"a", u"A"},           {u"A", u"A"},           {u"b", u"B"},
    {u"\u00E9", u"\u00C9"}, {u"\u00C9", u"\u00C9"}, {u"\u00FF", u"\u0178"},
    {u"\u0131", u"\u0131"}, {{0xD800}, {0xD800}},   {std::u16string(255, u'x'), std::u16string(255, u'X')},
};

struct Value {
  std::u16string name;
  std::uint32_t type = 0;
  std::vector<std::byte> data;
  friend bool operator==(const Value&, const Value&) = default;
};
struct Key {
  std::u16string name;
  int parent = 0;
  std::map<std::u16string, int> children;  // by folded name
  std::map<std::u16string, Value> values;
};

// All keys by a number that none bears twice; 0 is the root.
struct World {
  std::map<int, Key> keys{{0, {}}};

  std::optional<int> Find(int from, const std::vector<Name>& path) const {
    for (const Name& element : path) {
      const auto& children = keys.at(from).children;
      const auto at = children.find(element.folded);
      if (at == children.end()) return std::nullopt;
      from = at->second;
    }
    return from;
  }
  void Erase(int key) {
    const Key gone = keys.at(key);
    for (const auto& [fold, child] : gone.children) Erase(child);
    for (auto& [id, other] : keys) {
      std::erase_if(other.children, [&](const auto& child) { return child.second == key; });
    }
    keys.erase(key);
  }
  // What a stranger can see of it, without the numbers.
  std::string Text(int key = 0) const {
    std::string out;
    const auto put = [&](std::u16string_view text) {
      for (const char16_t unit : text) out += std::to_string(unit) + ".";
    };
    for (const auto& [fold, value] : keys.at(key).values) {
      put(value.name);
      out += "=" + std::to_string(value.type) + ":" + std::to_string(value.data.size());
      if (!value.data.empty()) out += "/" + std::to_string(std::to_integer<int>(value.data.back()));
      out += ";";
    }
    for (const auto& [fold, child] : keys.at(key).children) {
      put(keys.at(child).name);
      out += "{" + Text(child) + "}";
    }
    return out;
  }
};

class RegistryHistory : public ::testing::Test {
 protected:
  struct Open {
    RegistryKey key;
    int at = 0;
    int wrote = 0;  // number of the batch; 0: none
  };

  void SetUp() override {
    // QX_SEED sets the random generator's start (it is printed).
    const char* const given = std::getenv("QX_SEED");
    const std::uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 10) : 1;
    std::cout << "QX_SEED=" << seed << "\n";
    m_random.seed(seed);
    ASSERT_EQ(OpenRegistryStore(m_path), 0u);
    m_disk = std::make_unique<CrashDisk>(m_folder);
  }
  void TearDown() override {
    m_handles.clear();
    m_disk.reset();
    if (IsRegistryStoreOpen()) (void)CloseRegistryStore();
  }

  int Below(std::size_t end) { return static_cast<int>(m_random() % end); }
  bool OneIn(int n) { return Below(static_cast<std::size_t>(n)) == 0; }
  const Name& AnyName() { return kNames[Below(std::size(kNames))]; }
  std::vector<Name> AnyPath() {
    std::vector<Name> path;
    for (int i = Below(3); i > 0; --i) path.push_back(AnyName());
    return path;
  }
  static std::u16string Written(const std::vector<Name>& path) {
    std::u16string text;
    for (const Name& name : path) text += (text.empty() ? u"" : u"\\") + name.written;
    return text;
  }
  World& Now() { return m_pending ? *m_pending : m_committed; }

  // --- what the model expects of the batch ---

  void Joins(Open& handle) { handle.wrote = m_batch; }
  World& Writing() {
    if (!m_pending) {
      m_pending = m_committed;
      ++m_batch;
    }
    return *m_pending;
  }
  void Commit() {
    if (m_pending) m_committed = *m_pending;
    m_pending.reset();
  }
  void Lose(ErrorCode code) {
    m_lost[m_batch] = code;
    m_pending.reset();
  }
  std::optional<ErrorCode> LossOf(const Open& handle) const {
    const auto at = m_lost.find(handle.wrote);
    return at == m_lost.end() ? std::nullopt : std::optional(at->second);
  }
  // The batch's own writer says whether a call that failed took all of it back.
  void SettleFailure() {
    if (!m_pending) return;
    for (Open& handle : m_handles) {
      if (handle.wrote != m_batch) continue;
      RegistryKey same;
      const ErrorCode code = CreateKey(handle.key, u"", KEY_READ, same);
      if (code != 0 && code != ERROR_KEY_DELETED) Lose(code);
      return;
    }
    ADD_FAILURE() << "a batch without a writer";
  }

  // Makes a call, now and then on a full disk or without memory; true when it gave what is expected. False when it was
  // refused for that reason: it has done nothing then, or the whole batch is gone.
  template <typename Call>
  bool Gives(ErrorCode expected, Call call) {
    const int trouble = OneIn(6) ? 1 + Below(2) : 0;
    if (trouble == 1) (void)LimitRegistryGrowth(static_cast<std::uint32_t>(Below(2)));
    if (trouble == 2) sqlite3_hard_heap_limit64(sqlite3_memory_used() + Below(OneIn(2) ? 2000 : 100000));
    const ErrorCode code = call();
    sqlite3_hard_heap_limit64(0);
    if (trouble == 1) (void)LimitRegistryGrowth(kManyPages);
    const ErrorCode refusal = trouble == 1 ? ERROR_DISK_FULL : ERROR_NOT_ENOUGH_MEMORY;
    if (trouble != 0 && code == refusal && expected != refusal) {
      ++m_refused;
      return false;
    }
    EXPECT_EQ(code, expected);
    return true;
  }

  // --- calls ---

  void Create() {
    Open opened;
    if (OneIn(3) || m_handles.empty()) {
      std::vector<Name> path = AnyPath();
      path.insert(path.begin(), {u"T", u"T"});
      CreateAt(
          0, std::nullopt, path,
          [&](const std::u16string& text, bool& created) {
            return CreateKey(Hive::kCurrentUser, text, KEY_ALL_ACCESS, opened.key, &created);
          },
          opened);
    } else {
      Open& parent = AnyHandle();
      CreateAt(
          parent.at, LossOf(parent), AnyPath(),
          [&](const std::u16string& text, bool& created) {
            return CreateKey(parent.key, text, KEY_ALL_ACCESS, opened.key, &created);
          },
          opened);
    }
    if (opened.key.IsOpen()) Keep(std::move(opened));
  }
  template <typename Call>
  void CreateAt(int from, std::optional<ErrorCode> loss, const std::vector<Name>& path, Call call, Open& opened) {
    const bool isThere = Now().keys.contains(from);
    const ErrorCode expected = loss ? *loss : isThere ? ErrorCode{0} : ErrorCode{ERROR_KEY_DELETED};
    bool created = false;
    if (!Gives(expected, [&] { return call(Written(path), created); })) return SettleFailure();
    if (expected != 0) return;
    if (const auto found = Now().Find(from, path)) {
      EXPECT_EQ(created, path.empty());
      opened.at = *found;
      return;
    }
    EXPECT_TRUE(created);
    World& world = Writing();
    for (const Name& element : path) {
      if (const auto next = world.Find(from, {element})) {
        from = *next;
        continue;
      }
      const int made = ++m_lastKey;
      world.keys[made] = {element.written, from, {}, {}};
      world.keys[from].children[element.folded] = made;
      from = made;
    }
    opened.at = from;
    Joins(opened);
  }

  void OpenOne() {
    Open opened;
    const bool fromRoot = OneIn(3) || m_handles.empty();
    std::vector<Name> path = AnyPath();
    if (fromRoot) path.insert(path.begin(), {u"T", u"T"});
    Open* const parent = fromRoot ? nullptr : &AnyHandle();
    const int from = parent == nullptr ? 0 : parent->at;
    const bool isThere = Now().keys.contains(from);
    const auto found = isThere ? Now().Find(from, path) : std::nullopt;
    const ErrorCode expected = !isThere ? ErrorCode{ERROR_KEY_DELETED} : found ? ErrorCode{0} : ERROR_FILE_NOT_FOUND;
    if (!Gives(expected, [&] {
          return parent == nullptr ? OpenKey(Hive::kCurrentUser, Written(path), KEY_ALL_ACCESS, opened.key)
                                   : OpenKey(parent->key, Written(path), KEY_ALL_ACCESS, opened.key);
        })) {
      return SettleFailure();
    }
    if (expected != 0) return;
    opened.at = *found;
    Keep(std::move(opened));
  }

  void Set() {
    Open& handle = AnyHandle();
    const Name& name = AnyName();
    Value value{name.written, static_cast<std::uint32_t>(Below(9)), {}};
    value.data.assign(static_cast<std::size_t>(OneIn(8) ? Below(40000) : Below(20)), std::byte(Below(256)));
    const auto loss = LossOf(handle);
    const bool isThere = Now().keys.contains(handle.at);
    const ErrorCode expected = loss ? *loss : isThere ? ErrorCode{0} : ErrorCode{ERROR_KEY_DELETED};
    if (!Gives(expected, [&] { return SetRawValue(handle.key, value.name, value.type, value.data); })) {
      return SettleFailure();
    }
    if (expected != 0) return;
    auto& values = Writing().keys[handle.at].values;
    // The name stays as it was written first.
    if (const auto old = values.find(name.folded); old != values.end()) value.name = old->second.name;
    values[name.folded] = value;
    Joins(handle);
  }

  void Remove() {
    Open& handle = AnyHandle();
    const Name& name = AnyName();
    const auto loss = LossOf(handle);
    const auto at = Now().keys.find(handle.at);
    const bool isThere = at != Now().keys.end();
    const bool hasValue = isThere && at->second.values.contains(name.folded);
    const ErrorCode expected = loss       ? *loss
                               : !isThere ? ErrorCode{ERROR_KEY_DELETED}
                               : hasValue ? ErrorCode{0}
                                          : ErrorCode{ERROR_FILE_NOT_FOUND};
    if (!Gives(expected, [&] { return DeleteValue(handle.key, name.written); })) return SettleFailure();
    if (expected != 0) return;
    Writing().keys[handle.at].values.erase(name.folded);
    Joins(handle);
  }

  void Delete() {
    const bool fromRoot = OneIn(4) || m_handles.empty();
    const bool withAll = OneIn(2);
    std::vector<Name> path = AnyPath();
    if (fromRoot) path.insert(path.begin(), {u"T", u"T"});
    Open* const parent = fromRoot ? nullptr : &AnyHandle();
    const int from = parent == nullptr ? 0 : parent->at;
    const auto loss = parent == nullptr ? std::nullopt : LossOf(*parent);
    const bool isThere = Now().keys.contains(from);
    const auto found = isThere ? Now().Find(from, path) : std::nullopt;
    const ErrorCode expected = loss                                                  ? *loss
                               : !isThere                                            ? ErrorCode{ERROR_KEY_DELETED}
                               : !found                                              ? ErrorCode{ERROR_FILE_NOT_FOUND}
                               : !withAll && !Now().keys.at(*found).children.empty() ? ErrorCode{ERROR_ACCESS_DENIED}
                                                                                     : ErrorCode{0};
    const bool given = Gives(expected, [&] {
      const std::u16string text = Written(path);
      if (parent == nullptr) {
        return withAll ? DeleteTree(Hive::kCurrentUser, text) : DeleteKey(Hive::kCurrentUser, text);
      }
      return withAll ? DeleteTree(parent->key, text) : DeleteKey(parent->key, text);
    });
    if (!given) return SettleFailure();
    if (expected != 0) return;
    Writing().Erase(*found);
    if (parent == nullptr) {
      Commit();
    } else {
      Joins(*parent);
    }
  }

  void Close() {
    const auto at = m_handles.begin() + Below(m_handles.size());
    Open handle = std::move(*at);
    m_handles.erase(at);
    const bool commits = m_pending && handle.wrote == m_batch;
    const ErrorCode expected = LossOf(handle).value_or(0);
    if (OneIn(10) && expected == 0) {
      const FaultPlan plan = FaultPlan::FailCall(Operation::kRegCloseKey, 1, ERROR_REGISTRY_IO_FAILED);
      EXPECT_EQ(handle.key.Close(), ERROR_REGISTRY_IO_FAILED);
      if (commits) Lose(ERROR_REGISTRY_IO_FAILED);
      return;
    }
    const bool cut = commits && OneIn(4);
    if (!cut) {
      ErrorCode refusal = 0;
      const bool given = Gives(expected, [&] { return refusal = handle.key.Close(); });
      if (!commits) return;
      return given ? Commit() : Lose(refusal);
    }
    // The power goes in front of a sync, or behind all: the old state or the new one.
    static constexpr CrashDisk::Survives kSurvives[] = {
        CrashDisk::Survives::kSynced, CrashDisk::Survives::kSyncedContents, CrashDisk::Survives::kSyncedNames,
        CrashDisk::Survives::kSome, CrashDisk::Survives::kAll};
    const CrashDisk::Survives survives = kSurvives[Below(std::size(kSurvives))];
    const auto chance = static_cast<std::uint32_t>(m_random());
    std::optional<CrashDisk::Image> image;
    const int cutAt = 1 + Below(2);
    int syncs = 0;
    m_disk->OnSync([&] {
      if (++syncs == cutAt) image = m_disk->AfterPowerCut(survives, chance);
    });
    EXPECT_EQ(handle.key.Close(), 0u);
    m_disk->OnSync({});
    const bool inTheMidst = image.has_value();
    if (!image) image = m_disk->AfterPowerCut(survives, chance);
    const std::string old = m_committed.Text();
    Commit();
    StartOn(*image);
    const std::string seen = Seen().Text();
    ++m_cuts;
    if (inTheMidst && seen == old) {
      // Nobody was told of the new state.
      m_committed = Seen();
      return;
    }
    EXPECT_EQ(seen, m_committed.Text());
    m_committed = Seen();
  }

  void StartOn(const CrashDisk::Image& image) {
    m_handles.clear();
    ASSERT_EQ(CloseRegistryStore(), 0u);
    m_disk.reset();
    CrashDisk::Restore(image, m_folder);
    std::string where;
    ASSERT_EQ(CheckRegistryStore(m_path, where), 0u) << where;
    ASSERT_EQ(OpenRegistryStore(m_path), 0u);
    m_disk = std::make_unique<CrashDisk>(m_folder);
  }

  void Reopen() {
    m_handles.clear();  // the last writer commits
    Commit();
    ASSERT_EQ(CloseRegistryStore(), 0u);
    ASSERT_EQ(OpenRegistryStore(m_path), 0u);
    EXPECT_EQ(Seen().Text(), m_committed.Text());
  }

  // Another process takes a key below the first one away, or makes one there.
  void OtherWrites() {
    if (m_pending) return;
    // What couldn't be taken back for want of memory is with the next call.
    (void)Seen();
    const auto top = m_committed.Find(0, {{u"T", u"T"}});
    if (!top) return;
    const char16_t letter = OneIn(2) ? u'A' : u'B';
    const std::u16string fold(1, letter);
    const auto found = m_committed.Find(*top, {{fold, fold}});
    const std::string bytes = letter == u'A' ? "41" : "42";
    const std::string below = " (SELECT id FROM keys WHERE parent=2 AND fold=x'0054')";
    const std::string sql =
        found ? "DELETE FROM keys WHERE fold=x'00" + bytes + "' AND parent=" + below
              : "INSERT INTO keys(parent,name,fold) VALUES(" + below + ",x'" + bytes + "00',x'00" + bytes + "')";
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(m_path.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, ("PRAGMA foreign_keys=ON;" + sql).c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(db);
    sqlite3_close(db);
    if (found) {
      m_committed.Erase(*found);
    } else {
      const int made = ++m_lastKey;
      m_committed.keys[made] = {fold, *top, {}, {}};
      m_committed.keys[*top].children[fold] = made;
    }
  }

  void Step() {
    if (m_handles.empty() || (m_handles.size() < kMostHandles && OneIn(6))) {
      Create();
    } else if (m_handles.size() >= kMostHandles || OneIn(6)) {
      Close();
    } else {
      using Call = void (RegistryHistory::*)();
      static constexpr Call kCalls[] = {
          &RegistryHistory::Create, &RegistryHistory::OpenOne,    &RegistryHistory::Set,    &RegistryHistory::Set,
          &RegistryHistory::Set,    &RegistryHistory::Remove,     &RegistryHistory::Delete, &RegistryHistory::LookAt,
          &RegistryHistory::LookAt, &RegistryHistory::OtherWrites};
      (this->*kCalls[Below(std::size(kCalls))])();
    }
  }

  // --- looks ---

  void LookAt() {
    Open& handle = AnyHandle();
    const auto at = Now().keys.find(handle.at);
    const Key* const key = at == Now().keys.end() ? nullptr : &at->second;
    const ErrorCode gone = key == nullptr ? ErrorCode{ERROR_KEY_DELETED} : ErrorCode{0};
    const Name& name = AnyName();
    const bool hasValue = key != nullptr && key->values.contains(name.folded);
    Value read{{}, 0, {}};
    bool given = Gives(key == nullptr || hasValue ? gone : ErrorCode{ERROR_FILE_NOT_FOUND},
                       [&] { return QueryValueBytes(handle.key, name.written, read.type, read.data); });
    if (!given) return SettleFailure();
    if (hasValue) {
      const Value& value = key->values.at(name.folded);
      read.name = value.name;
      EXPECT_EQ(read, value);
    }
    // A handle of its own: an answer holds for a moment, whatever another process does.
    RegistryKey own;
    KeyInfo info;
    given = Gives(gone, [&] {
      const ErrorCode code = OpenKey(handle.key, u"", KEY_READ, own);
      return code != 0 ? code : QueryInfoKey(own, info);
    });
    if (!given) return SettleFailure();
    if (key == nullptr) return;
    EXPECT_EQ(info.subKeyCount, key->children.size());
    EXPECT_EQ(info.valueCount, key->values.size());
    const auto index = static_cast<std::uint32_t>(Below(key->children.size() + 1));
    std::u16string child;
    const bool isOver = index == key->children.size();
    if (!Gives(isOver ? ErrorCode{ERROR_NO_MORE_ITEMS} : ErrorCode{0},
               [&] { return EnumKey(handle.key, index, child); })) {
      return SettleFailure();
    }
    if (isOver) return;
    EXPECT_EQ(child, Now().keys.at(std::next(key->children.begin(), index)->second).name);
  }

  // All keys below the first one as the store has them, with numbers of their own.
  World Seen() {
    World world;
    RegistryKey top;
    const ErrorCode code = OpenKey(Hive::kCurrentUser, u"T", KEY_READ, top);
    EXPECT_TRUE(code == 0 || code == ERROR_FILE_NOT_FOUND) << code;
    if (code == 0) Read(top, u"T", u"T", 0, world);
    return world;
  }
  void Read(const RegistryKey& key, const std::u16string& name, const std::u16string& fold, int parent, World& world) {
    const int made = ++m_lastKey;
    world.keys[made] = {name, parent, {}, {}};
    world.keys[parent].children[fold] = made;
    std::vector<RegistryValue> values;
    EXPECT_EQ(ReadRegistryValues(key, values), 0u);
    for (RegistryValue& value : values) {
      world.keys[made].values[FoldOf(value.name)] = {value.name, value.type, std::move(value.data)};
    }
    std::vector<std::u16string> names;
    EXPECT_EQ(ReadSubKeys(key, u"", 1000, {}, [&](const SubKeyValues& sub) { names.push_back(sub.Name()); }), 0u);
    for (const std::u16string& child : names) {
      RegistryKey below;
      EXPECT_EQ(OpenKey(key, child, KEY_READ, below), 0u);
      Read(below, child, FoldOf(child), made, world);
    }
  }
  static std::u16string FoldOf(const std::u16string& name) {
    for (const Name& row : kNames) {
      if (row.written == name || row.folded == name) return row.folded;
    }
    return name;
  }

  Open& AnyHandle() { return m_handles[static_cast<std::size_t>(Below(m_handles.size()))]; }
  void Keep(Open opened) { m_handles.push_back(std::move(opened)); }

  const TemporaryFolder m_temporary{"qxreghist"};
  const std::string m_folder = m_temporary.Path();
  const std::string m_path = m_folder + "/registry.db";
  std::mt19937_64 m_random;
  std::unique_ptr<CrashDisk> m_disk;
  World m_committed;
  std::optional<World> m_pending;
  int m_batch = 0;
  std::map<int, ErrorCode> m_lost;
  int m_lastKey = 0;
  std::vector<Open> m_handles;
  int m_refused = 0;
  int m_cuts = 0;
};

TEST_F(RegistryHistory, HoldsWhatItsCallsSayWhateverComesBetween) {
  constexpr int kSteps = 6000;
  for (int step = 0; step < kSteps && !HasFailure(); ++step) {
    SCOPED_TRACE(step);
    Step();
    if (OneIn(100)) Reopen();
    if (!OneIn(5)) continue;
    EXPECT_EQ(Seen().Text(), Now().Text());
  }
  EXPECT_GT(m_refused, 100);
  EXPECT_GT(m_cuts, 20);
}

}  // namespace
}  // namespace platform
