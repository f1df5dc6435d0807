// platform/registry_read_ahead.h: the sub keys of a key with their values, read ahead on a thread of its own.
//
// For somebody who goes over the sub keys of a key in rising order and opens each, as the service does at its start. While
// the object lives, EnumKey() of a handle of that key, OpenKey() of the sub key that was enumerated last, and queries of
// the handle that this gave, are answered from what was read; nothing else about these calls changes. Any write of this
// process ends the reading ahead, and so does one of another process: it is noticed within kReadAheadTrustMs. From then
// on, and where nothing could be read ahead, the calls look into the store as ever.
// Threads: made and destroyed by one thread; one object at a time, a second one reads nothing ahead.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/registry.h"

namespace platform {

// Milliseconds for which other processes' writes may go unseen while keys are read ahead.
inline constexpr std::uint32_t kReadAheadTrustMs = 50;

namespace detail {
struct AheadKey;
struct KeyReadAheadState;
}  // namespace detail

class KeyReadAhead {
 public:
  // A sub key that was read; valid during the call that gets it.
  class Seen {
   public:
    explicit Seen(const detail::AheadKey& key) : m_key(key) {}
    [[nodiscard]] std::u16string_view Name() const;
    // A text value as ReadRegistryString() gives it; false where that fails.
    [[nodiscard]] bool Text(std::u16string_view name, std::u16string& out) const;

   private:
    const detail::AheadKey& m_key;
  };

  //   key    stays open meanwhile
  //   first  index to begin with; other than 0 it has to follow the one that EnumKey() gave last for this handle, else
  //          nothing is read ahead
  //   most   so many sub keys are read, if there are
  //   seen   called on the reading thread for each sub key, in order; makes no registry calls
  explicit KeyReadAhead(const RegistryKey& key, std::function<void(const Seen&)> seen = {}, std::uint32_t first = 0,
                        std::size_t most = static_cast<std::size_t>(-1));
  // Ends the reading thread.
  ~KeyReadAhead();
  KeyReadAhead(const KeyReadAhead&) = delete;
  KeyReadAhead& operator=(const KeyReadAhead&) = delete;

  // The sub keys that calls were answered from so far.
  [[nodiscard]] std::size_t Taken() const;

 private:
  std::shared_ptr<detail::KeyReadAheadState> m_state;  // null where nothing is read ahead
};

}  // namespace platform
