#!/usr/bin/env bash
# Boot a throwaway Debian kernel under qemu (software emulation) and run a
# test payload inside it, so that kernel-tier tests get ESP, AH, the prio
# qdisc and friends even when the host kernel lacks them.
#
# Usage:
#   tools/vm/run-guest.sh --arch x86_64|armhf --payload DIR [--kernel LINE]
#                         [--cache DIR] [--timeout SECONDS] [--append-init CMD]...
#
#   --arch          x86_64: Debian's cloud-amd64 kernel on qemu's pc machine.
#                   armhf:  Debian's armmp kernel on qemu's virt board (Cortex-A15).
#   --kernel LINE   the kernel line: 5.10 (Debian bullseye), 6.1 (bookworm,
#                   the default) or 6.12 (bookworm-backports). The guest's
#                   user space always comes from bookworm.
#   --payload DIR   copied to /payload in the guest. DIR/run.sh is run there by
#                   busybox sh, with /payload as working directory, stdin from
#                   /dev/null and /payload/lib on LD_LIBRARY_PATH. Shared
#                   libraries that the payload's ELF files need and that the
#                   payload does not carry itself are copied in: for x86_64 from
#                   the host, for armhf from Debian's armhf packages (then from
#                   the cross-toolchain's /usr/arm-linux-gnueabihf/lib).
#   --cache DIR     downloaded .debs, unpacked kernel and the prepared module
#                   image (default ${XDG_CACHE_HOME:-$HOME/.cache}/tavrel-vm).
#                   Everything in it is reused; delete it to pick up a newer
#                   kernel.
#   --timeout S     limit for the whole run, boot included (default 900).
#   --append-init CMD
#                   shell command the guest runs in /payload after its own
#                   setup and before run.sh. Repeatable. If one fails, run.sh
#                   is skipped and the run ends with that command's status.
#
# The guest console goes to stdout; this script's own messages to stderr.
# Exit status: that of run.sh in the guest; 124 if the run timed out; 125 if
# the guest could not be built or booted, panicked, or stopped without
# reporting a status; 2 for a bad command line.
#
# Environment: TAVREL_VM_BOOT_TIMEOUT (seconds allowed until the guest's init
# reports in, default 300), TAVREL_VM_MEM (guest memory in MiB; default 512,
# more when the initramfs is large, since it is held twice while unpacking).
#
# Needs root on first use: missing host packages are installed with apt-get.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
EXIT_TIMEOUT=124
EXIT_INFRA=125

log() { echo "run-guest: $*" >&2; }
die() {
	echo "run-guest: ERROR: $*" >&2
	exit "$EXIT_INFRA"
}
bad_args() {
	echo "run-guest: $*" >&2
	exit 2
}
usage() {
	sed -n '/^# Usage:/,/^# Needs root/p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//' >&2
	exit 2
}

ARCH='' PAYLOAD='' TIMEOUT=900 LINE=6.1
CACHE=${XDG_CACHE_HOME:-${HOME:-/tmp}/.cache}/tavrel-vm
APPEND_INIT=()
while [[ $# -gt 0 ]]; do
	case $1 in
	--arch) ARCH=${2:?--arch needs a value}; shift 2 ;;
	--payload) PAYLOAD=${2:?--payload needs a value}; shift 2 ;;
	--kernel) LINE=${2:?--kernel needs a value}; shift 2 ;;
	--cache) CACHE=${2:?--cache needs a value}; shift 2 ;;
	--timeout) TIMEOUT=${2:?--timeout needs a value}; shift 2 ;;
	--append-init) APPEND_INIT+=("${2?--append-init needs a value}"); shift 2 ;;
	-h | --help) usage ;;
	*) echo "run-guest: unknown argument: $1" >&2; usage ;;
	esac
done
[[ -n $ARCH && -n $PAYLOAD ]] || usage
[[ $TIMEOUT =~ ^[1-9][0-9]*$ ]] || bad_args "--timeout must be a positive number of seconds"
[[ -f $PAYLOAD/run.sh ]] || bad_args "payload $PAYLOAD has no run.sh"
PAYLOAD=$(cd "$PAYLOAD" && pwd)
BOOT_TIMEOUT=${TAVREL_VM_BOOT_TIMEOUT:-300}

# The Debian suite that ships each kernel line. User space (busybox, and for
# armhf libc, iproute2 and the shells) comes from bookworm whatever the
# kernel: the payload is built against bookworm's glibc.
USER_SUITE=bookworm
case $LINE in
5.10) KERNEL_SUITE=bullseye ;;
6.1) KERNEL_SUITE=bookworm ;;
6.12) KERNEL_SUITE=bookworm-backports ;;
*) bad_args "unknown --kernel '$LINE' (5.10, 6.1 or 6.12)" ;;
esac
((BOOT_TIMEOUT < TIMEOUT)) || BOOT_TIMEOUT=$TIMEOUT

# Modules the guest's init loads up front. The kernel would autoload most of
# them on demand, but loading them early makes a missing one visible in the
# console log instead of as an obscure EINVAL/ENOENT from a test.
GUEST_MODULES="xfrm_user esp4 esp6 ah4 ah6 sch_prio authenc authencesn
des_generic xcbc cbc ctr aes_generic sha1_generic sha256_generic
sha512_generic md5 hmac echainiv seqiv dummy veth"

case $ARCH in
x86_64)
	DEB_ARCH=amd64 TRIPLET=x86_64-linux-gnu
	KERNEL_META=linux-image-cloud-amd64
	QEMU=qemu-system-x86_64 QEMU_PKG=qemu-system-x86
	# 6.12 takes a double fault at random early in boot (about one boot in
	# two, whatever the CPU model), mostly right after the cmpxchg16b of
	# SLUB's per-CPU fast path, under this qemu's software emulation. Without
	# CX16 the kernel does that step with its own routine, and boots every
	# time (tools/vm/README.md).
	X86_CPU=max
	[[ $LINE != 6.12 ]] || X86_CPU=max,-cx16
	QEMU_BOARD=(-cpu "${TAVREL_VM_CPU:-$X86_CPU}") CONSOLE=ttyS0
	ELF_MACHINE='Advanced Micro Devices X86-64'
	# Host binaries are of the guest arch, so ip/tc and every library
	# come from the host: one consistent glibc, the one the payload was
	# linked against. Only the static busybox is fetched (installing
	# busybox-static on the host would replace its busybox).
	USER_DEBS=(busybox-static netbase)
	TOOLROOT=/
	LIBDIRS=("/lib/$TRIPLET" "/usr/lib/$TRIPLET" /lib64 /usr/lib64)
	HOST_PKGS=(iproute2 dash bash)
	MODTREES=(kernel/arch/x86/crypto)
	;;
armhf)
	DEB_ARCH=armhf TRIPLET=arm-linux-gnueabihf
	KERNEL_META=linux-image-armmp
	QEMU=qemu-system-arm QEMU_PKG=qemu-system-arm
	QEMU_BOARD=(-M virt -cpu cortex-a15) CONSOLE=ttyAMA0
	ELF_MACHINE=ARM
	# Library dependencies of these are added at download time.
	USER_DEBS=(busybox-static netbase iproute2 dash bash libc6 libgcc-s1 libstdc++6)
	TOOLROOT= # set below, once the cache path is known
	LIBDIRS=()
	HOST_PKGS=()
	MODTREES=(kernel/arch/arm/crypto)
	;;
*) bad_args "unknown --arch '$ARCH' (x86_64 or armhf)" ;;
esac
MODTREES+=(kernel/crypto kernel/lib/crypto kernel/net/xfrm kernel/net/ipv4
	kernel/net/ipv6 kernel/net/sched 'kernel/drivers/net/dummy.ko*'
	'kernel/drivers/net/veth.ko*')
# dash is /bin/sh: Debian's static busybox prefers its own applets over
# PATH, so under busybox sh "ip" and "tc" would be the cut-down applets.
TOOLS=(ip tc ss bridge dash bash)

ACACHE=$CACHE/$ARCH-$LINE
SYSROOT=$ACACHE/sysroot
if [[ $ARCH == armhf ]]; then
	TOOLROOT=$SYSROOT
	LIBDIRS=("$SYSROOT/lib/$TRIPLET" "$SYSROOT/usr/lib/$TRIPLET" /usr/arm-linux-gnueabihf/lib)
fi

WORK='' QEMU_PID='' STREAM_PID=''
# shellcheck disable=SC2317 # called from the EXIT trap
cleanup() {
	local pid
	for pid in $QEMU_PID $STREAM_PID; do
		kill "$pid" 2>/dev/null || true
	done
	[[ -z $WORK ]] || rm -rf "$WORK"
}
trap cleanup EXIT
trap 'log "interrupted"; exit 130' INT TERM

# ---------------------------------------------------------------- host side

apt_install() {
	[[ $EUID -eq 0 ]] || die "host packages missing ($*); run as root or install them"
	log "installing host packages: $*"
	export DEBIAN_FRONTEND=noninteractive
	for _ in 1 2 3; do
		if apt-get -q -o DPkg::Lock::Timeout=600 install -y --no-install-recommends "$@" >&2; then
			return 0
		fi
		# A fresh machine has no package lists yet, and another apt may
		# hold the lists lock for a while.
		apt-get -q -o DPkg::Lock::Timeout=600 update >&2 || sleep 20
	done
	die "apt-get install $* failed"
}

ensure_host_tools() {
	local need=() pkg
	command -v "$QEMU" >/dev/null || need+=("$QEMU_PKG")
	command -v depmod >/dev/null || [[ -x /usr/sbin/depmod || -x /sbin/depmod ]] || need+=(kmod)
	command -v cpio >/dev/null || need+=(cpio)
	command -v readelf >/dev/null || need+=(binutils)
	command -v xz >/dev/null || need+=(xz-utils)
	command -v flock >/dev/null || need+=(util-linux)
	for pkg in "${HOST_PKGS[@]}"; do
		dpkg-query -W -f '${Status}' "$pkg" 2>/dev/null | grep -q 'ok installed' || need+=("$pkg")
	done
	[[ ${#need[@]} -eq 0 ]] || apt_install "${need[@]}"
	PATH=$PATH:/usr/sbin:/sbin
}

# apt with its own sources, package lists and native architecture, kept in
# the cache: fetching guest-arch packages then neither needs "dpkg
# --add-architecture" on the host nor contends for the host's apt locks, and
# the host's sources decide nothing. The kernel's suite is pinned for the
# kernel packages only, so bookworm's user space stays the candidate.
APT_OPTS=()
private_apt_init() {
	local d=$ACACHE/apt suite
	mkdir -p "$d/lists/partial" "$d/cache/archives/partial" "$d/sources.list.d" "$d/preferences.d"
	touch "$d/status"
	for suite in $(printf '%s\n' "$USER_SUITE" "$KERNEL_SUITE" | sort -u); do
		echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian $suite main"
	done >"$d/sources.list"
	printf 'Package: linux-image-*\nPin: release n=%s\nPin-Priority: 990\n' "$KERNEL_SUITE" >"$d/preferences"
	APT_OPTS=(-q -o "Dir::State::Lists=$d/lists" -o "Dir::State::status=$d/status"
		-o "Dir::Cache=$d/cache" -o "Dir::Etc::sourcelist=$d/sources.list"
		-o "Dir::Etc::sourceparts=$d/sources.list.d" -o "Dir::Etc::preferences=$d/preferences"
		-o "Dir::Etc::preferencesparts=$d/preferences.d" -o "APT::Architecture=$DEB_ARCH"
		-o "APT::Architectures::=$DEB_ARCH" -o "APT::Sandbox::User=root")
	log "updating private $DEB_ARCH package lists"
	# An unrelated index that fails (a mirror mid-sync) is survivable as long
	# as the packages below still resolve, which is checked right after.
	if ! apt-get "${APT_OPTS[@]}" update >"$d/update.log" 2>&1; then
		sleep 5
		apt-get "${APT_OPTS[@]}" update >"$d/update.log" 2>&1 ||
			log "warning: apt-get update reported errors (see $d/update.log)"
	fi
}

# Kernel and guest userland .debs. Once complete they are never fetched
# again, so later runs work without any apt traffic.
fetch_debs() {
	local debs=$ACACHE/debs want="wanted: $KERNEL_META/$KERNEL_SUITE ${USER_DEBS[*]}/$USER_SUITE"
	if [[ -f $debs/.complete && $(head -n1 "$debs/.complete") == "$want" ]]; then
		return 0
	fi
	private_apt_init
	local kpkg pkgs
	kpkg=$(apt-cache "${APT_OPTS[@]}" depends "$KERNEL_META" |
		awk '/^ *Depends: linux-image-/ {print $2; exit}')
	[[ -n $kpkg ]] || die "cannot resolve $KERNEL_META for $DEB_ARCH (see $ACACHE/apt/update.log)"
	pkgs=("$kpkg" "${USER_DEBS[@]}")
	# Only library packages matter; the ELF walk later picks the files.
	mapfile -t -O ${#pkgs[@]} pkgs < <(apt-cache "${APT_OPTS[@]}" depends --recurse \
		--no-recommends --no-suggests --no-conflicts --no-breaks --no-replaces \
		--no-enhances "${USER_DEBS[@]}" | grep -E '^(lib|zlib)' | sort -u)
	mapfile -t pkgs < <(printf '%s\n' "${pkgs[@]}" | awk '!seen[$0]++')
	log "downloading ${#pkgs[@]} $DEB_ARCH packages (kernel $kpkg)"
	rm -rf "$debs.tmp"
	mkdir -p "$debs.tmp"
	(cd "$debs.tmp" && apt-get "${APT_OPTS[@]}" download "${pkgs[@]}" >&2) ||
		die "apt-get download failed for: ${pkgs[*]}"
	{ echo "$want"; (cd "$debs.tmp" && ls -- *.deb); } >"$debs.tmp/.complete"
	rm -rf "$debs"
	mv "$debs.tmp" "$debs"
}

# Unpacked kernel (with a full modules.dep) and guest userland.
unpack_debs() {
	local stamp=$ACACHE/unpacked deb
	if [[ -f $stamp ]] && cmp -s "$stamp" "$ACACHE/debs/.complete"; then
		return 0
	fi
	log "unpacking $DEB_ARCH packages"
	rm -rf "$ACACHE/kernel" "$SYSROOT"
	mkdir -p "$ACACHE/kernel" "$SYSROOT"
	for deb in "$ACACHE"/debs/*.deb; do
		case ${deb##*/} in
		linux-image-*) dpkg-deb -x "$deb" "$ACACHE/kernel" ;;
		*) dpkg-deb -x "$deb" "$SYSROOT" ;;
		esac
	done
	local kver
	kver=$(kernel_version)
	depmod -b "$ACACHE/kernel" "$kver" || die "depmod failed on the unpacked $kver tree"
	cp "$ACACHE/debs/.complete" "$stamp"
}

kernel_version() {
	local d
	for d in "$ACACHE"/kernel/lib/modules/*/; do
		[[ -d $d ]] && { basename "$d"; return 0; }
	done
	die "no lib/modules in the unpacked kernel package"
}

# The kernel-module half of the initramfs. Cached: copying a few thousand
# modules and running depmod is the slow part of building the image.
build_module_cpio() {
	local kver=$1 out=$2 key
	key=$(printf '%s\n' "$kver" "${MODTREES[@]}" | sha256sum | cut -c1-16)
	MODULE_CPIO=$ACACHE/modules-$key.cpio
	[[ -f $MODULE_CPIO ]] && return 0
	log "building module image for $kver"
	local src=$ACACHE/kernel/lib/modules/$kver root=$out/modroot
	local dst=$root/lib/modules/$kver
	mkdir -p "$dst"
	# modules.dep lists every module's full dependency chain, so one lookup
	# per selected module gives the closure.
	# Trees this kernel does not have are simply skipped.
	# Single modules are patterns: 6.12 compresses them (dummy.ko.xz).
	# shellcheck disable=SC2068 # the patterns expand in the module tree
	(cd "$src" && { find ${MODTREES[@]} -name '*.ko*' 2>/dev/null || true; }) |
		awk 'NR == FNR { want[$0] = 1; next }
		     { m = $1; sub(/:$/, "", m)
		       if (m in want) for (i = 1; i <= NF; i++) { x = $i; sub(/:$/, "", x); print x } }' \
			- "$src/modules.dep" | sort -u >"$out/modules.list"
	[[ -s $out/modules.list ]] || die "no modules selected from $src"
	(cd "$src" && cpio -pdm --quiet "$dst") <"$out/modules.list"
	# busybox modprobe only reads plain .ko files.
	find "$dst" -name '*.ko.xz' -exec xz -d {} +
	find "$dst" -name '*.ko.gz' -exec gzip -d {} +
	if find "$dst" -name '*.ko.zst' | grep -q .; then
		command -v zstd >/dev/null || apt_install zstd
		find "$dst" -name '*.ko.zst' -exec zstd -q -d --rm {} +
	fi
	local f
	for f in modules.builtin modules.builtin.modinfo; do
		[[ -f $src/$f ]] && cp "$src/$f" "$dst/"
	done
	sed -E 's/\.ko\.(xz|gz|zst)$/.ko/' "$src/modules.order" >"$dst/modules.order"
	depmod -b "$root" "$kver" || die "depmod failed on the module image"
	(cd "$root" && find . | LC_ALL=C sort | cpio -o -H newc -R 0:0 --quiet) >"$MODULE_CPIO.tmp"
	mv "$MODULE_CPIO.tmp" "$MODULE_CPIO"
	rm -rf "$root"
}

# ---------------------------------------------------------- ELF dependencies

is_elf() { [[ -f $1 && $(head -c4 "$1" | od -An -tx1 | tr -d ' \n') == 7f454c46 ]]; }
elf_machine() { { readelf -h "$1" 2>/dev/null || true; } | sed -n 's/^ *Machine: *//p'; }
elf_needed() { { readelf -dW "$1" 2>/dev/null || true; } | sed -n 's/.*(NEEDED).*\[\(.*\)\]$/\1/p'; }
elf_interp() { { readelf -lW "$1" 2>/dev/null || true; } | sed -n 's/.*program interpreter: \(.*\)\]$/\1/p'; }

# First file called $1 in LIBDIRS that is built for the guest's CPU.
find_lib() {
	local d
	for d in "${LIBDIRS[@]}"; do
		if [[ -e $d/$1 ]] && [[ $(elf_machine "$d/$1") == "$ELF_MACHINE" ]]; then
			echo "$d/$1"
			return 0
		fi
	done
	return 1
}

declare -A SEEN_LIB=() PROVIDED=()
# Copy into $ROOT everything the given guest-side ELF files need to run:
# their program interpreter and the NEEDED closure, skipping sonames the
# payload ships itself (those are found via LD_LIBRARY_PATH or RPATH).
copy_elf_deps() {
	local queue=("$@") f lib src interp
	while [[ ${#queue[@]} -gt 0 ]]; do
		f=${queue[0]}
		queue=("${queue[@]:1}")
		interp=$(elf_interp "$f")
		if [[ -n $interp && ! -e $ROOT$interp ]]; then
			src=$(find_lib "${interp##*/}") ||
				die "no $ARCH program interpreter ${interp##*/} (needed by ${f#"$ROOT"})"
			mkdir -p "$ROOT${interp%/*}"
			cp -L "$src" "$ROOT$interp"
		fi
		for lib in $(elf_needed "$f"); do
			[[ -n ${SEEN_LIB[$lib]:-} || -n ${PROVIDED[$lib]:-} ]] && continue
			SEEN_LIB[$lib]=1
			src=$(find_lib "$lib") ||
				die "no $ARCH library $lib (needed by ${f#"$ROOT"}) in: ${LIBDIRS[*]}"
			cp -L "$src" "$ROOT/lib/$TRIPLET/$lib"
			queue+=("$ROOT/lib/$TRIPLET/$lib")
		done
	done
}

# ------------------------------------------------------------ the guest root

build_root() {
	local nonce=$1 d tool src
	mkdir -p "$ROOT"
	for d in bin sbin usr/bin usr/sbin usr/lib "lib/$TRIPLET" etc/tavrel proc sys dev tmp run root var payload; do
		mkdir -p "$ROOT/$d"
	done
	ln -s "../../lib/$TRIPLET" "$ROOT/usr/lib/$TRIPLET"
	ln -s ../run "$ROOT/var/run"
	mknod -m 600 "$ROOT/dev/console" c 5 1 2>/dev/null || true

	src=$SYSROOT/bin/busybox
	is_elf "$src" || die "busybox-static did not unpack to $src"
	[[ -z $(elf_needed "$src") ]] || die "$src is not a static busybox"
	cp "$src" "$ROOT/bin/busybox"
	# The kernel runs this path to autoload crypto templates (cbc(aes), ...);
	# without it an ESP SA fails with "unable to initialize cryptographic
	# operations".
	ln -s /bin/busybox "$ROOT/sbin/modprobe"

	local elves=()
	for tool in "${TOOLS[@]}"; do
		src=
		for d in bin sbin usr/bin usr/sbin; do
			if [[ -f $TOOLROOT/$d/$tool && ! -L $TOOLROOT/$d/$tool ]]; then
				src=$TOOLROOT/$d/$tool
				break
			fi
		done
		[[ -n $src ]] || die "no $tool under $TOOLROOT (iproute2 of $ARCH)"
		[[ $(elf_machine "$src") == "$ELF_MACHINE" ]] || die "$src is not a $ARCH binary"
		case $tool in
		dash | bash) d=bin ;;
		*) d=sbin ;;
		esac
		cp "$src" "$ROOT/$d/$tool"
		elves+=("$ROOT/$d/$tool")
	done
	ln -s /sbin/ip "$ROOT/bin/ip"
	ln -s dash "$ROOT/bin/sh"
	[[ -d $TOOLROOT/etc/iproute2 ]] && cp -r "$TOOLROOT/etc/iproute2" "$ROOT/etc/"

	cat >"$ROOT/etc/passwd" <<-'EOF'
		root:x:0:0:root:/root:/bin/sh
		nobody:x:65534:65534:nobody:/nonexistent:/bin/false
	EOF
	printf 'root:x:0:\nnogroup:x:65534:\n' >"$ROOT/etc/group"
	printf '127.0.0.1\tlocalhost\n::1\tlocalhost ip6-localhost ip6-loopback\n' >"$ROOT/etc/hosts"
	# Protocol and service names, so that iproute2 prints them as on a host.
	cp "$SYSROOT/etc/protocols" "$SYSROOT/etc/services" "$ROOT/etc/" || die "netbase did not unpack"
	install -m 755 "$HERE/guest-init.sh" "$ROOT/init"
	# shellcheck disable=SC2086 # one module name per word
	printf '%s\n' $GUEST_MODULES >"$ROOT/etc/tavrel/modules"
	echo "$nonce" >"$ROOT/etc/tavrel/nonce"
	local cmd
	for cmd in "${APPEND_INIT[@]}"; do
		printf '%s\n' "$cmd" >>"$ROOT/etc/tavrel/append-init"
	done

	cp -a "$PAYLOAD/." "$ROOT/payload/"
	local f m
	while IFS= read -r -d '' f; do
		PROVIDED[${f##*/}]=1
	done < <(find "$ROOT/payload" \( -type f -o -type l \) -print0)
	while IFS= read -r -d '' f; do
		is_elf "$f" || continue
		m=$(elf_machine "$f")
		if [[ $m != "$ELF_MACHINE" ]]; then
			log "warning: payload file ${f#"$ROOT"/} is for '$m', not $ARCH; not resolving its libraries"
			continue
		fi
		elves+=("$f")
	done < <(find "$ROOT/payload" -type f -print0)
	# glibc loads libgcc_s at run time (thread cancellation, unwinding)
	# without a NEEDED entry for it.
	src=$(find_lib libgcc_s.so.1) && cp -L "$src" "$ROOT/lib/$TRIPLET/"
	copy_elf_deps "${elves[@]}"
}

# ------------------------------------------------------------------ running

# Watches the console log: streams it, and decides how the run ended.
run_qemu() {
	local kernel=$1 initrd=$2 nonce=$3 consolelog=$4
	local t0=$EPOCHREALTIME up='' now elapsed status=''
	# Created here: the stream below may start before qemu's redirection
	# opens it, and tail gives up on a file that does not exist yet.
	: >"$consolelog"
	"$QEMU" -accel tcg "${QEMU_BOARD[@]}" -m "$MEM" -smp 1 \
		-nodefaults -display none -serial stdio -no-reboot \
		-kernel "$kernel" -initrd "$initrd" \
		-append "console=$CONSOLE quiet panic=-1" </dev/null >"$consolelog" 2>&1 &
	QEMU_PID=$!
	(tail -n +1 -s 0.2 -f --pid="$QEMU_PID" "$consolelog" | tr -d '\r') &
	STREAM_PID=$!
	log "started $QEMU (pid $QEMU_PID), timeout ${TIMEOUT}s"

	while :; do
		now=$EPOCHREALTIME
		elapsed=$(awk -v a="$t0" -v b="$now" 'BEGIN { printf "%.1f", b - a }')
		if [[ -z $up ]] && grep -qa -m1 "TAVREL-GUEST-UP $nonce" "$consolelog"; then
			up=$elapsed
		fi
		status=$({ grep -aoE "TAVREL-GUEST-EXIT=[0-9]+ $nonce" "$consolelog" || true; } |
			tail -n1 | sed -E 's/^TAVREL-GUEST-EXIT=([0-9]+) .*/\1/')
		[[ -n $status ]] && break
		if ! kill -0 "$QEMU_PID" 2>/dev/null; then
			break
		fi
		if [[ -z $up ]] && ((${elapsed%.*} >= BOOT_TIMEOUT)); then
			finish_stream
			die "guest did not come up within ${BOOT_TIMEOUT}s (no init banner on the console)"
		fi
		if ((${elapsed%.*} >= TIMEOUT)); then
			finish_stream
			echo "run-guest: ERROR: timed out after ${TIMEOUT}s without the payload's exit status" >&2
			exit "$EXIT_TIMEOUT"
		fi
		sleep 0.3
	done

	# Give the guest a moment to power off by itself, then stop it.
	for _ in $(seq 20); do
		kill -0 "$QEMU_PID" 2>/dev/null || break
		sleep 0.25
	done
	local qrc=0
	if kill -0 "$QEMU_PID" 2>/dev/null; then
		kill "$QEMU_PID" 2>/dev/null || true
	fi
	wait "$QEMU_PID" 2>/dev/null || qrc=$?
	QEMU_PID=
	wait "$STREAM_PID" 2>/dev/null || true
	STREAM_PID=

	if [[ -n $status ]]; then
		log "$ARCH guest (kernel line $LINE) up after ${up:-?}s, payload exit status $status after ${elapsed}s"
		exit "$status"
	fi
	if grep -qa 'Kernel panic' "$consolelog"; then
		die "guest kernel panicked (see the console output above)"
	fi
	if [[ -z $up ]]; then
		die "guest never came up; qemu exited with status $qrc after ${elapsed}s"
	fi
	die "guest stopped without reporting the payload's exit status (qemu status $qrc after ${elapsed}s)"
}

finish_stream() {
	kill "$QEMU_PID" 2>/dev/null || true
	wait "$QEMU_PID" 2>/dev/null || true
	QEMU_PID=
	wait "$STREAM_PID" 2>/dev/null || true
	STREAM_PID=
}

main() {
	ensure_host_tools
	mkdir -p "$ACACHE"
	WORK=$(mktemp -d "${TMPDIR:-/tmp}/tavrel-vm.XXXXXX")
	ROOT=$WORK/root
	local nonce kver kernel
	nonce=$(od -An -N8 -tx1 /dev/urandom | tr -d ' \n')

	# Runs sharing a cache wait for each other while it is being filled.
	exec 9>"$ACACHE/.lock"
	flock 9
	fetch_debs
	unpack_debs
	kver=$(kernel_version)
	kernel=$(compgen -G "$ACACHE/kernel/boot/vmlinuz-*" | head -n1) ||
		die "no vmlinuz in the unpacked kernel package"
	build_module_cpio "$kver" "$WORK"
	cp "$kernel" "$WORK/vmlinuz"
	cp "$MODULE_CPIO" "$WORK/initrd"
	flock -u 9
	exec 9>&-

	build_root "$nonce"
	# The kernel unpacks concatenated newc archives in order.
	(cd "$ROOT" && find . | LC_ALL=C sort | cpio -o -H newc -R 0:0 --quiet) >>"$WORK/initrd"
	local initrd_mib=$(($(stat -c %s "$WORK/initrd") / 1024 / 1024))
	MEM=${TAVREL_VM_MEM:-$((initrd_mib * 2 + 256 > 512 ? initrd_mib * 2 + 256 : 512))}
	log "initramfs $initrd_mib MiB, kernel $kver, guest memory $MEM MiB"
	run_qemu "$WORK/vmlinuz" "$WORK/initrd" "$nonce" "$WORK/console.log"
}

main
