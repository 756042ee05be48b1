// Accepted sanitizer reports, all of them; only part of sanitizer builds.

// Deliberate: the second registration replaces the first one's table without freeing it, because
// the library may still read it.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return "leak:sg_svc_register\n";
}

// The handler of SIGTERM calls exit. Ended threads are joined only when their unit is destroyed,
// and exit destroys no units.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0:report_thread_leaks=0";
}

// Nothing but the service's own lines on its output.
extern "C" const char* __lsan_default_options();
extern "C" const char* __lsan_default_options() {
    return "print_suppressions=0";
}
