// guilinkd: mirrors the device's GUI to a companion. Takes no options; runs until SIGTERM.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include "app/forever_thread.h"
#include "base/write_line.h"
#include "ipc/ipc_gui_fetcher.h"

namespace {

constexpr int MAPPED_FROM = 32 * 1024;  // bytes; malloc maps buffers of this size separately

// Returns freed memory to the system at once, so that RSS does not creep over months.
void return_freed_memory() {
    mallopt(M_MMAP_THRESHOLD, MAPPED_FROM);  // otherwise malloc raises this limit and keeps 13 MB
    mallopt(M_ARENA_MAX, 1);                 // more arenas would keep the memory of ended threads
}

// Otherwise the first sockets would get closed descriptors 0 to 2, and our log lines.
void ensure_standard_streams() {
    int fd;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd > STDERR_FILENO) close(fd);
}

}  // namespace

int main() {
    ensure_standard_streams();
    unblock_standard_streams();
    return_freed_memory();
    // The standard streams stay open. If daemon fails, the service runs in the foreground.
    [[maybe_unused]] const int ignored = daemon(0, 1);
    const std::shared_ptr<IpcGuiFetcher> fetcher = IpcGuiFetcher::getInstance();
    std::thread idle(foreverThread);
    if (idle.joinable()) idle.join();
    return 0;
}
