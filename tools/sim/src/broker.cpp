#include "ecu/tavi/sim/broker.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <glob.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

namespace ecu::tavi::sim {

namespace {

const char* const kMosquitto = "/usr/sbin/mosquitto";
const char* const kDynsecPluginPattern = "/usr/lib/*/mosquitto_dynamic_security.so";

std::string dynsec_plugin() {
    glob_t found{};
    std::string path;
    if (::glob(kDynsecPluginPattern, 0, nullptr, &found) == 0 && found.gl_pathc > 0) {
        path = found.gl_pathv[0];
    }
    ::globfree(&found);
    return path;
}

// The quoted string or the number after "key": in mosquitto_ctrl's JSON.
std::string json_value(const std::string& json, const std::string& key) {
    auto at = json.find("\"" + key + "\":");
    if (at == std::string::npos) {
        return {};
    }
    at = json.find_first_not_of(" \t\n", at + key.size() + 3);
    if (at == std::string::npos) {
        return {};
    }
    if (json[at] == '"') {
        return json.substr(at, json.find('"', at + 1) - at + 1);
    }
    return json.substr(at, json.find_first_not_of("0123456789", at) - at);
}

// An access list entry of the plugin's file.
std::string acl(const char* type, const char* topic) {
    return std::string("{\"acltype\": \"") + type + "\", \"topic\": \"" + topic +
           "\", \"allow\": true}";
}

std::string make_temp_dir(const char* prefix) {
    std::string tmpl = std::string("/tmp/") + prefix + ".XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (::mkdtemp(buf.data()) == nullptr) {
        return {};
    }
    return buf.data();
}

void remove_tree(const std::string& dir) {
    if (!dir.empty()) {
        std::system(("rm -rf '" + dir + "'").c_str());
    }
}

std::string random_word(const char* prefix) {
    std::random_device rd;
    std::ostringstream out;
    out << prefix << std::hex << rd() << rd();
    return out.str();
}

sockaddr_in address(const std::string& host, uint16_t port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    if (::inet_pton(AF_INET, host.c_str(), &addr.sin_addr) != 1) {
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    return addr;
}

// Ports the kernel hands out for port 0; all sockets stay bound until every port is chosen,
// so the ports differ from each other.
std::vector<uint16_t> free_ports(const std::string& host, size_t count) {
    std::vector<int> fds;
    std::vector<uint16_t> ports;
    for (size_t i = 0; i < count; ++i) {
        int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr = address(host, 0);
        socklen_t len = sizeof(addr);
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
            ports.push_back(0);
        } else {
            ports.push_back(ntohs(addr.sin_port));
        }
        fds.push_back(fd);
    }
    for (int fd : fds) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    return ports;
}

// Whether a listener could bind the port: mosquitto sets SO_REUSEADDR too, so only a live
// socket on the port counts.
bool port_in_use(const std::string& host, uint16_t port) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        return false;
    }
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in addr = address(host, port);
    bool in_use =
        ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 && errno == EADDRINUSE;
    ::close(fd);
    return in_use;
}

bool accepts(const std::string& host, uint16_t port) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_in addr = address(host, port);
    bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    ::close(fd);
    return ok;
}

struct Pki {
    std::string dir;
    TlsFiles files;
    ~Pki() { remove_tree(dir); }
};

Pki& make_pki() {
    static Pki pki;
    pki.dir = make_temp_dir("murntavi-pki");
    if (pki.dir.empty()) {
        return pki;
    }
    const std::string pass = random_word("key-");
    // P-256 keys: generated in milliseconds, unlike RSA.
    const std::string ec = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 ";
    std::ostringstream cmd;
    cmd << "cd '" << pki.dir << "' && ("
        << "openssl req -x509" << ec << "-nodes -keyout ca.key -out ca.crt"
        << " -subj /CN=murntavi-test-ca -days 2"
        << " && openssl req -x509" << ec << "-nodes -keyout other-ca.key -out other-ca.crt"
        << " -subj /CN=murntavi-other-ca -days 2"
        << " && openssl req" << ec
        << "-nodes -keyout server.key -out server.csr -subj /CN=localhost"
        << " && printf 'subjectAltName=IP:127.0.0.1,DNS:localhost\\n' > server.ext"
        << " && openssl x509 -req -in server.csr -CA ca.crt -CAkey ca.key -CAcreateserial"
        << " -out server.crt -days 2 -extfile server.ext"
        << " && openssl req" << ec << "-passout pass:" << pass
        << " -keyout client.key -out client.csr -subj /CN=tavi-tls-client"
        << " && openssl x509 -req -in client.csr -CA ca.crt -CAkey ca.key -CAcreateserial"
        << " -out client.crt -days 2"
        << " && chmod 644 *.key) > openssl.log 2>&1";
    if (std::system(cmd.str().c_str()) != 0) {
        return pki;
    }
    pki.files.ca_cert = pki.dir + "/ca.crt";
    pki.files.server_cert = pki.dir + "/server.crt";
    pki.files.server_key = pki.dir + "/server.key";
    pki.files.client_cert = pki.dir + "/client.crt";
    pki.files.client_key = pki.dir + "/client.key";
    pki.files.client_key_password = pass;
    pki.files.other_ca_cert = pki.dir + "/other-ca.crt";
    return pki;
}

}  // namespace

Broker::Broker(BrokerOptions options) : m_options(std::move(options)) {
    m_dir = make_temp_dir("murntavi-broker");
}

Broker::~Broker() {
    kill();
    remove_tree(m_dir);
}

bool Broker::available() {
    return ::access(kMosquitto, X_OK) == 0;
}

const TlsFiles& Broker::tls_files() {
    static Pki& pki = make_pki();
    return pki.files;
}

const std::string& Broker::password_secret() {
    static const std::string secret = random_word("pw-");
    return secret;
}

const std::string& Broker::dynsec_secret() {
    static const std::string secret = random_word("dynsec-");
    return secret;
}

std::string Broker::client_config(const std::string& client_name) const {
    std::ostringstream out;
    out << "client_name = " << client_name << "\nhost = " << m_options.host << "\nport = " << m_port
        << "\n";
    return out.str();
}

std::string Broker::log_text() const {
    std::ifstream in(m_dir + "/broker.log");
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

bool Broker::write_dynsec_config(const std::string& file) {
    // mosquitto_ctrl hashes the administrator's password as the plugin expects it; the
    // rest of the file is ours.
    const std::string init = m_dir + "/dynsec-init.json";
    ::unlink(init.c_str());  // mosquitto_ctrl refuses to overwrite it
    const std::string command = std::string("mosquitto_ctrl dynsec init '") + init + "' " +
                                dynsec_admin() + " " + dynsec_secret() + " > /dev/null 2>&1";
    if (std::system(command.c_str()) != 0) {
        m_error = "cannot prepare dynamic security: mosquitto_ctrl dynsec init failed";
        return false;
    }
    std::ifstream in(init);
    std::ostringstream text;
    text << in.rdbuf();
    const std::string json = text.str();
    const std::string password = json_value(json, "password");
    const std::string salt = json_value(json, "salt");
    const std::string iterations = json_value(json, "iterations");
    if (password.empty() || salt.empty() || iterations.empty()) {
        m_error = "cannot prepare dynamic security: unexpected output of mosquitto_ctrl";
        return false;
    }
    std::ofstream out(file, std::ios::trunc);
    out << "{\n\"clients\": [{\"username\": \"" << dynsec_admin()
        << "\", \"password\": " << password << ", \"salt\": " << salt
        << ", \"iterations\": " << iterations
        << ", \"roles\": [{\"rolename\": \"admin\"}, {\"rolename\": \"platform\"}]}],\n"
        << "\"roles\": [{\"rolename\": \"admin\", \"acls\": ["
        << acl("publishClientSend", "$CONTROL/dynamic-security/#") << ", "
        << acl("publishClientReceive", "$CONTROL/dynamic-security/#") << ", "
        << acl("subscribePattern", "$CONTROL/dynamic-security/#")
        << "]},\n"
        // "#" leaves out the "$" topics, the plugin's control topic among them.
        << "  {\"rolename\": \"platform\", \"acls\": [" << acl("publishClientSend", "#") << ", "
        << acl("publishClientReceive", "#") << ", " << acl("subscribePattern", "#") << ", "
        << acl("unsubscribePattern", "#") << "]}],\n"
        << "\"groups\": [{\"groupname\": \"platform\", \"roles\": [{\"rolename\": "
           "\"platform\"}]}],\n"
        << "\"anonymousGroup\": \"platform\",\n"
        << "\"defaultACLAccess\": {\"publishClientSend\": false, \"publishClientReceive\": true, "
           "\"subscribe\": false, \"unsubscribe\": true}\n}\n";
    out.close();
    ::chmod(file.c_str(), 0644);
    return static_cast<bool>(out);
}

bool Broker::write_config() {
    std::ofstream out(m_dir + "/broker.conf", std::ios::trunc);
    out << "per_listener_settings true\n";
    if (::geteuid() == 0) {
        // As root mosquitto would switch to its own user, which cannot read our files.
        out << "user root\n";
    }
    out << "log_dest stderr\n"
        << "log_type error\nlog_type warning\nlog_type notice\nlog_type information\n"
        << "persistence false\n"
        // Without it every QoS 1 exchange pays the peer's delayed-ACK time-out.
        << "set_tcp_nodelay true\n"
        << "listener " << m_port << " " << m_options.host << "\n"
        << "allow_anonymous true\n";
    if (m_options.dynamic_security) {
        const std::string plugin = dynsec_plugin();
        const std::string file = m_dir + "/dynsec.json";
        if (plugin.empty()) {
            m_error = std::string("cannot find the dynamic security plugin (") +
                      kDynsecPluginPattern + ")";
            return false;
        }
        if (!write_dynsec_config(file)) {
            return false;
        }
        out << "plugin " << plugin << "\n"
            << "plugin_opt_config_file " << file << "\n";
    }
    if (m_options.tls) {
        const TlsFiles& tls = tls_files();
        out << "listener " << m_tls_port << " " << m_options.host << "\n"
            << "cafile " << tls.ca_cert << "\n"
            << "certfile " << tls.server_cert << "\n"
            << "keyfile " << tls.server_key << "\n"
            << "require_certificate true\n"
            << "use_identity_as_username true\n"
            << "allow_anonymous false\n";
    }
    if (m_options.password) {
        const std::string file = m_dir + "/passwd";
        std::system(("mosquitto_passwd -c -b '" + file + "' " + password_user() + " " +
                     password_secret() + " > /dev/null 2>&1")
                        .c_str());
        ::chmod(file.c_str(), 0644);
        out << "listener " << m_password_port << " " << m_options.host << "\n"
            << "allow_anonymous false\n"
            << "password_file " << file << "\n";
    }
    return true;
}

bool Broker::spawn() {
    const std::string conf = m_dir + "/broker.conf";
    const std::string log = m_dir + "/broker.log";
    int log_fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (log_fd < 0) {
        return false;
    }
    const pid_t parent = ::getpid();
    pid_t pid = ::fork();
    if (pid == 0) {
        // Only async-signal-safe calls between fork and exec. A parent that waits for its
        // signals with sigwait has them blocked, and the mask survives exec: unblock them,
        // or the broker could not be stopped.
        sigset_t none;
        ::sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::signal(SIGINT, SIG_DFL);
        ::signal(SIGTERM, SIG_DFL);
        // Its own process group: a Ctrl-C at the terminal reaches the owner, which stops
        // the broker after its clients have said goodbye.
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) {
            ::_exit(126);
        }
        ::dup2(log_fd, 1);
        ::dup2(log_fd, 2);
        ::execl(kMosquitto, "mosquitto", "-c", conf.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(log_fd);
    if (pid < 0) {
        m_error = std::string("cannot start mosquitto: ") + std::strerror(errno);
        return false;
    }
    m_pid = pid;
    m_paused = false;
    if (wait_accepting()) {
        return true;
    }
    kill();
    m_error = "mosquitto did not start on " + m_options.host + ":" + std::to_string(m_port) + ": " +
              log_text();
    return false;
}

bool Broker::wait_accepting() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = -1;  // exited: the configuration or a port was refused
            return false;
        }
        const std::string& host = m_options.host;
        bool all = accepts(host, m_port) && (!m_options.tls || accepts(host, m_tls_port)) &&
                   (!m_options.password || accepts(host, m_password_port));
        if (all) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

bool Broker::start() {
    m_error.clear();
    if (running()) {
        return true;
    }
    if (!available()) {
        m_error = std::string("mosquitto is not installed (") + kMosquitto + ")";
        return false;
    }
    if (m_dir.empty()) {
        m_error = "cannot create a temporary directory for the broker";
        return false;
    }
    if (m_options.tls && tls_files().ca_cert.empty()) {
        m_error = "cannot make the test certificates with openssl";
        return false;
    }
    if (m_port != 0) {
        // A restart keeps its port. If another process took it meanwhile, its listener would
        // pass for ours: refuse, rather than hand clients a broker that is not this one.
        if (port_in_use(m_options.host, m_port)) {
            m_error = "port " + std::to_string(m_port) + " on " + m_options.host +
                      " was taken by another process while the broker was stopped";
            return false;
        }
        return spawn();
    }
    if (m_options.port != 0) {
        if (port_in_use(m_options.host, m_options.port)) {
            m_error = "port " + std::to_string(m_options.port) + " on " + m_options.host +
                      " is already in use";
            return false;
        }
        std::vector<uint16_t> ports = free_ports(m_options.host, 2);
        m_port = m_options.port;
        m_tls_port = ports[0];
        m_password_port = ports[1];
        return write_config() && spawn();
    }
    // Another process may take a port between choosing and binding it: choose again.
    for (int attempt = 0; attempt < 5; ++attempt) {
        std::vector<uint16_t> ports = free_ports(m_options.host, 3);
        m_port = ports[0];
        m_tls_port = ports[1];
        m_password_port = ports[2];
        if (!write_config()) {
            return false;
        }
        if (spawn()) {
            return true;
        }
    }
    return false;
}

void Broker::reap() {
    if (m_pid > 0) {
        int status = 0;
        ::waitpid(m_pid, &status, 0);
        m_pid = -1;
        m_paused = false;
    }
}

void Broker::stop() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGTERM);
        if (m_paused) {
            ::kill(m_pid, SIGCONT);
        }
        reap();
    }
}

void Broker::kill() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        reap();
    }
}

void Broker::pause() {
    if (m_pid > 0 && !m_paused) {
        ::kill(m_pid, SIGSTOP);
        m_paused = true;
    }
}

void Broker::resume() {
    if (m_pid > 0 && m_paused) {
        ::kill(m_pid, SIGCONT);
        m_paused = false;
    }
}

bool Broker::restart() {
    stop();
    return start();
}

}  // namespace ecu::tavi::sim
