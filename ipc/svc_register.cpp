#include "ipc/svc_register.h"

#include <cstdlib>

uint32_t sg_svc_vers;
uint32_t sg_svc_prog;
IpcProgInfo sg_svc_info;

int sg_svc_register(const IpcProc* procedures, int32_t count, uint32_t program, uint32_t version,
                    const char* name) {
    sg_svc_vers = version;
    sg_svc_prog = program;

    struct sigaction action = {};
    action.sa_sigaction = sg_svc_unregister;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTERM, &action, nullptr);

    // Deliberate: never freed, because the library may still read the previous program's table.
    // Without this pointer, leak detectors would report it.
    [[gnu::used, maybe_unused]] static const IpcProcEntry* previous;
    previous = sg_svc_info.procedures;
    sg_svc_info.count = count;
    sg_svc_info.procedures =
        static_cast<IpcProcEntry*>(std::malloc(static_cast<size_t>(count) * sizeof(IpcProcEntry)));
    if (sg_svc_info.procedures == nullptr) return -1;  // counts as a failed registration
    for (int32_t i = 0; i < count; ++i) sg_svc_info.procedures[i] = {procedures[i], 0};

    return ambaipc_svc_register(program, version, name, &sg_svc_info, 1);
}

void sg_svc_unregister(int, siginfo_t*, void*) {
    ambaipc_svc_unregister(sg_svc_prog, sg_svc_vers);
    // All other threads still run, but exit cannot hang or crash: it destroys no object that they
    // use, and no stream has anything to flush.
    std::exit(0);
}
