// TLS scenarios with the real agent and quil-dg-sim serving TLS like a terminator in front of a
// DG. A throw-away CA is made with the openssl command per test.
#ifdef QUIL_DG_SIM_BIN

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>

#include "dg_scenario.h"
#include "dg_wire.h"

namespace
{

using namespace dg_scenario;

// CA "ca" issues dg, dg2 (another key), expired, revoked (in crl.pem), wrongname (DNS only),
// client and oldclient (expired); CA "other" issues untrusted. Keys 0600.
const char k_make_pki[] = R"(set -e
printf '[ca]\ndefault_ca=d\n[d]\ndir=.\ndatabase=index.txt\nnew_certs_dir=.\nserial=serial\ncrlnumber=crlnumber
default_md=sha256\ndefault_days=2\ndefault_crl_days=2\npolicy=p\ncopy_extensions=copy\nunique_subject=no
[p]\ncommonName=supplied\n' > ca.cnf
touch index.txt; echo 01 > serial; echo 01 > crlnumber
key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out $1.key; chmod 600 $1.key; }
ca() { key $1; openssl req -x509 -key $1.key -out $1.pem -days 2 -subj /CN=$1; }
csr() { key $1; openssl req -new -key $1.key -out $1.csr -subj /CN=$1 -addext "subjectAltName=$2"; }
sign() { n=$1; shift; openssl ca -batch -config ca.cnf -cert ca.pem -keyfile ca.key -in $n.csr -out $n.pem "$@"; }
ca ca; ca other
for n in dg dg2 expired revoked untrusted; do csr $n IP:127.0.0.1; done
csr wrongname DNS:dg.example; csr client DNS:agent; csr oldclient DNS:agent
for n in dg dg2 revoked wrongname client; do sign $n; done
for n in expired oldclient; do sign $n -startdate 20200101000000Z -enddate 20200102000000Z; done
openssl ca -config ca.cnf -cert ca.pem -keyfile ca.key -revoke revoked.pem
openssl ca -config ca.cnf -cert ca.pem -keyfile ca.key -gencrl -out crl.pem
openssl x509 -req -in untrusted.csr -CA other.pem -CAkey other.key -CAcreateserial -days 2 -copy_extensions copy -out untrusted.pem
openssl pkey -in dg.key -pubout -outform DER | openssl dgst -sha256 -r | cut -c1-64 > dg.pin
openssl rand -hex 32 > psk; openssl rand -hex 32 > wrong.psk; openssl rand -hex 16 > short.psk
cp dg.key open.key; cp psk group.psk; chmod 600 psk wrong.psk short.psk; chmod 644 open.key; chmod 640 group.psk
)";

class DgTls : public DgScenario
{
  protected:
    void SetUp() override
    {
        DgScenario::SetUp();
        write_file(pki + ".sh", k_make_pki);
        ASSERT_EQ(mkdir(pki.c_str(), 0700), 0);
        ASSERT_EQ(system(("cd " + pki + " && bash ../pki.sh >/dev/null 2>&1").c_str()), 0) << "openssl";
    }
    std::string f(const std::string &name) { return pki + "/" + name; }
    // quil-dg-sim options serving cert, requiring a client certificate from "ca" when asked.
    std::vector<std::string> serve(const std::string &cert, bool require_client = false)
    {
        std::vector<std::string> o = {"--tls-cert", f(cert + ".pem"), "--tls-key", f(cert + ".key")};
        if (require_client)
            o.insert(o.end(), {"--tls-client-ca", f("ca.pem")});
        return o;
    }
    std::string pin() { return read_file(f("dg.pin")).substr(0, 64); }
    std::vector<std::string> cert_env(std::vector<std::string> more = {})
    {
        if (std::none_of(more.begin(), more.end(), [](auto &v) { return v.starts_with("MGR_TLS_CA_FILE="); }))
            more.push_back("MGR_TLS_CA_FILE=" + f("ca.pem"));
        more.push_back("MGR_TLS_CONNECT=cert");
        return more;
    }
    std::vector<std::string> psk_env(const std::string &file)
    {
        return {"MGR_TLS_CONNECT=psk", "MGR_TLS_PSK_IDENTITY=agent-1", "MGR_TLS_PSK_FILE=" + f(file)};
    }
    // Ends the previous case's agent, simulator and log, then starts both anew.
    void restart(const std::vector<std::string> &sim_options, const std::vector<std::string> &agent_env)
    {
        if (agent > 0) {
            kill(agent, SIGKILL);
            waitpid(agent, nullptr, 0);
        }
        sim.reset();
        port = 0;
        unlink((manager + "/log/quil-manager-agent.log").c_str());
        start_sim(sim_options);
        start_agent(agent_env);
    }
    std::string refused(const std::string &reason)
    {
        return "[KTR-OSM-00020100] TLS handshake failed with DataGather Server 127.0.0.1:" + std::to_string(port) +
               ": " + reason;
    }

    std::string pki = home + "/pki";
    std::vector<std::string> psk_sim = {"--tls-psk-identity", "agent-1", "--tls-psk-file", pki + "/psk"};
};

// Every mode, and the default with stray TLS settings, carries a restart and a 300 KB patch.
TEST_F(DgTls, EachModeCarriesARestartAndAPatch)
{
    sample_agent();
    const std::string patch = home + "/p.sh";
    write_file(patch, "#!/bin/sh\necho vkSuccess\nexit 0\n" + std::string(300000, '#'));
    const struct {
        const char *name;
        std::vector<std::string> sim, env;
        const char *tls;
    } cases[] = {
        {"cert", serve("dg"), cert_env(), "TLSv1.3 "},
        {"cert, client certificate required and given, key pinned, CRL", serve("dg", true),
         cert_env({"MGR_TLS_CERT_FILE=" + f("client.pem"), "MGR_TLS_KEY_FILE=" + f("client.key"),
                   "MGR_TLS_SERVER_PUBKEY_SHA256=" + pin(), "MGR_TLS_CRL_FILE=" + f("crl.pem")}),
         "TLSv1.3 "},
        {"psk", psk_sim, psk_env("psk"), "TLSv1.3 "},
        {"the default, stray TLS files ignored", {}, {"MGR_TLS_CA_FILE=" + f("none.pem"), "MGR_TLS_PSK_FILE=" + f("group.psk")}, ""},
    };
    for (const auto &c : cases) {
        restart(c.sim, c.env);
        auto connected = sim->wait_for(event_named("connected"));
        ASSERT_TRUE(connected && sim->wait_for(sent_of(50036))) << c.name << "\n" << log();
        EXPECT_TRUE(connected->str("tls").starts_with(c.tls) && (*c.tls != 0 || !connected->has("tls")))
            << c.name << ": " << connected->line();
        std::string exec = std::string("r") + std::to_string(&c - cases);
        ASSERT_TRUE(sim->command("restart" + request_args(exec)));
        auto done = result(exec, 2);
        EXPECT_EQ(done ? done->num("body.result") : 0, 1) << c.name << " " << describe(done);
        ASSERT_TRUE(sim->command("patch_start" + request_args("p" + exec) + " file=" + patch + " name=p.sh"));
        done = result("p" + exec, 2);
        EXPECT_EQ(done ? done->num("body.result") : 0, 1) << c.name << " " << describe(done);
        EXPECT_EQ(read_file(manager + "/tmp/p.sh"), read_file(patch)) << c.name;
    }
    checked("cert, cert with a required client certificate, pin and CRL, psk, and the default: restart and patch");
}

// Each refusal is logged with the library's reason and retried every 5 s; after three logged
// ones the attempts go on silently.
TEST_F(DgTls, RefusedHandshakesAreLoggedAndRetried)
{
    const struct {
        std::vector<std::string> sim, env;
        std::string reason;
    } cases[] = {
        {serve("untrusted"), cert_env(), "certificate verify failed (unable to get local issuer certificate)"},
        {serve("expired"), cert_env(), "certificate verify failed (certificate has expired)"},
        {serve("wrongname"), cert_env(), "certificate verify failed (IP address mismatch)"},
        {serve("revoked"), cert_env({"MGR_TLS_CRL_FILE=" + f("crl.pem")}), "certificate verify failed (certificate revoked)"},
        {serve("dg2"), cert_env({"MGR_TLS_SERVER_PUBKEY_SHA256=" + pin()}),
         "the server's public key is not the one of MGR_TLS_SERVER_PUBKEY_SHA256"},
        {psk_sim, psk_env("wrong.psk"), "sslv3 alert illegal parameter"},
        {serve("dg", true), cert_env(), "tlsv13 alert certificate required"},
        {{}, cert_env(), "unexpected eof while reading"}, // a DG that speaks plain TCP
    };
    for (const auto &c : cases) {
        restart(c.sim, c.env);
        EXPECT_TRUE(log_has(refused(c.reason), 2, 20s)) << c.reason << "\n" << log();
        EXPECT_FALSE(sim->wait_for(sent_of(50036), 0s)) << c.reason;
    }
    auto attempts = [&] {
        auto events = sim->events();
        return std::count_if(events.begin(), events.end(), [](const sim_event &e) { return e.is("connected"); });
    };
    EXPECT_TRUE(eventually([&] { return attempts() >= 4; }, 30s));
    EXPECT_EQ(log_count("[KTR-OSM-00020100]"), 3u) << "the fourth refusal is silent\n" << log();
    checked("8 refused handshakes, each logged with its reason and retried; three logged, then silence");
}

// An expired client certificate is refused; renewed in place, it is used at the next attempt.
// Over the TLS session, garbage, a cut packet and a DG that stops reading end as over TCP.
TEST_F(DgTls, RenewedCertificateAndHostilePeers)
{
    write_file(f("agent.pem"), read_file(f("oldclient.pem")));
    write_file(f("agent.key"), read_file(f("oldclient.key")));
    chmod(f("agent.key").c_str(), 0600);
    restart(serve("dg", true), cert_env({"MGR_TLS_CERT_FILE=" + f("agent.pem"), "MGR_TLS_KEY_FILE=" + f("agent.key")}));
    ASSERT_TRUE(log_has(refused("sslv3 alert certificate expired"))) << log();
    write_file(f("agent.pem"), read_file(f("client.pem")));
    write_file(f("agent.key"), read_file(f("client.key")));
    ASSERT_TRUE(sim->wait_for(sent_of(50036), 20s)) << log();
    EXPECT_EQ(waitpid(agent, nullptr, WNOHANG), 0) << "no restart";

    for (const char *attack : {"raw hex=00112233445566778899aabbccddeeff0011223344556677", "raw hex=f9f2f802040000"}) {
        size_t mark = sim->mark();
        ASSERT_TRUE(sim->command(attack));
        if (std::string(attack).ends_with("0000")) {
            ASSERT_TRUE(sim->command("close"));
        }
        ASSERT_TRUE(sim->wait_for(sent_of(50036), 20s, mark)) << attack << "\n" << log();
        EXPECT_TRUE(eventually([&] { return ping_answered(); }, 10s)) << attack;
    }
    // The last three pings arrive in one record: those the TLS layer holds after the first
    // are answered without more bytes on the socket (none come once the time sync is over).
    auto count = [&](const event_predicate &match, size_t from) {
        auto events = sim->events();
        return std::count_if(events.begin() + static_cast<long>(from), events.end(), match);
    };
    ASSERT_TRUE(eventually([&] { // the time sync goes quiet
        auto before = count(sent_of(50020), 0);
        std::this_thread::sleep_for(1500ms);
        return count(sent_of(50020), 0) == before;
    }));
    size_t from = sim->mark();
    ASSERT_TRUE(sim->command("pause_reading"));
    for (int i = 0; i < 197; i++)
        ASSERT_TRUE(sim->send("ping"));
    const std::string ping = "f9f2f802040000000000000bc350000000000401239125";
    ASSERT_TRUE(sim->command("raw hex=" + ping + ping + ping));
    ASSERT_TRUE(sim->command("resume_reading"));
    EXPECT_TRUE(eventually([&] { return count(recv_of(40000), from) >= 200; }, 20s)) << log();
    checked("renewed client certificate used without a restart; garbage, a cut packet and a paused DG over TLS");
}

// Bad settings end the start with one line naming the variable (standard error and log), and
// -t reports the same.
TEST_F(DgTls, BadSettingsAreRefusedAtStart)
{
    const struct {
        std::vector<std::string> env;
        const char *variable;
    } cases[] = {
        {{"MGR_TLS_CONNECT=tls"}, "MGR_TLS_CONNECT"},
        {{"MGR_TLS_CONNECT=cert"}, "MGR_TLS_CA_FILE"},
        {cert_env({"MGR_TLS_CA_FILE=" + f("none.pem")}), "MGR_TLS_CA_FILE"},
        {cert_env({"MGR_TLS_CA_FILE=" + f("psk")}), "MGR_TLS_CA_FILE"},
        {cert_env({"MGR_TLS_CERT_FILE=" + f("client.pem")}), "MGR_TLS_KEY_FILE"},
        {cert_env({"MGR_TLS_CERT_FILE=" + f("dg.pem"), "MGR_TLS_KEY_FILE=" + f("open.key")}), "MGR_TLS_KEY_FILE"},
        {cert_env({"MGR_TLS_CERT_FILE=" + f("client.pem"), "MGR_TLS_KEY_FILE=" + f("dg.key")}), "MGR_TLS_KEY_FILE"},
        {cert_env({"MGR_TLS_CRL_FILE=" + f("ca.pem")}), "MGR_TLS_CRL_FILE"},
        {cert_env({"MGR_TLS_SERVER_PUBKEY_SHA256=abc"}), "MGR_TLS_SERVER_PUBKEY_SHA256"},
        {psk_env("short.psk"), "MGR_TLS_PSK_FILE"},
        {psk_env("group.psk"), "MGR_TLS_PSK_FILE"},
        {{"MGR_TLS_CONNECT=psk", "MGR_TLS_PSK_FILE=" + f("psk")}, "MGR_TLS_PSK_IDENTITY"},
    };
    for (const auto &c : cases) {
        std::vector<std::string> e = env;
        e.push_back("MGR_RECEIVER_ADDR=127.0.0.1:1");
        e.insert(e.end(), c.env.begin(), c.env.end());
        const std::string line = std::string("[KTR-OSM-00020090] Wrong TLS setting. [") + c.variable + "] ";
        for (bool check_only : {false, true}) {
            std::vector<std::string> argv = {QUIL_AGENT_BIN};
            if (check_only)
                argv.push_back("-t");
            child_process run{spawn(argv, e, home + "/out", home + "/err")};
            int status = -1;
            ASSERT_TRUE(eventually([&] { return waitpid(run.pid, &status, WNOHANG) == run.pid; })) << c.variable;
            run.pid = 0;
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << c.variable;
            std::string err = read_file(home + "/err");
            EXPECT_TRUE(err.starts_with(line) && err.find('\n') == err.size() - 1) << c.variable << ": " << err;
            EXPECT_TRUE(check_only || contains(log(), "[ERRO]" + line)) << c.variable;
        }
    }
    checked("12 refused settings, each named on standard error, in the log and by -t");
}

} // namespace

#endif // QUIL_DG_SIM_BIN
