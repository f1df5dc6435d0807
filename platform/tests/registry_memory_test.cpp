// Memory runs out at each allocation of a call that writes into the key store. Whatever was begun ends: the calls of
// other threads go on, and the store holds what it held, or what the call was to write.
#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <string>
#include <thread>

#include "platform/registry.h"
#include "platform/testing/refused_memory.h"
#include "platform/testing/registry_hook.h"
#include "platform/testing/temporary_folder.h"

namespace platform {
namespace {

constexpr std::u16string_view kParent = u"SOFTWARE\\a name that no string keeps inside of itself";

class RegistryMemory : public ::testing::TestWithParam<FaultMode> {
 protected:
  void SetUp() override {
    ASSERT_EQ(OpenRegistryStore(m_folder.Path() + "/registry.db", nullptr), ERROR_SUCCESS);
    LimitRegistryTurn(std::chrono::milliseconds(0));
  }
  void TearDown() override {
    LimitRegistryTurn(std::chrono::milliseconds(5000));
    EXPECT_EQ(CloseRegistryStore(), ERROR_SUCCESS);
  }
  static ErrorCode Open(RegistryKey& key) {
    return OpenKey(Hive::kLocalMachine, kParent, KEY_ALL_ACCESS, key);
  }
  // The store with one key, which has one value, and one key below it.
  void Prepare() {
    (void)DeleteTree(Hive::kLocalMachine, kParent);
    RegistryKey key, below;
    ASSERT_EQ(CreateKey(Hive::kLocalMachine, kParent, KEY_ALL_ACCESS, key), ERROR_SUCCESS);
    ASSERT_EQ(SetDword(key, u"here", 1), ERROR_SUCCESS);
    ASSERT_EQ(CreateKey(key, u"below", KEY_ALL_ACCESS, below), ERROR_SUCCESS);
    ASSERT_EQ(below.Close(), ERROR_SUCCESS);
    (void)key.Close();
  }
  // Runs the call with each of its allocations refused in turn.
  void Sweep(const std::function<ErrorCode(RegistryKey& key)>& call) {
    for (long ahead = 0;; ++ahead) {
      ASSERT_NO_FATAL_FAILURE(Prepare());
      (void)TakeRefusedCount();
      bool isDone = false;
      std::thread writer([&] {
        RegistryKey key;
        ASSERT_EQ(Open(key), ERROR_SUCCESS);
        RefuseMemory(ahead, GetParam());
        try {
          isDone = call(key) == ERROR_SUCCESS;
        } catch (const std::bad_alloc&) {
        }
        AllowMemory();
        // Another thread's turn comes while this one is there: no batch of it may be open.
        std::thread other([] {
          RegistryKey next;
          EXPECT_EQ(CreateKey(Hive::kLocalMachine, u"SOFTWARE\\next", KEY_ALL_ACCESS, next), ERROR_SUCCESS);
          EXPECT_EQ(SetDword(next, u"next", 2), ERROR_SUCCESS) << "kept out for good";
          EXPECT_EQ(next.Close(), ERROR_SUCCESS);
        });
        other.join();
      });
      writer.join();
      const long refused = TakeRefusedCount();
      EXPECT_EQ(isDone, refused == 0) << ahead;
      if (HasFailure()) FAIL() << "the allocation behind " << ahead;
      if (refused == 0) return;
    }
  }

  TemporaryFolder m_folder{"registry-memory"};
};

TEST_P(RegistryMemory, ANewKeyThatFindsNoneKeepsNobodyOut) {
  Sweep([](RegistryKey& key) {
    RegistryKey made;
    const ErrorCode code = CreateKey(key, u"some new keys\\one below the other\\and one more", KEY_ALL_ACCESS, made);
    return code == ERROR_SUCCESS ? made.Close() : code;
  });
}

TEST_P(RegistryMemory, ANewPathThatFindsNoneLeavesNoPartOfItBesideWhatStandsAhead) {
  for (long ahead = 0;; ++ahead) {
    ASSERT_NO_FATAL_FAILURE(Prepare());
    (void)TakeRefusedCount();
    RegistryKey key, made;
    ASSERT_EQ(Open(key), ERROR_SUCCESS);
    ASSERT_EQ(SetDword(key, u"ahead", 3), ERROR_SUCCESS);
    RefuseMemory(ahead, GetParam());
    try {
      (void)CreateKey(key, u"some new keys\\one below the other\\and one more", KEY_ALL_ACCESS, made);
    } catch (const std::bad_alloc&) {
    }
    AllowMemory();
    const bool refused = TakeRefusedCount() != 0;
    ASSERT_EQ(key.Close(), ERROR_SUCCESS);
    ASSERT_EQ(Open(key), ERROR_SUCCESS);
    std::uint32_t value = 0;
    EXPECT_EQ(ReadRegistryDword(key, u"ahead", value), ERROR_SUCCESS) << ahead;
    EXPECT_EQ(OpenKey(key, u"some new keys", KEY_READ, made), refused ? ERROR_FILE_NOT_FOUND : ERROR_SUCCESS) << ahead;
    if (!refused) return;
  }
}

TEST_P(RegistryMemory, AValueThatFindsNoneKeepsNobodyOut) {
  Sweep([](RegistryKey& key) {
    const ErrorCode code = SetString(key, u"a name that no string keeps inside of itself", u"text");
    return code == ERROR_SUCCESS ? key.Close() : code;
  });
}

TEST_P(RegistryMemory, ADeletionThatFindsNoneKeepsNobodyOut) {
  Sweep([](RegistryKey& key) {
    const ErrorCode code = DeleteKey(key, u"below");
    return code == ERROR_SUCCESS ? key.Close() : code;
  });
  Sweep([](RegistryKey& key) {
    const ErrorCode code = DeleteValue(key, u"here");
    return code == ERROR_SUCCESS ? key.Close() : code;
  });
  Sweep([](RegistryKey&) { return DeleteTree(Hive::kLocalMachine, kParent); });
}

INSTANTIATE_TEST_SUITE_P(OneOrAll, RegistryMemory, ::testing::Values(kOnce, kFromThenOn),
                         [](const auto& mode) {
                           return mode.param == kOnce ? "One" : "AllFromThenOn";
                         });

}  // namespace
}  // namespace platform
