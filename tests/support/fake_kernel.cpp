// This file defines the socket calls; glibc's fortified inline versions of
// them (-D_FORTIFY_SOURCE, as Android's flags set) would be second definitions.
#undef _FORTIFY_SOURCE
#include "fake_kernel.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>

#include <gtest/gtest.h>

namespace fk {
namespace {

std::deque<socket_plan> plans;
std::deque<socket_record> records;
std::map<int, size_t> active;  // descriptor -> index in records
std::map<std::string, unsigned> interfaces;

socket_record *find(int fd)
{
    auto it = active.find(fd);
    return it == active.end() ? nullptr : &records[it->second];
}

template <typename F>
F next_fn(const char *name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

// Descriptors that are not the fake kernel's go to the C library.
#define PASS_ON(name, ...) return next_fn<decltype(&::name)>(#name)(__VA_ARGS__)

}  // namespace

void reset()
{
    for (auto &entry : active)
        if (records[entry.second].plan.fd_override < 0)
            next_fn<decltype(&::close)>("close")(entry.first);
    plans.clear();
    records.clear();
    active.clear();
    interfaces.clear();
}

socket_plan &expect_socket()
{
    plans.emplace_back();
    return plans.back();
}

const std::deque<socket_record> &sockets() { return records; }

void set_interface(const std::string &name, unsigned index) { interfaces[name] = index; }

int open_descriptors() { return static_cast<int>(active.size()); }

std::vector<bytes> requests_on(int protocol)
{
    std::vector<bytes> out;
    for (const auto &r : records) {
        EXPECT_EQ(r.protocol, protocol);
        out.insert(out.end(), r.sent.begin(), r.sent.end());
    }
    return out;
}

bytes operator+(bytes a, const bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

bytes str_bytes(const std::string &s)
{
    bytes b(s.begin(), s.end());
    b.push_back(0);
    return b;
}

bytes attr(uint16_t type, const bytes &payload)
{
    const nlattr a{static_cast<uint16_t>(NLA_HDRLEN + payload.size()), type};
    // Sized once: g++ 12 at -O3 takes growing a 4-byte vector for an overflow.
    bytes b(NLA_ALIGN(a.nla_len), 0);
    std::memcpy(b.data(), &a, sizeof a);
    std::copy(payload.begin(), payload.end(), b.begin() + NLA_HDRLEN);
    return b;
}

bytes datagram(const std::vector<msg> &messages)
{
    bytes out;
    for (const auto &m : messages) {
        const uint32_t length = m.len_override ? m.len_override : static_cast<uint32_t>(NLMSG_HDRLEN + m.payload.size());
        out = out + raw(nlmsghdr{length, m.type, m.flags, 0, 0}) + m.payload;
        out.resize(NLMSG_ALIGN(out.size()), 0);
    }
    return out;
}

bytes ack(int32_t code, const bytes &echoed_request, uint16_t flags)
{
    const bytes rest = echoed_request.empty() ? bytes(sizeof(nlmsgerr) - sizeof code) : echoed_request;
    return datagram({msg{NLMSG_ERROR, flags, raw(code) + rest}});
}

}  // namespace fk

using namespace fk;

extern "C" {

int socket(int domain, int type, int protocol)
{
    if (domain != AF_NETLINK)
        PASS_ON(socket, domain, type, protocol);
    socket_plan plan = plans.empty() ? socket_plan{} : plans.front();
    if (!plans.empty())
        plans.pop_front();
    socket_record rec;
    rec.type = type;
    rec.protocol = protocol;
    rec.plan = plan;
    if (plan.socket_errno) {
        records.push_back(rec);
        errno = plan.socket_errno;
        return -1;
    }
    rec.fd = plan.fd_override >= 0 ? plan.fd_override : open("/dev/null", O_RDONLY | O_CLOEXEC);
    records.push_back(rec);
    active[rec.fd] = records.size() - 1;
    return rec.fd;
}

int setsockopt(int fd, int level, int name, const void *value, socklen_t length)
{
    socket_record *rec = find(fd);
    if (!rec)
        PASS_ON(setsockopt, fd, level, name, value, length);
    if (level == SOL_NETLINK && name == NETLINK_EXT_ACK && length == sizeof(int) &&
        *static_cast<const int *>(value) == 1)
        rec->ext_ack_requested = true;
    if (rec->plan.setsockopt_errno) {
        errno = rec->plan.setsockopt_errno;
        return -1;
    }
    return 0;
}

int bind(int fd, const sockaddr *address, socklen_t length)
{
    socket_record *rec = find(fd);
    if (!rec)
        PASS_ON(bind, fd, address, length);
    rec->bound = true;
    rec->bind_length = length;
    std::memcpy(&rec->bind_address, address, std::min<size_t>(length, sizeof rec->bind_address));
    if (rec->plan.bind_errno) {
        errno = rec->plan.bind_errno;
        return -1;
    }
    return 0;
}

ssize_t sendto(int fd, const void *data, size_t length, int flags, const sockaddr *to, socklen_t to_length)
{
    socket_record *rec = find(fd);
    if (!rec)
        PASS_ON(sendto, fd, data, length, flags, to, to_length);
    EXPECT_EQ(flags, 0);
    EXPECT_EQ(to, nullptr);
    rec->sent.emplace_back(static_cast<const uint8_t *>(data), static_cast<const uint8_t *>(data) + length);
    if (rec->plan.send_errno) {
        errno = rec->plan.send_errno;
        return -1;
    }
    return static_cast<ssize_t>(length - std::min(length, rec->plan.send_short_by));
}

ssize_t recvfrom(int fd, void *buffer, size_t length, int flags, sockaddr *from, socklen_t *from_length)
{
    socket_record *rec = find(fd);
    if (!rec)
        PASS_ON(recvfrom, fd, buffer, length, flags, from, from_length);
    EXPECT_EQ(flags, 0);
    rec->recv_sizes.push_back(length);
    if (rec->next_reply >= rec->plan.replies.size()) {
        if (!rec->plan.recv_errno)
            ADD_FAILURE() << "receive on socket " << fd << " with no scripted reply left (it would block)";
        errno = rec->plan.recv_errno ? rec->plan.recv_errno : EAGAIN;
        return -1;
    }
    const bytes &reply = rec->plan.replies[rec->next_reply++];
    // A datagram larger than the buffer is cut, as the kernel does without MSG_TRUNC.
    const size_t n = std::min(length, reply.size());
    if (n != 0)
        std::memcpy(buffer, reply.data(), n);
    return static_cast<ssize_t>(n);
}

int close(int fd)
{
    auto it = active.find(fd);
    if (it == active.end())
        PASS_ON(close, fd);
    socket_record &rec = records[it->second];
    rec.closed = true;
    active.erase(it);
    if (rec.plan.fd_override >= 0)
        return 0;
    PASS_ON(close, fd);
}

unsigned int if_nametoindex(const char *name)
{
    auto it = interfaces.find(name);
    return it == interfaces.end() ? 0 : it->second;
}

}  // extern "C"
