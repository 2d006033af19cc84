// libFuzzer target for the receive path over TLS: per input, a real PSK handshake between the
// agent's TLS layer (dg_tls_connect on one end of a socketpair) and a server thread, then the
// server sends the input and closes. The first byte picks how: 0 as decrypted stream bytes
// (every packet the agent's reader returns through processing_socket_dynamic must be the input
// at that offset), else as raw bytes on the socket after the handshake (no record can pass,
// so the very first read fails). Checks run under ASan+UBSan like every target.
#include "dg_tls.h"
#include "fuzz_support.h"
#include "vk_comm.h"

#include <openssl/ssl.h>
#include <sys/socket.h>

#include <csignal>

#include <thread>

namespace
{

constexpr size_t k_max_input = 64 * 1024;
const char k_key_hex[] = "0101010101010101010101010101010101010101010101010101010101010101"; // 32 bytes of 1

unsigned int server_psk(SSL *, const char *, unsigned char *psk, unsigned int max_length)
{
    FUZZ_CHECK(max_length >= 32);
    memset(psk, 1, 32);
    return 32;
}

SSL_CTX *server_context()
{
    static SSL_CTX *ctx = [] {
        signal(SIGPIPE, SIG_IGN); // the server may still write when the agent's side has closed
        const std::string &dir = fuzz_support::temp_dir("tls_receive");
        fuzz_support::write_file(dir + "/psk", k_key_hex, sizeof(k_key_hex) - 1);
        chmod((dir + "/psk").c_str(), 0600);
        setenv("MGR_TLS_CONNECT", "psk", 1);
        setenv("MGR_TLS_PSK_IDENTITY", "fuzz", 1);
        setenv("MGR_TLS_PSK_FILE", (dir + "/psk").c_str(), 1);
        char message[512];
        FUZZ_CHECK(dg_tls_init(message, sizeof(message)) == 0);
        SSL_CTX *c = SSL_CTX_new(TLS_server_method());
        SSL_CTX_set_psk_server_callback(c, server_psk);
        return c;
    }();
    return ctx;
}

struct packet_check {
    const uint8_t *data;
    size_t size, at;
};

int check_packet(char *packet, void *argument)
{
    auto *c = static_cast<packet_check *>(argument);
    const size_t total = VK_NIO_MAIN_HEADER_LEN + get_nio_length(packet);
    FUZZ_CHECK(c->at + total <= c->size && memcmp(packet, c->data + c->at, total) == 0);
    c->at += total;
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > k_max_input)
        return 0;
    const bool raw = data[0] != 0;
    data++, size--;
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
        return 0;
    SSL *server = SSL_new(server_context());
    SSL_set_fd(server, fds[1]);
    std::thread peer([&] {
        if (SSL_accept(server) == 1) {
            if (raw)
                (void)!send(fds[1], data, size, MSG_NOSIGNAL);
            else if (size > 0)
                SSL_write(server, data, static_cast<int>(size));
            if (!raw)
                SSL_shutdown(server);
        }
        shutdown(fds[1], SHUT_WR);
    });
    char reason[256];
    if (dg_tls_connect(fds[0], reason, sizeof(reason)) == 0) {
        packet_check c{data, size, 0};
        int rc;
        while ((rc = processing_socket_dynamic(fds[0], 1, 2, check_packet, &c)) >= 0 || rc == -100) {
        }
        FUZZ_CHECK(rc == -99 && (!raw || c.at == 0) && c.at <= size);
        dg_tls_free(fds[0]);
    }
    close(fds[0]); // ends a server still writing
    peer.join();
    SSL_free(server);
    close(fds[1]);
    return 0;
}
