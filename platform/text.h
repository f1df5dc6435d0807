// platform/text.h: conversion between wide text and the code pages 0, 1252, 65000 and 65001, and case mapping.
//
// The wide character is a UTF-16 unit. MultiByteToWideChar and WideCharToMultiByte keep the shape and the results of
// the published calls of the same names, Mbstowcs and Wcstombs those of the C runtime's functions; what most of the
// program wants are the views-to-strings functions behind them, which cannot fail. Threads: every function may be
// called from any thread; no locale is looked at.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/error_codes.h"

namespace platform {

// Code page numbers as published (winnls.h).
using CodePage = std::uint32_t;
inline constexpr CodePage kCodePageSystem = 0;  // whatever SystemCodePage() says
inline constexpr CodePage kCodePageThread = 3;  // the same here: a thread has no code page of its own
inline constexpr CodePage kCodePageWestern = 1252;
inline constexpr CodePage kCodePageUtf7 = 65000;
inline constexpr CodePage kCodePageUtf8 = 65001;

// The code page in force for number 0: 1252 or 65001, UTF-8 unless set.
[[nodiscard]] CodePage SystemCodePage();
//   returns  0; ERROR_INVALID_PARAMETER (87) for any other page, which changes nothing
[[nodiscard]] ErrorCode SetSystemCodePage(CodePage codePage);

// Flags of the two calls (winnls.h).
inline constexpr std::uint32_t MB_PRECOMPOSED = 0x1;
inline constexpr std::uint32_t MB_COMPOSITE = 0x2;
inline constexpr std::uint32_t MB_USEGLYPHCHARS = 0x4;
inline constexpr std::uint32_t MB_ERR_INVALID_CHARS = 0x8;
inline constexpr std::uint32_t WC_DISCARDNS = 0x10;
inline constexpr std::uint32_t WC_SEPCHARS = 0x20;
inline constexpr std::uint32_t WC_DEFAULTCHAR = 0x40;
inline constexpr std::uint32_t WC_ERR_INVALID_CHARS = 0x80;
inline constexpr std::uint32_t WC_COMPOSITECHECK = 0x200;
inline constexpr std::uint32_t WC_NO_BEST_FIT_CHARS = 0x400;

// Narrow text to wide text.
//   in         borrowed; null is refused
//   inLength   bytes, NULs included; a negative one: up to and including the first NUL; 0 is refused
//   out        receives the units; with outLength 0 nothing is written and the needed count is returned
//   lastError  0 on success, else the reason
//   returns    units written or needed; 0 on failure:
//              ERROR_INVALID_PARAMETER (87): null or empty input, no output for a size, unknown code page, or a result
//              that an int can't count; ERROR_INSUFFICIENT_BUFFER (122): the units that fit are written, never half a
//              pair; ERROR_INVALID_FLAGS (1004): UTF-8 takes MB_ERR_INVALID_CHARS only, UTF-7 none;
//              ERROR_NO_UNICODE_TRANSLATION (1113): ill-formed UTF-8 with MB_ERR_INVALID_CHARS, nothing written
// Without that flag ill-formed UTF-8 becomes U+FFFD: one for a lone byte, one for a sequence that began well and was
// cut, and a continuation byte that makes a sequence overlong, a surrogate or too large is part of the cut sequence.
// A 0 with lastError 0 is an input of shift characters only (UTF-7).
[[nodiscard]] int MultiByteToWideChar(CodePage codePage, std::uint32_t flags, const char* in, int inLength,
                                      char16_t* out, int outLength, ErrorCode& lastError);

// Wide text to narrow text; in, inLength, out, outLength, lastError and the result as above, in units and bytes.
//   defaultChar  for code page 1252: the byte in place of what the page lacks, null for '?'. Best fit comes first
//                unless WC_NO_BEST_FIT_CHARS is given, and doesn't count as a use of the default
//   usedDefault  set on success to whether a default stands in the result; null when not asked; untouched on failure
// Asked for by their numbers, 65000 and 65001 refuse both pointers (87). As the system code page UTF-8 accepts them:
// the flag is set for a lone surrogate alone, which becomes U+FFFD whatever the default character. 1113: lone
// surrogates under UTF-8 with WC_ERR_INVALID_CHARS; other code pages refuse that flag (1004).
[[nodiscard]] int WideCharToMultiByte(CodePage codePage, std::uint32_t flags, const char16_t* in, int inLength,
                                      char* out, int outLength, const char* defaultChar, bool* usedDefault,
                                      ErrorCode& lastError);

// The locale that the runtime's multibyte functions work in: "C" is Latin-1, the other one the system code page.
enum class RuntimeLocale { kC, kSystem };
inline constexpr std::size_t kRuntimeFailure = static_cast<std::size_t>(-1);
inline constexpr int kRuntimeIllegalSequence = 42;  // errno value EILSEQ of the runtime that these stand for

// wcstombs: `in` NUL-terminated. With a null `out` the bytes needed without the NUL; else at most `outBytes` are
// written, whole characters only, and a NUL where there is room. No best fit.
//   error    0, or kRuntimeIllegalSequence with the result kRuntimeFailure; `out` may hold what precedes
// In the "C" locale a query doesn't look at the characters: it never fails.
[[nodiscard]] std::size_t Wcstombs(char* out, const char16_t* in, std::size_t outBytes, int& error,
                                   RuntimeLocale locale = RuntimeLocale::kSystem);
// mbstowcs: the same the other way, `outUnits` counting UTF-16 units; ill-formed UTF-8 is a failure.
[[nodiscard]] std::size_t Mbstowcs(char16_t* out, const char* in, std::size_t outUnits, int& error,
                                   RuntimeLocale locale = RuntimeLocale::kSystem);

// The conversions of the rest of the program. None of them fails or asks the fault seam; NULs pass through.
// Ill-formed UTF-8 becomes U+FFFD as above.
[[nodiscard]] std::u16string WideFromUtf8(std::string_view text);
// A lone surrogate becomes U+FFFD.
[[nodiscard]] std::string Utf8FromWide(std::u16string_view text);
// By the system code page, best fit and '?' included.
[[nodiscard]] std::u16string WideFromSystem(std::string_view text);
[[nodiscard]] std::string SystemFromWide(std::u16string_view text);
// Well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
[[nodiscard]] bool IsValidUtf8(std::string_view text);

// Simple case mapping of Unicode, one unit to one unit, without a locale; surrogates and units without a counterpart
// stay. Note that it takes U+0131 and U+017F to the ASCII letters I and S: a comparison of names that must keep those
// apart leaves them out itself.
[[nodiscard]] char16_t ToUpperSimple(char16_t unit);
[[nodiscard]] char16_t ToLowerSimple(char16_t unit);

}  // namespace platform
