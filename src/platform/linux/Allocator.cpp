// jemalloc's settings, for the program's memory and for LLDB's.

#include <jemalloc/jemalloc.h>

/// jemalloc reads this before main.
///
/// One arena: LLDB's threads mostly wait for one another. And when memory runs out, a thread that
/// cannot get an arena of its own crashes in jemalloc instead of seeing a failed allocation.
///
/// Each thread keeps freed blocks of up to 8 MiB (2^23). The text of a mebibyte of memory is such a
/// block, and getting its pages from the system for each response takes longer than writing it.
const char *malloc_conf = "narenas:1,lg_tcache_max:23";
