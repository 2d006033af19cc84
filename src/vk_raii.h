// vk_raii: small owners of the resources the agent's units hold (a descriptor, a FILE*, a
// malloc'd block, an interface list) and the one way the daemon allocates a record: checked, never throwing.
// The daemon is built without exceptions, so every allocation is tested for null by its
// caller. Header only; depends on nothing of the agent. Safe from any thread.
#pragma once

#include <ifaddrs.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>
#include <unistd.h>

// Owns one descriptor and closes it on every path.
struct vk_unique_fd {
    int fd = -1;
    explicit vk_unique_fd(int f) : fd(f) {}
    vk_unique_fd(const vk_unique_fd &) = delete;
    vk_unique_fd &operator=(const vk_unique_fd &) = delete;
    ~vk_unique_fd()
    {
        if (fd >= 0)
            close(fd);
    }
    // Hands the descriptor to the caller, who closes it from then on.
    int release()
    {
        int f = fd;
        fd = -1;
        return f;
    }
};

// Owns one FILE* and closes it on every path.
struct vk_file_closer {
    void operator()(FILE *f) const { fclose(f); }
};
using vk_unique_file = std::unique_ptr<FILE, vk_file_closer>;

// Owns the list getifaddrs returns.
struct vk_ifaddrs_deleter {
    void operator()(ifaddrs *list) const { freeifaddrs(list); }
};
using vk_unique_ifaddrs = std::unique_ptr<ifaddrs, vk_ifaddrs_deleter>;

// Owns one malloc'd block and frees it on every path (release() hands it to a caller).
struct vk_free_deleter {
    void operator()(void *p) const { free(p); }
};
template <typename T> using vk_unique_malloc = std::unique_ptr<T, vk_free_deleter>;

// A zero-filled plain record (or array of `count` of them) on the heap, or null when memory
// is short.
template <typename T> vk_unique_malloc<T> vk_alloc_zeroed(size_t count = 1)
{
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>,
                  "only plain records: no constructor or destructor runs");
    return vk_unique_malloc<T>(static_cast<T *>(calloc(count, sizeof(T))));
}

// An uninitialised array of `count` plain items on the heap (a workspace the caller fills),
// or null when memory is short.
template <typename T> vk_unique_malloc<T[]> vk_alloc_array(size_t count)
{
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>, "plain items only");
    return vk_unique_malloc<T[]>(static_cast<T *>(malloc(count * sizeof(T))));
}

// A heap copy of a plain record, or null when memory is short.
template <typename T> vk_unique_malloc<T> vk_alloc_copy(const T &from)
{
    vk_unique_malloc<T> copy(static_cast<T *>(malloc(sizeof(T))));
    if (copy)
        memcpy(copy.get(), &from, sizeof(T));
    return copy;
}
