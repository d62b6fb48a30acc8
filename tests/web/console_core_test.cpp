// console_core_test.cpp - the web console's server core without a camera:
// the capture thread's command queue (bounded, withdrawn commands never
// run), the ring that carries the library's lines off the capture thread,
// the Host, origin and token rules, the access log's lines, and the token
// itself. The HTTP server's limits are tested end to end (test_security.py,
// test_load.py).
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <future>
#include <set>
#include <thread>

#include "access_log.h"
#include "access_rules.h"
#include "command_queue.h"
#include "console_token.h"
#include "line_ring.h"
#include "timers.h"

namespace zcam {
namespace {

std::shared_ptr<Command> counting_command(std::atomic<int> *runs)
{
    return std::make_shared<Command>([runs] { ++*runs; });
}

// What the capture thread does with what it takes.
void run_taken(CommandQueue &queue)
{
    for (auto &command : queue.take())
        if (command->claim())
            command->run();
}

TEST(CommandQueueTest, WithdrawnCommandNeverRunsAndTakenOneCannotBeWithdrawn)
{
    CommandQueue queue(8);
    std::atomic<int> late{0}, prompt{0};
    auto withdrawn = counting_command(&late);
    auto taken = counting_command(&prompt);
    ASSERT_TRUE(queue.push(withdrawn));
    ASSERT_TRUE(queue.push(taken));
    EXPECT_TRUE(withdrawn->withdraw());
    EXPECT_FALSE(withdrawn->withdraw()); // once
    run_taken(queue);
    EXPECT_EQ(late, 0);
    EXPECT_EQ(prompt, 1);
    EXPECT_FALSE(taken->withdraw()); // it ran: its answer was given
    run_taken(queue);
    EXPECT_EQ(prompt, 1);
}

TEST(CommandQueueTest, BoundCountsWaitingCommandsOnly)
{
    CommandQueue queue(2);
    std::atomic<int> runs{0};
    auto first = counting_command(&runs);
    ASSERT_TRUE(queue.push(first));
    ASSERT_TRUE(queue.push(counting_command(&runs)));
    EXPECT_FALSE(queue.push(counting_command(&runs)));
    // A withdrawn command will never run: its place is free again.
    ASSERT_TRUE(first->withdraw());
    EXPECT_TRUE(queue.push(counting_command(&runs)));
    EXPECT_FALSE(queue.push(counting_command(&runs)));
    run_taken(queue);
    EXPECT_EQ(runs, 2);
    EXPECT_TRUE(queue.push(counting_command(&runs)));
}

// A requester giving up while the capture thread takes its command: each
// command either runs or is withdrawn, never both, never neither.
TEST(CommandQueueTest, RaceBetweenWithdrawalAndClaimHasOneWinner)
{
    constexpr int kCommands = 2000;
    CommandQueue queue(kCommands);
    std::vector<std::shared_ptr<Command>> commands;
    std::vector<std::atomic<int>> runs(kCommands);
    for (int i = 0; i < kCommands; ++i) {
        commands.push_back(counting_command(&runs[size_t(i)]));
        ASSERT_TRUE(queue.push(commands.back()));
    }
    std::vector<char> withdrawn(kCommands, 0);
    std::atomic<bool> go{false};
    // The requester gives up from the back while the capture thread takes
    // from the front: they meet somewhere in the middle.
    std::thread requester([&] {
        while (!go) {
        }
        for (int i = kCommands - 1; i >= 0; --i)
            withdrawn[size_t(i)] = commands[size_t(i)]->withdraw();
    });
    go = true;
    run_taken(queue);
    requester.join();
    for (int i = 0; i < kCommands; ++i)
        EXPECT_EQ(runs[size_t(i)] + withdrawn[size_t(i)], 1) << i;
}

LibraryLine line_with(const std::string &text)
{
    LibraryLine line;
    snprintf(line.text, sizeof line.text, "%s", text.c_str());
    return line;
}

TEST(LineRingTest, KeepsOrderAndCountsWhatAFullRingLost)
{
    LineRing ring;
    for (size_t i = 0; i < LineRing::kSlots + 5; ++i)
        ring.put(line_with("line " + std::to_string(i)));
    EXPECT_EQ(ring.take_lost(), 5u);
    EXPECT_EQ(ring.take_lost(), 0u);
    LibraryLine got;
    for (size_t i = 0; i < LineRing::kSlots; ++i) {
        ASSERT_TRUE(ring.get(&got));
        EXPECT_EQ(std::string(got.text), "line " + std::to_string(i));
    }
    EXPECT_FALSE(ring.get(&got));
    EXPECT_TRUE(ring.put(line_with("again")));
    ASSERT_TRUE(ring.get(&got));
    EXPECT_STREQ(got.text, "again");
}

TEST(LineRingTest, ConcurrentWritersLoseNothingButWhatTheyAreToldAbout)
{
    LineRing ring;
    constexpr int kWriters = 4, kLines = 5000;
    std::atomic<bool> writing{true};
    std::set<std::string> read;
    std::thread reader([&] {
        LibraryLine line;
        for (;;) {
            bool done = !writing; // read before the last look, so nothing written before it is missed
            if (ring.get(&line))
                read.insert(line.text);
            else if (done)
                return;
        }
    });
    std::vector<std::thread> writers;
    std::atomic<uint64_t> refused{0};
    for (int w = 0; w < kWriters; ++w)
        writers.emplace_back([&, w] {
            for (int i = 0; i < kLines; ++i)
                if (!ring.put(line_with(std::to_string(w) + ":" + std::to_string(i))))
                    ++refused;
        });
    for (auto &writer : writers)
        writer.join();
    writing = false;
    reader.join();
    EXPECT_EQ(ring.take_lost(), refused.load());
    EXPECT_EQ(read.size() + refused, size_t(kWriters * kLines)); // every line once, or counted lost
}

HttpRequest request_for(const std::string &method, const std::string &host, HeaderList more = {})
{
    HttpRequest request;
    request.method = method;
    request.version = "HTTP/1.1";
    request.path = "/api/stats";
    request.peer = "127.0.0.1";
    request.headers = {{"Host", host}};
    for (auto &header : more)
        request.headers.push_back(header);
    return request;
}

TEST(AccessRulesTest, HostHeaderIsSplitAsBrowsersWriteIt)
{
    std::string name;
    int port = 0;
    EXPECT_TRUE(split_host("Cam.Local:8080", &name, &port));
    EXPECT_EQ(name, "cam.local");
    EXPECT_EQ(port, 8080);
    EXPECT_TRUE(split_host("[::1]:80", &name, &port));
    EXPECT_EQ(name, "::1");
    EXPECT_EQ(port, 80);
    EXPECT_TRUE(split_host("localhost", &name, &port));
    EXPECT_EQ(port, 0);
    for (const char *bad : {"::1:80", "[::1", "name:", "name:80x", "name:123456", ":80", "a:b:c"})
        EXPECT_FALSE(split_host(bad, &name, &port)) << bad;
}

TEST(AccessRulesTest, OnlyTheConsolesOwnNamesPass)
{
    AccessPolicy policy;
    policy.listen_address = "127.0.0.1";
    policy.port = 8080;
    policy.allowed_hosts = {"cam.local", "board:9000"};
    AccessRules rules(policy);
    for (const char *host : {"127.0.0.1:8080", "localhost:8080", "[::1]:8080", "cam.local:1", "cam.local",
                             "board:9000", "CAM.LOCAL:8080"})
        EXPECT_EQ(rules.check(request_for("GET", host), true).status, 0) << host;
    for (const char *host : {"127.attacker.example:8080", "127.0.0.1", "127.0.0.1:8081", "127.0.0.2:8080",
                             "board:8080", "board", "cam.local.attacker:8080", ""}) {
        AccessRules::Verdict verdict = rules.check(request_for("GET", host), false);
        EXPECT_EQ(verdict.status, 421) << host;
    }
    // Listening on every interface: their addresses are names too, loopback among them.
    policy.listen_address = "0.0.0.0";
    policy.allowed_hosts.clear();
    AccessRules wide(policy);
    EXPECT_EQ(wide.check(request_for("GET", "127.0.0.1:8080"), false).status, 0);
    EXPECT_EQ(wide.check(request_for("GET", "0.0.0.0:8080"), false).status, 421);
}

TEST(AccessRulesTest, ChangesComeFromTheConsolesOrATrustedProxysOrigin)
{
    AccessPolicy policy;
    policy.listen_address = "127.0.0.1";
    policy.port = 8080;
    policy.trusted_origins = {"https://cam.example.com"};
    AccessRules rules(policy);
    auto put = [&](HeaderList headers) { return rules.check(request_for("PUT", "127.0.0.1:8080", headers), false); };
    EXPECT_EQ(put({}).status, 0); // not a browser: no Origin
    EXPECT_EQ(put({{"Origin", "http://127.0.0.1:8080"}}).status, 0);
    EXPECT_EQ(put({{"Origin", "https://cam.example.com"}}).status, 0);
    EXPECT_EQ(put({{"Origin", "https://127.0.0.1:8080"}}).status, 403); // this console speaks no TLS
    EXPECT_EQ(put({{"Origin", "http://cam.example.com"}}).status, 403);
    EXPECT_EQ(put({{"Origin", "null"}}).status, 403);
    EXPECT_EQ(put({{"Sec-Fetch-Site", "same-site"}}).status, 403);
    // GET from another site only as a navigation to the page.
    EXPECT_EQ(rules.check(request_for("GET", "127.0.0.1:8080", {{"Sec-Fetch-Site", "cross-site"}}), false).status, 403);
    EXPECT_EQ(rules.check(request_for("GET", "127.0.0.1:8080", {{"Sec-Fetch-Site", "cross-site"},
                                                               {"Sec-Fetch-Mode", "navigate"}}), false).status, 0);
    EXPECT_EQ(rules.check(request_for("GET", "cam.example.com"), false).status, 0);
}

TEST(AccessRulesTest, TokenInEveryFormAndNowhereElse)
{
    const std::string token = "ab+cd/ef=gh1234567";
    AccessPolicy policy;
    policy.listen_address = "127.0.0.1";
    policy.port = 8080;
    policy.token = token;
    AccessRules rules(policy);
    auto verdict = [&](const std::string &method, HeaderList headers, std::map<std::string, std::string> query = {}) {
        HttpRequest request = request_for(method, "127.0.0.1:8080", headers);
        request.query = query;
        return rules.check(request, true);
    };
    EXPECT_EQ(verdict("GET", {{"X-Zelisp-Token", token}}).status, 0);
    for (const char *scheme : {"Bearer ", "bearer ", "BEARER ", "Bearer   "})
        EXPECT_EQ(verdict("GET", {{"Authorization", scheme + token}}).status, 0) << scheme;
    EXPECT_EQ(verdict("GET", {{"Cookie", "a=1; zelisp_token=" + token + "; b=2"}}).status, 0);
    EXPECT_EQ(verdict("GET", {}, {{"token", token}}).status, 0);
    EXPECT_EQ(verdict("GET", {}, {{"token", "ab cd/ef=gh1234567"}}).status, 0); // a '+' a query decoded as a blank
    EXPECT_EQ(verdict("PUT", {}, {{"token", token}}).error,
              "this console needs its token: open /login?token=TOKEN, or send the X-Zelisp-Token header");
    EXPECT_EQ(verdict("GET", {{"Authorization", "Basic " + token}}).status, 401);
    EXPECT_EQ(verdict("GET", {{"X-Zelisp-Token", token + "x"}}).error, "wrong token");
    // One right form among wrong ones is enough.
    EXPECT_EQ(verdict("GET", {{"X-Zelisp-Token", "nope"}, {"Cookie", "zelisp_token=" + token}}).status, 0);
    EXPECT_EQ(rules.token_cookie(request_for("GET", "x")), "zelisp_token=" + token + "; Path=/; HttpOnly; SameSite=Strict");
    EXPECT_EQ(rules.token_cookie(request_for("GET", "x", {{"X-Forwarded-Proto", "https"}})),
              "zelisp_token=" + token + "; Path=/; HttpOnly; SameSite=Strict; Secure");
}

TEST(ConsoleTokenTest, ChecksMakesAndReadsTokens)
{
    EXPECT_EQ(check_token("fifteen-chars-x"), "a token needs at least 16 characters (it has 15)");
    EXPECT_EQ(check_token("sixteen-chars-xx"), "");
    EXPECT_EQ(check_token("sixteen chars xx"), "a token may hold visible ASCII characters except '\"', ',', ';' and '\\'");
    EXPECT_NE(check_token("sixteen;chars-xx"), "");
    EXPECT_NE(check_token(std::string(300, 'a')), "");
    std::string made = generate_token();
    EXPECT_EQ(made.size(), 32u);
    EXPECT_EQ(made.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"),
              std::string::npos);
    EXPECT_EQ(check_token(made), "");
    EXPECT_NE(made, generate_token());
    EXPECT_TRUE(same_secret(made, made));
    EXPECT_FALSE(same_secret(made.substr(1), made));
    EXPECT_FALSE(same_secret(made + "x", made));

    std::string path = testing::TempDir() + "/console_token";
    std::ofstream(path) << "0123456789abcdef \r\nsecond line\n";
    std::string token;
    EXPECT_EQ(read_token_file(path, &token), "");
    EXPECT_EQ(token, "0123456789abcdef");
    std::ofstream(path) << "\n";
    EXPECT_EQ(read_token_file(path, &token), "its first line is empty");
    EXPECT_EQ(read_token_file(path + ".missing", &token), "No such file or directory");
}

TEST(AccessLogTest, LinesNameTheRequestWithoutItsTokenOrForgedLines)
{
    HttpRequest request = request_for("GET", "127.0.0.1:8080",
                                      {{"User-Agent", "agent\"\x01 x"},
                                       {"Referer", "http://b/?a=1&token=secret#x"},
                                       {"Authorization", "Bearer secret"}});
    request.path = "/stream/0/1.mjpg";
    request.query = {{"size", "full"}, {"token", "secret"}};
    std::string line = AccessLog::line(request, 200, 12345, 3.25, 0);
    EXPECT_EQ(line, "127.0.0.1 - - [01/Jan/1970:00:00:00 +0000] \"GET /stream/0/1.mjpg?size=full&token=* HTTP/1.1\" "
                    "200 12345 \"http://b/?a=1&token=*#x\" \"agent\\x22\\x01 x\" 3.2ms");
    EXPECT_EQ(line.find("secret"), std::string::npos);
}

TEST(TimersTest, RunsOnceUnlessCancelledAndRepeats)
{
    Timers timers;
    std::promise<void> fired;
    timers.after(std::chrono::milliseconds(0), [&] { fired.set_value(); });
    EXPECT_EQ(fired.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
    std::atomic<int> never{0};
    Timers::Id id = timers.after(std::chrono::hours(1), [&] { ++never; });
    EXPECT_TRUE(timers.cancel(id));
    EXPECT_FALSE(timers.cancel(id));
    std::promise<void> third;
    std::atomic<int> ticks{0};
    timers.every(std::chrono::milliseconds(1), [&] {
        if (++ticks == 3)
            third.set_value();
    });
    EXPECT_EQ(third.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
    timers.stop();
    EXPECT_EQ(never, 0);
}

} // namespace
} // namespace zcam
