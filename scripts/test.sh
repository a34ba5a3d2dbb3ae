#!/bin/bash
# Runs every test tier of libnltavrel, installing what is missing first; needs
# root. The trees and what each runs: README.md, "Tests". Every tree treats
# warnings as errors; the full-kernel tier (label vm) runs last.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
"$root/scripts/install-deps.sh" test armhf vm

failed=()
clang=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++)

configure_build() {  # dir, cmake args...
  echo "=== building $1"
  cmake -S "$root" -B "$1" -DTAVREL_WERROR=ON "${@:2}" >/dev/null
  cmake --build "$1" -j"$(nproc)" >/dev/null
}

run_ctest() {  # dir, ctest args...
  local t0=$SECONDS
  echo "=== $*"
  (cd "$1" && ctest --output-on-failure "${@:2}") || failed+=("$*")
  echo "=== $*: $((SECONDS - t0)) s"
}

tree() {  # dir, -L or -LE, label, cmake args...
  configure_build "$1" "${@:4}"
  run_ctest "$1" "$2" "$3"
}

tree build -LE vm -DCMAKE_BUILD_TYPE=RelWithDebInfo
tree build-clang -L unit -DCMAKE_BUILD_TYPE=RelWithDebInfo "${clang[@]}"
tree build-asan -LE vm -DCMAKE_BUILD_TYPE=Debug -DTAVREL_SANITIZE=ON
# Android's platform flags. clang, as the platform builds: clang 14 takes the
# zero initialisation of locals only with its enabling switch.
android_flags="-O2 -fstack-protector-strong -D_FORTIFY_SOURCE=2 -ftrivial-auto-var-init=zero \
-enable-trivial-auto-var-init-zero-knowing-it-will-be-removed-from-clang -Wformat-security -fvisibility=hidden"
tree build-android -L 'unit|kernel' -DCMAKE_BUILD_TYPE=None "${clang[@]}" \
  -DCMAKE_C_FLAGS="$android_flags" -DCMAKE_CXX_FLAGS="$android_flags"
tree build-fuzz -L fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo "${clang[@]}" -DTAVREL_FUZZ=ON -DTAVREL_BUILD_TOOLS=OFF
tree build-tsan -L kernel -DCMAKE_BUILD_TYPE=RelWithDebInfo "${clang[@]}" -DTAVREL_TSAN=ON -DTAVREL_BUILD_TOOLS=OFF
tree build-armhf -LE vm -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake"
arm-linux-gnueabihf-strip --strip-all -o build-armhf/libnltavrel.stripped.so build-armhf/libnltavrel.so
echo "armhf libnltavrel.so, stripped: $(stat -c %s build-armhf/libnltavrel.stripped.so) bytes"

# The build types the trees above do not cover: built, not run.
t0=$SECONDS
for type in Release MinSizeRel Debug; do
  configure_build "build-matrix/g++-$type" -DCMAKE_BUILD_TYPE=$type || failed+=("build g++ $type")
  configure_build "build-matrix/clang-$type" -DCMAKE_BUILD_TYPE=$type "${clang[@]}" || failed+=("build clang $type")
done
for type in Release MinSizeRel RelWithDebInfo; do
  configure_build "build-matrix/asan-$type" -DCMAKE_BUILD_TYPE=$type -DTAVREL_SANITIZE=ON ||
    failed+=("build asan $type")
done
echo "=== build matrix: $((SECONDS - t0)) s"

run_ctest build -L vm
run_ctest build-armhf -L vm
run_ctest build-android -R '^kernel_vm_x86_64_6[.]1$'

[[ ${#failed[@]} -eq 0 ]] || { echo "FAILED: ${failed[*]}"; exit 1; }
echo "all test tiers passed"
