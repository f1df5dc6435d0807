// foundation/include/zfctext.h: plain conversions between wide, multibyte and UTF-8 text, and plain string buffers.
//
// Multibyte text is text in the platform's system code page. Results are owned by the caller and freed with the
// runtime's free(), for which ZepFreeString is the name within the system.
// Threads: every function may be called from any thread. Nothing is thrown.
#pragma once

#include "foundation/include/zfcexport.h"

namespace ZepFoundation ZEP_FOUNDATION_API {
extern "C" {

// Each converts the NUL-terminated `in` into a new NUL-terminated buffer in *out.
//   returns  the count of units or bytes without the terminator; on failure *out is null and the result is
//            -1: `out` or `in` null (*out stays as it was then), a text that mbstowcs or wcstombs refuses, or any other
//            platform error; -2: no memory, or platform error 122; -3: platform error 1113
// Ill-formed UTF-8 and lone surrogates become U+FFFD where the platform's conversion calls see them.
int ZepUtf8ToWcs(char16_t** out, const char* in);
int ZepWcsToUtf8(char** out, const char16_t* in);
int ZepMbsToUtf8(char** out, const char* in);
// Deliberate: a text that comes out empty is the error -1.
int ZepUtf8ToMbs(char** out, const char* in);
// Through UTF-8. A first step that comes out empty ends them: 0, and *out null.
int ZepMbsToWcs(char16_t** out, const char* in);
int ZepWcsToMbs(char** out, const char16_t* in);

// True when no byte of the NUL-terminated text is 128 or above; null counts as empty.
bool ZepIsStringAscii(const char* text);

// Copies of a NUL-terminated text; null for null and when memory is exhausted.
char16_t* ZepDuplicateWideString(const char16_t* text);
char* ZepDuplicateString(const char* text);
// Frees what the functions of this file and the interfaces of the rules library hand out; null is nothing.
void ZepFreeString(void* text);

}  // extern "C"

// Owns a text that one of these functions, or a getter of the rules library, hands out through a pointer.
// One thread at a time.
template <class Unit>
class ZepOwnedText {
 public:
  ZepOwnedText() = default;
  ~ZepOwnedText() { ZepFreeString(m_text); }
  ZepOwnedText(const ZepOwnedText&) = delete;
  ZepOwnedText& operator=(const ZepOwnedText&) = delete;

  // Where the call is to put the text; what was owned ahead of it is freed.
  [[nodiscard]] Unit** Out() {
    ZepFreeString(m_text);
    m_text = nullptr;
    return &m_text;
  }
  // Null where no text was handed out.
  [[nodiscard]] const Unit* Get() const { return m_text; }

 private:
  Unit* m_text = nullptr;
};
}  // namespace ZepFoundation
