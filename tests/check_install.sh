#!/bin/sh
# Installs a build into a staging directory, then compiles, links and runs a
# small C program against it as a user of the installed library would: with
# the flags pkg-config gives, and as a CMake project that finds the package.
# Then builds the same program in a parent project that adds this source tree
# with add_subdirectory.
# usage: check_install.sh CMAKE BUILD_DIR C_COMPILER TOOLCHAIN_FILE|"" [EMULATOR ARGS...]
set -eu
cmake=$1 build=$2 cc=$3 toolchain=$4
shift 4
src=$(cd "$(dirname "$0")/.." && pwd)
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT

DESTDIR="$stage" "$cmake" --install "$build" >/dev/null
pc=$(find "$stage" -name libnltavrel.pc)
[ -n "$pc" ] || { echo "FAIL: no libnltavrel.pc installed"; exit 1; }
prefix=$(sed -n 's/^prefix=//p' "$pc")
PKG_CONFIG_LIBDIR=$(dirname "$pc")
export PKG_CONFIG_LIBDIR
pc_flags="--define-variable=prefix=$stage$prefix"
cflags=$(pkg-config "$pc_flags" --cflags libnltavrel)
libs=$(pkg-config "$pc_flags" --libs libnltavrel)
libdir=$(pkg-config "$pc_flags" --variable=libdir libnltavrel)

cat > "$stage/consumer.c" <<'C'
#include <string.h>

#include "libnltavrel.h"
#include "tavrel_host.h"

static int diag_messages;

static void count(const tavrel_log_site *site, const char *text)
{
    diag_messages += site->subsys_id == TAVREL_LOG_SUBSYS_ID && strcmp(text, "main(): put 7\n") == 0;
}

int main(void)
{
    struct {
        struct nlmsghdr header;
        uint8_t room[64];
    } request;
    uint32_t value = 7;

    memset(&request, 0, sizeof request);
    request.header.nlmsg_len = NLMSG_HDRLEN;
    tavrel_nla_put(&request.header, 1, sizeof value, &value);
    tavrel_host_set_diag_sink(count);
    kv_log_mask = 1;
    TAVREL_LOG(LOW, "%s(): put %u\n", "main", value);
    return request.header.nlmsg_len == NLMSG_HDRLEN + 8 && diag_messages == 1 ? 0 : 1;
}
C
# shellcheck disable=SC2086 # word splitting of the pkg-config flags is intended
"$cc" -std=c11 -Wall -Wextra -Werror $cflags "$stage/consumer.c" -o "$stage/consumer" \
  $libs -ltavrel_host -Wl,-rpath,"$libdir"
if ! "$@" "$stage/consumer"; then
  echo "FAIL: the program built against the installed library did not run correctly"
  exit 1
fi
echo "install: a program built with pkg-config --cflags/--libs libnltavrel runs"

# build_consumer DIR WHAT CMAKE_ARGS...: configures DIR and builds its program.
build_consumer() {
  dir=$1 what=$2
  shift 2
  if ! { "$cmake" -S "$dir" -B "$dir/build" -DCMAKE_C_COMPILER="$cc" \
      ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain"} "$@" >"$dir/log" 2>&1 &&
    "$cmake" --build "$dir/build" --target consumer >>"$dir/log" 2>&1; }; then
    cat "$dir/log"
    echo "FAIL: $what: the consumer did not build"
    exit 1
  fi
}
mkdir "$stage/package" "$stage/parent"
cat > "$stage/package/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(libnltavrel 1 CONFIG REQUIRED)
add_executable(consumer ../consumer.c)
target_compile_options(consumer PRIVATE -Wall -Wextra -Werror)
target_link_libraries(consumer PRIVATE libnltavrel::nltavrel libnltavrel::tavrel_host)
CMAKE
# A cross toolchain file confines package searches to its sysroot; name the
# package's directory then, as a cross-building user would.
cmake_dir=$(dirname "$(find "$stage" -name libnltavrelConfig.cmake)")
build_consumer "$stage/package" "find_package(libnltavrel CONFIG)" \
  -DCMAKE_PREFIX_PATH="$stage$prefix" ${toolchain:+-Dlibnltavrel_DIR="$cmake_dir"}
"$@" "$stage/package/build/consumer" ||
  { echo "FAIL: the program built with find_package(libnltavrel) did not run correctly"; exit 1; }
echo "install: a program built with find_package(libnltavrel CONFIG) and libnltavrel::nltavrel runs"

# The parent builds only what its program needs, but configures every test
# and tool; the symbol checks then run from the parent's build tree.
cat > "$stage/parent/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(parent C CXX)
enable_testing()
add_subdirectory("$src" libnltavrel)
add_executable(consumer ../consumer.c)
target_link_libraries(consumer PRIVATE libnltavrel::nltavrel libnltavrel::tavrel_host)
CMAKE
build_consumer "$stage/parent" "add_subdirectory"
"$@" "$stage/parent/build/consumer" ||
  { echo "FAIL: the program of the parent project did not run correctly"; exit 1; }
(cd "$stage/parent/build" && "$cmake" --build . --target nltavrel >/dev/null &&
  ctest -R '^symbols$' >/dev/null) ||
  { echo "FAIL: the symbol checks fail in a parent project's tree"; exit 1; }
echo "install: a parent project that adds libnltavrel with add_subdirectory builds and runs it"
