// etc: the kstrtok tokenizer and its pool of 32 contexts; see etc.h.
#include "etc.h"

#include <array>
#include <bitset>
#include <mutex>

namespace
{

struct kstrtok_context_t {
    bool used;
    char *saved; // position after the last token, null before the first call
};

// Constant-initialised, so the pool needs no first-use set-up and no unlocked test.
std::mutex s_kstrtok_lock;
std::array<kstrtok_context_t, KSTRTOK_MAX_CONTEXT> s_kstrtok_pool{};

bool valid_context(int context)
{
    return context >= 0 && context < KSTRTOK_MAX_CONTEXT;
}

} // namespace

int kstrtokbegin()
{
    std::lock_guard<std::mutex> guard(s_kstrtok_lock);
    for (int i = 0; i < KSTRTOK_MAX_CONTEXT; i++) {
        if (!s_kstrtok_pool[i].used) {
            s_kstrtok_pool[i] = {true, nullptr};
            return i;
        }
    }
    return 0; // pool exhausted: the caller shares context 0
}

char *kstrtok(int context, char *str, const char *delimiters)
{
    if (!valid_context(context) || delimiters == nullptr)
        return nullptr;
    kstrtok_context_t &ctx = s_kstrtok_pool[context];
    char *p = str != nullptr ? str : ctx.saved;
    if (p == nullptr)
        return nullptr;

    std::bitset<256> set;
    set.set(0); // the terminating NUL ends every token
    for (const char *d = delimiters; *d != '\0'; d++)
        set.set(static_cast<unsigned char>(*d));
    auto is_delim = [&set](char c) { return set.test(static_cast<unsigned char>(c)); };

    while (*p != '\0' && is_delim(*p))
        p++;
    if (*p == '\0') {
        ctx.saved = p;
        return nullptr;
    }
    char *token = p;
    while (!is_delim(*p))
        p++;
    if (*p != '\0')
        *p++ = '\0';
    ctx.saved = p;
    return token;
}

void kstrtokend(int context)
{
    if (!valid_context(context))
        return;
    std::lock_guard<std::mutex> guard(s_kstrtok_lock);
    s_kstrtok_pool[context] = {false, nullptr};
}
