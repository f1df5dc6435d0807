// platform/registry_handle.h: what an open key knows, behind RegistryKey.
//
// For the files of the store alone. Threads: under the store's lock (registry_call.h).
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/mutex.h"
#include "platform/registry.h"
#include "platform/registry_names.h"

namespace platform {
namespace registry {

// The writes between a BEGIN and its end: those of one thread.
struct Batch {
  std::thread::id thread = std::this_thread::get_id();
  bool isLost = false;
  bool isOpen = true;
  ErrorCode code = ERROR_SUCCESS;  // why it was lost
  std::int64_t lastIdBefore = 0;   // ids above this one go with the batch when it is lost, and are given anew later
  std::uint32_t writers = 0;       // handles that wrote into it
  Condition ended;                 // told with isOpen's end
};

// Where an enumeration stands.
struct Cursor {
  bool isValid = false;
  std::uint32_t index = 0;
  Bytes fold;
  std::uint64_t changes = 0;
  std::int64_t dataVersion = 0;
};

struct Place {
  std::int64_t id = 0;
  std::uint32_t depth = 0;
};

// The values of a key as they were when somebody asked about the key: whoever does so is about to read them, one by
// one, and each look at the store costs a transaction. Good for kCopyTrust, and only as long as this process doesn't
// write.
inline constexpr std::chrono::milliseconds kCopyTrust{5};
inline constexpr std::size_t kMostCopied = 65536;  // bytes of all values of a key; more aren't copied
inline constexpr std::size_t kUsualValues = 16;    // of a key, and their bytes
inline constexpr std::size_t kUsualBytes = 1024;
struct ValueCopies {
  struct Value {
    std::uint32_t type = 0;
    std::size_t fold = 0;  // where the folded name begins, its end and the end of the data behind it
    std::size_t data = 0;
    std::size_t end = 0;
  };
  std::chrono::steady_clock::time_point made;
  std::uint64_t changes = 0;  // of the store, likewise
  std::vector<Value> values;
  std::vector<std::byte> bytes;

  void Add(std::span<const std::byte> fold, std::uint32_t type, std::span<const std::byte> data) {
    const std::size_t begin = bytes.size();
    bytes.insert(bytes.end(), fold.begin(), fold.end());
    bytes.insert(bytes.end(), data.begin(), data.end());
    values.push_back({type, begin, begin + fold.size(), bytes.size()});
  }
  [[nodiscard]] const Value* Find(const Bytes& fold) const {
    const auto at = std::find_if(values.begin(), values.end(), [&](const Value& value) {
      return IsSameFold(std::span(bytes).subspan(value.fold, value.data - value.fold), std::as_bytes(std::span(fold)));
    });
    return at == values.end() ? nullptr : &*at;
  }
};

}  // namespace registry

namespace detail {
struct RegistryKeyState {
  std::uint64_t storeNumber = 0;
  registry::Place place;
  std::uint32_t access = 0;
  std::u16string name;                     // last element, for the fault seam
  std::shared_ptr<registry::Batch> seen;   // open when this handle was opened: its key may go with it
  std::shared_ptr<registry::Batch> wrote;  // the last one that this handle wrote into
  registry::Cursor keys;
  registry::Cursor values;
  std::optional<registry::ValueCopies> copies;

  static RegistryKeyState* Of(const RegistryKey& key) { return key.m_state.get(); }
  static void Put(RegistryKey& key, std::unique_ptr<RegistryKeyState> state) {
    RegistryKey fresh;
    fresh.m_state = std::move(state);
    key = std::move(fresh);
  }
};
}  // namespace detail

namespace registry {

using Handle = detail::RegistryKeyState;

}  // namespace registry
}  // namespace platform
