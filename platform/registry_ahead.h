// platform/registry_ahead.h: the reading thread behind registry_read_ahead.h. Included by the store alone.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "platform/registry.h"
#include "platform/thread.h"

namespace platform::detail {

// A sub key as it was read: one block for the bytes of all its values.
struct AheadKey {
  struct Value {
    std::uint32_t type = 0;
    std::size_t fold = 0;  // where the folded name begins, its end and the end of the data behind it
    std::size_t data = 0;
    std::size_t end = 0;
  };
  std::int64_t id = 0;
  std::u16string name;
  std::vector<unsigned char> fold;
  KeyInfo info;
  std::vector<Value> values;
  std::vector<std::byte> bytes;

  //   fold  the folded name
  [[nodiscard]] const Value* Find(std::span<const unsigned char> fold) const;
  [[nodiscard]] std::span<const std::byte> Data(const Value& value) const {
    return std::span(bytes).subspan(value.data, value.end - value.data);
  }
};

// Reads the sub keys of one key in the order of their names over a connection of its own.
// Threads: Next() and Stop() by one thread at a time.
class AheadReader {
 public:
  using Seen = std::function<void(const AheadKey&)>;

  AheadReader() = default;
  AheadReader(const AheadReader&) = delete;
  AheadReader& operator=(const AheadReader&) = delete;
  ~AheadReader();

  //   after    the folded name behind which it begins; empty: with the first
  //   most     at most so many
  //   returns  codes of Thread::Start()
  [[nodiscard]] ErrorCode Start(std::string path, std::int64_t parent, std::vector<unsigned char> after, std::size_t most,
                                Seen seen);
  // Waits for the next sub key; null behind the last one, after a failure and after Stop().
  [[nodiscard]] std::shared_ptr<const AheadKey> Next();
  // Lets the thread come to its end, without waiting for it.
  void Stop();

 private:
  using Keys = std::deque<std::shared_ptr<const AheadKey>>;
  void Run(const std::string& path, std::int64_t parent, std::vector<unsigned char> last, std::size_t most,
           const Seen& seen);
  [[nodiscard]] bool Give(Keys& keys);

  std::mutex m_lock;
  std::condition_variable m_given;
  std::condition_variable m_taken;
  Keys m_ready;
  bool m_stopped = false;
  bool m_ended = false;
  Keys m_mine;  // of Next()
  Thread m_thread;
};

}  // namespace platform::detail
