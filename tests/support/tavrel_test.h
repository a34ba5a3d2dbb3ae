// Common fixture of the unit tests: a fresh fake kernel and all log sinks
// captured; every test ends with no socket left open.
#pragma once

#include <gtest/gtest.h>

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
