// How jemalloc manages the memory of the program and of LLDB, where it is linked.

#include <jemalloc/jemalloc.h>

/// Read by jemalloc before main.
///
/// One arena: LLDB's threads mostly wait for one another, and a thread for which no arena of its
/// own can be made when memory runs out would crash in jemalloc instead of being told.
///
/// Each thread keeps blocks of up to 8 MiB (2^23) that it has freed: the text of a mebibyte of
/// memory is one, and taking its pages from the system anew for each answer costs more than writing
/// it.
const char *malloc_conf = "narenas:1,lg_tcache_max:23";
