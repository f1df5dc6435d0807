// platform/sanitizer.h: which sanitizer the compiler builds a program with, by either compiler's own sign.
//   QX_ADDRESS_SANITIZER, QX_THREAD_SANITIZER  0 or 1
#pragma once

#if defined(__has_feature)
#define QX_HAS_FEATURE(name) __has_feature(name)
#else
#define QX_HAS_FEATURE(name) 0
#endif

#if defined(__SANITIZE_ADDRESS__) || QX_HAS_FEATURE(address_sanitizer)
#define QX_ADDRESS_SANITIZER 1
#else
#define QX_ADDRESS_SANITIZER 0
#endif

#if defined(__SANITIZE_THREAD__) || QX_HAS_FEATURE(thread_sanitizer)
#define QX_THREAD_SANITIZER 1
#else
#define QX_THREAD_SANITIZER 0
#endif

#undef QX_HAS_FEATURE
