// Key hygiene: both SA exports run on a thread whose stack starts zeroed.
// Afterwards no run of key bytes and no run of a key's hex text may be left on
// that stack, with the sinks off and on, whether the kernel accepts the SA or
// refuses it echoing the whole request.
#include <pthread.h>
#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#else
#define VALGRIND_MAKE_MEM_DEFINED(address, size) ((void)(address), (void)(size))
#endif

#include <functional>

#include "tavrel_host_xfrm.h"
#include "tavrel_test.h"

namespace {

using fk::bytes;

// Key bytes and their text: at least 4 bytes, or 8 hex characters, in a row.
size_t residue(const bytes &stack, const std::vector<bytes> &keys, bool as_text)
{
    std::vector<bool> hit(stack.size());
    const size_t window = as_text ? 8 : 4;
    for (const bytes &key : keys) {
        std::string text;
        for (uint8_t b : key)
            text += "0123456789abcdef"[b >> 4], text += "0123456789abcdef"[b & 15];
        const bytes needle = as_text ? bytes(text.begin(), text.end()) : key;
        for (size_t i = 0; i + window <= needle.size(); i++)
            for (auto at = stack.begin(); (at = std::search(at, stack.end(), &needle[i], &needle[i] + window)) != stack.end(); at++)
                std::fill_n(hit.begin() + (at - stack.begin()), window, true);
    }
    return static_cast<size_t>(std::count(hit.begin(), hit.end(), true));
}

// The call on a thread of its own whose stack was zeroed; gives that stack afterwards.
bytes on_zeroed_stack(const std::function<void()> &call)
{
    static uint8_t stack[256 * 1024] __attribute__((aligned(4096)));
    // valgrind takes a dead thread's stack for inaccessible; this test means to look at it.
    VALGRIND_MAKE_MEM_DEFINED(stack, sizeof stack);
    memset(stack, 0, sizeof stack);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstack(&attr, stack, sizeof stack);
    pthread_t thread;
    auto run = [](void *f) -> void * { return (*static_cast<const std::function<void()> *>(f))(), nullptr; };
    EXPECT_EQ(pthread_create(&thread, &attr, run, const_cast<std::function<void()> *>(&call)), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
    VALGRIND_MAKE_MEM_DEFINED(stack, sizeof stack);
    return bytes(stack, stack + sizeof stack);
}

class KeyHygiene : public TavrelTest {};

TEST_F(KeyHygiene, NoKeyBytesOrKeyTextLeftOnTheStack)
{
    auto seq = [](uint8_t first, size_t n) { bytes k(n); for (size_t i = 0; i < n; i++) k[i] = first + i; return k; };
    const std::vector<bytes> keys = {seq(0xc1, 16), seq(0xe1, 16), seq(0x81, 32), seq(0xa1, 32)};
    auto hex = [](const bytes &k) { std::string t; char b[3]; for (uint8_t v : k) snprintf(b, 3, "%02x", v), t += b; return t; };
    tavrel_xfrm_sa_cfg cfg;
    tavrel_xfrm_addr_set set;
    char error[128];
    ASSERT_EQ(tavrel_host_sa_cfg_parse(("local = 10.1.0.1\ndest = 10.2.0.1\nprotocol = esp\nmode = tunnel\nspi_tx = 1\n"
                                        "spi_rx = 2\ncrypto_algo = 12\nhash_algo = 6\ncrypto_key_tx = " + hex(keys[0]) +
                                        "\ncrypto_key_rx = " + hex(keys[1]) + "\nhash_key_tx = " + hex(keys[2]) +
                                        "\nhash_key_rx = " + hex(keys[3])).c_str(), &cfg, error, sizeof error), 0) << error;
    ASSERT_EQ(tavrel_host_addr_set_parse(("local = 10.1.0.1\nremote = 10.2.0.1\nproto = esp\ncrypto_alg_name = cbc(aes)\n"
                                          "auth_alg_name = hmac(sha256)\ncrypto_key_tx = " + hex(keys[0]) +
                                          "\nauth_key_tx = " + hex(keys[2])).c_str(), &set, error, sizeof error), 0) << error;
    const std::pair<const char *, std::function<int()>> calls[] = {
        {"add_states", [&] { return tavrel_xfrm_add_states(&cfg, 0, 0, 0); }},
        {"add_state_from_addr_set", [&] { return tavrel_xfrm_add_state_from_addr_set(&set, 1, 0); }},
    };
    for (const auto &[name, function] : calls)
        for (bool sinks : {false, true}) {
            std::vector<bytes> requests;
            for (bool refuse : {false, true}) {
                fk::reset();
                logcap::start(sinks, sinks ? 3 : 0);
                for (size_t i = 0; i < 2; i++)
                    fk::expect_socket().reply(refuse ? fk::ack(-EEXIST, requests.at(i)) : fk::ack(0));
                int result = 0;
                const std::function<int()> &call = function;  // clang 14 cannot capture a structured binding
                const bytes stack = on_zeroed_stack([&] { result = call(); });
                EXPECT_EQ(result, refuse ? -1 : 0);
                if (!refuse)
                    requests = fk::requests_on(NETLINK_XFRM), requests.resize(2, requests[0]);
                // Key bytes, key-text characters.
                EXPECT_EQ(std::make_pair(residue(stack, keys, false), residue(stack, keys, true)), std::make_pair(size_t{0}, size_t{0}))
                    << name << (sinks ? ", sinks on, " : ", sinks off, ") << (refuse ? "refused" : "accepted");
            }
        }
}

}  // namespace
