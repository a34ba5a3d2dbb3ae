// Kernel tier: every test runs from the kernel's defaults in a network
// namespace of its own, never in the machine's. Needs root (CAP_SYS_ADMIN).
#pragma once

#include <gtest/gtest.h>
#include <regex.h>
#include <sched.h>
#include <sys/utsname.h>
#include <memory>

#include "libnltavrel.h"
#include "tavrel_host.h"

inline std::string kernel_log;  // what the diagnostics sink received

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
#define SH_OK(command) do { ASSERT_EQ(sh(command), "") << (command); } while (0)  // iproute2 is silent on success

// Whether a probe succeeds. Where a feature (ESP, the prio qdisc) is missing a
// test takes a shorter path or skips; in the full-kernel tier (tests/vm) it fails.
inline bool kernel_has(const std::string &probe, const char *feature)
{
    const bool present = sh(probe).empty();
    EXPECT_TRUE(present || !getenv("TAVREL_FULL_KERNEL")) << "the full kernel lacks " << feature;
    return present;
}

// POSIX extended expressions: g++ 12 reports <regex> falsely at -O2 with the sanitizers.
inline bool matches(const std::string &text, const std::string &pattern)
{
    regex_t re;
    if (regcomp(&re, pattern.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
        ADD_FAILURE() << "bad pattern " << pattern;
        return false;
    }
    const bool found = regexec(&re, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&re);
    return found;
}

// Where kernel lines differ, a test asks for the running kernel's version.
inline std::string kernel_release()
{
    utsname u{};
    uname(&u);
    return u.release;
}
inline bool kernel_before(int major, int minor)
{
    int ma = 0, mi = 0;
    std::sscanf(kernel_release().c_str(), "%d.%d", &ma, &mi);
    return ma < major || (ma == major && mi < minor);
}

// Each part found in text (as a POSIX extended expression if re); a leading '!' negates.
inline void expect_in(const std::string &text, const std::vector<std::string> &parts, bool re = false)
{
    for (const std::string &p : parts) {
        const std::string s = p.substr(p[0] == '!');
        EXPECT_NE(re ? matches(text, s) : text.find(s) != text.npos, p[0] == '!') << p << "\n" << text;
    }
}

// A library call's result, what `show` then prints and what was logged since the last check.
inline void check(const char *what, int result, int expected, const std::string &show,
                  const std::vector<std::string> &shown, const std::vector<std::string> &logged = {})
{
    SCOPED_TRACE(what);
    EXPECT_EQ(result, expected) << kernel_log;
    expect_in(sh(show), shown, true);
    expect_in(kernel_log, logged);
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
