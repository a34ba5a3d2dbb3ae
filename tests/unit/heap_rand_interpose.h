// Interposed malloc/free and rand() for the address-label unit tests. Both
// pass straight through to the C library until a test arms them, so other
// tests in the executable see no difference.
#pragma once

#include <cstddef>
#include <vector>

namespace node_heap {

// Starts recording the label-list nodes the library allocates (the blocks
// of its one malloc call site); free of a recorded block, by anyone, forgets
// it. fail_at > 0 makes the fail_at-th node allocation from now on fail.
void start(size_t fail_at = 0);
// Stops recording. Returns the nodes still allocated, oldest first.
std::vector<void *> stop();
// Node allocations (failed ones included) since start().
size_t allocations();

}  // namespace node_heap

namespace scripted_rand {

// rand() returns these values in order, then the C library's again.
void set(const std::vector<int> &values);
// rand() calls since set().
size_t calls();

}  // namespace scripted_rand
