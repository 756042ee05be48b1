// Part of each program of the coverage build. Writes the counters when a fatal signal ends the
// program.
#include <csignal>
#include <initializer_list>

extern "C" int __llvm_profile_write_file();

// The link options name this symbol; otherwise the linker would leave this file out of the
// program.
extern "C" [[gnu::constructor]] void keep_coverage() {
    for (const int fatal : {SIGABRT, SIGBUS, SIGSEGV}) {
        std::signal(fatal, [](int signal) {
            std::signal(signal, SIG_DFL);
            __llvm_profile_write_file();
            std::raise(signal);
        });
    }
}
