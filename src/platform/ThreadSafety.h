#pragma once

#include <mutex>

/// GUARDED_BY(mutex) on a field: only a thread that holds the mutex may use the field.
/// REQUIRES(mutex) on a function: only a thread that holds the mutex may call it. clang checks
/// them with -Wthread-safety where the C++ library's mutex is annotated for it, as libc++'s is.
#if defined(_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS)
#define GUARDED_BY(mutex) __attribute__((guarded_by(mutex)))
#define REQUIRES(mutex) __attribute__((exclusive_locks_required(mutex)))
#else
#define GUARDED_BY(mutex)
#define REQUIRES(mutex)
#endif
