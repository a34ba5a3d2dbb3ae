step "Rules: packets marked 0x10/0xff look up table 100 at priority 1000"
lib rtnetlink_add_ip_rule 0x10 0xff 100 1000
lib rtnetlink_add_ip_rule 0x20 0xffff 200 2000
show ip rule show
step "Rules: a duplicate is sent unacknowledged, so the kernel's refusal is not seen"
lib rtnetlink_add_ip_rule 0x10 0xff 100 1000
show ip rule show
step "Rules: deleted by their four values, and by priority alone"
lib rtnetlink_del_ip_rule 0x10 0xff 100 1000
lib rtnetlink_del_ip_rule_by_prio 2000
show ip rule show

# A dummy interface where the kernel has the driver, a veth pair otherwise.
ip link add d0 type dummy 2>/dev/null || ip link add d0 type veth peer name d0peer
ip link set d0 up

step "Addresses: operation 0 adds 10.1.0.1/24 forever"
lib rtnetlink_addr_cfg d0 10.1.0.1 24 0
show ip addr show dev d0
step "Addresses: adding it again is refused by the kernel"
lib_fails rtnetlink_addr_cfg d0 10.1.0.1 24 0
step "Addresses: operation 1 replaces it, deprecated and valid for 600 s; operation 3 adds one so"
lib rtnetlink_addr_cfg d0 10.1.0.1 24 1 600
lib rtnetlink_addr_cfg d0 fd00::5 64 3 300
show ip addr show dev d0
step "Addresses: operation 2 replaces with infinite lifetimes"
lib rtnetlink_addr_cfg d0 10.1.0.1 24 2
show ip addr show dev d0
step "Addresses: an unknown interface"
lib_fails rtnetlink_addr_cfg nope0 10.1.0.1 24 0

step "GSO limit: 32768 bytes on d0"
lib rtnetlink_gso_max_size d0 32768
show ip -d link show d0
step "GSO limit: 0 is sent unchecked and refused by the kernel"
lib_fails rtnetlink_gso_max_size d0 0

step "Qdiscs: pfifo 1: at the root (parent 0), added and deleted"
lib rtnetlink_tc_qdisc d0 pfifo 0 0x10000 add
show tc qdisc show dev d0
lib rtnetlink_tc_qdisc d0 pfifo 0 0x10000 delete
show tc qdisc show dev d0
step "Qdiscs: an unknown interface goes on as index 0, and the kernel refuses it"
lib_fails rtnetlink_tc_qdisc nope0 pfifo 0 0x10000 add
step "Qdiscs: change is not an operation of tc_qdisc"
lib_fails rtnetlink_tc_qdisc d0 pfifo 0 0x10000 change

if tc qdisc add dev d0 root handle 9: prio 2>/dev/null; then
  tc qdisc del dev d0 root
  step "Prio: the five-band prio qdisc"
  lib rtnetlink_tc_prio d0 0 0x10000 add
  show tc qdisc show dev d0
  lib rtnetlink_tc_prio d0 0 0x10000 delete
  step "Flow control: three-band prio, added with flow on, then switched off"
  lib rtnetlink_flow_control d0 0 0x10000 1 add
  lib rtnetlink_flow_control d0 0 0x10000 0 change
  show tc qdisc show dev d0
  lib rtnetlink_flow_control d0 0 0x10000 0 delete
else
  step "Prio and flow control: this kernel has no prio qdisc; the requests are refused"
  lib_fails rtnetlink_tc_prio d0 0 0x10000 add
fi
