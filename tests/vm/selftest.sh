#!/usr/bin/env bash
# Checks run-guest.sh end to end on real guests: what the kernel tier relies
# on inside the guest (netns, ESP SAs with crypto autoload, prio qdisc,
# unshare, payload binaries and libraries of the guest arch) and how the host
# side reports the ways a run can end (payload status, panic, hang).
#
# Usage: tests/vm/selftest.sh [--cache DIR] [x86_64] [armhf]   (default: both)
set -uo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
CACHE_ARGS=()
ARCHES=()
while [[ $# -gt 0 ]]; do
	case $1 in
	--cache) CACHE_ARGS=(--cache "$2"); shift 2 ;;
	x86_64 | armhf) ARCHES+=("$1"); shift ;;
	*) echo "usage: $0 [--cache DIR] [x86_64] [armhf]" >&2; exit 2 ;;
	esac
done
[[ ${#ARCHES[@]} -gt 0 ]] || ARCHES=(x86_64 armhf)

WORK=$(mktemp -d "${TMPDIR:-/tmp}/tavrel-vm-selftest.XXXXXX")
trap 'rm -rf "$WORK"' EXIT

ensure_pkgs() {
	local missing=() p
	for p in "$@"; do
		dpkg-query -W -f '${Status}' "$p" 2>/dev/null | grep -q 'ok installed' || missing+=("$p")
	done
	[[ ${#missing[@]} -eq 0 ]] && return 0
	DEBIAN_FRONTEND=noninteractive apt-get -q -o DPkg::Lock::Timeout=600 install -y \
		--no-install-recommends "${missing[@]}" >&2 ||
		{ apt-get -q -o DPkg::Lock::Timeout=600 update >&2 &&
			DEBIAN_FRONTEND=noninteractive apt-get -q -o DPkg::Lock::Timeout=600 install -y \
				--no-install-recommends "${missing[@]}" >&2; }
}

# The C++ library behind a C ABI mirrors how the project ships, so the
# payload needs libstdc++ from the guest arch and its own lib/ on the
# loader path.
make_payload() {
	local arch=$1 dir=$2 cc cxx machine
	case $arch in
	x86_64) cc=gcc cxx=g++ machine=x86_64; ensure_pkgs gcc g++ ;;
	armhf)
		cc=arm-linux-gnueabihf-gcc cxx=arm-linux-gnueabihf-g++ machine=armv7l
		ensure_pkgs gcc-arm-linux-gnueabihf g++-arm-linux-gnueabihf
		;;
	esac
	mkdir -p "$dir/lib" "$dir/bin"
	cat >"$WORK/greet.cc" <<-'EOF'
		#include <string>
		extern "C" const char *selftest_greeting(void)
		{
			static const std::string s = std::string("lib") + "ok";
			return s.c_str();
		}
	EOF
	cat >"$WORK/prog.c" <<-'EOF'
		#include <stdio.h>
		#include <stdlib.h>
		#include <sys/utsname.h>
		const char *selftest_greeting(void);
		int main(int argc, char **argv)
		{
			struct utsname u;
			uname(&u);
			printf("selftest-prog: %s %s\n", u.machine, selftest_greeting());
			return argc > 1 ? atoi(argv[1]) : 0;
		}
	EOF
	$cxx -shared -fPIC -O2 -o "$dir/lib/libselftest.so" "$WORK/greet.cc" &&
		$cc -O2 -o "$dir/bin/selftest-prog" "$WORK/prog.c" -L"$dir/lib" -lselftest ||
		return 1
	echo "$machine" >"$dir/expect-machine"
	cat >"$dir/run.sh" <<-'EOF'
		# Runs inside the guest under /bin/sh.
		fail=0
		check() {
			name=$1; shift
			if "$@" >/tmp/check.out 2>&1; then
				echo "guest-check ok:   $name"
			else
				echo "guest-check FAIL: $name"; sed 's/^/    /' /tmp/check.out
				fail=$((fail + 1))
			fi
		}
		key16=0x000102030405060708090a0b0c0d0e0f
		check "netns add" ip netns add t
		check "lo up in netns" ip -n t link set lo up
		check "ESP SA cbc(aes)+hmac(sha256)" ip netns exec t ip xfrm state add \
			src 10.0.0.1 dst 10.0.0.2 proto esp spi 0x100 mode tunnel \
			enc 'cbc(aes)' $key16 auth-trunc 'hmac(sha256)' ${key16}000102030405060708090a0b0c0d0e0f 128
		check "SA is listed" sh -c 'ip -n t xfrm state | grep -q "spi 0x00000100"'
		# gcm is not preloaded: this needs the kernel's modprobe autoload.
		check "ESP SA rfc4106(gcm(aes)) autoloads" ip -n t xfrm state add \
			src 10.0.0.1 dst 10.0.0.3 proto esp spi 0x101 mode tunnel \
			aead 'rfc4106(gcm(aes))' ${key16}01020304 128
		check "AH SA hmac(sha1)" ip -n t xfrm state add src 10.0.0.1 dst 10.0.0.4 \
			proto ah spi 0x102 mode transport auth 'hmac(sha1)' ${key16}00010203
		check "prio qdisc" sh -c 'tc -n t qdisc add dev lo root handle 1: prio ||
			{ ip -n t link add d0 type dummy && tc -n t qdisc add dev d0 root handle 1: prio; }'
		check "prio qdisc is listed" sh -c 'tc -n t qdisc show | grep -q "qdisc prio 1:"'
		check "unshare -n" unshare -n true
		check "--append-init ran first" test -f /tmp/appended
		check "payload program of the guest arch" sh -c \
			'[ "$(./bin/selftest-prog)" = "selftest-prog: $(cat expect-machine) libok" ]'
		check "payload program exit status" sh -c './bin/selftest-prog 7; [ $? -eq 7 ]'
		[ $fail -eq 0 ] || exit 1
		echo "guest-check: all passed"
		exit 42
	EOF
}

passed=0 failed=0
# case: name | run.sh body ("" = the checks payload) | environment | extra
# option and its value | exit status | text expected in the output (stdout
# for the guest, stderr for run-guest.sh)
CASES=(
	"guest checks, status 42 propagates|||--append-init|touch /tmp/appended|42|guest-check: all passed"
	"panic is reported|echo c >/proc/sysrq-trigger; sleep 60||||125|panicked"
	"hung payload hits the timeout|sleep 600||--timeout|45|124|timed out"
	"guest too slow to come up|true|TAVREL_VM_BOOT_TIMEOUT=1|||125|did not come up"
)

for arch in "${ARCHES[@]}"; do
	checks=$WORK/$arch-checks
	if ! make_payload "$arch" "$checks"; then
		echo "FAIL $arch: building the payload"
		failed=$((failed + 1))
		continue
	fi
	for c in "${CASES[@]}"; do
		IFS='|' read -r name body envs opt optarg want_rc want_text <<<"$c"
		payload=$checks
		if [[ -n $body ]]; then
			payload=$WORK/$arch-adhoc
			rm -rf "$payload" && mkdir -p "$payload" && echo "$body" >"$payload/run.sh"
		fi
		args=(--arch "$arch" --payload "$payload" "${CACHE_ARGS[@]}")
		[[ -n $opt ]] && args+=("$opt" "$optarg")
		t0=$SECONDS
		# shellcheck disable=SC2086 # envs is a list of NAME=VALUE words
		env $envs "$HERE/run-guest.sh" "${args[@]}" >"$WORK/out" 2>"$WORK/err"
		rc=$?
		timing=$(grep -o 'guest up after .*' "$WORK/err")
		if [[ $rc -eq $want_rc ]] && cat "$WORK/out" "$WORK/err" | grep -q -- "$want_text"; then
			echo "ok   $arch: $name (${timing:-no status}; wall $((SECONDS - t0))s)"
			passed=$((passed + 1))
		else
			echo "FAIL $arch: $name: exit $rc (want $want_rc), want '$want_text' in output:"
			sed 's/^/    /' "$WORK/out" "$WORK/err" | tail -n 60
			failed=$((failed + 1))
		fi
	done
done
echo "$passed passed, $failed failed"
[[ $failed -eq 0 ]]
