#!/bin/bash
# Installs a build into a staging directory, then builds the C program
# header_check.c against it as its users would: with the flags pkg-config
# gives, as a CMake project that finds the package, and in a parent project
# that adds this source tree with add_subdirectory; each must run correctly.
# usage: check_install.sh CMAKE BUILD_DIR C_COMPILER TOOLCHAIN_FILE|"" [EMULATOR ARGS...]
set -eu
cmake=$1 build=$2 cc=$3 toolchain=$4
shift 4
src=$(cd "$(dirname "$0")/.." && pwd)
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

DESTDIR="$stage" "$cmake" --install "$build" >/dev/null
pc=$(find "$stage" -name libnltavrel.pc)
[ -n "$pc" ] || fail "no libnltavrel.pc installed"
prefix=$stage$(sed -n 's/^prefix=//p' "$pc")
export PKG_CONFIG_LIBDIR=${pc%/*}
pc_flags() { pkg-config --define-variable=prefix="$prefix" "$@" libnltavrel; }
# shellcheck disable=SC2046 # word splitting of the pkg-config flags is intended
"$cc" -std=c11 -Wall -Wextra -Werror $(pc_flags --cflags) "$src/tests/header_check.c" \
  -o "$stage/pkg-config-consumer" $(pc_flags --libs) -ltavrel_host -Wl,-rpath,"$(pc_flags --variable=libdir)"

# One project for both ways a CMake user takes. The parent builds only what
# its program needs, but configures every test and tool.
cat >"$stage/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(consumer C CXX)
if(PARENT)
  enable_testing()
  add_subdirectory("$src" libnltavrel)
else()
  find_package(libnltavrel 1 CONFIG REQUIRED)
endif()
add_executable(consumer "$src/tests/header_check.c")
target_compile_options(consumer PRIVATE -Wall -Wextra -Werror)
target_link_libraries(consumer PRIVATE libnltavrel::nltavrel libnltavrel::tavrel_host)
CMAKE
consumer() {  # build dir under the stage, cmake args...
  { "$cmake" -S "$stage" -B "$stage/$1" -DCMAKE_C_COMPILER="$cc" ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain"} \
      "${@:2}" && "$cmake" --build "$stage/$1" --target consumer; } >"$stage/log" 2>&1 ||
    { cat "$stage/log"; fail "$1: the consumer did not build"; }
}
# A cross toolchain file confines package searches to its sysroot; name the
# package's directory then, as a cross-building user would.
cmake_dir=$(dirname "$(find "$stage" -name libnltavrelConfig.cmake)")
consumer package -DCMAKE_PREFIX_PATH="$prefix" ${toolchain:+-Dlibnltavrel_DIR="$cmake_dir"}
consumer parent -DPARENT=ON

for program in pkg-config-consumer package/consumer parent/consumer; do
  "$@" "$stage/$program" || fail "$program did not run correctly"
done
echo "install: the program runs, built with pkg-config, with find_package(libnltavrel CONFIG) and by a parent project"
# The symbol checks work from the parent's build tree too.
(cd "$stage/parent" && "$cmake" --build . --target nltavrel >/dev/null &&
  ctest --no-tests=error -R '^symbols$' >/dev/null) || fail "the symbol checks fail in a parent project's tree"
