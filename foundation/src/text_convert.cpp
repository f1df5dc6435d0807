#include <climits>
#include <cstring>
#include <string>

#include "foundation/include/zfctext.h"
#include "platform/memory.h"
#include "platform/text.h"

namespace ZepFoundation {
namespace {

constexpr int kFailed = -1;
constexpr int kNoMemory = -2;
constexpr int kNoTranslation = -3;

int ResultOf(platform::ErrorCode code) {
  switch (code) {
    case platform::ERROR_INSUFFICIENT_BUFFER:
      return kNoMemory;
    case platform::ERROR_NO_UNICODE_TRANSLATION:
      return kNoTranslation;
    default:
      return kFailed;
  }
}

// A result that is handed to the caller, or goes with a failure. The runtime's free() fits what the platform allocates.
template <class T>
class Result {
 public:
  Result(std::size_t count, const char* name) : m_buffer(count, name) {}
  explicit operator bool() const { return static_cast<bool>(m_buffer); }
  T* get() { return m_buffer.get(); }
  int HandOver(T** out, int count) {
    *out = m_buffer.release();
    return count;
  }

 private:
  platform::NamedBuffer<T> m_buffer;
};

// The text's length, terminator included, as the platform's calls count it; 0 when they can't.
template <class T>
int CountWithTerminator(const T* text) {
  const std::size_t length = std::char_traits<T>::length(text);
  return length < static_cast<std::size_t>(INT_MAX) ? static_cast<int>(length) + 1 : 0;
}

template <class T>
T* Duplicate(const T* text, const char* name) {
  if (text == nullptr) return nullptr;
  const std::size_t length = std::char_traits<T>::length(text);
  T* const copy = static_cast<T*>(platform::Allocate((length + 1) * sizeof(T), name));
  if (copy != nullptr) std::char_traits<T>::copy(copy, text, length);
  return copy;
}

}  // namespace

int ZepUtf8ToWcs(char16_t** out, const char* in) {
  if (out == nullptr || in == nullptr) return kFailed;
  *out = nullptr;
  const int length = CountWithTerminator(in);
  platform::ErrorCode error = platform::ERROR_SUCCESS;
  const int size = platform::MultiByteToWideChar(platform::kCodePageUtf8, 0, in, length, nullptr, 0, error);
  if (size == 0) return ResultOf(error);
  Result<char16_t> wide(static_cast<std::size_t>(size), "ZepUtf8ToWcs");
  if (!wide) return kNoMemory;
  if (platform::MultiByteToWideChar(platform::kCodePageUtf8, 0, in, length, wide.get(), size, error) == 0) {
    return ResultOf(error);
  }
  return wide.HandOver(out, size - 1);
}

int ZepWcsToUtf8(char** out, const char16_t* in) {
  if (out == nullptr || in == nullptr) return kFailed;
  *out = nullptr;
  const int length = CountWithTerminator(in);
  platform::ErrorCode error = platform::ERROR_SUCCESS;
  const int size =
      platform::WideCharToMultiByte(platform::kCodePageUtf8, 0, in, length, nullptr, 0, nullptr, nullptr, error);
  if (size == 0) return ResultOf(error);
  Result<char> utf8(static_cast<std::size_t>(size), "ZepWcsToUtf8");
  if (!utf8) return kNoMemory;
  if (platform::WideCharToMultiByte(platform::kCodePageUtf8, 0, in, length, utf8.get(), size, nullptr, nullptr,
                                    error) == 0) {
    return ResultOf(error);
  }
  return utf8.HandOver(out, size - 1);
}

int ZepMbsToUtf8(char** out, const char* in) {
  if (out == nullptr || in == nullptr) return kFailed;
  *out = nullptr;
  int error = 0;
  const std::size_t count = platform::Mbstowcs(nullptr, in, 0, error);
  if (count == platform::kRuntimeFailure) return kFailed;
  platform::NamedBuffer<char16_t> wide(count + 1, "ZepMbsToUtf8");
  if (!wide) return kNoMemory;
  if (platform::Mbstowcs(wide.get(), in, count + 1, error) == platform::kRuntimeFailure) return kFailed;
  return ZepWcsToUtf8(out, wide.get());
}

int ZepUtf8ToMbs(char** out, const char* in) {
  if (out == nullptr || in == nullptr) return kFailed;
  *out = nullptr;
  ZepOwnedText<char16_t> wide;
  if (const int rc = ZepUtf8ToWcs(wide.Out(), in); rc < 0) return rc;
  int error = 0;
  const std::size_t count = platform::Wcstombs(nullptr, wide.Get(), 0, error);
  if (count == platform::kRuntimeFailure || count == 0 || count >= static_cast<std::size_t>(INT_MAX)) return kFailed;
  Result<char> narrow(count + 1, "ZepUtf8ToMbs");
  if (!narrow) return kNoMemory;
  if (platform::Wcstombs(narrow.get(), wide.Get(), count + 1, error) != count) return kFailed;
  return narrow.HandOver(out, static_cast<int>(count));
}

int ZepMbsToWcs(char16_t** out, const char* in) {
  if (out == nullptr || in == nullptr) return kFailed;
  *out = nullptr;
  ZepOwnedText<char> utf8;
  if (const int rc = ZepMbsToUtf8(utf8.Out(), in); rc < 1) return rc;
  return ZepUtf8ToWcs(out, utf8.Get());
}

int ZepWcsToMbs(char** out, const char16_t* in) {
  if (out == nullptr || in == nullptr) return kFailed;
  *out = nullptr;
  ZepOwnedText<char> utf8;
  if (const int rc = ZepWcsToUtf8(utf8.Out(), in); rc < 1) return rc;
  return ZepUtf8ToMbs(out, utf8.Get());
}

bool ZepIsStringAscii(const char* text) {
  for (; text != nullptr && *text != '\0'; ++text) {
    if (static_cast<unsigned char>(*text) >= 0x80) return false;
  }
  return true;
}

char16_t* ZepDuplicateWideString(const char16_t* text) {
  return Duplicate(text, "ZepDuplicateWideString");
}

char* ZepDuplicateString(const char* text) {
  return Duplicate(text, "ZepDuplicateString");
}

void ZepFreeString(void* text) {
  platform::Free(text);
}

}  // namespace ZepFoundation
