// 16 threads, 200 mixed calls each, in one namespace with the file and
// diagnostics sinks on (the ThreadSanitizer tree of scripts/test.sh runs it
// too). Each thread adds and removes its own rules, labels, policies and
// addresses; afterwards the kernel holds exactly what they left.
#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <set>
#include <thread>

#include "kernel_test.h"

using ConcurrencyKernelTest = KernelTest;

TEST_F(ConcurrencyKernelTest, SixteenThreadsLeaveExactlyTheirState)
{
    constexpr int kThreads = 16, kCalls = 200;
    SH_OK("ip link add c0 type veth peer name c1 && ip link set c0 up");
    tzset();  // as the daemon does at start; the threads then only read the zone
    static std::atomic<size_t> lines{0};
    tavrel_host_set_diag_sink([](const tavrel_log_site *, const char *) { lines++; });
    logging_fd = fopen("/dev/null", "w");
    log_to_file = 1;
    std::atomic<int> failures{0};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([&, t] {
            const tavrel_xfrm_sa_addrs pair = {{4, 4, {10, 1, 0, 1}}, {4, 4, {10, 2, 0, 1}}, 1, 2, IPPROTO_ESP, 1};
            for (int i = 0; i < kCalls && std::chrono::steady_clock::now() < deadline; i++) {
                // Item x of each kind; a k of 1, 5, 9... removes (an address: replaces) the one before it.
                const int k = i / 5, undo = k % 4 == 1, x = k - undo, prio = 10000 + t * 100 + x;
                const tavrel_ip_addr v6{6, 16, {0x20, 0x01, 0x0d, 0xb8, 0, uint8_t(t + 1), 0, uint8_t(x)}},
                    v4{4, 4, {10, uint8_t(100 + t), uint8_t(x), 1}};
                const std::string net = fmt("10.%d.%d.0/24", t + 1, x);
                uint32_t label;
                const int kind = i % 5, label_value = 1000 + t * 100 + x;
                failures += (kind == 0   ? undo ? tavrel_rtnetlink_del_ip_rule_by_prio(prio)
                                                : tavrel_rtnetlink_add_ip_rule(t + 1, 0xff, 100 + t, prio)
                             : kind == 1 ? (undo ? tavrel_addrlabel_del : tavrel_addrlabel_add)(&v6, 64, label_value, 1)
                             : kind == 2 ? undo ? tavrel_xfrm_remove_policies(net.c_str(), "10.200.0.0/16", "6", 1)
                                                : tavrel_xfrm_add_policies(&pair, net.c_str(), "10.200.0.0/16", "6", 1)
                             : kind == 3 ? tavrel_rtnetlink_addr_cfg("c0", &v4, 24, undo ? 2 : 0, 0)
                                         : tavrel_addrlabel_generate(6, 0, &label)) != 0;
            }
        });
    for (auto &thread : threads)
        thread.join();
    log_to_file = 0;
    fclose(logging_fd);
    logging_fd = nullptr;
    EXPECT_EQ(failures, 0);
    EXPECT_GT(lines, size_t(kThreads * kCalls));
    // What is left (k of 2 and up: no prefix with a zero group to shorten), as the commands below print it, sorted.
    std::set<std::string> left[4];
    for (int t = 0; t < kThreads; t++)
        for (int k = 0; k < kCalls / 5; k++) {
            if (k % 4 >= 2) {
                left[0].insert(fmt("%d:\tfrom all fwmark %#x/0xff lookup %d\n", 10000 + t * 100 + k, t + 1, 100 + t));
                left[1].insert(fmt("prefix 2001:db8:%x:%x::/64 dev lo label %d\n", t + 1, k, 1000 + t * 100 + k));
                left[2].insert(fmt("10.%d.%d.0/24\n", t + 1, k));
            }
            if (k % 4 != 1)
                left[3].insert(fmt("10.%d.%d.1/24\n", 100 + t, k));
        }
    const char *const shown[] = {
        "ip -4 rule | grep '^1[0-9]\\{4\\}:'", "ip addrlabel | grep -o 'prefix .* label [0-9]\\{4,\\}'",
        "ip xfrm policy list dir out | sed -n 's|^src \\(.*\\) dst 10.200.0.0/16 proto tcp.*|\\1|p'",
        "ip -4 -o addr show dev c0 | awk '{print $4}'"};
    for (int i = 0; i < 4; i++) {
        std::string want;
        for (const std::string &line : left[i])
            want += line;
        EXPECT_EQ(sh(std::string(shown[i]) + " | LC_ALL=C sort"), want) << shown[i];
    }
}
