#!/bin/bash
# Runs every test tier of libnltavrel, installing what is missing first.
# Needs root (package installs, network namespaces).
#
#   host builds: g++ (RelWithDebInfo), clang++, and g++ with ASan + UBSan;
#   each runs the unit tests and the symbol checks; the g++ and sanitizer
#   builds also run the kernel tier in private network namespaces, the g++
#   build the install check.
#   armhf cross build (arm-linux-gnueabihf-g++): the unit tests under
#   qemu-arm, the symbol checks and the install check.
#   The g++ and armhf builds also compare the library's ABI with its
#   baseline in abi/ (docs/abi.md).
#   clang with libFuzzer, ASan and UBSan: every fuzz target for 30 s.
#   clang with ThreadSanitizer: the kernel tier, its 16-thread test included.
#   The g++ build also runs the unit and kernel tiers under valgrind memcheck.
#   full-kernel tier, last: the kernel tier and the end-to-end IPsec tunnel
#   of the g++ and the armhf build inside Debian kernels under qemu
#   (x86_64 and 32-bit ARM), where no test may be skipped.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
"$root/scripts/install-deps.sh" test armhf vm

jobs=$(nproc)
failed=()

configure_build() {  # dir, cmake args...
  local dir=$1; shift
  cmake -S "$root" -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j"$jobs" >/dev/null
}

run_ctest() {  # name, dir, ctest args...
  local name=$1 dir=$2 t0=$SECONDS; shift 2
  echo "=== $name"
  if ! (cd "$dir" && ctest --output-on-failure "$@"); then
    failed+=("$name")
  fi
  echo "=== $name: $((SECONDS - t0)) s"
}

configure_build build -DCMAKE_BUILD_TYPE=RelWithDebInfo
run_ctest "g++: unit, symbols, kernel tier, both under valgrind" build -LE vm

configure_build build-clang -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
run_ctest "clang++: unit and symbols" build-clang -L unit

configure_build build-asan -DCMAKE_BUILD_TYPE=Debug -DTAVREL_SANITIZE=ON
run_ctest "g++ ASan+UBSan: unit and kernel tier" build-asan -LE vm

configure_build build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DTAVREL_FUZZ=ON -DTAVREL_BUILD_TOOLS=OFF
run_ctest "clang libFuzzer+ASan+UBSan: fuzz targets" build-fuzz -L fuzz

configure_build build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DTAVREL_TSAN=ON -DTAVREL_BUILD_TOOLS=OFF
run_ctest "clang ThreadSanitizer: kernel tier" build-tsan -L kernel

configure_build build-armhf -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake"
run_ctest "armhf: unit under qemu-arm, symbols and install" build-armhf -LE vm
arm-linux-gnueabihf-strip --strip-all -o build-armhf/libnltavrel.stripped.so build-armhf/libnltavrel.so
echo "armhf libnltavrel.so, stripped: $(stat -c %s build-armhf/libnltavrel.stripped.so) bytes"

run_ctest "x86_64 guest: kernel tier and tunnel in a full kernel" build -L vm
run_ctest "armhf guest: kernel tier and tunnel in a full 32-bit ARM kernel" build-armhf -L vm

if [[ ${#failed[@]} -gt 0 ]]; then
  echo "FAILED: ${failed[*]}"
  exit 1
fi
echo "all test tiers passed"
