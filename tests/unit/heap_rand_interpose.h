// Interposed malloc/free and rand() for the unit tests. Both pass straight
// through to the C library until a test arms them, so other tests in the
// executable see no difference.
#pragma once

#include <cstddef>
#include <vector>

namespace libheap {

// Starts recording the blocks that libnltavrel allocates with malloc; free
// of a recorded block, by anyone, forgets it. fail_at > 0 makes the
// library's fail_at-th allocation from now on return NULL.
void start(size_t fail_at = 0);
// Stops recording. Returns the library's blocks still allocated, oldest first.
std::vector<void *> stop();
// Library allocations (failed ones included) since start().
size_t allocations();

}  // namespace libheap

namespace scripted_rand {

// rand() returns these values in order, then the C library's again.
void set(const std::vector<int> &values);
// rand() calls since set().
size_t calls();

}  // namespace scripted_rand
