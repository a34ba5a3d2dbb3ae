// Kernel tier: every test runs from the kernel's defaults in a network
// namespace of its own, never in the machine's. Needs root (CAP_SYS_ADMIN).
// It shows what only a kernel can: that each request is taken (or refused
// where the kernel must refuse it) and the state it leaves. Request bytes,
// results of bad arguments and log texts belong to the unit tier.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>

#include "libnltavrel.h"
#include "tavrel_host.h"

inline std::string kernel_log;  // what the diagnostics sink received, shown when a call fails

// What a command (iproute2, mostly) printed on stdout and stderr.
inline std::string sh(const std::string &command)
{
    std::string out;
    if (FILE *p = popen(("exec 2>&1; " + command).c_str(), "r")) {
        for (int c; (c = fgetc(p)) != EOF;)
            out += static_cast<char>(c);
        pclose(p);
    }
    return out;
}

// printf into a string.
template <typename... Args>
std::string fmt(const char *format, Args... args)
{
    char text[512];
    snprintf(text, sizeof text, format, args...);
    return text;
}

#define SH_OK(command) do { ASSERT_EQ(sh(command), "") << (command); } while (0)  // iproute2 is silent on success

// Whether a probe succeeds. Where a feature (ESP, the prio qdisc) is missing a
// test takes a shorter path or skips; in the full-kernel tier (tests/vm) it fails.
inline bool kernel_has(const std::string &probe, const char *feature)
{
    const bool present = sh(probe).empty();
    EXPECT_TRUE(present || !getenv("TAVREL_FULL_KERNEL")) << "the full kernel lacks " << feature;
    return present;
}

// Each part found in text, as a POSIX extended expression if re; a leading '!' negates.
inline void expect_in(const std::string &text, const std::vector<std::string> &parts, bool re = true)
{
    for (const std::string &p : parts) {
        const std::string s = p.substr(p[0] == '!');
        using found = testing::Matcher<const std::string &>;
        const found m = re ? found(testing::ContainsRegex(s)) : found(testing::HasSubstr(s));
        EXPECT_THAT(text, p[0] == '!' ? found(testing::Not(m)) : m);
    }
}

// A library call's result, what `show` then prints and, where it is the kernel's answer (its error code, its
// extended-acknowledgement text), what was logged since the last check.
inline void check(const char *what, int result, int expected, const std::string &show,
                  const std::vector<std::string> &shown, const std::vector<std::string> &logged = {})
{
    SCOPED_TRACE(what);
    EXPECT_EQ(result, expected) << kernel_log;
    expect_in(sh(show), shown);
    expect_in(kernel_log, logged, false);
    kernel_log.clear();
}

struct KernelTest : ::testing::Test {
    void SetUp() override
    {
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno) << " (the kernel tier needs root)";
        SH_OK("ip link set lo up");
        kernel_log.clear();
        tavrel_host_set_diag_sink([](const tavrel_log_site *, const char *text) { kernel_log += text; });
        kv_log_mask = 1;
    }
};
