step "Transport: generic-netlink family lookup"
lib netlink_query_genl nlctrl
lib_fails netlink_query_genl no_such_family

step "Transport: an acknowledged RTM_NEWRULE (priority 1234, table 77) sent as raw bytes"
# nlmsghdr(len 44, RTM_NEWRULE, REQUEST|ACK|EXCL|CREATE) + fib_rule_hdr(AF_INET, action 1)
# + FRA_PRIORITY 1234 + FRA_TABLE 77
rule=2c00000020000506000000000000000002000000000000010000000008000600d204000008000f004d000000
lib netlink_transact 0 "$rule"
show ip rule show
step "Transport: the same rule again is refused by the kernel (-17, EEXIST)"
lib_fails netlink_transact 0 "$rule"

step "Transport: a dump of the rule table"
lib netlink_dump rules
