#pragma once

#include <httplib.h>
#include <openssl/ssl.h>

#include <chrono>
#include <cstddef>
#include <string>

// One accepted connection, plain or TLS, on a non-blocking socket, as the HTTP layer's Stream.
// Every read waits at most until the request's deadline, so the request line, the headers and the
// body of a request arrive within one time-out however slowly a client sends; the header block is
// limited to `kMaxHeaderBytes` and the raw body to `maxRawBody` bytes. Each write waits at most
// `writeTimeout`. Used by one worker thread; borrows the socket and the SSL object (the caller
// owns and closes them).
class GuardedStream : public httplib::Stream {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::size_t kMaxHeaderBytes = 64 * 1024;

    GuardedStream(int fd, SSL* ssl, std::chrono::milliseconds writeTimeout, std::size_t maxRawBody);

    // Starts a request: reads from now on must be done by `deadline`.
    void beginRequest(Clock::time_point deadline);
    // Waits until a byte can be read or `deadline` passes (false then, or when the peer closed).
    bool waitForData(Clock::time_point deadline) const;

    bool is_readable() const override;
    bool is_writable() const override;
    ssize_t read(char* ptr, size_t size) override;
    ssize_t write(const char* ptr, size_t size) override;
    void get_remote_ip_and_port(std::string& ip, int& port) const override;
    void get_local_ip_and_port(std::string& ip, int& port) const override;
    socket_t socket() const override;

    // The numeric address of a socket's peer ("" when unknown).
    static std::string peerAddress(int fd, int* port = nullptr);

  private:
    bool wait(short events, Clock::time_point deadline) const;
    ssize_t fill();
    void account(const char* data, std::size_t n);

    int fd_;
    SSL* ssl_;
    std::chrono::milliseconds writeTimeout_;
    std::size_t maxRawBody_;
    Clock::time_point deadline_;
    char buffer_[4096];
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    // Header block accounting of the current request.
    bool inHeaders_ = true;
    std::size_t headerBytes_ = 0;
    std::size_t lineLength_ = 0;
    std::size_t bodyBytes_ = 0;
    bool overLimit_ = false;
};
