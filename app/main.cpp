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

constexpr int MAPPED_FROM = 128 * 1024;  // bytes; larger buffers get a mapping of their own

// Returns freed memory to the system at once, so that RSS does not creep over months.
void return_freed_memory() {
    mallopt(M_MMAP_THRESHOLD, MAPPED_FROM);  // fixed: a rising one costs 13 MB at a new identity
    mallopt(M_ARENA_MAX, 1);                 // one for all: those of ended threads would stay
}

// If descriptors 0 to 2 are closed, the first sockets would get these numbers and receive our log
// lines.
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
    // Keeps the standard streams. If it cannot detach, the service runs all the same.
    [[maybe_unused]] const int ignored = daemon(0, 1);
    const std::shared_ptr<IpcGuiFetcher> fetcher = IpcGuiFetcher::getInstance();
    std::thread idle(foreverThread);
    if (idle.joinable()) idle.join();
    return 0;
}
