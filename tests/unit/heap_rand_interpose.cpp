#include "heap_rand_interpose.h"

#include <dlfcn.h>

#include <algorithm>

#include "tavrel_internal.h"

// Not exported: the dynamic linker binds no shared object to them (ld.so, the
// runtimes and the sanitizers keep the real ones), so dlsym cannot recurse.
asm(".hidden malloc\n.hidden free\n.hidden rand");

namespace {
bool armed;
size_t fail_at, asked;
void *live[64];  // armed, not yet freed; far more than a test makes
size_t live_count;
std::vector<int> script;
size_t rand_calls;
}  // namespace

extern "C" void *malloc(size_t size)
{
    static const auto real = reinterpret_cast<void *(*)(size_t)>(dlsym(RTLD_NEXT, "malloc"));
    if (!armed || size != sizeof(tavrel_addrlabel_node))
        return real(size);
    if (++asked == fail_at)
        return nullptr;
    void *block = real(size);
    if (block != nullptr && live_count < sizeof live / sizeof *live)
        live[live_count++] = block;
    return block;
}

extern "C" void free(void *block)
{
    static const auto real = reinterpret_cast<void (*)(void *)>(dlsym(RTLD_NEXT, "free"));
    live_count = static_cast<size_t>(std::remove(live, live + live_count, block) - live);
    real(block);
}

extern "C" int rand()
{
    static const auto real = reinterpret_cast<int (*)()>(dlsym(RTLD_NEXT, "rand"));
    return rand_calls++ < script.size() ? script[rand_calls - 1] : real();
}

void node_heap::start(size_t fail) { fail_at = fail, asked = live_count = 0, armed = true; }

std::vector<void *> node_heap::stop()
{
    armed = false;
    std::vector<void *> left(live, live + live_count);
    live_count = 0;
    return left;
}

size_t node_heap::allocations() { return asked; }
void scripted_rand::set(const std::vector<int> &values) { script = values, rand_calls = 0; }
size_t scripted_rand::calls() { return rand_calls; }
