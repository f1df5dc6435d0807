#include "platform/guid.h"

#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/fault_point.h"

namespace platform {
namespace {

constexpr std::size_t kIdsAtATime = 64;  // of the kernel's random bytes

constexpr std::u16string_view kDigits = u"0123456789ABCDEF";

int DigitValue(char16_t c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  return -1;
}

// Reads off the text and remembers the first failure; nothing is read behind it.
class Reader {
 public:
  explicit Reader(std::u16string_view text) : m_text(text) {}

  void Expect(char16_t c) {
    if (!m_failed && m_at < m_text.size() && m_text[m_at] == c) {
      ++m_at;
    } else {
      m_failed = true;
    }
  }
  // The field grows digit by digit, so that a failure leaves in it what came before.
  template <class T>
  void Field(T& field) {
    if (m_failed) return;
    field = 0;
    for (std::size_t i = 0; i < 2 * sizeof(T) && !m_failed; ++i) {
      const int digit = NextDigit();
      if (digit >= 0) field = static_cast<T>(static_cast<std::uint32_t>(field) << 4 | static_cast<unsigned>(digit));
    }
  }
  // A byte is stored only once both of its digits are there.
  void Byte(std::uint8_t& byte) {
    const int high = NextDigit();
    const int low = NextDigit();
    if (!m_failed) byte = static_cast<std::uint8_t>(high * 16 + low);
  }
  [[nodiscard]] bool AtEnd() const { return !m_failed && m_at == m_text.size(); }

 private:
  int NextDigit() {
    const int digit = !m_failed && m_at < m_text.size() ? DigitValue(m_text[m_at]) : -1;
    if (digit < 0) {
      m_failed = true;
    } else {
      ++m_at;
    }
    return digit;
  }

  std::u16string_view m_text;
  std::size_t m_at = 0;
  bool m_failed = false;
};

}  // namespace

ErrorCode CreateGuid(GUID& out) {
  if (const ErrorCode fault = FaultAt(Operation::kCreateGuid); fault != ERROR_SUCCESS) return fault;
  // The kernel is asked for many at a time: a start makes one for each rule object. A fork's child begins anew.
  thread_local struct {
    pid_t process = 0;
    std::size_t left = 0;
    GUID ids[kIdsAtATime];
  } pool;
  if (pool.left == 0 || pool.process != ::getpid()) {
    pool.left = 0;
    auto* const bytes = reinterpret_cast<unsigned char*>(pool.ids);
    for (std::size_t got = 0; got < sizeof pool.ids;) {
      const ssize_t count = getrandom(bytes + got, sizeof pool.ids - got, 0);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) return ErrorCodeFromErrno(errno);
      got += static_cast<std::size_t>(count);
    }
    pool.process = ::getpid();
    pool.left = kIdsAtATime;
  }
  GUID guid = std::exchange(pool.ids[--pool.left], GUID());
  guid.Data3 = static_cast<std::uint16_t>((guid.Data3 & 0x0FFF) | 0x4000);   // version 4: random
  guid.Data4[0] = static_cast<std::uint8_t>((guid.Data4[0] & 0x3F) | 0x80);  // variant 10
  out = guid;
  return ERROR_SUCCESS;
}

std::uint32_t ClsidFromString(std::u16string_view text, GUID& out) {
  if (text.empty() || text.front() != u'{') {
    out = GUID();
    return kInvalidClassString;
  }
  Reader reader(text);
  reader.Expect(u'{');
  reader.Field(out.Data1);
  reader.Expect(u'-');
  reader.Field(out.Data2);
  reader.Expect(u'-');
  reader.Field(out.Data3);
  reader.Expect(u'-');
  for (int i = 0; i < 8; ++i) {
    if (i == 2) reader.Expect(u'-');
    reader.Byte(out.Data4[i]);
  }
  reader.Expect(u'}');
  return reader.AtEnd() ? 0 : kInvalidClassString;
}

std::u16string GuidText(const GUID& guid) {
  std::u16string text(kGuidTextLength, u'-');
  char16_t* at = text.data();
  const auto put = [&at](std::uint32_t value, int digits) {
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) *at++ = kDigits[(value >> shift) & 0xF];
  };
  *at++ = u'{';
  put(guid.Data1, 8);
  ++at;
  put(guid.Data2, 4);
  ++at;
  put(guid.Data3, 4);
  ++at;
  for (int i = 0; i < 8; ++i) {
    if (i == 2) ++at;
    put(guid.Data4[i], 2);
  }
  *at = u'}';
  return text;
}

int StringFromGuid2(const GUID& guid, char16_t* buffer, int size) {
  if (size <= kGuidTextLength) return 0;
  const std::u16string text = GuidText(guid);
  std::char_traits<char16_t>::copy(buffer, text.c_str(), text.size() + 1);
  return kGuidTextLength + 1;
}

}  // namespace platform
