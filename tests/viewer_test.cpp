// What the viewer accepts: who may connect, where it listens, its labels, its options.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "devkit/viewer/access_policy.h"
#include "devkit/viewer/labels.h"
#include "devkit/viewer/listening_address.h"
#include "devkit/viewer/options.h"
#include "devkit/viewer/requests.h"

namespace guilink {
namespace {

using testing::HasSubstr;
using testing::ThrowsMessage;

TEST(AccessPolicy, OnlyThePageItselfCalledByANumberOrLocalhost) {
    for (const std::string host : {"127.0.0.1", "10.0.0.5:8080", "localhost:1", "[::1]:8080"}) {
        EXPECT_TRUE(from_our_page(host, "http://" + host)) << host;
        for (const std::string origin : {"", "null", "http://evil.example", "http://127.0.0.1:9"})
            EXPECT_FALSE(from_our_page(host, origin)) << host << ' ' << origin;
    }
    for (const std::string host : {"", "[", "[]", "[::1", "::1", "evil.example", "127.0.0.1.evil",
                                   "localhost.evil:8080", "[127.0.0.1]", "127.1", "[evil%1]"})
        EXPECT_FALSE(host_allowed(host) || from_our_page(host, "http://" + host)) << host;
}

TEST(AccessPolicy, AnotherSiteIsKnownByItsHeaders) {
    const auto other = [](std::string_view origin, std::string_view fetch_site) {
        return from_another_site("127.0.0.1:8080", origin, fetch_site);
    };
    EXPECT_FALSE(other("", "") || other("http://127.0.0.1:8080", "same-origin") ||
                 other("", "none"));
    for (const auto& [origin, site] : {std::pair{"http://evil.example", ""},
                                       {"null", ""},
                                       {"http://127.0.0.1:9", "same-site"},
                                       {"", "same-site"},
                                       {"", "cross-site"}})
        EXPECT_TRUE(other(origin, site)) << origin << ' ' << site;
}

TEST(Requests, AreReadToTheLetter) {
    const auto read = [](std::string_view method, std::string_view target) {
        return read_request({method, target, "localhost", "", "", "text"}, "labels");
    };
    EXPECT_EQ(std::get<Choice>(read("POST", "/device/a%20%41%4%")).device, "a A%4%");
    const Asked asked = read("GET", "/snapshot.png?after=7");
    EXPECT_EQ(std::get<Snapshot>(asked).after, 7u);
    for (const auto& [method, target, status] : {std::tuple{"GET", "/labels.json", 200u},
                                                 {"HEAD", "/", 200},
                                                 {"HEAD", "/stream.mjpg", 405},
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
    for (const char* wrong : {"", "[]", R"({"press":256})", R"({"press":1,"text":"a"})",
                              R"({"press":1,"id":-1})", R"({"id":1})", R"({"text":1})"})
        EXPECT_FALSE(parse_page_message(wrong)) << wrong;
}

TEST(ListeningAddress, IsReachedUnderItsUrl) {
    for (const auto& [where, url] : {std::pair{"127.0.0.1:0", "http://127.0.0.1:"},
                                     {"0.0.0.0:0", "http://localhost:"},
                                     {"[::1]:0", "http://[::1]:"}}) {
        const int listener = open_listener(where);
        EXPECT_THAT(url_of(listener), testing::MatchesRegex("http://[][a-z0-9.:]+:[1-9][0-9]*/"));
        EXPECT_THAT(url_of(listener), testing::StartsWith(url));
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
    EXPECT_TRUE(accepted({"--list"}) && accepted({"--snapshot", "f", "--device", "1"}));
    EXPECT_TRUE(accepted({"--snapshot", "f", "--press", "1", "--press", "2"}));
    for (const auto& arguments :
         std::vector<std::vector<const char*>>{{"--snapshot", "f", "--listen", "[::]:1"},
                                               {"--snapshot", "f", "--labels", "f"},
                                               {"--snapshot", "f", "--exec", "env"},
                                               {"--labels", "f", "--exec", "env"},
                                               {"--list", "--device", "1"},
                                               {"--press", "1"},
                                               {"--snapshot", "f", "--press", "256"}})
        EXPECT_FALSE(accepted(arguments)) << testing::PrintToString(arguments);
}

}  // namespace
}  // namespace guilink
