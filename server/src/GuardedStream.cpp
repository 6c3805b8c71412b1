#include "GuardedStream.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace {

// The numeric address and port of one end of a socket (`which`: getpeername or getsockname).
std::string addressOf(int fd, int (*which)(int, sockaddr*, socklen_t*), int* port) {
    sockaddr_storage addr{};
    socklen_t len = sizeof addr;
    char text[INET6_ADDRSTRLEN] = {0};
    if (port) {
        *port = -1;
    }
    if (which(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        return {};
    }
    if (addr.ss_family == AF_INET) {
        const auto* a = reinterpret_cast<const sockaddr_in*>(&addr);
        inet_ntop(AF_INET, &a->sin_addr, text, sizeof text);
        if (port) {
            *port = ntohs(a->sin_port);
        }
    } else if (addr.ss_family == AF_INET6) {
        const auto* a = reinterpret_cast<const sockaddr_in6*>(&addr);
        inet_ntop(AF_INET6, &a->sin6_addr, text, sizeof text);
        if (port) {
            *port = ntohs(a->sin6_port);
        }
    }
    return text;
}

}  // namespace

GuardedStream::GuardedStream(int fd, SSL* ssl, std::chrono::milliseconds writeTimeout,
                             std::size_t maxRawBody)
    : fd_(fd), ssl_(ssl), writeTimeout_(writeTimeout), maxRawBody_(maxRawBody) {}

void GuardedStream::beginRequest(Clock::time_point deadline) {
    deadline_ = deadline;
    inHeaders_ = true;
    headerBytes_ = 0;
    lineLength_ = 0;
    bodyBytes_ = 0;
    overLimit_ = false;
}

bool GuardedStream::wait(short events, Clock::time_point deadline) const {
    while (true) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            return false;
        }
        pollfd p{fd_, events, 0};
        const int rc = ::poll(&p, 1, static_cast<int>(std::min<long long>(left, 1000)));
        if (rc > 0) {
            return true;  // ready, or an error/hang-up that the next read or write reports
        }
        if (rc < 0 && errno != EINTR) {
            return false;
        }
    }
}

bool GuardedStream::waitForData(Clock::time_point deadline) const {
    if (begin_ < end_ || (ssl_ && SSL_pending(ssl_) > 0)) {
        return true;
    }
    return wait(POLLIN, deadline);
}

bool GuardedStream::is_readable() const {
    return waitForData(deadline_);
}

bool GuardedStream::is_writable() const {
    return wait(POLLOUT, Clock::now() + writeTimeout_);
}

ssize_t GuardedStream::fill() {
    while (true) {
        if (ssl_) {
            const int n = SSL_read(ssl_, buffer_, sizeof buffer_);
            if (n > 0) {
                return n;
            }
            const int err = SSL_get_error(ssl_, n);
            if (err == SSL_ERROR_WANT_READ) {
                if (!wait(POLLIN, deadline_)) {
                    return -1;
                }
            } else if (err == SSL_ERROR_WANT_WRITE) {
                if (!wait(POLLOUT, deadline_)) {
                    return -1;
                }
            } else {
                return err == SSL_ERROR_ZERO_RETURN ? 0 : -1;
            }
        } else {
            const ssize_t n = ::recv(fd_, buffer_, sizeof buffer_, 0);
            if (n >= 0) {
                return n;
            }
            if (errno == EINTR) {
                continue;
            }
            if ((errno != EAGAIN && errno != EWOULDBLOCK) || !wait(POLLIN, deadline_)) {
                return -1;
            }
        }
    }
}

void GuardedStream::account(const char* data, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
        if (!inHeaders_) {
            bodyBytes_ += n - i;
            overLimit_ = bodyBytes_ > maxRawBody_;
            return;
        }
        ++headerBytes_;
        if (data[i] == '\n') {
            inHeaders_ = lineLength_ != 0;  // an empty line ends the block
            lineLength_ = 0;
        } else if (data[i] != '\r') {
            ++lineLength_;
        }
    }
    overLimit_ = overLimit_ || (inHeaders_ && headerBytes_ > kMaxHeaderBytes);
}

ssize_t GuardedStream::read(char* ptr, size_t size) {
    if (overLimit_) {
        return -1;
    }
    if (begin_ == end_) {
        const ssize_t n = fill();
        if (n <= 0) {
            return n;
        }
        begin_ = 0;
        end_ = static_cast<std::size_t>(n);
    }
    const std::size_t n = std::min(size, end_ - begin_);
    std::memcpy(ptr, buffer_ + begin_, n);
    begin_ += n;
    account(ptr, n);
    return overLimit_ ? -1 : static_cast<ssize_t>(n);
}

ssize_t GuardedStream::write(const char* ptr, size_t size) {
    const Clock::time_point deadline = Clock::now() + writeTimeout_;
    while (true) {
        if (ssl_) {
            const int n = SSL_write(ssl_, ptr, static_cast<int>(std::min<size_t>(size, 1 << 30)));
            if (n > 0) {
                return n;
            }
            const int err = SSL_get_error(ssl_, n);
            const short events = err == SSL_ERROR_WANT_READ    ? POLLIN
                                 : err == SSL_ERROR_WANT_WRITE ? POLLOUT
                                                               : 0;
            if (events == 0 || !wait(events, deadline)) {
                return -1;
            }
        } else {
            const ssize_t n = ::send(fd_, ptr, size, MSG_NOSIGNAL);
            if (n >= 0) {
                return n;
            }
            if (errno == EINTR) {
                continue;
            }
            if ((errno != EAGAIN && errno != EWOULDBLOCK) || !wait(POLLOUT, deadline)) {
                return -1;
            }
        }
    }
}

std::string GuardedStream::peerAddress(int fd, int* port) {
    return addressOf(fd, ::getpeername, port);
}

void GuardedStream::get_remote_ip_and_port(std::string& ip, int& port) const {
    ip = addressOf(fd_, ::getpeername, &port);
}

void GuardedStream::get_local_ip_and_port(std::string& ip, int& port) const {
    ip = addressOf(fd_, ::getsockname, &port);
}

socket_t GuardedStream::socket() const {
    return fd_;
}
