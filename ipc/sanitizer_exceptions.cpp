// All accepted sanitizer reports of the service. Only sanitizer builds contain this file.

// Deliberate: the second registration replaces the first one's table without freeing it, because
// the library may still read it.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return "leak:sg_svc_register\n";
}

// Accepted: the SIGTERM handler calls exit, which is not async-signal-safe. Also accepted: threads
// not joined at exit. A network unit joins its threads only when it is destroyed.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0:report_thread_leaks=0";
}

// Without this, LeakSanitizer prints the suppressed leaks among the service's own lines.
extern "C" const char* __lsan_default_options();
extern "C" const char* __lsan_default_options() {
    return "print_suppressions=0";
}
