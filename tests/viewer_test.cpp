// What the viewer accepts: who may connect, where it listens, its labels, its options.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "devkit/viewer/access_policy.h"
#include "devkit/viewer/labels.h"
#include "devkit/viewer/listening_address.h"
#include "devkit/viewer/options.h"

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
    const std::string good = R"([{"button":255,"key":"z","label":"Up","place":"up"}])";
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
          {R"([{"button":1,"label":"A"},{"button":1,"label":"B"}])", "already"}}) {
        const std::string text = json;  // clang 14 captures no binding
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
    EXPECT_TRUE(accepted({"--snapshot", "f", "--press", "1", "--press", "2", "--raw", "g"}));
    for (const auto& arguments :
         std::vector<std::vector<const char*>>{{"--snapshot", "f", "--listen", "[::]:1"},
                                               {"--snapshot", "f", "--labels", "f"},
                                               {"--snapshot", "f", "--exec", "env"},
                                               {"--labels", "f", "--exec", "env"},
                                               {"--press", "1"},
                                               {"--raw", "g"},
                                               {"--snapshot", "f", "--press", "256"}})
        EXPECT_FALSE(accepted(arguments)) << testing::PrintToString(arguments);
}

}  // namespace
}  // namespace guilink
