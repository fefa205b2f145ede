/* One of the many libraries that the benchmarks' program opens. */
int NAME(void) { return 1; }
