// Any settings file: the first line that begins with the key decides.
#include "link/com_lib_interface.h"
#include "tests/fuzz/fuzz.h"
#pragma clang diagnostic ignored "-Wkeyword-macro"
#define private public  // nobody else has to read the settings
#include "ipc/ipc_gui_fetcher.h"

namespace guilink::fuzz {

std::vector<Bytes> seeds() {
    return {bytes("X=1\nBODY_QR=ABCDEFG\nBODY_QR=VWXYZ\n"), bytes("BODY_QR=AB\r\n"), bytes("\n\n")};
}

}  // namespace guilink::fuzz

using namespace guilink::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::ofstream("/tmp/FL0/kel.ini", std::ios::binary) << text;
    IpcGuiFetcher::ID = "11111";
    IpcGuiFetcher::loadIdFromIni();

    const std::string key = "\nBODY_QR=";
    const std::string lines = "\n" + text;
    const size_t at = lines.find(key);
    std::string expected = "11111";
    if (at != std::string::npos) {
        const std::string value = lines.substr(at + key.size());
        expected = value.substr(0, value.find('\n')).substr(0, 5);
    }
    require(IpcGuiFetcher::ID == expected, "the identity is the one that the file gives");
    return 0;
}
