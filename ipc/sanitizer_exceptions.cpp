// All accepted sanitizer reports of the service. Only sanitizer builds contain this file.

// Deliberate: the SIGTERM handler calls exit, which is not async-signal-safe, and joins no threads.
// This is harmless, because exit destroys no object that a running thread uses.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0:report_thread_leaks=0";
}
