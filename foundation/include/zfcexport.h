// foundation/include/zfcexport.h: what the shared library exports.
//
// The foundation is compiled with hidden visibility; what a public header declares in `namespace ZepFoundation` behind
// ZEP_FOUNDATION_API is exported, everything else stays inside. Public headers alone use the macro.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define ZEP_FOUNDATION_API __attribute__((visibility("default")))
#else
#define ZEP_FOUNDATION_API
#endif
