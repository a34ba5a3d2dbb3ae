// 16 threads, 200 mixed calls each, in one namespace with the file and
// diagnostics sinks on (the ThreadSanitizer tree of scripts/test.sh runs it
// too). Each thread adds and removes its own rules, labels, policies and
// addresses; afterwards the kernel holds exactly what they left.
#include <arpa/inet.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <thread>

#include "kernel_test.h"

using ConcurrencyKernelTest = KernelTest;

namespace {

constexpr int kThreads = 16, kCalls = 200;

// The first group of every match of a POSIX extended expression.
std::set<std::string> captures(const std::string &command, const char *pattern)
{
    std::set<std::string> found;
    const std::string out = sh(command);
    regex_t re;
    if (regcomp(&re, pattern, REG_EXTENDED) != 0) {
        ADD_FAILURE() << "bad pattern " << pattern;
        return found;
    }
    regmatch_t m[2];
    for (const char *p = out.c_str(); regexec(&re, p, 2, m, p == out.c_str() ? 0 : REG_NOTBOL) == 0; p += m[0].rm_eo) {
        found.insert(std::string(p + m[1].rm_so, p + m[1].rm_eo));
        if (m[0].rm_eo == 0)
            break;
    }
    regfree(&re);
    return found;
}

}  // namespace

TEST_F(ConcurrencyKernelTest, SixteenThreadsLeaveExactlyTheirState)
{
    SH_OK("ip link add c0 type veth peer name c1 && ip link set c0 up");
    tzset();  // as the daemon does at start; the threads then only read the zone
    static std::mutex lock;
    static size_t lines = 0;
    tavrel_host_set_diag_sink([](const tavrel_log_site *, const char *) { std::lock_guard<std::mutex> g(lock); lines++; });
    logging_fd = fopen("/dev/null", "w");
    log_to_file = 1;
    std::atomic<int> failures{0};
    std::set<std::string> rules, labels, policies, addresses;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([&, t] {
            const tavrel_xfrm_sa_addrs pair = {{4, 4, {10, 1, 0, 1}}, {4, 4, {10, 2, 0, 1}}, 1, 2, IPPROTO_ESP, 1};
            for (int i = 0; i < kCalls && std::chrono::steady_clock::now() < deadline; i++) {
                // Item x of each kind; a k of 1, 5, 9... removes (an address: replaces) the one before it.
                const int k = i / 5, undo = k % 4 == 1, x = k - undo, prio = 10000 + t * 100 + x;
                char text[64];
                tavrel_ip_addr address{6, 16, {0x20, 0x01, 0x0d, 0xb8, 0, uint8_t(t + 1), 0, uint8_t(x)}};
                uint32_t label;
                snprintf(text, sizeof text, "10.%d.%d.0/24", t + 1, x);
                int result;
                switch (i % 5) {
                case 0:
                    result = undo ? tavrel_rtnetlink_del_ip_rule_by_prio(prio)
                                   : tavrel_rtnetlink_add_ip_rule(t + 1, 0xff, 100 + t, prio);
                    break;
                case 1:
                    result = (undo ? tavrel_addrlabel_del : tavrel_addrlabel_add)(&address, 64, 1000 + t * 100 + x, 1);
                    break;
                case 2:
                    result = undo ? tavrel_xfrm_remove_policies(text, "10.200.0.0/16", "6", 1)
                                   : tavrel_xfrm_add_policies(&pair, text, "10.200.0.0/16", "6", 1);
                    break;
                case 3:
                    address = {4, 4, {10, uint8_t(100 + t), uint8_t(x), 1}};
                    result = tavrel_rtnetlink_addr_cfg("c0", &address, 24, undo ? 2 : 0, 0);
                    break;
                default:
                    result = tavrel_addrlabel_generate(6, 0, &label);
                }
                failures += result != 0;
            }
        });
    for (auto &thread : threads)
        thread.join();
    log_to_file = 0;
    fclose(logging_fd);
    logging_fd = nullptr;
    EXPECT_EQ(failures, 0);
    EXPECT_GT(lines, size_t(kThreads * kCalls));
    for (int t = 0; t < kThreads; t++)
        for (int k = 0; k < kCalls / 5; k++) {
            char text[128], v6[INET6_ADDRSTRLEN];
            const uint8_t a[16] = {0x20, 0x01, 0x0d, 0xb8, 0, uint8_t(t + 1), 0, uint8_t(k)};
            snprintf(text, sizeof text, "%d:\tfrom all fwmark %#x/0xff lookup %d", 10000 + t * 100 + k, t + 1, 100 + t);
            if (k % 4 >= 2)
                rules.insert(text);
            snprintf(text, sizeof text, "prefix %s/64 dev lo label %d", inet_ntop(AF_INET6, a, v6, sizeof v6), 1000 + t * 100 + k);
            if (k % 4 >= 2)
                labels.insert(text);
            snprintf(text, sizeof text, "10.%d.%d.0/24", t + 1, k);
            if (k % 4 >= 2)
                policies.insert(text);
            snprintf(text, sizeof text, "10.%d.%d.1/24", 100 + t, k);
            if (k % 4 != 1)
                addresses.insert(text);
        }
    EXPECT_EQ(captures("ip -4 rule", "(1[0-9]{4}:[^\n]*)"), rules);
    EXPECT_EQ(captures("ip addrlabel", "(prefix [^\n]* label [0-9]{4,}) "), labels);
    EXPECT_EQ(captures("ip xfrm policy list dir out", "src ([^ \n]+) dst 10.200.0.0/16 proto tcp"), policies);
    EXPECT_EQ(captures("ip -4 -o addr show dev c0", "inet ([^ \n]+)"), addresses);
}
