// Common fixture of the unit tests: a fresh fake kernel and all log sinks
// captured; every test ends with no socket left open.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "fake_kernel.h"
#include "libnltavrel.h"
#include "log_capture.h"

using lines = std::vector<std::string>;

class TavrelTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fk::reset();
        logcap::start();
    }
    void TearDown() override
    {
        EXPECT_EQ(fk::open_descriptors(), 0) << "a socket was left open";
        logcap::stop();
        fk::reset();
    }
};

// The bytes of a request buffer, as far as its nlmsg_len says.
inline fk::bytes request_bytes(const void *request)
{
    const auto *h = static_cast<const nlmsghdr *>(request);
    const auto *p = static_cast<const uint8_t *>(request);
    return fk::bytes(p, p + h->nlmsg_len);
}

// "0x5"-style text of a descriptor, as the library logs it.
inline std::string fd_text(int fd)
{
    char buf[32];
    snprintf(buf, sizeof buf, "%p", reinterpret_cast<void *>(static_cast<intptr_t>(fd)));
    return buf;
}

// One library call against a single scripted socket. Checks that the socket
// was opened and closed with their log lines (closer names the function that
// logs the close), that the sinks agree and that nothing is left open; gives
// the result, the log lines between the open and close lines and after the
// close line, and the socket's record.
struct socket_run {
    int result = 0;
    lines middle, after;
    fk::socket_record sock;
};

template <typename Call>
socket_run run_on_socket(const fk::socket_plan &plan, const std::string &closer, Call call)
{
    fk::reset();
    logcap::start();
    fk::expect_socket() = plan;
    socket_run r;
    r.result = call();
    r.sock = fk::sockets().at(0);
    const lines all = logcap::diag_lines();
    const std::string fd = fd_text(r.sock.fd);
    const auto close_line = std::find(all.rbegin(), all.rend(), "LOW " + closer + "(): closing file descriptor " + fd + "\n");
    EXPECT_TRUE(!all.empty() && all.front() == "LOW tavrel_netlink_open(): opened file descriptor " + fd + "\n");
    EXPECT_NE(close_line, all.rend()) << "socket " << fd << " closed without its log line";
    if (!all.empty() && close_line != all.rend()) {
        r.middle.assign(all.begin() + 1, close_line.base() - 1);
        r.after.assign(close_line.base(), all.end());
    }
    logcap::expect_sinks_agree();
    EXPECT_EQ(fk::open_descriptors(), 0);
    return r;
}
