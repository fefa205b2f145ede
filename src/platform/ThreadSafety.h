#pragma once

#include <mutex>

/// GUARDED_BY(mutex) on a field: only a thread that holds the mutex may use the field. clang checks
/// this with -Wthread-safety where the C++ library's mutex is annotated for it, as libc++'s is.
#if defined(_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS)
#define GUARDED_BY(mutex) __attribute__((guarded_by(mutex)))
#else
#define GUARDED_BY(mutex)
#endif
