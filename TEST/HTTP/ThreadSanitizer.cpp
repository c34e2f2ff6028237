// What ThreadSanitizer cannot see: libuv is not instrumented and closes its descriptors by system
// calls of its own, so that the next owner of a number seems to race with the one before.
#if defined(__SANITIZE_THREAD__)

extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() { return "race:libuv.so\n"; }  // NOLINT: its name is given

#endif
