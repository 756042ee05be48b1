// Part of each program of the coverage build: writes the counters also when a fatal signal ends it.
#include <csignal>
#include <initializer_list>

extern "C" int __llvm_profile_write_file();

// Named at the link; otherwise the linker leaves this file in its library.
extern "C" [[gnu::constructor]] void keep_coverage() {
    for (const int fatal : {SIGABRT, SIGBUS, SIGSEGV}) {
        std::signal(fatal, [](int signal) {
            std::signal(signal, SIG_DFL);
            __llvm_profile_write_file();
            std::raise(signal);
        });
    }
}
