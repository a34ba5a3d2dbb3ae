#!/bin/busybox sh
# PID 1 of the test guest built by run-guest.sh. Runs under busybox ash, which
# runs its applets in preference to PATH; the payload gets /bin/sh (dash)
# instead, so that "ip" and "tc" there are the real iproute2 tools.
# shellcheck shell=dash
#
# Contract with the host side: print "TAVREL-GUEST-UP <nonce>" once the
# filesystems are mounted and "TAVREL-GUEST-EXIT=<rc> <nonce>" when the
# payload is done, then power off. The nonce comes from /etc/tavrel/nonce
# so a payload that happens to echo the marker text cannot end the run early.

PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
export PATH HOME=/root TERM=dumb

# Applet links are made here rather than at build time so the build never has
# to execute a foreign-architecture busybox. Existing files (the real ip, tc)
# are left alone by --install.
/bin/busybox --install -s

mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mkdir -p /dev/pts /dev/shm
mount -t devpts devpts /dev/pts
mount -t tmpfs tmpfs /dev/shm
mount -t tmpfs tmpfs /tmp
mount -t tmpfs tmpfs /run
# "ip netns add" keeps its bind mounts here.
mkdir -p /run/netns
hostname tavrel-guest

nonce=$(cat /etc/tavrel/nonce)
echo "TAVREL-GUEST-UP $nonce"

finish() {
	echo "TAVREL-GUEST-EXIT=$1 $nonce"
	sync
	poweroff -f
	# Only reached if power-off is not wired up; -no-reboot turns this into
	# a qemu exit as well.
	echo b >/proc/sysrq-trigger
	sleep 60
}

# A module that is missing is reported, not fatal: the payload's own checks
# say whether it mattered.
builtin=/lib/modules/$(uname -r)/modules.builtin
loaded='' inkernel='' missing=''
while read -r m; do
	pat=$(echo "$m" | sed 's/[-_]/[-_]/g')
	if grep -q "/$pat\.ko\$" "$builtin" 2>/dev/null; then
		inkernel="$inkernel $m"
	elif modprobe "$m" </dev/null 2>/dev/null; then
		loaded="$loaded $m"
	else
		missing="$missing $m"
	fi
done </etc/tavrel/modules
echo "tavrel-guest: modules loaded:$loaded"
echo "tavrel-guest: modules built in:$inkernel"
[ -n "$missing" ] && echo "tavrel-guest: WARNING: modules not available:$missing"

/sbin/ip link set lo up

LD_LIBRARY_PATH=/payload/lib
export LD_LIBRARY_PATH
cd /payload || finish 125

if [ -s /etc/tavrel/append-init ]; then
	/bin/sh /etc/tavrel/append-init </dev/null
	rc=$?
	if [ $rc -ne 0 ]; then
		echo "tavrel-guest: --append-init commands failed with status $rc; payload not run"
		finish $rc
	fi
fi

# An executable run.sh with a #! line picks its own interpreter (bash is
# there); anything else is run by /bin/sh.
if [ -x ./run.sh ] && [ "$(head -c2 ./run.sh)" = "#!" ]; then
	./run.sh </dev/null
else
	/bin/sh ./run.sh </dev/null
fi
finish $?
