#!/bin/bash
# Runs inside the guest of tools/vm/run-guest.sh, from /payload, which
# tests/vm/guest-tier.sh assembled. ./mode says what to run:
#   kernel  the kernel tier, then the end-to-end tunnel. TAVREL_FULL_KERNEL=1
#           makes a test fail where it would otherwise do without a kernel
#           feature, and a skipped test fails the run: this kernel has them all.
#   demo    the README's demonstration, then the tunnel with every command shown.
set -u
export TAVREL_FULL_KERNEL=1
case $(cat mode) in
kernel)
	rc=0
	./bin/tavrel_kernel_tests 2>&1 | tee /tmp/kernel-tier.out
	[[ ${PIPESTATUS[0]} -eq 0 ]] && ! grep '^\[  SKIPPED \]' /tmp/kernel-tier.out || rc=1
	bash e2e/tunnel.sh bin/tavrelctl bin/udp_encap_holder || rc=1
	exit $rc
	;;
demo)
	bash tools/demo/demo.sh "$PWD/bin/tavrelctl" &&
		bash e2e/tunnel.sh "$PWD/bin/tavrelctl" "$PWD/bin/udp_encap_holder" --show
	;;
*)
	echo "run.sh: unknown mode" >&2
	exit 2
	;;
esac
