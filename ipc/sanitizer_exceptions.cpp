// All accepted sanitizer reports of the service. Only sanitizer builds contain this file.

// Deliberate: the table that sg_svc_register allocates is never freed, because the vendor's IPC
// library may still read it.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return "leak:sg_svc_register\n";
}

// Deliberate: the SIGTERM handler calls exit, which is not async-signal-safe, and joins no threads.
// This is harmless, because exit destroys no object that a running thread uses.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0:report_thread_leaks=0";
}

// Without this option, LeakSanitizer prints the suppressed leaks between the service's log lines.
extern "C" const char* __lsan_default_options();
extern "C" const char* __lsan_default_options() {
    return "print_suppressions=0";
}
