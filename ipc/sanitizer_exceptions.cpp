// All accepted sanitizer reports of the service. Only sanitizer builds contain this file.

// Deliberate: the second registration replaces the first one's table without freeing it, because
// the library may still read it.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return "leak:sg_svc_register\n";
}

// Accepted: the handler of SIGTERM calls exit, which is not async-signal-safe; and exit leaves
// ended threads unjoined, because a network unit joins them only when it is destroyed.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0:report_thread_leaks=0";
}

// Keeps the output free of everything but the service's own lines.
extern "C" const char* __lsan_default_options();
extern "C" const char* __lsan_default_options() {
    return "print_suppressions=0";
}
