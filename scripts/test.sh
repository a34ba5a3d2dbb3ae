#!/bin/bash
# Runs every test tier of libnltavrel, installing what is missing first.
# Needs root (package installs, network namespaces).
#
#   host builds: g++ (RelWithDebInfo), clang++, g++ with ASan + UBSan, and
#   clang with the flags Android's platform build gives every module; each
#   runs the unit tests and the symbol checks; the g++, sanitizer and Android
#   builds also run the kernel tier in private network namespaces, the g++
#   build the install check and the Android.bp format check.
#   armhf cross build (arm-linux-gnueabihf-g++): the unit tests under
#   qemu-arm, the symbol checks and the install check.
#   The g++ and armhf builds also compare the library's ABI with its
#   baseline in abi/ (docs/abi.md).
#   build matrix: the other build types a user may pick (Release,
#   MinSizeRel, RelWithDebInfo, Debug) with g++, clang++ and the sanitizers,
#   built with tests and tools, not run.
#   clang with libFuzzer, ASan and UBSan: every fuzz target for 30 s.
#   clang with ThreadSanitizer: the kernel tier, its 16-thread test included.
#   The g++ build also runs the unit and kernel tiers under valgrind memcheck.
#   full-kernel tier, last: the kernel tier and the end-to-end IPsec tunnel
#   of the g++ and the armhf build inside Debian kernels 5.10, 6.1 and 6.12
#   under qemu (x86_64 and 32-bit ARM), where no test may be skipped, and of
#   the Android build in 6.1.
# Every tree treats warnings as errors.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
"$root/scripts/install-deps.sh" test armhf vm

jobs=$(nproc)
failed=()

configure_build() {  # dir, cmake args...
  local dir=$1; shift
  cmake -S "$root" -B "$dir" -DTAVREL_WERROR=ON "$@" >/dev/null
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

# Android's platform flags. clang, as the platform builds: clang 14 takes the
# zero initialisation of locals only with its enabling switch.
android_flags="-O2 -fstack-protector-strong -D_FORTIFY_SOURCE=2 -ftrivial-auto-var-init=zero \
-enable-trivial-auto-var-init-zero-knowing-it-will-be-removed-from-clang -Wformat-security -fvisibility=hidden"
configure_build build-android -DCMAKE_BUILD_TYPE=None -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_C_FLAGS="$android_flags" -DCMAKE_CXX_FLAGS="$android_flags"
run_ctest "clang, Android's flags: unit, symbols and kernel tier" build-android -L 'unit|kernel'
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

# The build types the trees above do not cover: built, not run.
t0=$SECONDS
for combo in g++:Release g++:MinSizeRel g++:Debug clang:Release clang:MinSizeRel clang:Debug \
  asan:Release asan:MinSizeRel asan:RelWithDebInfo; do
  kind=${combo%%:*} type=${combo#*:} args=()
  case $kind in
  clang) args=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++) ;;
  asan) args=(-DTAVREL_SANITIZE=ON) ;;
  esac
  echo "=== build matrix: $kind $type"
  configure_build "build-matrix/$kind-$type" -DCMAKE_BUILD_TYPE="$type" "${args[@]}" || failed+=("build $kind $type")
done
echo "=== build matrix: $((SECONDS - t0)) s"

run_ctest "x86_64 guests: kernel tier and tunnel in full kernels 5.10, 6.1, 6.12" build -L vm
run_ctest "armhf guests: kernel tier and tunnel in full 32-bit ARM kernels 5.10, 6.1, 6.12" build-armhf -L vm
run_ctest "Android's flags, x86_64 guest: kernel tier and tunnel in 6.1" build-android -R '^kernel_vm_x86_64_6[.]1$'

if [[ ${#failed[@]} -gt 0 ]]; then
  echo "FAILED: ${failed[*]}"
  exit 1
fi
echo "all test tiers passed"
