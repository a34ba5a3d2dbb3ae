#!/bin/sh
# Installs a build into a staging directory, then compiles, links and runs a
# small C program against it with the flags pkg-config gives, as a user of
# the installed library would.
# usage: check_install.sh CMAKE BUILD_DIR C_COMPILER [EMULATOR ARGS...]
set -eu
cmake=$1 build=$2 cc=$3
shift 3
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
