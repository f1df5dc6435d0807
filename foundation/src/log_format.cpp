// foundation/src/log_format.cpp: one expansion routine for wide and narrow formats.
#include "foundation/include/zfclogformat.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>

namespace ZepFoundation {
namespace {

// Exact decimal forms of a double: at most 309 digits before the point and 1074 behind it.
constexpr int kExactDigits = 1074;
constexpr std::size_t kNumberRoom = 1500;
constexpr int kGreatestField = 1'000'000;  // widths and precisions beyond this overflow any buffer anyway

// Where the expansion goes; stops at the buffer's end and remembers that.
template <class C>
class Sink {
 public:
  explicit Sink(std::span<C> buffer) : m_buffer(buffer) {}
  void Put(C c) {
    if (m_count < m_buffer.size()) {
      m_buffer[m_count++] = c;
    } else {
      m_overflow = true;
    }
  }
  void Pad(C c, std::size_t n) {
    for (; n != 0 && !m_overflow; --n) Put(c);
  }
  [[nodiscard]] std::size_t count() const { return m_count; }
  [[nodiscard]] bool overflow() const { return m_overflow; }

 private:
  std::span<C> m_buffer;
  std::size_t m_count = 0;
  bool m_overflow = false;
};

enum class Size { kNone, kShort, kLong, kLongLong, kWide };

struct Conversion {
  bool left = false;
  bool plus = false;
  bool blank = false;
  bool zero = false;
  bool alternate = false;
  int width = 0;
  std::optional<int> precision;
  Size size = Size::kNone;
  char type = 0;
};

// Saturating, since a double argument may arrive at an integer conversion.
std::int64_t IntegerFromDouble(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 9.2233720368547758e18) return std::numeric_limits<std::int64_t>::max();
  if (value <= -9.2233720368547758e18) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(value);
}

// The argument's number, sign-extended as it came; nothing for texts.
std::optional<std::uint64_t> NumberOf(const LogArgument& argument) {
  return std::visit(
      [](const auto& value) -> std::optional<std::uint64_t> {
        using T = std::decay_t<decltype(value)>;
        if constexpr (std::same_as<T, std::int64_t> || std::same_as<T, std::uint64_t> || std::same_as<T, char16_t>) {
          return static_cast<std::uint64_t>(value);
        } else if constexpr (std::same_as<T, double>) {
          return static_cast<std::uint64_t>(IntegerFromDouble(value));
        } else if constexpr (std::same_as<T, const void*>) {
          return reinterpret_cast<std::uintptr_t>(value);
        } else if constexpr (std::same_as<T, LogArgument::Null>) {
          return 0;
        } else {
          return std::nullopt;
        }
      },
      argument.value());
}

std::optional<double> RealOf(const LogArgument& argument) {
  if (const double* const value = std::get_if<double>(&argument.value())) return *value;
  if (const std::int64_t* const value = std::get_if<std::int64_t>(&argument.value())) {
    return static_cast<double>(*value);
  }
  if (const std::optional<std::uint64_t> value = NumberOf(argument)) return static_cast<double>(*value);
  return std::nullopt;
}

// Adds one to the last digit of a decimal text such as "9.96", carrying over; true when a digit came in front.
bool RoundUpDigits(std::string& digits) {
  for (std::size_t i = digits.size(); i-- > 0;) {
    if (digits[i] == '.') continue;
    if (digits[i] != '9') {
      ++digits[i];
      return false;
    }
    digits[i] = '0';
  }
  digits.insert(digits.begin(), '1');
  return true;
}

// Digits with `precision` places behind the point. Ties go away from zero, unlike to_chars, hence the exact form first.
std::string FixedDigits(double magnitude, int precision, bool point) {
  char room[kNumberRoom];
  const auto end = std::to_chars(room, room + sizeof room, magnitude, std::chars_format::fixed, kExactDigits).ptr;
  std::string digits(room, end);
  const std::size_t places = digits.find('.') + 1;
  if (precision >= kExactDigits) {
    digits.append(static_cast<std::size_t>(precision - kExactDigits), '0');
    return digits;
  }
  const bool up = digits[places + static_cast<std::size_t>(precision)] >= '5';
  digits.resize(places + static_cast<std::size_t>(precision));
  if (up) RoundUpDigits(digits);
  if (precision == 0 && !point) digits.pop_back();
  return digits;
}

// Mantissa with `precision` places and the exponent of its first digit.
std::string ScientificDigits(double magnitude, int precision, bool point, int& exponent) {
  char room[kNumberRoom];
  const auto end = std::to_chars(room, room + sizeof room, magnitude, std::chars_format::scientific, kExactDigits).ptr;
  std::string digits(room, end);
  const std::size_t mark = digits.find('e');
  const char* first = digits.data() + mark + 1;
  if (*first == '+') ++first;
  std::from_chars(first, digits.data() + digits.size(), exponent);
  digits.resize(mark);
  if (precision >= kExactDigits) {
    digits.append(static_cast<std::size_t>(precision - kExactDigits), '0');
    return digits;
  }
  const bool up = digits[2 + static_cast<std::size_t>(precision)] >= '5';
  digits.resize(2 + static_cast<std::size_t>(precision));
  if (up && RoundUpDigits(digits)) {  // "10.00" is "1.000" times ten
    ++exponent;
    digits.erase(2, 1);
    digits.insert(1, ".");
    digits.pop_back();
    if (digits.size() < 2) digits = "1.";
  }
  if (precision == 0 && !point) digits.pop_back();
  return digits;
}

std::string ExponentText(int exponent) {
  const int magnitude = exponent < 0 ? -exponent : exponent;
  std::string text = exponent < 0 ? "e-" : "e+";
  if (magnitude < 10) text += '0';
  return text + std::to_string(magnitude);
}

void DropTrailingZeros(std::string& digits) {
  if (digits.find('.') == std::string::npos) return;
  while (digits.back() == '0') digits.pop_back();
  if (digits.back() == '.') digits.pop_back();
}

std::string GeneralDigits(double magnitude, int precision, bool alternate) {
  if (precision == 0) precision = 1;
  int exponent = 0;
  std::string digits = ScientificDigits(magnitude, precision - 1, alternate, exponent);
  if (exponent >= -4 && exponent < precision) {
    digits = FixedDigits(magnitude, precision - 1 - exponent, alternate);
    if (!alternate) DropTrailingZeros(digits);
    return digits;
  }
  if (!alternate) DropTrailingZeros(digits);
  return digits + ExponentText(exponent);
}

std::string RealDigits(double value, const Conversion& c) {
  if (std::isnan(value)) return "nan";
  const double magnitude = std::fabs(value);
  if (std::isinf(magnitude)) return "inf";
  const int precision = c.precision.value_or(6);
  switch (c.type | 0x20) {
    case 'f':
      return FixedDigits(magnitude, precision, c.alternate);
    case 'e': {
      int exponent = 0;
      std::string digits = ScientificDigits(magnitude, precision, c.alternate, exponent);
      return digits + ExponentText(exponent);
    }
    case 'g':
      return GeneralDigits(magnitude, precision, c.alternate);
    default: {  // a
      char room[kNumberRoom];
      const int places = std::min(c.precision.value_or(13), 1000);
      const auto end = std::to_chars(room, room + sizeof room, magnitude, std::chars_format::hex, places).ptr;
      return "0x" + std::string(room, end);
    }
  }
}

template <class C>
class Expansion {
 public:
  Expansion(Sink<C>& sink, std::basic_string_view<C> format, std::span<const LogArgument> arguments)
      : m_sink(sink), m_format(format), m_arguments(arguments) {}

  // False when a character can't be converted.
  bool Run() {
    while (m_at < m_format.size() && !m_sink.overflow()) {
      const C c = m_format[m_at++];
      if (c != C('%')) {
        m_sink.Put(c);
      } else if (m_at < m_format.size() && m_format[m_at] == C('%')) {
        ++m_at;
        m_sink.Put(c);
      } else if (!Convert()) {
        return false;
      }
    }
    return true;
  }

 private:
  static constexpr bool kIsWide = sizeof(C) == 2;

  [[nodiscard]] C Peek(std::size_t ahead = 0) const {
    return m_at + ahead < m_format.size() ? m_format[m_at + ahead] : C(0);
  }
  const LogArgument* Next() { return m_next < m_arguments.size() ? &m_arguments[m_next++] : nullptr; }

  int NextField() {
    const LogArgument* const argument = Next();
    const std::optional<std::uint64_t> number = argument != nullptr ? NumberOf(*argument) : std::nullopt;
    const auto value = number ? static_cast<std::int32_t>(*number) : 0;
    return std::clamp(value, -kGreatestField, kGreatestField);
  }
  int ReadNumber() {
    int value = 0;
    for (; Peek() >= C('0') && Peek() <= C('9'); ++m_at) {
      value = std::min(value * 10 + static_cast<int>(Peek() - C('0')), kGreatestField);
    }
    return value;
  }

  void ReadFlags(Conversion& c) {
    for (;; ++m_at) {
      switch (Peek()) {
        case C('-'): c.left = true; break;
        case C('+'): c.plus = true; break;
        case C(' '): c.blank = true; break;
        case C('0'): c.zero = true; break;
        case C('#'): c.alternate = true; break;
        default: return;
      }
    }
  }
  void ReadWidth(Conversion& c) {
    if (Peek() != C('*')) {
      c.width = ReadNumber();
      return;
    }
    ++m_at;
    const int width = NextField();
    c.left = c.left || width < 0;
    c.width = width < 0 ? -width : width;
  }
  void ReadPrecision(Conversion& c) {
    if (Peek() != C('.')) return;
    ++m_at;
    if (Peek() != C('*')) {
      c.precision = ReadNumber();
      return;
    }
    ++m_at;
    const int precision = NextField();
    if (precision >= 0) c.precision = precision;
  }
  void ReadSize(Conversion& c) {
    for (;;) {
      switch (Peek()) {
        case C('l'):
          c.size = c.size == Size::kLong ? Size::kLongLong : Size::kLong;
          break;
        case C('h'):
          // Deliberate: a doubled h takes the int as it is.
          c.size = c.size == Size::kShort ? Size::kNone : Size::kShort;
          break;
        case C('w'):
          c.size = Size::kWide;
          break;
        case C('z'):
        case C('t'):
        case C('j'):
          c.size = Size::kLongLong;
          break;
        case C('L'):
          break;
        case C('I'):
          if (Peek(1) == C('3') && Peek(2) == C('2')) {
            c.size = Size::kLong;
            m_at += 2;
          } else {
            c.size = Size::kLongLong;
            if (Peek(1) == C('6') && Peek(2) == C('4')) m_at += 2;
          }
          break;
        default:
          return;
      }
      ++m_at;
    }
  }

  bool Convert() {
    Conversion c;
    ReadFlags(c);
    ReadWidth(c);
    ReadPrecision(c);
    ReadSize(c);
    if (m_at == m_format.size()) return true;
    const C type = m_format[m_at++];
    const bool known = Code(type) < 128 && std::string_view("sScCdiuoxXpfFeEgGaAn%").find(static_cast<char>(type)) !=
                                               std::string_view::npos;
    if (!known) {  // a letter without a meaning stands for itself and takes no argument
      m_sink.Put(type);
      return true;
    }
    c.type = static_cast<char>(type);
    // %n would write through an argument: it is read over, as is a percent sign behind a width.
    if (c.type == 'n' || c.type == '%') return true;
    const LogArgument* const argument = Next();
    return argument == nullptr || Print(c, *argument);
  }

  bool Print(const Conversion& c, const LogArgument& argument) {
    switch (c.type) {
      case 's':
      case 'S':
        return PrintText(c, argument);
      case 'c':
      case 'C':
        return PrintCharacter(c, argument);
      case 'p': {
        Conversion pointer = c;
        pointer.precision = 16;
        pointer.zero = pointer.alternate = false;
        return PrintInteger(pointer, argument);
      }
      case 'd':
      case 'i':
      case 'u':
      case 'o':
      case 'x':
      case 'X':
        return PrintInteger(c, argument);
      default:
        return PrintReal(c, argument);
    }
  }

  // Whether the conversion names wide text: the size word decides, else the letter's case against the format's width.
  static bool NamesWide(const Conversion& c) {
    if (c.size == Size::kShort) return false;
    if (c.size == Size::kLong || c.size == Size::kLongLong || c.size == Size::kWide) return true;
    const bool ownWidth = c.type == 's' || c.type == 'c';
    return ownWidth == kIsWide;
  }

  bool PrintText(const Conversion& c, const LogArgument& argument) {
    if (const auto* const wide = std::get_if<std::u16string_view>(&argument.value())) {
      if (kIsWide || NamesWide(c)) return PutUnits(c, wide->substr(0, wide->find(u'\0')));
      return PutUnits(c, std::string_view(BytesOf(*wide)));
    }
    if (const auto* const narrow = std::get_if<std::string_view>(&argument.value())) {
      return PutUnits(c, narrow->substr(0, narrow->find('\0')));
    }
    if (std::holds_alternative<LogArgument::Null>(argument.value())) return PutUnits(c, std::string_view("(null)"));
    return PrintMismatched(c, argument);
  }

  // Deliberate: a narrow %s on wide text prints the bytes of the 16-bit form up to the first zero.
  static std::string BytesOf(std::u16string_view text) {
    std::string bytes;
    for (const char16_t unit : text) {
      for (const int shift : {0, 8}) {
        const char byte = static_cast<char>(unit >> shift & 0xFF);
        if (byte == 0) return bytes;
        bytes += byte;
      }
    }
    return bytes;
  }

  // A number, character or pointer where a text is named prints as what it is.
  bool PrintMismatched(const Conversion& c, const LogArgument& argument) {
    Conversion own;
    own.left = c.left;
    own.width = c.width;
    own.size = Size::kLongLong;
    if (std::holds_alternative<char16_t>(argument.value())) {
      own.type = 'c';
      return PrintCharacter(own, argument);
    }
    if (std::holds_alternative<double>(argument.value())) {
      own.type = 'f';
      return PrintReal(own, argument);
    }
    own.type = std::holds_alternative<std::int64_t>(argument.value()) ? 'd' : 'u';
    if (std::holds_alternative<const void*>(argument.value())) {
      own.type = 'p';
      own.precision = 16;
    }
    return PrintInteger(own, argument);
  }

  bool PrintCharacter(const Conversion& c, const LogArgument& argument) {
    const std::optional<std::uint64_t> number = NumberOf(argument);
    if (!number) {
      Conversion text = c;
      text.type = c.type == 'c' ? 's' : 'S';
      return PrintText(text, argument);
    }
    Conversion one = c;
    one.precision.reset();
    if (NamesWide(c)) {
      const char16_t unit = static_cast<char16_t>(*number);
      return PutUnits(one, std::u16string_view(&unit, 1));
    }
    const char byte = static_cast<char>(*number);
    return PutUnits(one, std::string_view(&byte, 1));
  }

  bool PrintInteger(const Conversion& c, const LogArgument& argument) {
    const std::optional<std::uint64_t> number = NumberOf(argument);
    if (!number) {
      Conversion text = c;
      text.type = std::holds_alternative<std::u16string_view>(argument.value()) == kIsWide ? 's' : 'S';
      text.size = Size::kNone;
      return PrintText(text, argument);
    }
    const bool isSigned = c.type == 'd' || c.type == 'i';
    std::uint64_t value = *number;
    const bool full = c.size == Size::kLongLong || c.type == 'p';
    if (c.size == Size::kShort) {
      value = isSigned ? static_cast<std::uint64_t>(static_cast<std::int16_t>(value)) : value & 0xFFFFu;
    } else if (!full) {  // long is 32 bits
      value = isSigned ? static_cast<std::uint64_t>(static_cast<std::int32_t>(value)) : value & 0xFFFFFFFFu;
    }
    const bool negative = isSigned && static_cast<std::int64_t>(value) < 0;
    if (negative) value = 0 - value;

    const int base = c.type == 'o' ? 8 : isSigned || c.type == 'u' ? 10 : 16;
    char room[24];
    const auto end = std::to_chars(room, room + sizeof room, value, base).ptr;
    std::string digits(room, end);
    if (c.type == 'X' || c.type == 'p') UpperCase(digits);
    if (value == 0 && c.precision == 0) digits.clear();
    if (c.precision && digits.size() < static_cast<std::size_t>(*c.precision)) {
      digits.insert(0, static_cast<std::size_t>(*c.precision) - digits.size(), '0');
    }
    std::string prefix = isSigned ? Sign(c, negative) : "";
    if (c.alternate && c.type == 'o' && (digits.empty() || digits[0] != '0')) prefix = "0";
    if (c.alternate && value != 0 && (c.type == 'x' || c.type == 'X')) prefix = c.type == 'x' ? "0x" : "0X";
    PutNumber(c, prefix, digits, c.zero && !c.precision);
    return true;
  }

  bool PrintReal(const Conversion& c, const LogArgument& argument) {
    const std::optional<double> value = RealOf(argument);
    if (!value) {
      Conversion text = c;
      text.precision.reset();
      return PrintInteger(text, argument);
    }
    std::string digits = RealDigits(*value, c);
    if (c.type < 'a') UpperCase(digits);
    PutNumber(c, Sign(c, std::signbit(*value)), digits, c.zero && std::isfinite(*value));
    return true;
  }

  static void UpperCase(std::string& text) {
    for (char& c : text) {
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
  }
  static std::string Sign(const Conversion& c, bool negative) {
    return negative ? "-" : c.plus ? "+" : c.blank ? " " : "";
  }

  void PutNumber(const Conversion& c, std::string_view prefix, std::string_view digits, bool zeros) {
    const std::size_t length = prefix.size() + digits.size();
    const std::size_t fill =
        static_cast<std::size_t>(c.width) > length ? static_cast<std::size_t>(c.width) - length : 0;
    if (!c.left && !zeros) m_sink.Pad(C(' '), fill);
    for (const char ch : prefix) m_sink.Put(C(ch));
    if (!c.left && zeros) m_sink.Pad(C('0'), fill);
    for (const char ch : digits) m_sink.Put(C(ch));
    if (c.left) m_sink.Pad(C(' '), fill);
  }

  template <class U>
  bool PutUnits(const Conversion& c, std::basic_string_view<U> text) {
    if (c.precision) text = text.substr(0, static_cast<std::size_t>(*c.precision));
    const std::size_t fill =
        static_cast<std::size_t>(c.width) > text.size() ? static_cast<std::size_t>(c.width) - text.size() : 0;
    if constexpr (!kIsWide && sizeof(U) == 2) {
      for (const U unit : text) {
        if (unit > 0xFF) return false;
      }
    }
    if (!c.left) m_sink.Pad(C(' '), fill);
    for (const U unit : text) {
      if (m_sink.overflow()) break;
      m_sink.Put(static_cast<C>(Code(unit)));
    }
    if (c.left) m_sink.Pad(C(' '), fill);
    return true;
  }
  static std::uint16_t Code(char16_t unit) { return unit; }
  static std::uint8_t Code(char byte) { return static_cast<std::uint8_t>(byte); }

  Sink<C>& m_sink;
  std::basic_string_view<C> m_format;
  std::span<const LogArgument> m_arguments;
  std::size_t m_at = 0;
  std::size_t m_next = 0;
};

template <class C>
int Format(std::span<C> buffer, std::basic_string_view<C> format, std::span<const LogArgument> arguments,
           bool* overflow, std::size_t* written) {
  Sink<C> sink(buffer);
  const bool converted = Expansion<C>(sink, format, arguments).Run();
  if (overflow != nullptr) *overflow = sink.overflow();
  if (written != nullptr) *written = sink.count();
  if (!converted || sink.overflow()) return -1;
  if (sink.count() < buffer.size()) buffer[sink.count()] = C(0);
  return static_cast<int>(sink.count());
}

template <class C>
int FormatString(std::basic_string<C>& out, std::size_t limit, std::basic_string_view<C> format,
                 std::span<const LogArgument> arguments) {
  std::basic_string<C> text(limit, C(0));
  std::size_t written = 0;
  const int result = Format<C>(text, format, arguments, nullptr, &written);
  text.resize(written);
  out = std::move(text);
  return result;
}

}  // namespace

int FormatLogText(std::span<char16_t> buffer, std::u16string_view format, std::span<const LogArgument> arguments,
                  bool* overflow) {
  return Format<char16_t>(buffer, format, arguments, overflow, nullptr);
}
int FormatLogText(std::span<char> buffer, std::string_view format, std::span<const LogArgument> arguments,
                  bool* overflow) {
  return Format<char>(buffer, format, arguments, overflow, nullptr);
}
int FormatLogText(std::u16string& out, std::size_t limit, std::u16string_view format,
                  std::span<const LogArgument> arguments) {
  return FormatString<char16_t>(out, limit, format, arguments);
}
int FormatLogText(std::string& out, std::size_t limit, std::string_view format,
                  std::span<const LogArgument> arguments) {
  return FormatString<char>(out, limit, format, arguments);
}

}  // namespace ZepFoundation
