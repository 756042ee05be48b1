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

constexpr int MAPPED_FROM = 128 * 1024;  // bytes; larger buffers are mapped

// To the system, at once, so that months do not add up.
void return_freed_memory() {
    mallopt(M_MMAP_THRESHOLD, MAPPED_FROM);  // or it rises: a change of identity would cost 13 MB
    mallopt(M_ARENA_MAX, 1);                 // or threads that come and go leave their own ones
}

// Without them the first sockets would take their place, and get the service's lines.
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
    // Keeps the standard streams. Where it cannot detach, the service runs all the same.
    [[maybe_unused]] const int ignored = daemon(0, 1);
    const std::shared_ptr<IpcGuiFetcher> fetcher = IpcGuiFetcher::getInstance();
    std::thread keep_alive(foreverThread);
    if (keep_alive.joinable()) keep_alive.join();
    return 0;
}
