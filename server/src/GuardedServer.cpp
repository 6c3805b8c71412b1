#include "GuardedServer.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <iostream>
#include <thread>

#include "GuardedStream.h"
#include "WorkerPool.h"

namespace {

// Closes an accepted socket when the connection ends, whatever the way out.
struct SocketCloser {
    int fd;
    ~SocketCloser() {
        ::shutdown(fd, SHUT_RDWR);
        ::close(fd);
    }
};

// The TLS handshake on a non-blocking socket, by `deadline`.
bool handshake(SSL* ssl, int fd, GuardedStream::Clock::time_point deadline) {
    GuardedStream waiter(fd, nullptr,
                         std::chrono::duration_cast<std::chrono::milliseconds>(
                             deadline - GuardedStream::Clock::now()),
                         0);
    while (true) {
        const int rc = SSL_accept(ssl);
        if (rc == 1) {
            return true;
        }
        const int err = SSL_get_error(ssl, rc);
        if (err == SSL_ERROR_WANT_READ) {
            if (!waiter.waitForData(deadline)) {
                return false;
            }
        } else if (err != SSL_ERROR_WANT_WRITE || !waiter.is_writable()) {
            return false;
        }
    }
}

}  // namespace

std::size_t GuardedServer::defaultWorkers() {
    return std::max<std::size_t>(16, 8 * std::max(1u, std::thread::hardware_concurrency()));
}

GuardedServer::GuardedServer(const std::string& name, Limits limits, const std::string& certFile,
                             const std::string& keyFile)
    : name_(name), limits_(limits), slots_(limits.maxPerClient) {
    const std::size_t workers = limits_.workers;
    const std::size_t maxConnections = limits_.maxConnections;
    // The HTTP layer owns and deletes the task queue it gets here.
    new_task_queue = [workers, maxConnections] { return new WorkerPool(workers, maxConnections); };
    // Answers go out as soon as they are written: without this, a reply written in two pieces
    // (headers, then body) waits for the client's delayed acknowledgement of the first.
    set_tcp_nodelay(true);
    if (!certFile.empty()) {
        ctx_.reset(SSL_CTX_new(TLS_server_method()));
        valid_ = ctx_ && SSL_CTX_set_min_proto_version(ctx_.get(), TLS1_2_VERSION) == 1 &&
                 SSL_CTX_use_certificate_chain_file(ctx_.get(), certFile.c_str()) == 1 &&
                 SSL_CTX_use_PrivateKey_file(ctx_.get(), keyFile.c_str(), SSL_FILETYPE_PEM) == 1 &&
                 SSL_CTX_check_private_key(ctx_.get()) == 1;
        if (ctx_) {
            SSL_CTX_set_mode(ctx_.get(),
                             SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
        }
    }
}

GuardedServer::~GuardedServer() = default;

bool GuardedServer::is_valid() const {
    return valid_;
}

void GuardedServer::refused(const std::string& why) {
    std::lock_guard<std::mutex> lock(logMutex_);
    ++refusedSinceLog_;
    const auto now = std::chrono::steady_clock::now();
    if (now - lastRefusalLog_ >= std::chrono::minutes(1)) {
        std::cerr << "pds-server: " << name_ << ": refused " << refusedSinceLog_
                  << " connection(s); last: " << why << std::endl;
        lastRefusalLog_ = now;
        refusedSinceLog_ = 0;
    }
}

bool GuardedServer::process_and_close_socket(socket_t sock) {
    SocketCloser closer{sock};
    if (WorkerPool::refusing()) {
        refused("too many connections");
        return false;
    }
    const std::string address = GuardedStream::peerAddress(sock);
    ClientSlots::Slot slot;
    if (!slots_.acquire(address, slot)) {
        refused("too many connections from " + address);
        return false;
    }
    const int flags = ::fcntl(sock, F_GETFL, 0);
    if (flags < 0 || ::fcntl(sock, F_SETFL, flags | O_NONBLOCK) < 0) {
        return false;
    }
    using Clock = GuardedStream::Clock;
    pelio::Ssl ssl;
    if (ctx_) {
        ssl.reset(SSL_new(ctx_.get()));
        if (!ssl || SSL_set_fd(ssl.get(), sock) != 1 ||
            !handshake(ssl.get(), sock, Clock::now() + limits_.requestTimeout)) {
            return false;
        }
    }
    GuardedStream stream(sock, ssl.get(), limits_.writeTimeout, limits_.maxRawBody);
    SSL* rawSsl = ssl.get();
    for (int n = 0; n < limits_.maxRequestsPerConnection && is_running(); ++n) {
        const auto wait = n == 0 ? limits_.requestTimeout : limits_.idleTimeout;
        if (!stream.waitForData(Clock::now() + wait)) {
            break;
        }
        stream.beginRequest(Clock::now() + limits_.requestTimeout);
        bool closed = false;
        const bool last = n + 1 == limits_.maxRequestsPerConnection;
        const bool ok = process_request(stream, last, closed,
                                        [rawSsl](httplib::Request& req) { req.ssl = rawSsl; });
        if (!ok || closed) {
            break;
        }
    }
    if (ssl) {
        SSL_shutdown(ssl.get());
    }
    return true;
}
