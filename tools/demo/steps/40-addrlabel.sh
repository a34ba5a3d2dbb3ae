step "Address labels: the kernel's own table in a fresh namespace (labels below 20 are the system's)"
show ip addrlabel list

step "Address labels: entries on lo (index 1), two sharing label 100"
lib addrlabel_add 2001:db8:1:: 64 100 1
lib addrlabel_add 2001:db8:2:: 64 100 1
lib addrlabel_add 2001:db8:3:: 64 101 1
show ip addrlabel list
step "Address labels: the same entry again is refused by the kernel (-17, EEXIST)"
lib_fails addrlabel_add 2001:db8:1:: 64 100 1

step "Address labels: a label no entry uses (100 has 99 free beneath it), and mode 1"
lib addrlabel_generate 6 0
lib addrlabel_generate 6 1
step "Address labels: IPv4 has no label table, so the dump is refused"
lib_fails addrlabel_generate 4 0

step "Address labels: purging 2001:db8:1::5/64 on lo removes its entry and the other label-100 entry"
lib addrlabel_purge_label 2001:db8:1::5 64 1
show ip addrlabel list

step "Address labels: deleting the last one"
lib addrlabel_del 2001:db8:3:: 64 101 1
show ip addrlabel list
