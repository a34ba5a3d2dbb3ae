// Exported calls given a NULL where they need a pointer: -1 (or nothing, for
// the void ones) after one ERR line naming the argument, and no socket.
#include <functional>

#include "tavrel_test.h"

class Arguments : public TavrelTest {};

TEST_F(Arguments, NullPointersAreRefusedByName)
{
    struct {
        nlmsghdr header;
        uint8_t room[8];
    } buffer{};
    nlmsghdr &request = buffer.header;
    request.nlmsg_len = NLMSG_HDRLEN;
    tavrel_ip_addr address{};
    address.family = 6;
    const nlattr *table[4];
    uint32_t label = 0;
    uint16_t id = 0;
    auto dump_cb = [](const nlmsghdr *, void *) {};
    auto query_cb = [](const nlmsghdr *, void *) -> uint32_t { return 1; };
    const tavrel_xfrm_sa_addrs *no_addrs = nullptr;
    const struct {
        const char *function, *argument;
        std::function<int()> call;
        bool to_file;
    } cases[] = {
        {"tavrel_netlink_transact", "request", [] { return tavrel_netlink_transact(nullptr, 0, nullptr); }, true},
        {"tavrel_nla_put", "request", [] { return tavrel_nla_put(nullptr, 1, 0, nullptr), -1; }, true},
        {"tavrel_nla_put", "data", [&] { return tavrel_nla_put(&request, 1, 4, nullptr), -1; }, true},
        {"tavrel_nla_put_ip_addr", "request", [] { return tavrel_nla_put_ip_addr(nullptr, 1, "::1"); }, true},
        {"tavrel_nla_put_ip_addr", "address_text", [&] { return tavrel_nla_put_ip_addr(&request, 1, nullptr); }, true},
        {"tavrel_nla_parse", "table", [] { return tavrel_nla_parse(nullptr, nullptr, 8, 3), -1; }, true},
        {"tavrel_nla_parse", "first", [&] { return tavrel_nla_parse(nullptr, table, 8, 3), -1; }, true},
        {"tavrel_netlink_dump", "request", [&] { return tavrel_netlink_dump(nullptr, 0, dump_cb, nullptr); }, true},
        {"tavrel_netlink_dump", "callback", [&] { return tavrel_netlink_dump(&request, 0, nullptr, nullptr); }, true},
        {"tavrel_netlink_query", "request", [&] { return tavrel_netlink_query(nullptr, 0, query_cb, nullptr, 1); },
         true},
        {"tavrel_netlink_query", "callback", [&] { return tavrel_netlink_query(&request, 0, nullptr, nullptr, 1); },
         true},
        {"tavrel_netlink_query_genl", "family_name", [&] { return tavrel_netlink_query_genl(nullptr, 1, &id); }, true},
        {"tavrel_netlink_query_genl", "family_id", [] { return tavrel_netlink_query_genl("nlctrl", 1, nullptr); },
         true},
        {"tavrel_rtnetlink_addr_cfg", "interface_name",
         [&] { return tavrel_rtnetlink_addr_cfg(nullptr, &address, 64, 0, 0); }, true},
        {"tavrel_rtnetlink_addr_cfg", "address", [] { return tavrel_rtnetlink_addr_cfg("lo", nullptr, 64, 0, 0); },
         true},
        {"tavrel_rtnetlink_gso_max_size", "interface_name", [] { return tavrel_rtnetlink_gso_max_size(nullptr, 1); },
         false},
        {"tavrel_xfrm_add_states", "sa_cfg", [] { return tavrel_xfrm_add_states(nullptr, 0, 0, 0); }, true},
        {"tavrel_xfrm_remove_states", "addrs", [] { return tavrel_xfrm_remove_states(nullptr); }, true},
        {"tavrel_xfrm_add_policies", "addrs",
         [&] { return tavrel_xfrm_add_policies(no_addrs, nullptr, "10.0.0.1", nullptr, 1); }, true},
        {"tavrel_addrlabel_add", "address", [] { return tavrel_addrlabel_add(nullptr, 64, 20, 1); }, true},
        {"tavrel_addrlabel_del", "address", [] { return tavrel_addrlabel_del(nullptr, 64, 20, 1); }, true},
        {"tavrel_addrlabel_generate", "label", [] { return tavrel_addrlabel_generate(4, 0, nullptr); }, true},
        {"tavrel_addrlabel_generate", "label", [] { return tavrel_addrlabel_generate(6, 1, nullptr); }, true},
        {"tavrel_addrlabel_purge_label", "address", [] { return tavrel_addrlabel_purge_label(nullptr, 64, 1); }, true},
    };
    for (const auto &c : cases) {
        logcap::start();
        const uint32_t len_before = request.nlmsg_len;
        EXPECT_EQ(c.call(), -1) << c.function << " " << c.argument;
        const std::string line = std::string(c.function) + "(): " + c.argument + " is NULL\n";
        EXPECT_EQ(logcap::diag_lines(), lines{"ERR " + line}) << c.function;
        EXPECT_EQ(logcap::sinks_of(line), c.to_file ? logcap::ALL_SINKS : logcap::NO_FILE) << c.function;
        EXPECT_TRUE(fk::sockets().empty()) << c.function;
        EXPECT_EQ(request.nlmsg_len, len_before);
    }
    // Where the pointer is not needed, NULL is fine: no data for an empty
    // payload, nothing to walk in an empty run.
    logcap::start();
    tavrel_nla_put(&request, 1, 0, nullptr);
    EXPECT_EQ(request.nlmsg_len, NLMSG_HDRLEN + 4u);
    table[0] = reinterpret_cast<const nlattr *>(&label);
    tavrel_nla_parse(nullptr, table, 0, 3);
    EXPECT_EQ(table[0], nullptr);
    EXPECT_TRUE(logcap::diag_lines().empty());
}
