// malloc, free and rand as the library sees them in the unit tests. The
// definitions are hidden: only code linked into the executable (the library's
// objects, the tests' own calls) reaches them, every runtime keeps its own.
#pragma once

#include <cstddef>
#include <vector>

namespace node_heap {
// Records the label-list nodes (blocks of a node's size) allocated from now
// on until they are freed; fail_at > 0 makes the fail_at-th one fail.
void start(size_t fail_at = 0);
std::vector<void *> stop();  // the nodes still allocated, oldest first
size_t allocations();        // asked for since start(), failed ones included
}  // namespace node_heap

namespace scripted_rand {
void set(const std::vector<int> &values);  // returned in order, then the C library's again
size_t calls();                            // since set()
}  // namespace scripted_rand
