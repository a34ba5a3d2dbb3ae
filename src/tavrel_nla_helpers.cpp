/* Netlink transport: attributes, sockets, acknowledged transactions, dumps
 * and single-answer queries. Every exchange opens its own socket and closes
 * it on every path. */
#include <arpa/inet.h>
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <linux/genetlink.h>
#include <linux/netlink.h>

#include "tavrel_internal.h"

namespace {

constexpr size_t kRecvBufferSize = 4096;
constexpr uint32_t kNlmsgHdrLen = sizeof(struct nlmsghdr);
constexpr uint32_t kNlmsgErrLen = kNlmsgHdrLen + sizeof(struct nlmsgerr); /* 36 */
constexpr uint32_t kNlmsgDoneLen = kNlmsgHdrLen + sizeof(int32_t);       /* 20 */
constexpr uint32_t kGenlHdrLen = kNlmsgHdrLen + GENL_HDRLEN;             /* 20 */

static_assert(sizeof(struct nlmsghdr) == 16, "nlmsghdr layout");
static_assert(sizeof(struct nlattr) == 4, "nlattr layout");
static_assert(sizeof(struct nlmsgerr) == 20, "nlmsgerr layout");
static_assert(sizeof(struct sockaddr_nl) == 12, "sockaddr_nl layout");
static_assert(sizeof(struct genlmsghdr) == 4, "genlmsghdr layout");
static_assert(offsetof(struct nlmsghdr, nlmsg_type) == 4 && offsetof(struct nlmsghdr, nlmsg_seq) == 8,
              "nlmsghdr layout");

/* Answers are read through memcpy: the kernel's alignment is not trusted. */
inline int32_t load_s32(const void *p)
{
    int32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

inline uint32_t load_u32(const void *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

/* The error code or dump status right behind the netlink header. */
inline int32_t payload_s32(const struct nlmsghdr *message)
{
    return load_s32(reinterpret_cast<const uint8_t *>(message) + kNlmsgHdrLen);
}

struct recv_buffer {
    alignas(struct nlmsghdr) uint8_t bytes[kRecvBufferSize];
};

/* Only what the kernel wrote can hold key material; the rest is still the
 * zeros of the buffer's start. */
void wipe_received(recv_buffer &buffer, ssize_t received)
{
    if (received > 0)
        tavrel_wipe(buffer.bytes, static_cast<size_t>(received));
}

/* Walks the messages of one datagram. visit returns true to end the walk
 * early; the walk also ends at the first message that does not fit in what
 * remains, including a final one whose padding would run past the end. */
template <typename Visit>
bool walk_datagram(const uint8_t *data, size_t length, Visit visit)
{
    size_t remaining = length;
    while (remaining >= kNlmsgHdrLen) {
        const auto *message = reinterpret_cast<const struct nlmsghdr *>(data);
        const uint32_t message_len = message->nlmsg_len;
        if (message_len < kNlmsgHdrLen || message_len > remaining)
            break;
        if (visit(message))
            return true;
        const size_t step = tavrel_ck_align4<size_t>(message_len);
        if (step > remaining)
            break;
        data += step;
        remaining -= step;
    }
    return false;
}

/* Sends the whole request; logs with the caller's texts. */
int send_request(int fd, const struct nlmsghdr *request, const char *function, bool dump_texts)
{
    const ssize_t sent = sendto(fd, request, request->nlmsg_len, 0, nullptr, 0);
    if (sent < 0) {
        if (dump_texts)
            TAVREL_LOG(ERR, "%s(): sending NL message failed. errno=[%d, %s]\n", function, errno, strerror(errno));
        else
            TAVREL_LOG(ERR, "%s(): sending NL message failed: errno=[%d, %s]\n", function, errno, strerror(errno));
        return -1;
    }
    if (static_cast<size_t>(sent) < request->nlmsg_len) {
        if (dump_texts)
            TAVREL_LOG(ERR, "%s(): unable to send full message\n", function);
        else
            TAVREL_LOG(ERR, "%s(): Unable to send full NL messge to kernel\n", function);
        return -1;
    }
    return 0;
}

/* Opens a socket for one exchange; a failure is logged a second time under
 * the caller's name, without errno, as the daemon's logs have always shown
 * it. */
int open_socket(int protocol, const char *function)
{
    const int fd = tavrel_netlink_open(protocol);
    if (fd < 0)
        TAVREL_LOG(ERR, "%s(): opening NL socket failed\n", function);
    return fd;
}

void close_socket(int fd, const char *function)
{
    TAVREL_LOG(LOW, "%s(): closing file descriptor %p\n", function, TAVREL_FD_PTR(fd));
    close(fd);
}

/* Reads the acknowledgement of a transaction out of one datagram. */
int read_ack(const uint8_t *data, size_t length, int *kernel_error)
{
    int result = -1;
    const bool found = walk_datagram(data, length, [&](const struct nlmsghdr *message) {
        if (message->nlmsg_type != NLMSG_ERROR)
            return false;
        if (message->nlmsg_len < kNlmsgErrLen) {
            TAVREL_LOG(ERR, "%s(): invalid NL error received\n", "tavrel_netlink_transact");
            return true;
        }
        const int32_t code = payload_s32(message);
        if (code == 0) {
            TAVREL_LOG(HIGH, "%s(): NL ACK received from kernel\n", "tavrel_netlink_transact");
            result = 0;
            return true;
        }
        TAVREL_LOG(ERR, "%s(): Kernel reports error %d\n", "tavrel_netlink_transact", code);
        tavrel_nla_extack(message);
        if (kernel_error != nullptr)
            *kernel_error = code;
        return true;
    });
    if (!found)
        TAVREL_LOG(ERR, "%s(): no NL ACK received from kernel\n", "tavrel_netlink_transact");
    return result;
}

} // namespace

extern "C" void tavrel_check_failed(void)
{
    abort();
}

/* ---- attributes ----------------------------------------------------------- */

extern "C" void tavrel_nla_put(struct nlmsghdr *request, uint16_t type, int length, const void *data)
{
    if (request == nullptr) {
        tavrel_null_arg("tavrel_nla_put", "request");
        return;
    }
    if (length < 0)
        return;
    if (data == nullptr && length != 0) {
        tavrel_null_arg("tavrel_nla_put", "data");
        return;
    }
    const uint32_t offset = tavrel_ck_align4<uint32_t>(request->nlmsg_len);
    const uint32_t attr_len = tavrel_ck_add<uint32_t>(static_cast<uint32_t>(length), NLA_HDRLEN);
    auto *attr = reinterpret_cast<struct nlattr *>(reinterpret_cast<uint8_t *>(request) + offset);
    attr->nla_type = type;
    attr->nla_len = static_cast<uint16_t>(attr_len);
    if (length != 0)
        memcpy(reinterpret_cast<uint8_t *>(attr) + NLA_HDRLEN, data, static_cast<size_t>(length));
    request->nlmsg_len = tavrel_ck_add<uint32_t>(request->nlmsg_len, tavrel_ck_align4<uint32_t>(attr_len));
}

extern "C" int tavrel_nla_put_ip_addr(struct nlmsghdr *request, uint16_t type, const char *address_text)
{
    if (request == nullptr || address_text == nullptr) {
        tavrel_null_arg(__func__, request == nullptr ? "request" : "address_text");
        return -1;
    }
    uint8_t buffer[16] = {0};
    if (strchr(address_text, ':') != nullptr) {
        if (inet_pton(AF_INET6, address_text, buffer) == 0) {
            TAVREL_LOG(ERR, "%s(): %s is not a valid IPv6 address\n", __func__, address_text);
            return -1;
        }
        tavrel_nla_put(request, type, 16, buffer);
    } else {
        if (inet_pton(AF_INET, address_text, buffer) == 0) {
            TAVREL_LOG(ERR, "%s(): %s is not a valid IPv4 address\n", __func__, address_text);
            return -1;
        }
        tavrel_nla_put(request, type, 4, buffer);
    }
    return 0;
}

extern "C" void tavrel_nla_parse(const struct nlattr *first, const struct nlattr **table, uint32_t length,
                                 uint32_t max_type)
{
    if (table == nullptr) {
        tavrel_null_arg("tavrel_nla_parse", "table");
        return;
    }
    const uint32_t entries = tavrel_ck_add<uint32_t>(max_type, 1);
    for (uint32_t i = 0; i < entries; i++)
        table[i] = nullptr;
    if (length < NLA_HDRLEN)
        return;
    if (first == nullptr) {
        tavrel_null_arg("tavrel_nla_parse", "first");
        return;
    }

    const auto *data = reinterpret_cast<const uint8_t *>(first);
    uint32_t remaining = length;
    do {
        const auto *attr = reinterpret_cast<const struct nlattr *>(data);
        uint16_t attr_len;
        uint16_t attr_type;
        memcpy(&attr_len, data + offsetof(struct nlattr, nla_len), sizeof attr_len);
        memcpy(&attr_type, data + offsetof(struct nlattr, nla_type), sizeof attr_type);
        if (attr_len < NLA_HDRLEN || attr_len > remaining)
            return;
        const uint32_t type = attr_type & NLA_TYPE_MASK;
        if (type <= max_type)
            table[type] = attr;
        const uint32_t step = tavrel_ck_align4<uint32_t>(attr_len);
        remaining = tavrel_ck_sub<uint32_t>(remaining, step);
        data += step;
    } while (remaining >= NLA_HDRLEN);
}

void tavrel_nla_extack(const struct nlmsghdr *error_message)
{
    if (!(error_message->nlmsg_flags & NLM_F_ACK_TLVS)) {
        TAVREL_LOG(HIGH, "%s(): No EXTACK content\n", "tavrel_nla_extack");
        return;
    }
    /* The attributes are located from the start of the message, not of its
     * payload, as the daemon has always read them; with an uncapped answer
     * the walk therefore starts inside the tail of the echoed request. */
    const auto *bytes = reinterpret_cast<const uint8_t *>(error_message);
    uint32_t offset = kNlmsgHdrLen + sizeof(int32_t);
    if (!(error_message->nlmsg_flags & NLM_F_CAPPED)) {
        const uint32_t echoed_len = load_u32(bytes + offset);
        offset = tavrel_ck_add<uint32_t>(offset, tavrel_ck_sub<uint32_t>(echoed_len, kNlmsgHdrLen));
    }
    const uint32_t length = tavrel_ck_sub<uint32_t>(error_message->nlmsg_len, offset);

    const struct nlattr *table[NLMSGERR_ATTR_MAX + 1];
    static_assert(NLMSGERR_ATTR_MAX >= 4, "extended-ack attribute table");
    tavrel_nla_parse(reinterpret_cast<const struct nlattr *>(bytes + offset), table, length, 4);
    const struct nlattr *msg = table[NLMSGERR_ATTR_MSG];
    if (msg == nullptr)
        return;

    /* The kernel terminates the text, but one that fills its attribute must
     * not let the print run past it; the precision bounds it in place. The
     * attribute may sit at any offset, as the echoed request's length
     * decides. */
    const int text_len = tavrel_attr_len(msg) - NLA_HDRLEN;
    const char *text = reinterpret_cast<const char *>(msg) + NLA_HDRLEN;
    TAVREL_LOG(ERR, "%s(): EXTACK reports %.*s\n", "tavrel_nla_extack", text_len, text);
}

/* ---- sockets and transactions ------------------------------------------------ */

int tavrel_netlink_open(int protocol)
{
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol);
    TAVREL_LOG(LOW, "%s(): opened file descriptor %p\n", "tavrel_netlink_open", TAVREL_FD_PTR(fd));
    if (fd < 0) {
        TAVREL_LOG(ERR, "%s(): opening NL socket failed: errno=[%d, %s]\n", "tavrel_netlink_open", errno,
                   strerror(errno));
        return fd;
    }

    const int one = 1;
    if (setsockopt(fd, SOL_NETLINK, NETLINK_EXT_ACK, &one, sizeof one) < 0)
        TAVREL_LOG(HIGH, "%s(): EXTACK not supported\n", "tavrel_netlink_open");

    struct sockaddr_nl address;
    memset(&address, 0, sizeof address);
    address.nl_family = AF_NETLINK;
    if (bind(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof address) < 0) {
        TAVREL_LOG(ERR, "%s(): binding NL socket failed: errno=[%d, %s]\n", "tavrel_netlink_open", errno,
                   strerror(errno));
        close_socket(fd, "tavrel_netlink_open");
        return -1;
    }
    return fd;
}

extern "C" int tavrel_netlink_transact(const struct nlmsghdr *request, int protocol, int *kernel_error)
{
    if (request == nullptr) {
        tavrel_null_arg(__func__, "request");
        return -1;
    }
    recv_buffer buffer;
    memset(&buffer, 0, sizeof buffer);
    if (kernel_error != nullptr)
        *kernel_error = 0;

    const int fd = open_socket(protocol, __func__);
    if (fd < 0)
        return -1;

    int result = send_request(fd, request, __func__, false);
    ssize_t received = 0;
    if (result == 0) {
        if (!(request->nlmsg_flags & NLM_F_ACK)) {
            TAVREL_LOG(MED, "%s(): Not requesing ACK for NL message\n", __func__);
        } else {
            received = recvfrom(fd, buffer.bytes, sizeof buffer.bytes, 0, nullptr, nullptr);
            if (received < 0) {
                TAVREL_LOG(ERR, "%s(): Receiving NL ACK from kernel failed: errno=[%d, %s]\n", __func__, errno,
                           strerror(errno));
                result = -1;
            } else {
                result = read_ack(buffer.bytes, static_cast<size_t>(received), kernel_error);
            }
        }
    }
    /* A refusal echoes the whole request back, keys included. */
    wipe_received(buffer, received);
    close_socket(fd, __func__);
    return result;
}

/* ---- dumps ------------------------------------------------------------------- */

extern "C" int tavrel_netlink_dump(const struct nlmsghdr *request, int protocol, tavrel_dump_cb callback,
                                   void *context)
{
    if (request == nullptr || callback == nullptr) {
        tavrel_null_arg(__func__, request == nullptr ? "request" : "callback");
        return -1;
    }
    recv_buffer buffer;
    memset(&buffer, 0, sizeof buffer);

    const int fd = open_socket(protocol, __func__);
    if (fd < 0)
        return -1;

    int result = send_request(fd, request, __func__, true);
    bool done = result != 0;
    ssize_t most_received = 0;
    while (!done) {
        const ssize_t received = recvfrom(fd, buffer.bytes, sizeof buffer.bytes, 0, nullptr, nullptr);
        if (received > most_received)
            most_received = received;
        if (received < 0) {
            TAVREL_LOG(ERR, "%s(): receiving NL dump failed. errno=[%d, %s]\n", __func__, errno, strerror(errno));
            result = -1;
            break;
        }
        done = walk_datagram(buffer.bytes, static_cast<size_t>(received), [&](const struct nlmsghdr *message) {
            if (message->nlmsg_type == NLMSG_ERROR) {
                if (message->nlmsg_len < kNlmsgErrLen) {
                    TAVREL_LOG(ERR, "%s(): invalid NL ERR received\n", "tavrel_netlink_dump");
                    result = -1;
                    return true;
                }
                const int32_t code = payload_s32(message);
                if (code != 0) {
                    const int err = tavrel_ck_neg<int32_t>(code);
                    TAVREL_LOG(ERR, "%s(): kernel reports errno [%d, %s]\n", "tavrel_netlink_dump", err,
                               strerror(err));
                    result = -1;
                    return true;
                }
            } else if (message->nlmsg_type == NLMSG_DONE) {
                if (message->nlmsg_len < kNlmsgDoneLen) {
                    TAVREL_LOG(ERR, "%s(): inavlid dump done message\n", "tavrel_netlink_dump");
                    result = -1;
                    return true;
                }
                const int32_t status = payload_s32(message);
                if (status < 0) {
                    const int err = tavrel_ck_neg<int32_t>(status);
                    TAVREL_LOG(ERR, "%s(): NL dump reports errno [%d, %s]\n", "tavrel_netlink_dump", err,
                               strerror(err));
                    result = -1;
                } else {
                    result = 0;
                }
                return true;
            }
            /* An interrupted dump is still delivered whole: the callers'
             * tables are advisory and a restart could loop forever. */
            if (message->nlmsg_flags & NLM_F_DUMP_INTR)
                TAVREL_LOG(HIGH, "%s(): NL dump was interrupted.\n", "tavrel_netlink_dump");
            callback(message, context);
            return false;
        });
    }
    /* Dumped security associations carry their keys. */
    wipe_received(buffer, most_received);
    close_socket(fd, __func__);
    return result;
}

/* ---- queries ------------------------------------------------------------------ */

extern "C" int tavrel_netlink_query(const struct nlmsghdr *request, int protocol, tavrel_query_cb callback,
                                    void *context, int response_required)
{
    if (request == nullptr || callback == nullptr) {
        tavrel_null_arg(__func__, request == nullptr ? "request" : "callback");
        return -1;
    }
    recv_buffer buffer;
    memset(&buffer, 0, sizeof buffer);

    const int fd = open_socket(protocol, __func__);
    if (fd < 0)
        return -1;

    int result = send_request(fd, request, __func__, false);
    ssize_t received = 0;
    if (result == 0) {
        received = recvfrom(fd, buffer.bytes, sizeof buffer.bytes, 0, nullptr, nullptr);
        if (received < 0) {
            TAVREL_LOG(ERR, "%s(): Receiving query response from kernel failed: errno=[%d, %s]\n", __func__, errno,
                       strerror(errno));
            result = -1;
        } else {
            const bool decided =
                walk_datagram(buffer.bytes, static_cast<size_t>(received), [&](const struct nlmsghdr *message) {
                    /* A query expects an answer, never an acknowledgement:
                     * any error message, code 0 included, fails it. */
                    if (message->nlmsg_type == NLMSG_ERROR) {
                        if (message->nlmsg_len < kNlmsgErrLen) {
                            TAVREL_LOG(ERR, "%s(): invalid NL error received\n", "tavrel_netlink_query");
                        } else {
                            TAVREL_LOG(ERR, "%s(): Kernel reports error %d\n", "tavrel_netlink_query",
                                       payload_s32(message));
                            tavrel_nla_extack(message);
                        }
                        result = -1;
                        return true;
                    }
                    const uint32_t answer = callback(message, context);
                    if (answer == 1) {
                        result = 0;
                        return true;
                    }
                    if (answer == 0) {
                        TAVREL_LOG(ERR, "%s(): Netlink query cb reports failed\n", "tavrel_netlink_query");
                        result = -1;
                        return true;
                    }
                    return false;
                });
            if (!decided && response_required == 1) {
                TAVREL_LOG(MED, "%s(): Netlink query response not found\n", __func__);
                result = -1;
            }
        }
    }
    wipe_received(buffer, received);
    close_socket(fd, __func__);
    return result;
}

uint32_t tavrel_netlink_query_genl_cb(const struct nlmsghdr *message, void *context)
{
    const struct nlattr *table[CTRL_ATTR_MAX + 1];
    static_assert(CTRL_ATTR_MAX >= 10, "generic-netlink control attribute table");
    const uint32_t length = tavrel_ck_sub<uint32_t>(message->nlmsg_len, kGenlHdrLen);
    tavrel_nla_parse(
        reinterpret_cast<const struct nlattr *>(reinterpret_cast<const uint8_t *>(message) + kGenlHdrLen), table,
        length, 10);
    const struct nlattr *id_attr = table[CTRL_ATTR_FAMILY_ID];
    if (id_attr == nullptr)
        return 2;
    uint16_t id = 0;
    const size_t payload = tavrel_attr_len(id_attr) - NLA_HDRLEN;
    memcpy(&id, reinterpret_cast<const uint8_t *>(id_attr) + NLA_HDRLEN, payload < sizeof id ? payload : sizeof id);
    *static_cast<int32_t *>(context) = id;
    return 1;
}

extern "C" int tavrel_netlink_query_genl(const char *family_name, uint8_t version, uint16_t *family_id)
{
    if (family_name == nullptr || family_id == nullptr) {
        tavrel_null_arg(__func__, family_name == nullptr ? "family_name" : "family_id");
        return -1;
    }
    struct {
        struct nlmsghdr header;
        struct genlmsghdr genl;
        uint8_t attributes[1024];
    } request;
    memset(&request, 0, sizeof request);
    request.header.nlmsg_len = kGenlHdrLen;
    request.header.nlmsg_type = GENL_ID_CTRL;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    request.genl.cmd = CTRL_CMD_GETFAMILY;
    request.genl.version = version;

    /* The name must fit the attribute area whole. */
    const size_t name_size = strlen(family_name) + 1;
    if (name_size > sizeof request.attributes - NLA_HDRLEN)
        tavrel_check_failed();
    tavrel_nla_put(&request.header, CTRL_ATTR_FAMILY_NAME, static_cast<int>(name_size), family_name);

    int32_t id = -1;
    const int result = tavrel_netlink_query(&request.header, NETLINK_GENERIC, tavrel_netlink_query_genl_cb, &id, 1);
    if (result != 0) {
        TAVREL_LOG(ERR, "%s(): Netlink query failed\n", __func__);
        return result;
    }
    if (id < 0) {
        TAVREL_LOG(ERR, "%s(): No response to GENL family ID query\n", __func__);
        return -1;
    }
    *family_id = static_cast<uint16_t>(id);
    return 0;
}
