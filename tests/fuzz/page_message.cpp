// Messages from a browser to the viewer.
#include "devkit/viewer/page_message.h"

#include "tests/fuzz/fuzz.h"

namespace guilink::fuzz {

std::vector<Bytes> seeds() {
    return {bytes(R"({"press":255,"id":7})"), bytes(R"({"text":"a\u00e9\n"})"),
            bytes(R"({"device":"11111"})"),   bytes(R"({"hold":60,"id":1})"),
            bytes(R"({"press":-1.5e3})"),     bytes(R"([{"text":null},true])")};
}

}  // namespace guilink::fuzz

using namespace guilink;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const std::string json(reinterpret_cast<const char*>(data), size);
    const auto message = parse_page_message(json);
    if (!message) return 0;
    const auto* const order = std::get_if<Order>(&message->content);
    const auto* const press = order != nullptr ? std::get_if<Press>(order) : nullptr;
    const auto* const text = order != nullptr ? std::get_if<Text>(order) : nullptr;
    const auto* const hold = std::get_if<Hold>(&message->content);
    const std::string said = press != nullptr  ? std::to_string(press->button)
                             : hold != nullptr ? std::to_string(hold->seconds)
                             : text != nullptr ? text->text
                                               : std::get<Choice>(message->content).device;
    fuzz::require(json.find(said) != std::string::npos ||
                      (press == nullptr && hold == nullptr && json.find('\\') != std::string::npos),
                  "the parsed value is part of the message");
    return 0;
}
