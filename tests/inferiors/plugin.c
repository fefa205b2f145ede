/* A library to be loaded and unloaded at run time. */
int plugin(void) { return 42; }
