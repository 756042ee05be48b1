#include "ipc/ipc_gui_fetcher.h"

#include <cstdlib>
#include <fstream>

#include "ipc/svc_register.h"
#include "link/com_lib_interface.h"

namespace {

constexpr const char* SETTINGS_FILE = "/tmp/FL0/kel.ini";
constexpr std::string_view IDENTITY_KEY = "BODY_QR=";
constexpr size_t IDENTITY_SIZE = 5;  // characters

}  // namespace

std::string& IpcGuiFetcher::ID = *new std::string("11111");
const std::string& IpcGuiFetcher::fw = *new std::string("fw1.1");
std::shared_ptr<IpcGuiFetcher>& IpcGuiFetcher::m_guiFetcher = *new std::shared_ptr<IpcGuiFetcher>;
std::atomic<bool> IpcGuiFetcher::m_published{false};
std::mutex IpcGuiFetcher::m_instanceMutex;

std::shared_ptr<IpcGuiFetcher> IpcGuiFetcher::getInstance() {
    const std::lock_guard lock(m_instanceMutex);
    if (m_guiFetcher == nullptr) {
        m_guiFetcher.reset(new IpcGuiFetcher);
        m_published = true;
    }
    return m_guiFetcher;
}

IpcGuiFetcher::IpcGuiFetcher() {
    loadIdFromIni();
    m_comLib = std::make_shared<ComLibInterface>(ID, fw);
    const char* const name = "svc_ipc_gui";
    const IpcProc procedures[] = {ipcGuiBufReceiver, ipcQrBodyReceiver};
    // A failed registration leaves the service running, with nothing to feed it.
    sg_svc_register(&procedures[0], 1, IPC_PROG_GUI_BUF, IPC_SVC_VERSION, name);
    sg_svc_register(&procedures[1], 1, IPC_PROG_QR_BODY, IPC_SVC_VERSION, name);
}

IpcGuiFetcher::~IpcGuiFetcher() {
    std::free(sg_svc_info.procedures);
}

// The first line that begins with the key decides, whatever the length of its value.
void IpcGuiFetcher::loadIdFromIni() {
    std::ifstream file(SETTINGS_FILE);
    std::string line;
    while (std::getline(file, line)) {
        if (!line.starts_with(IDENTITY_KEY)) continue;
        ID = line.substr(IDENTITY_KEY.size(), IDENTITY_SIZE);
        return;
    }
}
