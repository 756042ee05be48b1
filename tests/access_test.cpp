// Who may use the viewer: the rules, the tokens, and the limits on guesses, connections and log
// lines.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "devkit/viewer/access_policy.h"
#include "devkit/viewer/connections.h"
#include "devkit/viewer/guesses.h"
#include "devkit/viewer/log.h"
#include "devkit/viewer/tokens.h"

namespace guilink {
namespace {

using testing::HasSubstr;
using testing::ThrowsMessage;
using namespace std::chrono_literals;

const Tokens TOKENS = {std::string(32, 'p'), std::string(32, 'v')};
const AccessPolicy GUARDED(TOKENS, {"Lab.example"});

TEST(AccessPolicy, KnowsThisServersNamesAndItsPage) {
    const AccessPolicy open;
    const auto ours = [&](const std::string& host, const std::string& origin) {
        return !open.from_another_site(host, origin, "");
    };
    for (const std::string host : {"127.0.0.1", "10.0.0.5:8080", "localhost:1", "[::1]:8080"}) {
        EXPECT_TRUE(open.host_allowed(host) && ours(host, "http://" + host)) << host;
        for (const std::string origin :
             {"null", "http://evil.example", "http://127.0.0.1:9", "https://127.0.0.1"})
            EXPECT_FALSE(ours(host, origin)) << host << ' ' << origin;
    }
    for (const std::string host :
         {"", "[", "[]", "[::1", "::1", "evil.example", "127.0.0.1.evil", "localhost.evil:8080",
          "[127.0.0.1]", "127.1", "[evil%1]", "lab.example"})
        EXPECT_FALSE(open.host_allowed(host) || ours(host, "http://" + host)) << host;

    for (const std::string host : {"lab.example", "LAB.example:8443"}) {
        EXPECT_TRUE(GUARDED.host_allowed(host)) << host;
        for (const std::string& origin : {"http://" + host, "https://" + host})
            EXPECT_FALSE(GUARDED.from_another_site(host, origin, "same-origin")) << origin;
        for (const std::string& origin :
             {"https://" + host + "1", std::string("https://lab.example.evil")})
            EXPECT_TRUE(GUARDED.from_another_site(host, origin, "")) << origin;
    }
    for (const std::string host :
         {"x.lab.example", "lab.example.", "lab.example.evil", "lab.exampl"})
        EXPECT_FALSE(GUARDED.host_allowed(host)) << host;
}

TEST(AccessPolicy, AnotherSiteIsKnownByItsHeaders) {
    const auto other = [](std::string_view origin, std::string_view fetch_site) {
        return AccessPolicy().from_another_site("127.0.0.1:8080", origin, fetch_site);
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

TEST(AccessPolicy, TokensDecide) {
    EXPECT_EQ(AccessPolicy().access_of(""), Access::press);
    EXPECT_EQ(GUARDED.access_of(TOKENS.press), Access::press);
    EXPECT_EQ(GUARDED.access_of(TOKENS.view), Access::view);
    for (const std::string& wrong : {std::string(), std::string(31, 'p'), std::string(33, 'p'),
                                     std::string(31, 'p') + 'v', std::string(32, 'P')}) {
        EXPECT_EQ(GUARDED.access_of(wrong), Access::none) << wrong;
        EXPECT_EQ(AccessPolicy(Tokens{TOKENS.press, ""}).access_of(wrong), Access::none) << wrong;
    }
}

TEST(AccessPolicy, FindsTheToken) {
    const auto found = [](const HttpRequest& request) { return GUARDED.token_in(request); };
    EXPECT_EQ(found({.target = "/?token=abc"}), "abc");
    EXPECT_EQ(found({.target = "/?token=abc&x"}), "abc&x");
    EXPECT_EQ(found({.target = "/state?token=abc"}), "");
    EXPECT_EQ(found({.target = "/?token=abc", .authorization = "bearer  x "}), "x");
    EXPECT_EQ(found({.authorization = "Basic abc"}), "");
    for (const auto& [host, cookie, token] :
         {std::tuple{"10.0.0.5:8080", "a=1; guilink_token_8080=x;b=2", "x"},
          {"10.0.0.5:8080", "guilink_token_80=a; guilink_token=b; xguilink_token_8080=c", ""},
          {"[::1]:80", "guilink_token_80=x", "x"},
          {"lab.example", "guilink_token=x", "x"},
          {"lab.example:8x", "guilink_token=x;;=;", "x"},
          {"lab.example", "guilink_token", ""}})
        EXPECT_EQ(found({.host = host, .cookie = cookie}), token) << host << ' ' << cookie;
    EXPECT_EQ(AccessPolicy().token_in({.target = "/?token=abc"}), "");
}

TEST(AccessPolicy, TrustsAProxyOnlyIfThereIsOne) {
    const auto address = [](const char* list) {
        return GUARDED.forwarded_address({.forwarded_for = list});
    };
    EXPECT_EQ(address("1.1.1.1, 10.0.0.9"), "10.0.0.9");
    EXPECT_EQ(address("fd00::1"), "fd00::1");
    for (const char* const wrong : {"", "x", "10.0.0.9, ", "10.0.0.9:80", "10.0.0.9\nx"})
        EXPECT_EQ(address(wrong), "") << wrong;
    EXPECT_EQ(AccessPolicy(TOKENS).forwarded_address({.forwarded_for = "10.0.0.9"}), "");
}

TEST(AccessPolicy, MakesASafeCookie) {
    const HttpRequest request = {.host = "lab.example", .forwarded_proto = "https"};
    EXPECT_EQ(GUARDED.cookie_with(Access::view, request),
              "guilink_token=" + TOKENS.view + "; Path=/; HttpOnly; SameSite=Strict; Secure");
}

TEST(Tokens, AreRandomOrReadFromASecretFile) {
    const Tokens one = make_tokens();
    EXPECT_THAT(one.press, testing::MatchesRegex("[0-9a-f]+"));
    EXPECT_EQ(one.press.size(), 32u);
    EXPECT_EQ((std::set{one.press, one.view, make_tokens().press, make_tokens().view}.size()), 4u);

    const std::string file = testing::TempDir() + "tokens." + std::to_string(getpid());
    const auto tokens_in = [&](const std::string& content) {
        std::ofstream(file) << content;
        return read_tokens(file);
    };
    std::ofstream(file).close();
    chmod(file.c_str(), 0600);
    EXPECT_EQ(tokens_in(TOKENS.press + "\n").view, "");
    EXPECT_EQ(tokens_in(TOKENS.press + "\n" + TOKENS.view).view, TOKENS.view);
    for (const std::string& wrong :
         {std::string(), std::string(31, 'p'), std::string(32, ' '), TOKENS.press + "\n\n",
          std::string(5000, 'p'), TOKENS.press + '\n' + TOKENS.view + "\nmore"})
        EXPECT_THROW(tokens_in(wrong), std::runtime_error) << wrong;
    EXPECT_THAT([&] { tokens_in(TOKENS.press + '\n' + TOKENS.press); },
                ThrowsMessage<std::runtime_error>(HasSubstr("the same")));
    chmod(file.c_str(), 0604);
    EXPECT_THAT([&] { tokens_in(TOKENS.press); },
                ThrowsMessage<std::runtime_error>(HasSubstr("chmod go=")));
    unlink(file.c_str());
    EXPECT_THAT([&] { read_tokens(file); }, ThrowsMessage<std::runtime_error>(HasSubstr("umask")));
}

TEST(Guesses, WaitLongerAndAreForgotten) {
    Guesses guesses;
    Guesses::Clock::time_point now;
    const auto guess = [&](int number) { guesses.add("a", std::to_string(number), now); };
    for (int i = 0; i < 4; ++i) guess(i);
    for (int i = 0; i < 99; ++i) guess(3);  // a page with an old token asks again and again
    EXPECT_EQ(guesses.wait("a", now), 0s);
    for (const auto& [number, wait] : {std::pair{4, 1s}, {5, 2s}, {6, 4s}, {7, 5s}, {999, 5s}}) {
        guess(number);
        EXPECT_EQ(guesses.wait("a", now), wait) << number;
    }
    EXPECT_EQ(guesses.wait("b", now), 0s);
    now += 61s;
    EXPECT_EQ(guesses.wait("a", now), 0s);
    guess(0);
    EXPECT_EQ(guesses.wait("a", now), 0s);

    for (int i = 0; i < 5; ++i) guesses.add("noisy", std::to_string(i), now + 1s);
    for (size_t i = 0; i < Guesses::MAX_SENDERS - 1; ++i)
        guesses.add(std::to_string(i), "x", now + 1s);
    EXPECT_GT(guesses.wait("noisy", now + 1s), 0s);
}

TEST(Connections, NewcomersComeBeforeIdleOnes) {
    Connections connections;
    std::vector<std::unique_ptr<Connections::Place>> places;
    std::vector<size_t> closed;
    const auto enter = [&](const std::string& sender, bool idle) {
        auto place = connections.enter(sender);
        if (place == nullptr) return false;
        if (idle) place->rest([&, number = places.size()] { closed.push_back(number); });
        places.push_back(std::move(place));
        return true;
    };
    enter("other", true);
    enter("one", true);
    enter("one", true);
    places[1]->work();
    places[1]->rest(
        [&] { closed.push_back(1); });  // has been idle for a shorter time than number 2
    while (closed.empty()) ASSERT_TRUE(enter("one", false));
    EXPECT_EQ(places.size(), 2 + Connections::MAX_OF_ONE_SENDER);
    EXPECT_TRUE(enter("one", false));
    EXPECT_FALSE(enter("one", false));  // all of this sender's connections are busy
    EXPECT_EQ(closed, (std::vector<size_t>{2, 1}));
    for (int i = 0; closed.size() == 2; ++i) ASSERT_TRUE(enter(std::to_string(i), false));
    EXPECT_EQ(closed.back(), 0u);
    EXPECT_FALSE(enter("new", false));
    places.clear();
    EXPECT_TRUE(enter("new", false));
}

TEST(Log, RefusedVisitorsDoNotFillIt) {
    Refusals refusals;
    Refusals::Clock::time_point now;
    EXPECT_EQ(refusals.line("a", "no token", now), "refused a: no token");
    for (int i = 0; i < 9; ++i) EXPECT_EQ(refusals.line("a", "no token", now), "");
    EXPECT_THAT(refusals.line("a", "wrong token", now), HasSubstr("not logged before: 9"));
    size_t lines = 0;
    for (int i = 0; i < 1000; ++i) lines += !refusals.line(std::to_string(i), "x", now).empty();
    EXPECT_EQ(lines, 30u);
    EXPECT_THAT(refusals.line("a", "no token", now + 60s), HasSubstr("not logged before: 970"));
}

TEST(Log, LinesCannotBeForged) {
    EXPECT_EQ(printable("a\n2026 b\x1B[1m\x9B\x7F~"), "a?2026 b?[1m??~");
}

}  // namespace
}  // namespace guilink
