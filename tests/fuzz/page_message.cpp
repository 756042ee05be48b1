// What a browser may say to the viewer.
#include "devkit/viewer/page_message.h"

#include "tests/fuzz/fuzz.h"

namespace guilink::fuzz {

std::vector<Bytes> seeds() {
    return {bytes(R"({"press":7})"), bytes(R"({"text":"a\u00e9\n"})"), bytes(R"({"press":-1.5e3})"),
            bytes(R"([{"text":null},true])")};
}

}  // namespace guilink::fuzz

using namespace guilink;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const std::string json(reinterpret_cast<const char*>(data), size);
    const auto message = parse_page_message(json);
    if (!message) return 0;
    const auto* const text = std::get_if<Text>(&*message);
    fuzz::require(text == nullptr || text->text.size() < size,
                  "a text is shorter than its message");
    fuzz::require(json.find(text == nullptr ? "press" : "text") != std::string::npos ||
                      json.find('\\') != std::string::npos,
                  "a message is what it says");
    return 0;
}
