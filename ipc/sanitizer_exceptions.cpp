// What sanitizers report and we mean; part of sanitizer builds alone, and complete.

// The table of the program registered first is lost when the second one is registered, and not
// freed: the library may still read it.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return "leak:sg_svc_register\n";
}

// SIGTERM exits from within its handler; and a unit keeps its threads that have ended until it is
// destroyed, which the end of the process does not do.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0:report_thread_leaks=0";
}

// The service's output is its own.
extern "C" const char* __lsan_default_options();
extern "C" const char* __lsan_default_options() {
    return "print_suppressions=0";
}
