// Fuzzes read_identity with settings files. The identity must come from the first line that begins
// with "BODY_QR=".
#include <sstream>

#include "ipc/read_identity.h"
#include "tests/fuzz/fuzz.h"

namespace guilink::fuzz {

std::vector<Bytes> seeds() {
    return {bytes("X=1\nBODY_QR=ABCDEFG\nBODY_QR=VWXYZ\n"), bytes("BODY_QR=AB\r\n"), bytes("\n\n")};
}

}  // namespace guilink::fuzz

using namespace guilink::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::istringstream settings(text);
    const std::optional<std::string> identity = read_identity(settings);

    const std::string key = "\nBODY_QR=";
    const std::string lines = "\n" + text;
    const size_t at = lines.find(key);
    std::optional<std::string> expected;
    if (at != std::string::npos) {
        const std::string value = lines.substr(at + key.size());
        expected = value.substr(0, value.find('\n')).substr(0, 5);
    }
    require(identity == expected, "the identity is that of the file");
    return 0;
}
