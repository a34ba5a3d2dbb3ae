// libFuzzer harness for everything the library parses from the kernel, built
// once per target (TAVREL_FUZZ_TARGET). Input: a parameter byte, then
// datagrams as a 2-byte little-endian length and bytes, which a fake kernel
// hands to the receives before a clean end. Findings trap; the checked-
// arithmetic stops jump back here. docs/hardening.md has the details.
#include <arpa/inet.h>
#include <sanitizer/asan_interface.h>
#include <setjmp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <linux/rtnetlink.h>

#include <algorithm>

#include "tavrel_internal.h"

extern "C" void __wrap_free(void *block);

namespace {

constexpr int kFdBase = 1000, kFds = 16;
struct fake_socket {
    bool open;
    uint8_t *poisoned, *poisoned_end;  // the rest of the library's receive buffer
} sockets[kFds];
const uint8_t *input;
size_t input_left;
const uint8_t *datagram;  // the last one received, as the library holds it
size_t datagram_len;

bool in_call;
sigjmp_buf stop;
void *live[4096];  // heap blocks the library holds
size_t live_count;

struct __attribute__((packed)) clean_end {
    nlmsghdr ack_header;
    nlmsgerr ack;
    nlmsghdr done_header;
    int32_t status;
} const kCleanEnd = {{36, NLMSG_ERROR, 0, 0, 0}, {0, {16, 0, 0, 0, 0}}, {20, NLMSG_DONE, NLM_F_MULTI, 0, 0}, 0};

bool fake(int fd) { return fd >= kFdBase && fd < kFdBase + kFds && sockets[fd - kFdBase].open; }

void check_message(const nlmsghdr *m)
{
    const auto *p = reinterpret_cast<const uint8_t *>(m);
    if (p < datagram || p + NLMSG_HDRLEN > datagram + datagram_len || m->nlmsg_len < NLMSG_HDRLEN ||
        m->nlmsg_len > static_cast<size_t>(datagram + datagram_len - p))
        __builtin_trap();
}

void on_dump(const nlmsghdr *m, void *) { check_message(m); }
uint32_t on_query(const nlmsghdr *m, void *)
{
    check_message(m);
    return m->nlmsg_len > NLMSG_HDRLEN ? reinterpret_cast<const uint8_t *>(m)[NLMSG_HDRLEN] % 3 : 2;
}

tavrel_ip_addr address(uint32_t version, const char *v4, const char *v6)
{
    tavrel_ip_addr a{version, version == 4 ? 4u : 16u, {}};
    inet_pton(version == 4 ? AF_INET : AF_INET6, version == 4 ? v4 : v6, a.addr);
    return a;
}

// One call of the target's library function; true when it may leave the
// label list behind (it failed on purpose).
bool call(uint8_t param, const uint8_t *rest, size_t rest_len)
{
    struct {
        nlmsghdr h;
        uint8_t body[64];
    } request = {{NLMSG_HDRLEN, RTM_GETADDRLABEL, NLM_F_REQUEST | NLM_F_DUMP, 0, 0}, {}};
    switch (TAVREL_FUZZ_TARGET) {
    case 0: {  // attribute run, table of param + 1 entries, both exactly sized on the heap
        auto *run = static_cast<uint8_t *>(malloc(rest_len ? rest_len : 1));
        auto **table = static_cast<const nlattr **>(malloc((param + 1u) * sizeof(nlattr *)));
        if (rest_len)
            memcpy(run, rest, rest_len);
        tavrel_nla_parse(reinterpret_cast<const nlattr *>(run), table, static_cast<uint32_t>(rest_len), param);
        for (unsigned i = 0; i <= param; i++) {
            const auto *a = reinterpret_cast<const uint8_t *>(table[i]);
            uint16_t len;
            if (a && (a < run || a + NLA_HDRLEN > run + rest_len || (memcpy(&len, a, 2), a + len > run + rest_len)))
                __builtin_trap();
        }
        free(table);
        free(run);
        return false;
    }
    case 1:  // a request of any length, acknowledged
        request.h.nlmsg_len = NLMSG_HDRLEN + param % 64;
        request.h.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
        int kernel_error;
        tavrel_netlink_transact(&request.h, NETLINK_ROUTE, &kernel_error);
        return false;
    case 2:
        tavrel_netlink_dump(&request.h, NETLINK_ROUTE, on_dump, nullptr);
        return false;
    case 3:
        tavrel_netlink_query(&request.h, NETLINK_ROUTE, on_query, nullptr, param & 1);
        return false;
    case 4: {
        uint16_t id;
        tavrel_netlink_query_genl("nlctrl", param, &id);
        return false;
    }
    case 5: {
        const tavrel_ip_addr local = address(param & 1 ? 6 : 4, "192.0.2.1", "2001:db8::1");
        const tavrel_ip_addr remote = address(param & 1 ? 6 : 4, "198.51.100.2", "2001:db8::2");
        const tavrel_xfrm_sa_addrs pair = {local, remote, 0x1000, 0x2000, static_cast<uint8_t>(param & 2 ? 51 : 50), 1};
        tavrel_xfrm_remove_states(&pair);
        return false;
    }
    case 6: {
        uint32_t label;
        return tavrel_addrlabel_generate(param & 1 ? 6 : 4, 0, &label) == -1;
    }
    default: {
        const tavrel_ip_addr a = address(param & 1 ? 6 : 4, "10.1.2.3", "2001:db8::5");
        tavrel_addrlabel_purge_label(&a, param >> 1, 3);
        return false;
    }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    input = data + 1;
    input_left = size - 1;
    kv_log_mask = 1;  // formats every line; the host drops it without a sink
    in_call = true;
    const bool stopped = sigsetjmp(stop, 1) != 0;
    const bool may_leave_list = !stopped && call(data[0], data + 1, size - 1);
    in_call = false;
    // What is left must be exactly the label list: nodes chained from the
    // first to the last, which points back at the (gone) head.
    size_t chained = 0;
    for (size_t i = 0; i < live_count && !stopped; i++) {
        const auto *node = static_cast<const tavrel_addrlabel_node *>(live[i]);
        const bool first = std::find(live, live + live_count, node->prev) == live + live_count;
        for (; first && chained <= live_count && std::find(live, live + live_count, node) != live + live_count;
             node = node->next)
            chained++;
    }
    const bool open = std::any_of(sockets, sockets + kFds, [](const fake_socket &s) { return s.open; });
    if (!stopped && (open || (live_count != 0 && !(may_leave_list && chained == live_count))))
        __builtin_trap();
    std::fill(sockets, sockets + kFds, fake_socket{});
    // Through the wrapper by name: the compiler takes free() for the C
    // library's, which could not touch this file's variables.
    while (live_count)
        __wrap_free(live[live_count - 1]);
    return 0;
}

// The fake kernel's descriptors are numbers only; everything else goes to the
// real system calls.
extern "C" {

int socket(int domain, int type, int protocol)
{
    if (domain != AF_NETLINK)
        return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
    for (int i = 0; i < kFds; i++)
        if (!sockets[i].open)
            return sockets[i].open = true, kFdBase + i;
    __builtin_trap();  // sockets pile up
}

int setsockopt(int fd, int level, int name, const void *value, socklen_t length)
{
    return fake(fd) ? 0 : static_cast<int>(syscall(SYS_setsockopt, fd, level, name, value, length));
}

int bind(int fd, const sockaddr *address, socklen_t length)
{
    return fake(fd) ? 0 : static_cast<int>(syscall(SYS_bind, fd, address, length));
}

ssize_t sendto(int fd, const void *data, size_t length, int flags, const sockaddr *to, socklen_t to_length)
{
    return fake(fd) ? static_cast<ssize_t>(length) : syscall(SYS_sendto, fd, data, length, flags, to, to_length);
}

ssize_t recvfrom(int fd, void *buffer, size_t length, int flags, sockaddr *from, socklen_t *from_length)
{
    if (!fake(fd))
        return syscall(SYS_recvfrom, fd, buffer, length, flags, from, from_length);
    const uint8_t *next = reinterpret_cast<const uint8_t *>(&kCleanEnd);
    size_t n = sizeof kCleanEnd;
    if (input_left >= 2) {
        n = std::min<size_t>(input[0] | input[1] << 8, input_left - 2);
        next = input + 2;
        input += 2 + n;
        input_left -= 2 + n;
    }
    n = std::min(n, length);
    ASAN_UNPOISON_MEMORY_REGION(buffer, length);
    memcpy(buffer, next, n);
    ASAN_POISON_MEMORY_REGION(static_cast<uint8_t *>(buffer) + n, length - n);
    datagram = static_cast<const uint8_t *>(buffer);
    datagram_len = n;
    sockets[fd - kFdBase] = {true, static_cast<uint8_t *>(buffer) + n, static_cast<uint8_t *>(buffer) + length};
    return static_cast<ssize_t>(n);
}

int close(int fd)
{
    if (!fake(fd))
        return static_cast<int>(syscall(SYS_close, fd));
    sockets[fd - kFdBase] = {};
    return 0;
}

// Only reads past the datagram are findings: the library wipes its receive
// buffer before returning, so a memset (instrumented code calls
// __asan_memset) may write the poisoned rest. Linked with
// -Wl,--wrap=abort,--wrap=malloc,--wrap=free,--wrap=__asan_memset.
#if defined(__has_feature) && __has_feature(address_sanitizer)
void *__real___asan_memset(void *block, int value, size_t size);
void *__wrap___asan_memset(void *block, int value, size_t size)
{
    for (const fake_socket &s : sockets) {
        uint8_t *begin = std::max(static_cast<uint8_t *>(block), s.poisoned);
        uint8_t *end = std::min(static_cast<uint8_t *>(block) + size, s.poisoned_end);
        if (begin < end)
            ASAN_UNPOISON_MEMORY_REGION(begin, static_cast<size_t>(end - begin));
    }
    return __real___asan_memset(block, value, size);
}
#endif

[[noreturn]] void __real_abort();
void *__real_malloc(size_t size);
void __real_free(void *block);

[[noreturn]] void __wrap_abort()
{
    if (in_call)
        siglongjmp(stop, 1);
    __real_abort();
}

void *__wrap_malloc(size_t size)
{
    void *block = __real_malloc(size);
    if (in_call && block) {
        if (live_count == sizeof live / sizeof *live)
            __builtin_trap();
        live[live_count++] = block;
    }
    return block;
}

void __wrap_free(void *block)
{
    void **end = std::remove(live, live + live_count, block);
    live_count = static_cast<size_t>(end - live);
    __real_free(block);
}

}  // extern "C"
