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
inline bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// What a command (iproute2, mostly) printed on stdout and stderr.
inline std::string sh(const std::string &command)
{
    std::string out;
    char buf[4096];
    const std::unique_ptr<FILE, int (*)(FILE *)> p(popen(("exec 2>&1; " + command).c_str(), "r"), pclose);
    for (size_t n; p && (n = fread(buf, 1, sizeof buf, p.get())) > 0;)
        out.append(buf, n);
    return out;
}

#define SH_OK(command) do { ASSERT_EQ(sh(command), "") << (command); } while (0)  // iproute2 is silent on success

// A missing feature (ESP, the prio qdisc) shortens or skips a test; the full-kernel tier (tests/vm) fails it.
inline bool kernel_has(bool present, const char *feature)
{
    EXPECT_TRUE(present || getenv("TAVREL_FULL_KERNEL") == nullptr) << "the full kernel lacks " << feature;
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

// A library call's result, regular expressions over what `show` then prints
// and texts logged since the last check; a leading '!' negates either.
inline void check(const char *what, int result, int expected, const std::string &show,
                  const std::vector<std::string> &shown, const std::vector<std::string> &logged = {})
{
    SCOPED_TRACE(what);
    EXPECT_EQ(result, expected) << kernel_log;
    const std::string out = sh(show);
    for (const std::string &re : shown)
        EXPECT_NE(matches(out, re.substr(re[0] == '!')), re[0] == '!') << re << "\n" << out;
    for (const std::string &text : logged)
        EXPECT_NE(has(kernel_log, text.substr(text[0] == '!')), text[0] == '!') << text << "\n" << kernel_log;
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
