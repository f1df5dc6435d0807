// foundation/include/zfclogformat.h: expands the system's log formats over typed arguments.
//
// The formats are those of the system's own runtime, not of the host's C library: `%s` is text of the format's own
// width and `%S` of the other one, long is 32 bits, "%ul" is a number and the letter l. A conversion never reads beyond
// the arguments it was given, so that a format which came from outside is safe: a missing argument prints nothing, a
// mismatched one is converted.
// Threads: every function may be called from any thread; the locale of the process has no influence.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "foundation/include/zfcexport.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

// One argument of a format. Texts are borrowed: they live as long as the full expression that makes the argument.
class LogArgument {
 public:
  struct Null {};  // a null text, printed as "(null)"

  template <class T>
    requires(!std::same_as<std::remove_cvref_t<T>, LogArgument>)
  LogArgument(const T& value) : m_value(Wrap(value)) {}  // NOLINT: implicit, callers write plain values

  using Value = std::variant<Null, std::int64_t, std::uint64_t, double, char16_t, std::u16string_view, std::string_view,
                             const void*>;
  [[nodiscard]] const Value& value() const { return m_value; }

 private:
  template <class T>
  static Value Wrap(const T& value) {
    using D = std::decay_t<T>;
    if constexpr (std::same_as<D, std::nullptr_t>) {
      return Null{};
    } else if constexpr (std::same_as<D, char16_t*> || std::same_as<D, const char16_t*>) {
      const char16_t* const text = value;
      if (text == nullptr) return Null{};
      return std::u16string_view(text);
    } else if constexpr (std::same_as<D, char*> || std::same_as<D, const char*>) {
      const char* const text = value;
      if (text == nullptr) return Null{};
      return std::string_view(text);
    } else if constexpr (std::same_as<D, char16_t>) {
      return value;
    } else if constexpr (std::is_enum_v<D>) {
      return Wrap(static_cast<std::underlying_type_t<D>>(value));
    } else if constexpr (std::floating_point<D>) {
      return static_cast<double>(value);
    } else if constexpr (std::same_as<D, bool> || std::unsigned_integral<D>) {
      return static_cast<std::uint64_t>(value);
    } else if constexpr (std::signed_integral<D>) {
      return static_cast<std::int64_t>(value);
    } else if constexpr (std::convertible_to<const T&, std::u16string_view>) {
      return static_cast<std::u16string_view>(value);
    } else if constexpr (std::convertible_to<const T&, std::string_view>) {
      return static_cast<std::string_view>(value);
    } else if constexpr (requires { value.c_str(); }) {
      return Wrap(value.c_str());
    } else {
      static_assert(std::is_pointer_v<D>, "no log format prints this type");
      return static_cast<const void*>(value);
    }
  }

  Value m_value;
};

// Expands `format` into `buffer`, as the bounded wide call of the system's runtime does.
//   returns  the number of characters, when that is at most buffer.size(); a final NUL is written where there is room;
//            -1 when the text is longer (the buffer holds its beginning, without a NUL) or a character can't be
//            converted
//   overflow when given: true exactly when the text was too long
// Narrow text in a wide format is taken byte by byte (byte n is character n), and wide text in a narrow format goes the
// other way; a character above 255 can't be converted there.
// `%s` in a narrow format on a wide argument prints the bytes of its 16-bit little-endian form up to the first zero.
int FormatLogText(std::span<char16_t> buffer, std::u16string_view format, std::span<const LogArgument> arguments,
                  bool* overflow = nullptr);
int FormatLogText(std::span<char> buffer, std::string_view format, std::span<const LogArgument> arguments,
                  bool* overflow = nullptr);

// The same into a string that takes the place of `out`; on -1 it holds what was written up to there.
//   limit  greatest number of characters
int FormatLogText(std::u16string& out, std::size_t limit, std::u16string_view format,
                  std::span<const LogArgument> arguments);
int FormatLogText(std::string& out, std::size_t limit, std::string_view format, std::span<const LogArgument> arguments);

}  // namespace ZepFoundation
