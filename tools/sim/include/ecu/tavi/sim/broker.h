// A private mosquitto broker for tests and the simulator: started from a generated
// configuration on free loopback ports (or on a given one), and stopped, killed, paused or
// restarted on the same ports.
//
// Not thread safe: drive one Broker from one thread. The broker process gets SIGKILL when
// the thread that started it ends, so a crashed test leaves no broker behind.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "ecu/tavi/export.h"

namespace ecu::tavi::sim {

struct BrokerOptions {
    // Address of every listener.
    std::string host = "127.0.0.1";
    // Port of the plain listener; 0 picks a free one.
    uint16_t port = 0;
    // Adds a listener that requires TLS with a client certificate signed by the test CA.
    bool tls = false;
    // Adds a listener that accepts only the user name and password of password_user().
    bool password = false;
    // The plain listener checks logins and access lists with mosquitto's dynamic security
    // plugin, administered by dynsec_admin(). Clients without a login may still publish
    // and subscribe everywhere, as on a listener without the plugin; users created through
    // the plugin get only what their roles allow.
    bool dynamic_security = false;
};

// Throw-away certificates made with openssl the first time they are asked for; nothing
// secret is kept anywhere but in a temporary directory.
struct TlsFiles {
    std::string ca_cert;
    std::string server_cert;
    std::string server_key;
    std::string client_cert;
    // Encrypted with client_key_password.
    std::string client_key;
    std::string client_key_password;
    // A second CA that signed nothing the broker uses.
    std::string other_ca_cert;
};

class TAVI_EXPORT Broker {
public:
    explicit Broker(BrokerOptions options = {});
    // Kills the broker and removes its files.
    ~Broker();
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    // Whether mosquitto is installed; tests skip with a reason when it is not.
    static bool available();
    // The certificates, generated once per process; empty paths when openssl failed.
    static const TlsFiles& tls_files();

    // Starts the broker (choosing the free ports on the first start) and waits until every
    // listener accepts connections. On failure error() says why.
    bool start();
    // SIGTERM, waits for the exit.
    void stop();
    // SIGKILL, waits for the exit: the clients see their connections drop at once.
    void kill();
    // SIGSTOP / SIGCONT: connections stay open but nothing is answered.
    void pause();
    void resume();
    // stop() then start() on the same ports.
    bool restart();
    bool running() const { return m_pid > 0; }

    const std::string& host() const { return m_options.host; }
    uint16_t port() const { return m_port; }
    uint16_t tls_port() const { return m_tls_port; }
    uint16_t password_port() const { return m_password_port; }
    // Login of the password listener; the password is made up per process.
    static const char* password_user() { return "tavi-user"; }
    static const std::string& password_secret();
    // Administrator of the dynamic security plugin; the password is made up per process.
    static const char* dynsec_admin() { return "tavi-admin"; }
    static const std::string& dynsec_secret();

    // Configuration text for the library's client on the plain listener.
    std::string client_config(const std::string& client_name) const;
    // What the broker has written to its log so far.
    std::string log_text() const;
    // Why the last start() failed.
    const std::string& error() const { return m_error; }

private:
    bool spawn();
    bool wait_accepting();
    void reap();
    // False with error() set when a file could not be made.
    bool write_config();
    // The plugin's own file: the administrator, and a role that lets clients without a
    // login do everything. False with error() set when mosquitto_ctrl failed.
    bool write_dynsec_config(const std::string& file);

    BrokerOptions m_options;
    std::string m_dir;
    std::string m_error;
    uint16_t m_port = 0;
    uint16_t m_tls_port = 0;
    uint16_t m_password_port = 0;
    pid_t m_pid = -1;
    bool m_paused = false;
};

}  // namespace ecu::tavi::sim
