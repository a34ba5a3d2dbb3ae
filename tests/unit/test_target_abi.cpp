// What the daemon and the kernel see of the library on the build's own ABI:
// the log-site descriptor as the diagnostics library reads it, and requests
// on every NETLINK protocol the library uses reaching the fake kernel byte
// for byte. Cross builds run this under user-mode emulation, which refuses
// NETLINK_XFRM and NETLINK_GENERIC: a socket call that escaped the fake
// kernel fails loudly there.
#include <linux/genetlink.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "tavrel_test.h"

namespace {

class TargetAbiTest : public TavrelTest {};

template <typename T>
T read_at(const void *base, size_t offset)
{
    T value;
    std::memcpy(&value, static_cast<const uint8_t *>(base) + offset, sizeof value);
    return value;
}

// A security-association request as the IPsec code lays it out: header,
// xfrm_usersa_info, attribute room.
struct sa_request {
    nlmsghdr header;
    xfrm_usersa_info info;
    uint8_t attributes[2048];
};

bool ends_with(const std::string &text, const std::string &tail)
{
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

TEST_F(TargetAbiTest, DiagnosticsReadTheDescriptorAtItsFixedOffsets)
{
    fk::expect_socket().socket_errno = EACCES;
    nlmsghdr request{};
    request.nlmsg_len = NLMSG_HDRLEN;
    request.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    ASSERT_EQ(tavrel_netlink_transact(&request, NETLINK_ROUTE, nullptr), -1);

    const auto &records = logcap::diag_records();
    const auto file = logcap::file_records();
    ASSERT_EQ(records.size(), 3u);
    ASSERT_EQ(file.size(), records.size());
    const uint32_t masks[] = {1, 8, 8};
    for (size_t i = 0; i < records.size(); i++) {
        SCOPED_TRACE(records[i].text);
        const void *site = records[i].site_address;
        EXPECT_EQ(read_at<uint16_t>(site, 0), file[i].line);
        EXPECT_EQ(read_at<uint16_t>(site, 2), 65u);
        EXPECT_EQ(read_at<uint32_t>(site, 4), masks[i]);
        EXPECT_STREQ(read_at<const char *>(site, 8), "%s");
        const char *source = read_at<const char *>(site, 8 + sizeof(void *));
        ASSERT_NE(source, nullptr);
        EXPECT_TRUE(ends_with(source, "src/tavrel_nla_helpers.cpp")) << source;
        EXPECT_EQ(file[i].source_file.substr(file[i].source_file.find_first_not_of(' ')), source);
    }
    // A failed socket() is logged as the descriptor -1 in pointer notation,
    // as wide as a pointer of this ABI.
    const std::string minus_one = sizeof(void *) == 4 ? "0xffffffff" : "0xffffffffffffffff";
    EXPECT_EQ(logcap::diag_lines(), (lines{
                                        "LOW tavrel_netlink_open(): opened file descriptor " + minus_one + "\n",
                                        "ERR tavrel_netlink_open(): opening NL socket failed: errno=[13, "
                                        "Permission denied]\n",
                                        "ERR tavrel_netlink_transact(): opening NL socket failed\n",
                                    }));
}

struct protocol_case {
    const char *name;
    int protocol;
    uint16_t type;
    uint32_t body_length;  // family header behind the netlink header
};

class TargetProtocolTest : public TavrelTest, public ::testing::WithParamInterface<protocol_case> {};

TEST_P(TargetProtocolTest, RequestReachesTheFakeKernelWhole)
{
    const protocol_case &c = GetParam();
    sa_request request;
    std::memset(&request, 0, sizeof request);
    request.header.nlmsg_len = NLMSG_HDRLEN + c.body_length;
    request.header.nlmsg_type = c.type;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    const uint32_t mark = 0x20001;
    tavrel_nla_put(&request.header, XFRMA_SET_MARK, sizeof mark, &mark);
    ASSERT_EQ(request.header.nlmsg_len, NLMSG_HDRLEN + c.body_length + 8);

    auto &plan = fk::expect_socket();
    plan.fd_override = 0x1b;
    plan.replies = {fk::ack(0)};
    int kernel_error = -1;
    ASSERT_EQ(tavrel_netlink_transact(&request.header, c.protocol, &kernel_error), 0);
    EXPECT_EQ(kernel_error, 0);

    ASSERT_EQ(fk::sockets().size(), 1u);
    const auto &socket = fk::sockets()[0];
    EXPECT_EQ(socket.protocol, c.protocol);
    EXPECT_TRUE(socket.closed);
    ASSERT_EQ(socket.sent.size(), 1u);
    EXPECT_EQ(socket.sent[0], request_bytes(&request));
    // The attribute lands right behind the family header, whatever the ABI.
    const uint8_t *attribute = socket.sent[0].data() + NLMSG_HDRLEN + c.body_length;
    EXPECT_EQ(read_at<uint16_t>(attribute, 0), 8u);
    EXPECT_EQ(read_at<uint16_t>(attribute, 2), XFRMA_SET_MARK);
    EXPECT_EQ(read_at<uint32_t>(attribute, 4), mark);
    EXPECT_EQ(logcap::sinks_of("tavrel_netlink_open(): opened file descriptor 0x1b\n"), logcap::ALL_SINKS);
    EXPECT_EQ(logcap::sinks_of("tavrel_netlink_transact(): closing file descriptor 0x1b\n"), logcap::ALL_SINKS);
}

INSTANTIATE_TEST_SUITE_P(Protocols, TargetProtocolTest,
                         ::testing::Values(protocol_case{"route", NETLINK_ROUTE, RTM_NEWRULE, 12},
                                           protocol_case{"xfrm_sa", NETLINK_XFRM, XFRM_MSG_NEWSA, 224},
                                           protocol_case{"xfrm_policy", NETLINK_XFRM, XFRM_MSG_NEWPOLICY, 168},
                                           protocol_case{"generic", NETLINK_GENERIC, GENL_ID_CTRL, 4}),
                         [](const ::testing::TestParamInfo<protocol_case> &info) { return info.param.name; });

}  // namespace
