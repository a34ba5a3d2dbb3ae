// Kernel tier: every test gets a fresh network namespace of its own, so it
// never touches the machine's namespace and starts from the kernel's
// defaults. Needs root (CAP_SYS_ADMIN).
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "libnltavrel.h"
#include "tavrel_host.h"

// Runs a shell command (iproute2, mostly) and returns what it printed on
// stdout; the exit status goes to *status when given.
inline std::string sh(const std::string &command, int *status = nullptr)
{
    std::string out;
    FILE *p = popen((command + " 2>&1").c_str(), "r");
    if (p == nullptr)
        return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        out.append(buf, n);
    const int rc = pclose(p);
    if (status)
        *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return out;
}

// Runs a command that must succeed.
#define SH_OK(command)                                                                     \
    do {                                                                                   \
        int sh_status_ = -1;                                                               \
        const std::string sh_out_ = sh(command, &sh_status_);                              \
        ASSERT_EQ(sh_status_, 0) << (command) << ":\n" << sh_out_;                         \
    } while (0)

// Tests that find a kernel feature missing (ESP, the prio qdisc) take a
// shorter path or skip. The full-kernel tier (tests/vm) sets
// TAVREL_FULL_KERNEL, and there a missing feature is a failure.
inline bool kernel_has(bool present, const char *feature)
{
    if (!present && getenv("TAVREL_FULL_KERNEL") != nullptr)
        ADD_FAILURE() << "the full kernel lacks " << feature;
    return present;
}

// Captures the diagnostics sink (text only) for asserting log lines.
struct kernel_log {
    static std::string &text()
    {
        static std::string t;
        return t;
    }
    static void sink(const tavrel_log_site *, const char *message) { text() += message; }
};

class KernelTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "cannot create a private network namespace: " << strerror(errno)
                                            << " (the kernel tier needs root)";
        SH_OK("ip link set lo up");
        kernel_log::text().clear();
        tavrel_host_set_diag_sink(kernel_log::sink);
        kv_log_mask = 1;
    }
    void TearDown() override
    {
        kv_log_mask = 0;
        tavrel_host_set_diag_sink(nullptr);
    }
    static const std::string &log() { return kernel_log::text(); }
};
