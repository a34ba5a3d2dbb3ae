// Fake kernel for unit tests: the test executable interposes the calls that
// libnltavrel makes on NETLINK sockets (socket, setsockopt, bind, sendto,
// recvfrom, close) and if_nametoindex. Each socket follows a scripted plan
// and records what the library did with it.
#pragma once

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

namespace fk {

using bytes = std::vector<uint8_t>;

struct socket_plan {
    int socket_errno = 0;      // socket() fails with this errno
    int fd_override = -1;      // hand out this descriptor number (no real descriptor behind it)
    int setsockopt_errno = 0;  // NETLINK_EXT_ACK refused
    int bind_errno = 0;
    int send_errno = 0;
    size_t send_short_by = 0;  // report this many bytes fewer than asked
    std::vector<bytes> replies;  // datagrams, in order
    int recv_errno = 0;          // fail the receive that finds no reply left with this errno

    // Chainable setters for table-driven tests.
    socket_plan &reply(bytes datagram) { replies.push_back(std::move(datagram)); return *this; }
    socket_plan &fd(int n) { fd_override = n; return *this; }
};

struct socket_record {
    int fd = -1;
    int type = 0, protocol = 0;  // always of AF_NETLINK: other sockets pass through
    bool ext_ack_requested = false;
    bool bound = false;
    sockaddr_nl bind_address{};
    socklen_t bind_length = 0;
    std::vector<bytes> sent;
    std::vector<size_t> recv_sizes;  // buffer size offered to each recvfrom
    size_t next_reply = 0;
    bool closed = false;
    socket_plan plan;
};

// Forgets all plans, records and interfaces.
void reset();
// Plan for the next socket() call; sockets without a plan succeed and have no replies.
socket_plan &expect_socket();
// Every socket the library asked for, in order (failed ones included).
const std::deque<socket_record> &sockets();
// Interfaces known to if_nametoindex; unknown names give 0.
void set_interface(const std::string &name, unsigned index);
// Sockets handed out and not closed.
int open_descriptors();
// Every request sent, in order, across all sockets, each of which must be of
// the given protocol.
std::vector<bytes> requests_on(int protocol);

// Helpers to build kernel answers and expected requests.
struct msg {
    uint16_t type = 0;
    uint16_t flags = 0;
    bytes payload;
    uint32_t len_override = 0;  // nlmsg_len to write instead of the true length
};
// The bytes of a value, padding included.
template <typename T>
bytes raw(const T &v)
{
    const auto *p = reinterpret_cast<const uint8_t *>(&v);
    return bytes(p, p + sizeof v);
}
inline bytes u32_bytes(uint32_t value) { return raw(value); }
bytes operator+(bytes a, const bytes &b);
bytes str_bytes(const std::string &s);  // with terminating NUL
bytes attr(uint16_t type, const bytes &payload);
// Messages padded one after the other, as in a datagram.
bytes datagram(const std::vector<msg> &messages);
// A request as it must go out: the netlink header, its length counted, then the body.
inline bytes request(uint16_t type, uint16_t flags, const bytes &body) { return datagram({{type, flags, body}}); }
bytes ack(int32_t code, const bytes &echoed_request = {}, uint16_t flags = 0);
inline bytes done(int32_t status = 0) { return datagram({{NLMSG_DONE, NLM_F_MULTI, raw(status)}}); }

}  // namespace fk
