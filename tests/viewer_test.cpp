// What the viewer accepts: requests, where it listens, its labels, its options.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "devkit/viewer/labels.h"
#include "devkit/viewer/listening_address.h"
#include "devkit/viewer/options.h"
#include "devkit/viewer/requests.h"

namespace guilink {
namespace {

using testing::HasSubstr;
using testing::ThrowsMessage;

TEST(Requests, AreReadToTheLetter) {
    const auto read = [](std::string_view method, std::string_view target) {
        HttpRequest request = {
            .method = method, .target = target, .body = "text", .host = "localhost"};
        split_target(request);
        return read_request(request, AccessPolicy(), Access::press, "labels");
    };
    EXPECT_EQ(std::get<Choice>(read("POST", "/device/a%20%41%4%")).device, "a A%4%");
    const Asked asked = read("GET", "/snapshot.png?after=7");
    EXPECT_EQ(std::get<Snapshot>(asked).after, 7u);
    EXPECT_TRUE(std::holds_alternative<Stream>(read("HEAD", "/stream.mjpg")));
    EXPECT_TRUE(std::holds_alternative<State>(read("GET", "/device/a%2Fb/state")));
    for (const auto& [method, target, status] : {std::tuple{"GET", "/labels.json", 200u},
                                                 {"HEAD", "/", 200},
                                                 {"GET", "/device/1/?again", 200},
                                                 {"GET", "/device/1", 308},
                                                 {"GET", "/device/1/device/2", 404},
                                                 {"POST", "/press/", 404},
                                                 {"POST", "/press/1x", 404},
                                                 {"POST", "/press/4294967297", 404},
                                                 {"GET", "/snapshot.png?after=", 400},
                                                 {"DELETE", "/", 405}})
        EXPECT_EQ(std::get<Reply>(read(method, target)).status, status) << method << target;
}

TEST(PageMessages, CarryAnIdIfTheyWantAnAnswer) {
    EXPECT_EQ(parse_page_message(R"({"press":255,"id":3})")->id, 3u);
    EXPECT_EQ(std::get<Choice>(parse_page_message(R"({"device":"x"})")->content).device, "x");
    for (const char* wrong :
         {"", "[]", R"({"press":256})", R"({"press":1,"text":"a"})", R"({"hold":86401})",
          R"({"press":1,"id":-1})", R"({"id":1})", R"({"text":1})"})
        EXPECT_FALSE(parse_page_message(wrong)) << wrong;
}

TEST(ListeningAddress, IsReachedUnderItsUrls) {
    for (const auto& [where, hosts, reachable] :
         {std::tuple{"127.0.0.1:0", std::vector{"127.0.0.1"}, false},
          {"[::1]:0", {"[::1]"}, false},
          {"[::ffff:127.0.0.2]:0", {"[::ffff:127.0.0.2]"}, false},
          {"10.77.0.1:0", {"10.77.0.1"}, true},
          {"0.0.0.0:0", {"localhost", "10.77.0.1"}, true},
          {"[::]:0", {"localhost", "10.77.0.1"}, true}}) {
        const int listener = open_listener(where);
        std::vector<std::string> urls;
        for (const std::string host : hosts)
            urls.push_back("http://" + host + ":" + port_of(listener) + "/");
        EXPECT_EQ(urls_of(listener), urls);
        EXPECT_EQ(is_reachable_from_outside(listener), reachable) << where;
        close(listener);
    }
}

TEST(ListeningAddress, SaysWhatIsWrong) {
    for (const auto& [where, why] : {std::pair{"8080", "no ADDRESS:PORT"},
                                     {"127.0.0.1:", "its port"},
                                     {"127.0.0.1:65536", "its port"},
                                     {"127.0.0.1:-1", "its port"},
                                     {":80", "its address"},
                                     {"1:80", "its address"},
                                     {"localhost:80", "its address"},
                                     {"192.0.2.1:80", "choose another address"}})
        EXPECT_THAT([address = where] { close(open_listener(address)); },
                    ThrowsMessage<std::runtime_error>(HasSubstr(why)))
            << where;
}

TEST(Labels, AreCheckedEntryByEntry) {
    const std::string file = testing::TempDir() + "labels." + std::to_string(getpid());
    const auto load = [&](const std::string& json) {
        std::ofstream(file) << json;
        return load_labels(file);
    };
    const std::string good =
        R"([{"button":255,"confirm":true,"key":"z","label":"Up","place":"up"}])";
    EXPECT_EQ(load(good), good);
    for (const auto& [json, why] :
         {std::pair{"[", "parse error"},
          {"[]", "no JSON array"},
          {R"([{"label":"A"}])", R"("button" must)"},
          {R"([{"button":256,"label":"A"}])", R"("button" must)"},
          {R"([{"button":-1,"label":"A"}])", R"("button" must)"},
          {R"([{"button":1}])", R"("label" must)"},
          {R"([{"button":1,"label":"A","kye":"x"}])", R"("kye")"},
          {R"([{"button":1,"label":"A","place":"on"}])", R"("place")"},
          {R"([{"button":1,"label":"A","confirm":1}])", R"("confirm")"},
          {R"([{"button":1,"label":"A"},{"button":1,"label":"B"}])", "already"}}) {
        const std::string text = json;  // clang 14 cannot capture a structured binding
        EXPECT_THAT([&] { load(text); }, ThrowsMessage<std::runtime_error>(HasSubstr(why))) << text;
    }
    unlink(file.c_str());
    EXPECT_THROW(load_labels(file), std::runtime_error);
    EXPECT_THAT(load_labels(""), HasSubstr("\"Power\""));
}

TEST(Options, ThatContradictEachOtherAreRefused) {
    const auto accepted = [](std::vector<const char*> arguments) {
        arguments.insert(arguments.begin(), "guilink-viewer");
        Options options;
        return !parse_options(static_cast<int>(arguments.size()), arguments.data(), options);
    };
    EXPECT_TRUE(accepted({}));
    EXPECT_TRUE(accepted({"--listen", "[::]:1", "--labels", "f"}));
    EXPECT_TRUE(accepted({"--listen", "[::]:1", "--exec", "env", "viewer"}));
    EXPECT_TRUE(accepted({"--token-file", "f", "--allow-host", "a.b", "--allow-host", "C"}));
    EXPECT_TRUE(accepted({"--device", "1", "--device", "2"}) && accepted({"--link", "all"}));
    EXPECT_TRUE(accepted({"--list"}) && accepted({"--snapshot", "f", "--device", "1"}));
    EXPECT_TRUE(accepted({"--snapshot", "f", "--press", "1", "--press", "2"}));
    for (const auto& arguments : std::vector<std::vector<const char*>>{
             {"--snapshot", "f", "--listen", "[::]:1"},
             {"--snapshot", "f", "--labels", "f"},
             {"--snapshot", "f", "--exec", "env"},
             {"--labels", "f", "--exec", "env"},
             {"--list", "--device", "1"},
             {"--snapshot", "f", "--device", "1", "--device", "2"},
             {"--link", "none"},
             {"--press", "1"},
             {"--no-token", "--token-file", "f"},
             {"--no-token", "--exec", "env"},
             {"--no-token", "--list"},
             {"--allow-host", "a", "--snapshot", "f"},
             {"--allow-host", "http://a"},
             {"--allow-host", "a:80"},
             {"--snapshot", "f", "--press", "256"}})
        EXPECT_FALSE(accepted(arguments)) << testing::PrintToString(arguments);
}

}  // namespace
}  // namespace guilink
