// platform/thread_annotations.h: what clang's thread-safety analysis reads; nothing to other compilers.
//
// Names and meaning follow the analysis' own attributes (clang documentation, "Thread Safety Analysis").
#pragma once

#if defined(__clang__)
#define QX_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define QX_THREAD_ATTRIBUTE(x)
#endif

#define QX_CAPABILITY(name) QX_THREAD_ATTRIBUTE(capability(name))
#define QX_SCOPED_CAPABILITY QX_THREAD_ATTRIBUTE(scoped_lockable)
#define QX_GUARDED_BY(lock) QX_THREAD_ATTRIBUTE(guarded_by(lock))
#define QX_PT_GUARDED_BY(lock) QX_THREAD_ATTRIBUTE(pt_guarded_by(lock))
#define QX_REQUIRES(...) QX_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define QX_EXCLUDES(...) QX_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define QX_ACQUIRE(...) QX_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define QX_RELEASE(...) QX_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define QX_TRY_ACQUIRE(...) QX_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
