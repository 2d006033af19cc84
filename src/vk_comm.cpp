// vk_comm: NIO/OIO framing, the packet readers and the socket and address helpers used by
// the DG connection thread, the message builders and the configuration bootstrap.
// Nothing here logs: failures are returned as codes and the caller decides.
#include "vk_comm.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace
{

struct free_deleter {
    void operator()(void *p) const { std::free(p); }
};
using malloc_ptr = std::unique_ptr<char, free_deleter>;

// gethostbyname_r needs scratch space for the host entry; a long alias list asks for more.
constexpr size_t k_resolve_scratch_start = 4096;
constexpr size_t k_resolve_scratch_max = 1 << 20;

// Resolves name to its first address in the entry's own family. Returns 0 and fills
// family/address, or -1 when it does not resolve.
int resolve_first_address(const char *name, int *family, unsigned char (&address)[16])
{
    for (size_t size = k_resolve_scratch_start; size <= k_resolve_scratch_max; size *= 2) {
        malloc_ptr scratch(static_cast<char *>(std::malloc(size)));
        if (!scratch)
            return -1;
        hostent entry{};
        hostent *found = nullptr;
        int h_err = 0;
        int rc = gethostbyname_r(name, &entry, scratch.get(), size, &found, &h_err);
        if (rc == ERANGE)
            continue;
        if (rc != 0 || found == nullptr || found->h_addr_list == nullptr || found->h_addr_list[0] == nullptr)
            return -1;
        if (found->h_length <= 0 || static_cast<size_t>(found->h_length) > sizeof(address))
            return -1;
        *family = found->h_addrtype;
        std::memcpy(address, found->h_addr_list[0], static_cast<size_t>(found->h_length));
        return 0;
    }
    return -1;
}

} // namespace

// ---- socket and address helpers ---------------------------------------------

int getIPFromDomain(const char *name, char *out_text, size_t out_size)
{
    if (name == nullptr || out_text == nullptr || out_size == 0)
        return -1;
    out_text[0] = '\0';
    unsigned char address[16];
    if (inet_pton(AF_INET, name, address) == 1 || inet_pton(AF_INET6, name, address) == 1) {
        size_t length = std::strlen(name);
        if (length >= out_size) {
            std::printf("ip is wrong.[%s]\n", name);
            return -2;
        }
        std::memcpy(out_text, name, length + 1);
        return 0;
    }
    int family = AF_INET;
    if (resolve_first_address(name, &family, address) != 0) {
        std::printf("Unknown host [%s]\n", name);
        return -1;
    }
    if (out_size > INET6_ADDRSTRLEN * 4)
        out_size = INET6_ADDRSTRLEN * 4; // inet_ntop takes a socklen_t
    if (inet_ntop(family, address, out_text, static_cast<socklen_t>(out_size)) == nullptr) {
        out_text[0] = '\0';
        std::printf("ip is wrong.[%s]\n", name);
        return -2;
    }
    return 0;
}
