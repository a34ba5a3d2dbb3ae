#include "heap_rand_interpose.h"

#include <dlfcn.h>

#include "tavrel_internal.h"

// malloc runs before the sanitizers are set up (their own start calls it),
// so none of the code on its path may be instrumented.
#define TAVREL_NO_SANITIZE __attribute__((no_sanitize("address", "undefined")))

namespace {

// dlsym may itself allocate while malloc is being looked up; those few
// early blocks come from here and are never given back.
alignas(std::max_align_t) char bootstrap[4096];
size_t bootstrap_used;
bool resolving;

void *(*real_malloc)(size_t);
void (*real_free)(void *);
int (*real_rand)();

template <typename F>
TAVREL_NO_SANITIZE bool resolve(F &fn, const char *name)
{
    if (fn == nullptr && !resolving) {
        resolving = true;
        fn = reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
        resolving = false;
    }
    return fn != nullptr;
}

bool armed;
bool calibrating;
// Return address of the library's malloc call for a list node.
const void *node_site;
size_t fail_at;
size_t allocation_count;
constexpr size_t kMaxBlocks = 256;
void *blocks[kMaxBlocks];
size_t block_count;

constexpr size_t kMaxScript = 32;
int script[kMaxScript];
size_t script_length, script_next, rand_calls;

}  // namespace

extern "C" TAVREL_NO_SANITIZE void *malloc(size_t size)
{
    if (!resolve(real_malloc, "malloc")) {
        const size_t at = (bootstrap_used + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);
        if (at + size > sizeof bootstrap)
            return nullptr;
        bootstrap_used = at + size;
        return bootstrap + at;
    }
    const void *caller = __builtin_return_address(0);
    if (calibrating)
        node_site = caller;
    if (!armed || caller != node_site)
        return real_malloc(size);
    if (++allocation_count == fail_at)
        return nullptr;
    void *block = real_malloc(size);
    if (block != nullptr && block_count < kMaxBlocks)
        blocks[block_count++] = block;
    return block;
}

extern "C" TAVREL_NO_SANITIZE void free(void *block)
{
    if (block == nullptr || (block >= static_cast<void *>(bootstrap) && block < bootstrap + sizeof bootstrap))
        return;
    if (armed) {
        for (size_t i = 0; i < block_count; i++) {
            if (blocks[i] == block) {
                for (size_t j = i + 1; j < block_count; j++)
                    blocks[j - 1] = blocks[j];
                block_count--;
                break;
            }
        }
    }
    if (resolve(real_free, "free"))
        real_free(block);
}

extern "C" TAVREL_NO_SANITIZE int rand(void)
{
    rand_calls++;
    if (script_next < script_length)
        return script[script_next++];
    resolve(real_rand, "rand");
    return real_rand();
}

namespace node_heap {

void start(size_t fail)
{
    if (node_site == nullptr) {
        // One insert into a list of our own makes exactly one allocation:
        // the library's node call site.
        tavrel_addrlabel_node head{&head, &head, 0};
        calibrating = true;
        tavrel_addrlabel_list_insert(&head, 1);
        calibrating = false;
        free(head.next);
    }
    fail_at = fail;
    allocation_count = 0;
    block_count = 0;
    armed = true;
}

std::vector<void *> stop()
{
    armed = false;
    std::vector<void *> left(blocks, blocks + block_count);
    // Forget them, so that the leak checker does not find them through us.
    for (size_t i = 0; i < block_count; i++)
        blocks[i] = nullptr;
    block_count = 0;
    return left;
}

size_t allocations() { return allocation_count; }

}  // namespace node_heap

namespace scripted_rand {

void set(const std::vector<int> &values)
{
    script_length = values.size() < kMaxScript ? values.size() : kMaxScript;
    for (size_t i = 0; i < script_length; i++)
        script[i] = values[i];
    script_next = 0;
    rand_calls = 0;
}

size_t calls() { return rand_calls; }

}  // namespace scripted_rand
