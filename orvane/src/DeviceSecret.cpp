#include "DeviceSecret.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t kSecretBytes = 32;

struct Fd {
    int fd;
    ~Fd() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
};

std::string errnoText(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

bool isSecret(const std::string& s) {
    if (s.size() != 2 * kSecretBytes) {
        return false;
    }
    for (const char c : s) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return true;
}

// mkdir -p with owner-only permissions for the folders it creates.
bool makeDirs(const std::string& dir) {
    for (std::size_t pos = 1; pos != std::string::npos;) {
        pos = dir.find('/', pos + 1);
        const std::string part = dir.substr(0, pos);
        if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return true;
}

std::string readSecret(const std::string& path, std::string& error) {
    Fd f{::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC)};
    if (f.fd < 0) {
        error = errnoText("device secret " + path);
        return {};
    }
    struct stat st {};
    if (::fstat(f.fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        error = "device secret " + path + " is not a regular file";
        return {};
    }
    if ((st.st_mode & 077) != 0) {
        ::fchmod(f.fd, 0600);  // owner-only, whoever loosened it
    }
    char buf[2 * kSecretBytes + 2];
    const ssize_t n = ::read(f.fd, buf, sizeof buf);
    std::string s(buf, n > 0 ? static_cast<std::size_t>(n) : 0);
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) {
        s.pop_back();
    }
    if (!isSecret(s)) {
        error = "device secret " + path + " is damaged";
        return {};
    }
    return s;
}

}  // namespace

std::string DeviceSecret::defaultPath() {
    const char* xdg = std::getenv("XDG_DATA_HOME");
    const char* home = std::getenv("HOME");
    const std::string base = (xdg && *xdg)     ? std::string(xdg)
                             : (home && *home) ? std::string(home) + "/.local/share"
                                               : std::string(".");
    return base + "/com.quorvin.plmsvc/data/.orvane-device-secret";
}

std::string DeviceSecret::loadOrCreate(const std::string& path, std::string& error) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) {
        return readSecret(path, error);
    }
    const auto slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0 && !makeDirs(path.substr(0, slash))) {
        error = errnoText("device secret folder of " + path);
        return {};
    }
    unsigned char raw[kSecretBytes];
    if (::getrandom(raw, sizeof raw, 0) != static_cast<ssize_t>(sizeof raw)) {
        error = errnoText("device secret: no randomness");
        return {};
    }
    static const char* kHex = "0123456789abcdef";
    std::string secret;
    for (const unsigned char b : raw) {
        secret += kHex[b >> 4];
        secret += kHex[b & 15];
    }
    // Written in full under a temporary name, then linked into place: readers never see a
    // partial file, and a concurrent creator's secret wins over ours.
    const std::string tmp = path + ".tmp." + std::to_string(::getpid());
    {
        Fd f{::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600)};
        const std::string line = secret + "\n";
        if (f.fd < 0 ||
            ::write(f.fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()) ||
            ::fsync(f.fd) != 0) {
            error = errnoText("device secret " + tmp);
            ::unlink(tmp.c_str());
            return {};
        }
    }
    const int linked = ::link(tmp.c_str(), path.c_str());
    const int linkErrno = errno;
    ::unlink(tmp.c_str());
    if (linked != 0) {
        if (linkErrno == EEXIST) {
            return readSecret(path, error);
        }
        errno = linkErrno;
        error = errnoText("device secret " + path);
        return {};
    }
    return secret;
}
