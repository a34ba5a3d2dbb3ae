#!/usr/bin/env python3
"""Worst static stack chain of each exported function of libnltavrel on armhf.

Builds the library with the armhf toolchain file, -fstack-usage and
-fcallgraph-info=su (RelWithDebInfo, as it ships), then walks GCC's call
graph from each of the functions the version script exports, through the
library's own functions only: calls into libc, liblog and the daemon's
libraries count as leaves of 0 bytes. Prints each export's deepest chain and
exits 1 if one is deeper than the limit.

    scripts/stack-usage.py [--build-dir DIR] [--limit BYTES]

Indirect calls are resolved by hand; any other makes the script fail.
- The transport calls the callback its caller passes: an indirect call in
  tavrel_netlink_dump or tavrel_netlink_query reaches the callbacks passed by
  the functions on the same chain (CALLBACKS below). The dump and query
  exports called by the daemon run the daemon's callback, which counts 0.
- The log statement: tavrel_log_emit calls the formatter of its call site
  (a lambda's static function); every site's formatter is taken, so the
  deepest one counts. A formatter calls the print function the sink hands
  it: tavrel_log_file_print or __android_log_print (outside the library).
"""
import argparse
import glob
import os
import re
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# Function that hands a callback to the transport -> the callbacks it hands.
CALLBACKS = {
    "tavrel_xfrm_remove_states": ["tavrel_xfrm_remove_state_cb"],
    "tavrel_addrlabel_generate": ["tavrel_addrlabel_generate_cb"],
    "tavrel_addrlabel_purge_label": ["tavrel_addrlabel_purge_label_query_cb",
                                     "tavrel_addrlabel_purge_label_dump_cb"],
    "tavrel_netlink_query_genl": ["tavrel_netlink_query_genl_cb"],
}
INDIRECT = "__indirect_call"
TRANSPORT = {"tavrel_netlink_dump", "tavrel_netlink_query"}
LOG_EMIT = "tavrel_log_emit"
LOG_PRINT = "tavrel_log_file_print"
# A log site's formatter: the static function of the lambda in tavrel_log_,
# named after the function that holds the log statement.
FORMATTER = re.compile(r"_ZZ11tavrel_log_IZZ?(?:N12_GLOBAL__N_1)?(\d+)(\w+)")

NODE = re.compile(r'node: \{ title: "([^"]*)" label: "([^"]*)"')
EDGE = re.compile(r'edge: \{ sourcename: "([^"]*)" targetname: "([^"]*)"')
FRAME = re.compile(r'\\n(\d+) bytes \(([a-z,]+)\)')


def build(build_dir):
    flags = "-fstack-usage -fcallgraph-info=su"
    subprocess.run(["cmake", "-S", ROOT, "-B", build_dir, "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                    "-DCMAKE_TOOLCHAIN_FILE=" + os.path.join(ROOT, "cmake/toolchain-armhf.cmake"),
                    "-DTAVREL_BUILD_TESTS=OFF", "-DTAVREL_BUILD_TOOLS=OFF",
                    "-DCMAKE_CXX_FLAGS=" + flags], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", build_dir, "-j2", "--target", "nltavrel"],
                   check=True, stdout=subprocess.DEVNULL)


def plain_name(title):
    """The source name of a node: file prefix, C++ mangling and GCC's clone
    suffixes (.part.0, .isra.0, .constprop.0) removed."""
    name = title.rsplit(":", 1)[-1]
    m = FORMATTER.match(name)
    if m:
        return "log formatter in " + m.group(2)[:int(m.group(1))]
    name = name.split(".", 1)[0]
    m = re.match(r"_ZN12_GLOBAL__N_1(\d+)", name) or re.match(r"_Z(\d+)", name)
    if m:
        name = name[m.end():m.end() + int(m.group(1))]
    return name


def load_graph(build_dir):
    frames, unbounded, calls = {}, set(), {}
    files = glob.glob(os.path.join(build_dir, "CMakeFiles/nltavrel_objects.dir/src/*.ci"))
    if not files:
        sys.exit("no .ci files under " + build_dir)
    for path in files:
        with open(path) as f:
            for line in f:
                m = NODE.match(line)
                if m:
                    frame = FRAME.search(m.group(2))
                    if frame:
                        frames[m.group(1)] = int(frame.group(1))
                        if "dynamic" in frame.group(2) and "bounded" not in frame.group(2):
                            unbounded.add(m.group(1))
                    continue
                m = EDGE.match(line)
                if m:
                    calls.setdefault(m.group(1), set()).add(m.group(2))
    return frames, unbounded, calls


def is_formatter(node):
    return FORMATTER.match(node.rsplit(":", 1)[-1]) is not None


def indirect_targets(node, frames, passed):
    name = plain_name(node)
    if name in TRANSPORT:
        return [n for n in frames if plain_name(n) in passed]
    if name == LOG_EMIT:
        return [n for n in frames if is_formatter(n)]
    if is_formatter(node):
        return [n for n in frames if plain_name(n) == LOG_PRINT]
    sys.exit("indirect call this script cannot resolve, in " + name)


def worst_chain(node, frames, calls, path, passed):
    """(bytes, [node, ...]) of the deepest chain from node; path holds the
    nodes above it, passed the callbacks handed down by them."""
    if node in path:
        sys.exit("recursion: " + " > ".join(plain_name(n) for n in path + [node]))
    passed = passed + CALLBACKS.get(plain_name(node), [])
    best = (0, [])
    for callee in sorted(calls.get(node, ())):
        targets = [callee]
        if callee == INDIRECT:
            targets = indirect_targets(node, frames, passed)
        for target in targets:
            if target not in frames:  # outside the library: a leaf
                continue
            below = worst_chain(target, frames, calls, path + [node], passed)
            if below[0] > best[0]:
                best = below
    return frames[node] + best[0], [node] + best[1]


def exports():
    with open(os.path.join(ROOT, "src/libnltavrel.map.txt")) as f:
        text = f.read().split("local:")[0]
    return re.findall(r"^\s*(tavrel_\w+);", text, re.M)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build-dir", default=os.path.join(ROOT, "build-armhf-stack"))
    parser.add_argument("--limit", type=int, default=12288)
    parser.add_argument("--no-build", action="store_true", help="analyse an existing build")
    args = parser.parse_args()
    if not args.no_build:
        build(args.build_dir)
    frames, unbounded, calls = load_graph(args.build_dir)
    for node, callees in calls.items():
        if INDIRECT in callees:
            indirect_targets(node, frames, [])

    worst = (0, "")
    failed = False
    for name in exports():
        if name not in frames:
            sys.exit("export %s not in the call graph" % name)
        total, chain = worst_chain(name, frames, calls, [], [])
        over = total > args.limit
        failed |= over
        if any(n in unbounded for n in chain):
            failed = True
            over = True
        print("%6d %s  %s" % (total, "OVER" if over else "  ok", name))
        print("         " + " > ".join("%s %d" % (plain_name(n), frames[n]) for n in chain))
        worst = max(worst, (total, name))
    print("worst: %d bytes (%s), limit %d" % (worst[0], worst[1], args.limit))
    if unbounded:
        print("unbounded dynamic frames: " + ", ".join(sorted(plain_name(n) for n in unbounded)))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
