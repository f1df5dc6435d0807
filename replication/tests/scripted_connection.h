// replication/tests/scripted_connection.h: a connection without a host: what it gives was written beforehand.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "platform/socket.h"
#include "replication/wire.h"

namespace qx::testing {

using Bytes = std::vector<std::uint8_t>;

inline Bytes BytesOf(std::string_view text) { return {text.begin(), text.end()}; }

inline std::string Hex(std::span<const std::uint8_t> bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

// Bytes of hexadecimal text; blanks and line ends are passed over.
inline Bytes FromHex(std::string_view text) {
  Bytes bytes;
  std::string digits;
  for (const char c : text) {
    if (c == ' ' || c == '\n') continue;
    digits += c;
    if (digits.size() == 2) {
      bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits, nullptr, 16)));
      digits.clear();
    }
  }
  return bytes;
}

class ScriptedConnection : public platform::IConnection {
 public:
  // One step of what can be received: bytes, or a failure of the wait or of the taking.
  struct Step {
    Bytes bytes;
    platform::SocketError error = 0;
    bool timeout = false;
    bool waitFails = false;
  };
  ScriptedConnection& Gives(Bytes bytes) {
    steps.push_back({.bytes = std::move(bytes)});
    return *this;
  }
  ScriptedConnection& Fails(platform::SocketError error, int times = 1) {
    for (int i = 0; i < times; ++i) steps.push_back({.error = error});
    return *this;
  }
  ScriptedConnection& GivesMessage(std::uint32_t type, const Bytes& payload, const ScheduleGuid& id = {}) {
    MessageHeader header = {static_cast<std::uint32_t>(payload.size()), type, 0, id};
    Bytes bytes(kWireHeaderSize);
    EXPECT_EQ(EncodeHeader(header, WireHeader(bytes)), 1);
    Gives(bytes);
    if (!payload.empty()) Gives(payload);
    return *this;
  }
  ScriptedConnection& TimesOut() {
    steps.push_back({.timeout = true});
    return *this;
  }
  ScriptedConnection& WaitFails(platform::SocketError error) {
    steps.push_back({.error = error, .waitFails = true});
    return *this;
  }

  platform::SocketError WaitReadable(std::int64_t limitMs, bool& ready) override {
    limits.push_back(limitMs);
    ready = steps.empty() || !steps.front().timeout;  // behind the last step stands the end
    return !steps.empty() && steps.front().waitFails ? steps.front().error : 0;
  }
  platform::SocketError ReceiveSome(std::span<std::uint8_t> buffer, std::size_t& count) override {
    count = 0;
    if (steps.empty()) return 0;
    Step& step = steps.front();
    if (step.error != 0) {
      const platform::SocketError error = step.error;
      steps.pop_front();
      return error;
    }
    count = std::min(buffer.size(), step.bytes.size());
    std::copy_n(step.bytes.begin(), count, buffer.begin());
    step.bytes.erase(step.bytes.begin(), step.bytes.begin() + static_cast<std::ptrdiff_t>(count));
    if (step.bytes.empty()) steps.pop_front();
    return 0;
  }
  platform::SocketError SendSome(std::span<const std::uint8_t> bytes, std::size_t& count) override {
    ++sends;
    if (!sendErrors.empty()) {
      const platform::SocketError error = sendErrors.front();
      sendErrors.pop_front();
      if (error != 0) return error;
    }
    count = std::min(bytes.size(), sendAtMost);
    sent.insert(sent.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
    return 0;
  }

  std::deque<Step> steps;
  std::deque<platform::SocketError> sendErrors;  // of the next sends, 0 for none
  std::size_t sendAtMost = SIZE_MAX;
  Bytes sent;
  int sends = 0;
  std::vector<std::int64_t> limits;
};

}  // namespace qx::testing
