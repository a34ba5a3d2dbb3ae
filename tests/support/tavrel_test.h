// Common fixture of the unit tests: a fresh fake kernel and all log sinks
// captured; every test ends with no socket left open.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <functional>
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

namespace fk {

// The daemon's record of an address text; all zero for none or a bad text.
inline tavrel_ip_addr ip(const char *text)
{
    tavrel_ip_addr a{};
    a.family = !text ? 0 : inet_pton(AF_INET, text, a.addr) == 1 ? 4 : inet_pton(AF_INET6, text, a.addr) == 1 ? 6 : 0;
    return a;
}

}  // namespace fk

// The unit tests' shorthand for the fake kernel's builders.
using fk::bytes;
using fk::ip;
using fk::operator+;
using fk::raw;
using P = fk::socket_plan;
using Call = std::function<int()>;

// "0x5"-style text of a descriptor, as the library logs it.
inline std::string fd_text(int fd)
{
    char buf[32];
    snprintf(buf, sizeof buf, "%p", reinterpret_cast<void *>(static_cast<intptr_t>(fd)));
    return buf;
}

// One library call stated as a row: the plans of the sockets it opens, in
// order; the requests they carry, in order; the log lines ("LEVEL text") of
// the diagnostics sink that the file's view keeps; the result.
using line_matchers = std::vector<testing::Matcher<const std::string &>>;
struct call_row {
    std::function<int()> call;
    std::vector<fk::socket_plan> plans;
    std::vector<fk::bytes> sent;
    line_matchers log = {};
    int result = 0;
};

// Which texts a file's rows name, and which of all texts skip the log file.
struct log_view {
    bool (*keep)(const std::string &text);
    bool (*no_file)(const std::string &text);
};

// Runs every row on fresh sockets; all sinks agree and no socket above 0 stays open.
// after_each checks what a file requires of every row's sockets.
inline void check_rows(const std::vector<call_row> &rows, log_view view, const std::function<void()> &after_each = {})
{
    for (const call_row &r : rows) {
        SCOPED_TRACE("row " + std::to_string(&r - rows.data()));
        fk::reset();
        logcap::start();
        for (const fk::socket_plan &p : r.plans)
            fk::expect_socket() = p;
        EXPECT_EQ(r.call(), r.result);
        std::vector<fk::bytes> sent;
        for (const auto &s : fk::sockets())
            sent.insert(sent.end(), s.sent.begin(), s.sent.end());
        EXPECT_EQ(sent, r.sent);
        lines kept, no_file;
        for (const std::string &l : logcap::diag_lines()) {
            const std::string text = l.substr(l.find(' ') + 1);
            if (view.no_file(text))
                no_file.push_back(text);
            if (view.keep(text))
                kept.push_back(l);
        }
        EXPECT_THAT(kept, testing::ElementsAreArray(r.log));
        logcap::expect_sinks_agree(no_file);
        if (after_each)
            after_each();
        for (const auto &s : fk::sockets())  // descriptor 0 is the route socket's business
            EXPECT_TRUE(s.fd <= 0 || s.closed) << "descriptor " << s.fd << " left open";
        fk::reset();
    }
}
