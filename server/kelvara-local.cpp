// kelvara-local: a local server speaking the kelvara HTTP API, so Hoplift can
// be tried and tested end to end without the real service.
#include "accounts.h"
#include "selfsigned.h"
#include "service.h"
#include "storage.h"

#include <httplib.h>

#include <arpa/inet.h>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <pthread.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int exitUsage = 2;
constexpr int exitStartup = 1;

struct Options
{
    std::string listen = "127.0.0.1";
    int port = 8642;
    std::string dataDir;
    std::string accountsFile;
    bool tls = false;
    std::string certFile;
    std::string keyFile;
    bool chunked = false;
    std::string redirectTo;
    std::int64_t delayMs = 0;
};

const char *usageText =
    "Usage: kelvara-local [OPTION]...\n"
    "A local server speaking the kelvara HTTP API.\n"
    "\n"
    "  --listen ADDR        address to listen on (default 127.0.0.1)\n"
    "  --port N             port, 0 picks a free one (default 8642)\n"
    "  --data DIR           folder for stored assets, one sub-folder per account\n"
    "                       (default $XDG_DATA_HOME/kelvara-local)\n"
    "  --accounts FILE      accounts file; without it there is one account,\n"
    "                       demo/demo with 2 GiB\n"
    "  --tls                serve HTTPS; with a self-signed certificate unless\n"
    "  --cert FILE          --cert and --key name a PEM certificate\n"
    "  --key FILE           and its private key\n"
    "  --chunked            send every answer with Transfer-Encoding: chunked\n"
    "  --redirect-to URL    answer every request with 302 to URL + request path\n"
    "  --delay-ms N         wait N milliseconds before every answer\n"
    "  --help               show this help\n"
    "\n"
    "Prints \"listening on http://ADDR:PORT\" on standard output once ready.\n"
    "Stops on SIGTERM or SIGINT.\n";

bool parseInt(const std::string &text, std::int64_t min, std::int64_t max, std::int64_t &out)
{
    if (text.empty() || text.size() > 18) {
        return false;
    }
    std::int64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        v = v * 10 + (c - '0');
    }
    if (v < min || v > max) {
        return false;
    }
    out = v;
    return true;
}

// Returns -1 to continue, otherwise an exit code.
int parseArguments(int argc, char **argv, Options &options)
{
    const auto fail = [](const std::string &message) {
        std::cerr << "kelvara-local: " << message << "\nTry 'kelvara-local --help'.\n";
        return exitUsage;
    };
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto value = [&](std::string &out) {
            if (i + 1 >= argc) {
                return false;
            }
            out = argv[++i];
            return true;
        };
        std::string v;
        if (arg == "--help" || arg == "-h") {
            std::cout << usageText;
            return 0;
        } else if (arg == "--tls") {
            options.tls = true;
        } else if (arg == "--chunked") {
            options.chunked = true;
        } else if (arg == "--listen" || arg == "--port" || arg == "--data" || arg == "--accounts" ||
                   arg == "--cert" || arg == "--key" || arg == "--redirect-to" ||
                   arg == "--delay-ms") {
            if (!value(v)) {
                return fail(arg + " needs a value");
            }
            std::int64_t n = 0;
            if (arg == "--listen") {
                options.listen = v;
            } else if (arg == "--port") {
                if (!parseInt(v, 0, 65535, n)) {
                    return fail("--port needs a number from 0 to 65535");
                }
                options.port = static_cast<int>(n);
            } else if (arg == "--data") {
                options.dataDir = v;
            } else if (arg == "--accounts") {
                options.accountsFile = v;
            } else if (arg == "--cert") {
                options.certFile = v;
            } else if (arg == "--key") {
                options.keyFile = v;
            } else if (arg == "--redirect-to") {
                if (v.rfind("http://", 0) != 0 && v.rfind("https://", 0) != 0) {
                    return fail("--redirect-to needs an http:// or https:// URL");
                }
                while (!v.empty() && v.back() == '/') {
                    v.pop_back(); // the request path brings its own slash
                }
                options.redirectTo = v;
            } else {
                if (!parseInt(v, 0, 3600 * 1000, n)) {
                    return fail("--delay-ms needs a number of milliseconds (at most one hour)");
                }
                options.delayMs = n;
            }
        } else {
            return fail("unknown option " + arg);
        }
    }
    if (options.certFile.empty() != options.keyFile.empty()) {
        return fail("--cert and --key go together");
    }
    if (!options.certFile.empty() && !options.tls) {
        return fail("--cert and --key need --tls");
    }
    unsigned char addr[16];
    if (inet_pton(AF_INET, options.listen.c_str(), addr) != 1 &&
        inet_pton(AF_INET6, options.listen.c_str(), addr) != 1) {
        return fail("--listen needs a numeric IPv4 or IPv6 address");
    }
    if (options.dataDir.empty()) {
        const char *xdg = std::getenv("XDG_DATA_HOME");
        const char *home = std::getenv("HOME");
        if (xdg && *xdg) {
            options.dataDir = std::string(xdg) + "/kelvara-local";
        } else if (home && *home) {
            options.dataDir = std::string(home) + "/.local/share/kelvara-local";
        } else {
            return fail("no --data folder given and HOME is not set");
        }
    }
    return -1;
}

std::string urlHost(const std::string &address)
{
    return address.find(':') != std::string::npos ? "[" + address + "]" : address;
}

bool writeFileAtomically(const std::string &path, const std::string &content, std::string &error)
{
    const std::string temp = path + ".tmp";
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        out << content;
        if (!out.flush()) {
            error = "cannot write " + temp;
            std::filesystem::remove(temp);
            return false;
        }
    }
    std::error_code ec;
    std::filesystem::rename(temp, path, ec);
    if (ec) {
        error = "cannot write " + path + ": " + ec.message();
        std::filesystem::remove(temp, ec);
        return false;
    }
    return true;
}

// Coordinates the signal thread with the main thread's shutdown.
struct Shutdown
{
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
};

} // namespace

int main(int argc, char **argv)
{
    Options options;
    if (const int rc = parseArguments(argc, argv, options); rc >= 0) {
        return rc;
    }

    std::vector<kelvara::Account> accounts;
    if (options.accountsFile.empty()) {
        accounts.push_back(kelvara::demoAccount());
    } else {
        std::ifstream in(options.accountsFile, std::ios::binary);
        if (!in) {
            std::cerr << "kelvara-local: cannot read " << options.accountsFile << "\n";
            return exitStartup;
        }
        const std::string text((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
        std::string error;
        const std::string baseDir =
            std::filesystem::path(options.accountsFile).parent_path().string();
        auto parsed = kelvara::parseAccounts(text, baseDir, error);
        if (!parsed) {
            std::cerr << "kelvara-local: " << options.accountsFile << ": " << error << "\n";
            return exitStartup;
        }
        accounts = std::move(*parsed);
    }

    kelvara::ServiceOptions serviceOptions;
    serviceOptions.dataDir = options.dataDir;
    serviceOptions.chunked = options.chunked;
    serviceOptions.redirectTo = options.redirectTo;
    serviceOptions.delayMs = options.delayMs;
    kelvara::Service service(serviceOptions, std::move(accounts));
    std::string error;
    if (!service.prepare(error)) {
        std::cerr << "kelvara-local: " << error << "\n";
        return exitStartup;
    }

    std::unique_ptr<httplib::Server> server;
    if (options.tls) {
        if (!options.certFile.empty()) {
            server = std::make_unique<httplib::SSLServer>(options.certFile.c_str(),
                                                          options.keyFile.c_str());
        } else {
            kelvara::SelfSigned identity;
            if (!kelvara::makeSelfSigned(options.listen, identity, error)) {
                std::cerr << "kelvara-local: " << error << "\n";
                return exitStartup;
            }
            // Only the certificate is written, so clients can choose to trust it.
            const std::string certPath = options.dataDir + "/kelvara-local-cert.pem";
            if (!writeFileAtomically(certPath, identity.certificatePem, error)) {
                std::cerr << "kelvara-local: " << error << "\n";
                return exitStartup;
            }
            std::cerr << "kelvara-local: self-signed certificate " << certPath << "\n"
                      << "kelvara-local: SHA-256 fingerprint " << identity.sha256Fingerprint
                      << "\n";
            server = std::make_unique<httplib::SSLServer>(identity.certificate.get(),
                                                          identity.key.get());
        }
        if (!server->is_valid()) {
            std::cerr << "kelvara-local: cannot use the TLS certificate and key\n";
            return exitStartup;
        }
    } else {
        server = std::make_unique<httplib::Server>();
    }

    server->new_task_queue = [] { return new httplib::ThreadPool(24); };
    // httplib's default socket options set SO_REUSEPORT, which would let two
    // servers share a port without noticing; refuse a busy port instead.
    server->set_socket_options([](socket_t sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    server->set_tcp_nodelay(true);
    server->set_read_timeout(15, 0);
    server->set_write_timeout(15, 0);
    server->set_keep_alive_timeout(5);
    server->set_logger([](const httplib::Request &req, const httplib::Response &res) {
        std::fprintf(stderr, "%s %s %s -> %d\n", req.remote_addr.c_str(), req.method.c_str(),
                     req.target.c_str(), res.status);
    });
    service.install(*server);

    // Signals are taken by one thread with sigwait; all others block them.
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    int port = options.port;
    if (port == 0) {
        port = server->bind_to_any_port(options.listen);
    } else if (!server->bind_to_port(options.listen, port)) {
        port = -1;
    }
    if (port < 0) {
        std::cerr << "kelvara-local: cannot listen on " << urlHost(options.listen) << ":"
                  << options.port << " (address in use or not available)\n";
        return exitStartup;
    }

    Shutdown shutdown;
    std::atomic<bool> signalled{false};
    std::thread signalThread([&] {
        int sig = 0;
        sigwait(&stopSignals, &sig);
        signalled = true;
        service.beginShutdown();
        // stop() does nothing until the listening loop runs, and "listening on" is printed
        // just before it starts: a signal in that gap waits for the loop (or its failure).
        while (!server->is_running()) {
            std::unique_lock lock(shutdown.mutex);
            if (shutdown.done.wait_for(lock, std::chrono::milliseconds(1),
                                       [&] { return shutdown.finished; }))
                break;
        }
        server->stop();
        // Workers finish their current request; one stuck on a silent
        // client must not keep the process alive.
        std::unique_lock lock(shutdown.mutex);
        if (!shutdown.done.wait_for(lock, std::chrono::seconds(3),
                                    [&] { return shutdown.finished; })) {
            kelvara::removeAllTemporaryFiles();
            std::fprintf(stderr, "kelvara-local: stopped (requests still running were dropped)\n");
            std::_Exit(0);
        }
    });

    std::printf("listening on %s://%s:%d\n", options.tls ? "https" : "http",
                urlHost(options.listen).c_str(), port);
    std::fflush(stdout);
    std::fprintf(stderr, "kelvara-local: data folder %s\n", options.dataDir.c_str());

    const bool listened = server->listen_after_bind();
    {
        std::lock_guard lock(shutdown.mutex);
        shutdown.finished = true;
    }
    shutdown.done.notify_all();
    if (!signalled) {
        // Listening failed: wake the signal thread, which is still waiting.
        pthread_kill(signalThread.native_handle(), SIGTERM);
    }
    signalThread.join();
    kelvara::removeAllTemporaryFiles();
    std::fprintf(stderr, "kelvara-local: stopped\n");
    return (listened || signalled) ? 0 : exitStartup;
}
