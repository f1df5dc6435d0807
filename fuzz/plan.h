// fuzz/plan.h: the input as choices, for targets that build what they try out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qx::fuzz {

// Taken from the front; behind the input's end every byte is 0.
class Plan {
 public:
  explicit Plan(std::string_view input) : m_rest(input) {}
  [[nodiscard]] bool AtEnd() const { return m_rest.empty(); }
  // What wasn't taken.
  [[nodiscard]] std::string_view Rest() const { return m_rest; }

  std::uint8_t Byte() {
    const std::string_view byte = Bytes(1);
    return byte.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(byte[0]);
  }
  // The high byte first.
  std::uint64_t Number(int bytes) {
    std::uint64_t number = 0;
    for (int i = 0; i < bytes; ++i) number = number << 8 | Byte();
    return number;
  }
  // Fewer at the input's end.
  std::string_view Bytes(std::size_t most) {
    const std::string_view bytes = m_rest.substr(0, most);
    m_rest.remove_prefix(bytes.size());
    return bytes;
  }
  // A byte says of how many.
  std::string Text() {
    const std::size_t most = Byte();
    return std::string(Bytes(most));
  }

 private:
  std::string_view m_rest;
};

}  // namespace qx::fuzz
