// A new identity's way in: a new link facade takes the place of the old one.
#include <unistd.h>

#include <cstdlib>
#include <new>

#include "base/write_line.h"
#include "ipc/ipc_gui_fetcher.h"
#include "link/com_lib_interface.h"

void IpcGuiFetcher::ipcQrBodyReceiver(const unsigned char* argument, _AMBA_IPC_SVC_RESULT_s_*) {
    const std::shared_ptr<IpcGuiFetcher> fetcher = getInstance();  // waits until it is complete
    std::shared_ptr<ComLibInterface> facade;
    try {
        const std::string body = reinterpret_cast<const char*>(argument);
        facade = std::make_shared<ComLibInterface>(body, fw);
    } catch (const std::bad_alloc& error) {
        write_line(STDERR_FILENO,
                   {"Error during alloc of mem for ComLibInterface\n", error.what()});
        std::exit(1);
    }
    {
        const std::lock_guard lock(fetcher->m_comLibMutex);
        fetcher->m_comLib.swap(facade);
    }
    // The old facade ends here, on this thread, while frames already go to the new one.
}
