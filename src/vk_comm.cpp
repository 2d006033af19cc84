// vk_comm: NIO/OIO framing, the packet readers and the socket and address helpers used by
// the DG connection thread, the message builders and the configuration bootstrap.
// Nothing here logs but get_ip_info, whose failures leave an empty list: failures are
// returned as codes and the caller decides.
#include "vk_comm.h"
#include "dg_tls.h"
#include "vk_byteorder.h"
#include "vklog.h"
#include "vk_raii.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

namespace
{

// gethostbyname_r needs scratch space for the host entry; a long alias list asks for more.
constexpr size_t k_resolve_scratch_start = 4096;
constexpr size_t k_resolve_scratch_max = 1 << 20;

// Resolves name to its first address in the entry's own family. Returns 0 and fills
// family/address, or -1 when it does not resolve.
int resolve_first_address(const char *name, int *family, unsigned char (&address)[16])
{
    for (size_t size = k_resolve_scratch_start; size <= k_resolve_scratch_max; size *= 2) {
        vk_unique_malloc<char> scratch(static_cast<char *>(std::malloc(size)));
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

constexpr unsigned char k_nio_magic[3] = {0xF9, 0xF2, 0xF8};
constexpr unsigned char k_oio_magic = 0xFF;

// Header version of every main header this process writes; set once by the connection
// thread, read by any sending thread.
std::atomic<uint8_t> s_header_version{0};

// recv that restarts after signals. Returns what recv returns otherwise. A socket with a TLS
// session reads through it.
ssize_t recv_retry(int sock, char *dest, size_t size)
{
    if (dg_tls_attached(sock))
        return dg_tls_recv(sock, dest, size);
    ssize_t n;
    do {
        n = recv(sock, dest, size, 0);
    } while (n < 0 && errno == EINTR);
    return n;
}

// Receives exactly size bytes. Returns true when all arrived, false when recv failed or
// the peer closed first (dest then holds what arrived).
bool recv_exact(int sock, char *dest, size_t size)
{
    size_t done = 0;
    while (done < size) {
        ssize_t n = recv_retry(sock, dest + done, size - done);
        if (n < 1)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool version_accepted(unsigned char version)
{
    return version == 0 || version == 2;
}
// The packet types a receiver understands; 3 and anything above 4 are refused.
bool packet_type_accepted(unsigned char type)
{
    return type <= 4 && type != 3;
}

// Checks a received main header. Returns 0 or the shared code -2 (magic) / -3 (version),
// and stores the length field read as a signed 32-bit value.
int check_nio_main_header(const char *header, int32_t *length)
{
    auto *p = reinterpret_cast<const unsigned char *>(header);
    if (std::memcmp(p, k_nio_magic, sizeof(k_nio_magic)) != 0)
        return -2;
    if (!version_accepted(p[3]))
        return -3;
    *length = static_cast<int32_t>(get_be32(p + 8));
    return 0;
}

// First allocation of a dynamically read packet, header included.
constexpr size_t k_dynamic_first_step = 256u * 1024u;

// Receives the body of a dynamically read packet into *buffer, which holds the main header
// and has room for `room` bytes; grows it up to 12 + length as bytes arrive, so a length
// field alone never costs more than the first step. Returns 0, -4 out of memory, -6 recv
// failed or the peer closed.
int recv_body_growing(int sock, vk_unique_malloc<char> *buffer, size_t room, size_t length)
{
    const size_t total = VK_NIO_MAIN_HEADER_LEN + length;
    size_t filled = VK_NIO_MAIN_HEADER_LEN;
    while (filled < total) {
        if (filled == room) {
            size_t next = room > total / 2 ? total : room * 2;
            auto *grown = static_cast<char *>(std::realloc(buffer->get(), next));
            if (grown == nullptr)
                return -4; // *buffer still owns the old block
            (void)buffer->release();
            buffer->reset(grown);
            room = next;
        }
        ssize_t n = recv_retry(sock, buffer->get() + filled, room - filled);
        if (n < 1)
            return -6;
        filled += static_cast<size_t>(n);
    }
    return 0;
}

// Waits until sock is readable. Returns 1 readable (or closed/errored: the read will tell),
// -98 the wait itself failed, -100 timed out. Signals do not shorten the wait.
int wait_readable(int sock, int timeout_seconds)
{
    if (sock < 0)
        return -98;
    // Bytes the TLS layer already holds never show on the socket.
    if (dg_tls_attached(sock) && dg_tls_pending(sock))
        return 1;
    using clock = std::chrono::steady_clock;
    const int seconds =
        timeout_seconds < 0 ? 0 : (timeout_seconds > INT_MAX / 1000 ? INT_MAX / 1000 : timeout_seconds);
    const auto deadline = clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now()).count();
        pollfd pfd{sock, POLLIN, 0};
        int rc = poll(&pfd, 1, left > 0 ? static_cast<int>(left) : 0);
        // A signal (SIGHUP is handled and returns) interrupts poll; the wait goes on for the
        // time that is left rather than failing the connection with -98.
        if (rc < 0 && errno == EINTR)
            continue;
        if (rc < 0 || (rc > 0 && (pfd.revents & POLLNVAL)))
            return -98;
        return rc == 0 ? -100 : 1;
    }
}

// Buffer for one statically read NIO packet: main header plus the largest length field.
vk_unique_malloc<char> new_nio_packet_buffer()
{
    return vk_unique_malloc<char>(static_cast<char *>(std::malloc(VK_NIO_MAIN_HEADER_LEN + VK_NIO_PACKET_CAPACITY)));
}

} // namespace

// ---- headers ----------------------------------------------------------------

int is_nio_header(const void *buffer)
{
    if (buffer == nullptr)
        return 0;
    return std::memcmp(buffer, k_nio_magic, sizeof(k_nio_magic)) == 0 ? 1 : 0;
}

void set_nio_header_version(uint8_t version)
{
    s_header_version.store(version, std::memory_order_relaxed);
}

uint8_t get_nio_header_version()
{
    return s_header_version.load(std::memory_order_relaxed);
}

void set_nio_main_header(void *buffer, int packet_type, uint32_t length)
{
    if (buffer == nullptr)
        return;
    auto *p = static_cast<unsigned char *>(buffer);
    std::memcpy(p, k_nio_magic, sizeof(k_nio_magic));
    p[3] = get_nio_header_version();
    p[4] = static_cast<unsigned char>(packet_type);
    p[5] = p[6] = p[7] = 0;
    put_be32(p + 8, length);
}

void set_nio_sub_header(void *buffer, int message_type, uint32_t packet_id, int body_kind,
                        uint32_t protocol_stamp)
{
    if (buffer == nullptr)
        return;
    auto *p = static_cast<unsigned char *>(buffer);
    put_be16(p, static_cast<uint32_t>(message_type));
    put_be32(p + 2, packet_id);
    p[6] = static_cast<unsigned char>(body_kind);
    put_be32(p + 7, protocol_stamp);
}

void set_oio_header(void *buffer, int type)
{
    if (buffer == nullptr)
        return;
    auto *p = static_cast<unsigned char *>(buffer);
    p[0] = k_oio_magic;
    put_be16(p + 1, static_cast<uint32_t>(type));
}

uint32_t get_nio_length(const char *packet)
{
    return get_be32(reinterpret_cast<const unsigned char *>(packet) + 8);
}

uint16_t get_nio_message_type(const char *packet)
{
    auto *p = reinterpret_cast<const unsigned char *>(packet);
    return get_be16(p + 12);
}

// ---- packet builders --------------------------------------------------------

namespace
{

// Allocates header_length + body_length bytes and copies the body behind the header.
// Returns the buffer, or null for a bad length, a missing body or no memory.
vk_unique_malloc<char> new_packet(int header_length, const void *body, int body_length)
{
    if (body_length < 0 || body_length > INT_MAX - header_length || (body == nullptr && body_length != 0))
        return nullptr;
    const size_t total = static_cast<size_t>(header_length) + static_cast<size_t>(body_length);
    vk_unique_malloc<char> packet(static_cast<char *>(std::malloc(total)));
    if (packet && body_length > 0)
        std::memcpy(packet.get() + header_length, body, static_cast<size_t>(body_length));
    return packet;
}

} // namespace

int wrap_packet_nio_header(char **out_buffer, const void *body, int body_length, int packet_type,
                           int message_type, uint32_t packet_id, int body_kind, uint32_t protocol_stamp)
{
    if (out_buffer == nullptr)
        return 0;
    *out_buffer = nullptr;
    vk_unique_malloc<char> packet = new_packet(VK_NIO_HEADER_LEN, body, body_length);
    if (!packet)
        return 0;
    set_nio_main_header(packet.get(), packet_type,
                        static_cast<uint32_t>(body_length) + VK_NIO_SUB_HEADER_LEN);
    set_nio_sub_header(packet.get() + VK_NIO_MAIN_HEADER_LEN, message_type, packet_id, body_kind,
                       protocol_stamp);
    *out_buffer = packet.release();
    return body_length + VK_NIO_HEADER_LEN;
}

int wrap_packet_oio_header(char **out_buffer, const void *body, int body_length, int type)
{
    if (out_buffer == nullptr)
        return 0;
    *out_buffer = nullptr;
    vk_unique_malloc<char> packet = new_packet(VK_OIO_HEADER_LEN, body, body_length);
    if (!packet)
        return 0;
    set_oio_header(packet.get(), type);
    *out_buffer = packet.release();
    return body_length + VK_OIO_HEADER_LEN;
}

// ---- packet readers ---------------------------------------------------------

int get_nio_packet(int sock, char *buffer, int capacity)
{
    if (buffer == nullptr || !recv_exact(sock, buffer, VK_NIO_MAIN_HEADER_LEN))
        return -1;
    int32_t length = 0;
    if (int rc = check_nio_main_header(buffer, &length); rc != 0)
        return rc;
    // A length below the sub header would let the dispatcher read a sub header that
    // never arrived.
    if (length < VK_NIO_SUB_HEADER_LEN || length > capacity)
        return -4;
    if (!recv_exact(sock, buffer + VK_NIO_MAIN_HEADER_LEN, static_cast<size_t>(length)))
        return -5;
    // Checked only now so that a refused packet leaves the stream at the next header.
    if (!packet_type_accepted(static_cast<unsigned char>(buffer[4])))
        return -6;
    return length;
}

int get_nio_packet_dynamic(int sock, char **out_buffer, int /*capacity*/)
{
    if (out_buffer == nullptr)
        return -1;
    *out_buffer = nullptr;
    char header[VK_NIO_MAIN_HEADER_LEN];
    if (!recv_exact(sock, header, sizeof(header)))
        return -1;
    int32_t length = 0;
    if (int rc = check_nio_main_header(header, &length); rc != 0)
        return rc;
    if (length < VK_NIO_SUB_HEADER_LEN)
        return -5;
    // Start with room for any usual packet (a 64 KiB file chunk with its message around it
    // fits, so chunks are read without a realloc); recv_body_growing adds room only as data
    // arrives, so a length field alone never costs more than this first step.
    const size_t total = VK_NIO_MAIN_HEADER_LEN + static_cast<size_t>(length);
    const size_t first = total < k_dynamic_first_step ? total : k_dynamic_first_step;
    vk_unique_malloc<char> packet(static_cast<char *>(std::malloc(first)));
    if (!packet)
        return -4;
    std::memcpy(packet.get(), header, sizeof(header));
    if (int rc = recv_body_growing(sock, &packet, first, static_cast<size_t>(length)); rc != 0)
        return rc;
    if (!packet_type_accepted(static_cast<unsigned char>(header[4])))
        return -6;
    *out_buffer = packet.release();
    return length;
}

int get_oio_packet(int sock, char *buffer, int capacity)
{
    if (buffer == nullptr || capacity < VK_OIO_HEADER_LEN || !recv_exact(sock, buffer, VK_OIO_HEADER_LEN))
        return -1;
    if (is_nio_header(buffer))
        return -2;
    return VK_OIO_HEADER_LEN;
}

int processing_socket(int sock, int is_nio, int timeout_seconds, vk_packet_callback callback, void *argument)
{
    if (int rc = wait_readable(sock, timeout_seconds); rc < 0)
        return rc;
    vk_unique_malloc<char> packet = new_nio_packet_buffer();
    if (!packet)
        return -99;
    int rc = is_nio ? get_nio_packet(sock, packet.get(), VK_NIO_PACKET_CAPACITY)
                    : get_oio_packet(sock, packet.get(), VK_NIO_PACKET_CAPACITY);
    if (rc < 1)
        return -99;
    return callback ? callback(packet.get(), argument) : 0;
}

int processing_socket_dynamic(int sock, int is_nio, int timeout_seconds, vk_packet_callback callback,
                              void *argument)
{
    if (int rc = wait_readable(sock, timeout_seconds); rc < 0)
        return rc;
    if (!is_nio)
        return -99;
    char *raw = nullptr;
    int rc = get_nio_packet_dynamic(sock, &raw, VK_NIO_PACKET_CAPACITY);
    vk_unique_malloc<char> packet(raw);
    if (rc < 1)
        return -99;
    return callback ? callback(packet.get(), argument) : 0;
}

int receive_nio_packet(int sock, vk_packet_callback callback, void *argument)
{
    vk_unique_malloc<char> packet = new_nio_packet_buffer();
    if (!packet)
        return -99;
    if (int rc = get_nio_packet(sock, packet.get(), VK_NIO_PACKET_CAPACITY); rc < 0)
        return rc;
    return callback ? callback(packet.get(), argument) : 0;
}

int receive_expected_nio_packet(int sock, vk_packet_callback2 callback, void *argument1, void *argument2)
{
    vk_unique_malloc<char> packet = new_nio_packet_buffer();
    if (!packet)
        return -99;
    if (int rc = get_nio_packet(sock, packet.get(), VK_NIO_PACKET_CAPACITY); rc < 0)
        return rc;
    return callback ? callback(packet.get(), argument1, argument2) : 0;
}

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

int vk_close_socket_debug(int sock, const char *caller_name)
{
    if (caller_name != nullptr)
        std::printf("[close_socket] sock[%ld],function[%s]\n", static_cast<long>(sock), caller_name);
    shutdown(sock, SHUT_RDWR);
    return close(sock);
}

namespace
{

constexpr size_t k_ip_text_max = 64;
constexpr size_t k_addr_out_min = 18; // room for an IPv6 address and its port

// Low 16 bits of a port text that strtol (base 10) consumes whole: leading blanks and a sign
// are allowed, the value is not range-checked ("-1" gives 65535). False for null, empty or
// anything strtol stops short of.
bool parse_port(const char *text, uint16_t *port)
{
    if (text == nullptr)
        return false;
    char *end = nullptr;
    long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0')
        return false;
    *port = static_cast<uint16_t>(static_cast<unsigned long>(value) & 0xFFFF);
    return true;
}

} // namespace

int convert_ip_port_to_addr(const char *ip_text, const char *port_text, uint8_t *out, size_t out_size)
{
    if (out == nullptr || out_size < k_addr_out_min)
        return -1;
    if (ip_text == nullptr || strnlen(ip_text, k_ip_text_max) >= k_ip_text_max)
        return -2;
    unsigned char address[16];
    const bool ipv4 = std::strchr(ip_text, '.') != nullptr;
    if (inet_pton(ipv4 ? AF_INET : AF_INET6, ip_text, address) != 1)
        return -3;
    uint16_t port = 0;
    if (!parse_port(port_text, &port))
        return -4;
    const size_t address_length = ipv4 ? 4 : 16;
    std::memcpy(out, address, address_length);
    put_be16(out + address_length, port);
    return static_cast<int>(address_length + 2);
}

int convert_ip_str_to_addr(const char *text, size_t text_length, uint8_t *out, size_t out_size)
{
    if (text == nullptr || text_length >= k_ip_text_max)
        return -1;
    const std::string_view whole(text, text_length);
    const size_t colon = whole.rfind(':');
    if (colon == std::string_view::npos)
        return -2;
    std::string_view address = whole.substr(0, colon);
    if (address.find(':') != std::string_view::npos) {
        if (address.size() < 2 || address.front() != '[' || address.back() != ']')
            return -3;
        address = address.substr(1, address.size() - 2);
    }
    // Both parts are shorter than the 64-byte limit checked above.
    char ip_text[k_ip_text_max] = {};
    char port_text[k_ip_text_max] = {};
    std::memcpy(ip_text, address.data(), address.size());
    const std::string_view port = whole.substr(colon + 1);
    std::memcpy(port_text, port.data(), port.size());
    if (std::memchr(ip_text, '\0', address.size()) || std::memchr(port_text, '\0', port.size()))
        return -4; // an embedded NUL would silently shorten a part
    int rc = convert_ip_port_to_addr(ip_text, port_text, out, out_size);
    return rc < 0 ? -4 : rc;
}

int CheckIPAddr(const struct ifreq *interface_request)
{
    if (interface_request == nullptr)
        return -1;
    if (std::strncmp(interface_request->ifr_name, "lo", 2) == 0)
        return -1;
    if (interface_request->ifr_addr.sa_family != AF_INET)
        return -2;
    sockaddr_in address;
    std::memcpy(&address, &interface_request->ifr_addr, sizeof(address));
    char text[INET_ADDRSTRLEN] = {};
    if (inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text)) == nullptr ||
        std::strcmp(text, "0.0.0.0") == 0)
        return -2;
    if (std::strcmp(text, "127.0.0.1") == 0)
        return -3;
    return 0;
}

namespace
{

// Owns a descriptor for the length of one call.
struct fd_owner {
    int fd;
    explicit fd_owner(int d) : fd(d) {}
    ~fd_owner()
    {
        if (fd >= 0)
            close(fd);
    }
    fd_owner(const fd_owner &) = delete;
    fd_owner &operator=(const fd_owner &) = delete;
};

constexpr int k_ifconf_step = 20;
constexpr int k_ifconf_max = 20 * 1024; // stops a kernel that never reports a short list

// Fills *requests with the SIOCGIFCONF list, growing the room by 20 records until the
// kernel returns less than it was given. Returns the record count, -3 query failed, -4 no memory.
int query_interfaces(int fd, vk_unique_malloc<char> *requests)
{
    for (int room = k_ifconf_step; room <= k_ifconf_max; room += k_ifconf_step) {
        const size_t bytes = static_cast<size_t>(room) * sizeof(ifreq);
        requests->reset(static_cast<char *>(std::calloc(static_cast<size_t>(room), sizeof(ifreq))));
        if (!*requests)
            return -4;
        ifconf conf{};
        conf.ifc_len = static_cast<int>(bytes);
        conf.ifc_buf = requests->get();
        if (ioctl(fd, SIOCGIFCONF, &conf) < 0)
            return -3;
        if (conf.ifc_len >= 0 && static_cast<size_t>(conf.ifc_len) < bytes)
            return static_cast<int>(static_cast<size_t>(conf.ifc_len) / sizeof(ifreq));
    }
    return -3;
}

} // namespace

int get_ip_info(vk_ip_info_list *result)
{
    if (result == nullptr)
        return -1;
    *result = {nullptr, 0};
    // A host whose interfaces cannot be listed reports none; the identity message is still
    // built, so the failure is logged rather than returned.
    fd_owner sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (sock.fd < 0) {
        VKLOG_ERROR(g_vklog.load(), "[get_ip_info] socket failed. (%d)\n", errno);
        return 0;
    }
    vk_unique_malloc<char> requests;
    const int count = query_interfaces(sock.fd, &requests);
    if (count < 0) {
        VKLOG_ERROR(g_vklog.load(), "[get_ip_info] interface query failed. (%d)\n", count == -4 ? ENOMEM : errno);
        return 0;
    }
    if (count == 0)
        return 0;
    auto *list = static_cast<vk_ip_info *>(std::calloc(static_cast<size_t>(count), sizeof(vk_ip_info)));
    if (list == nullptr) {
        VKLOG_ERROR(g_vklog.load(), "[get_ip_info] interface query failed. (%d)\n", ENOMEM);
        return 0;
    }
    const auto *entries = reinterpret_cast<const ifreq *>(requests.get());
    for (int i = 0; i < count; ++i) {
        std::memcpy(list[i].name, entries[i].ifr_name, strnlen(entries[i].ifr_name, IFNAMSIZ));
        sockaddr_in address;
        std::memcpy(&address, &entries[i].ifr_addr, sizeof(address));
        if (inet_ntop(AF_INET, &address.sin_addr, list[i].ip, sizeof(list[i].ip)) == nullptr)
            list[i].ip[0] = '\0';
        std::printf("[%d]name: %s, ip: %s\n", i, list[i].name, list[i].ip);
    }
    *result = {list, count};
    return 0;
}
