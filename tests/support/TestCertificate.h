// A throw-away self-signed TLS certificate for loopback test servers: CN localhost, subject
// alternative names localhost, 127.0.0.1 and ::1, an EC P-256 key, valid for one day, made by the
// openssl command. Writes cert.pem and key.pem into a fresh temporary directory, removed when the
// object is destroyed.
// Throws std::runtime_error when openssl or the file system fails.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "support/TempHome.h"

namespace pelio::test {

class TestCertificate {
  public:
    TestCertificate()
        : dir_(makeTempDir("pelio-cert")), cert_(dir_ + "/cert.pem"), key_(dir_ + "/key.pem") {
        const std::string cmd =
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1"
            " -subj /CN=localhost -addext subjectAltName=DNS:localhost,IP:127.0.0.1,IP:::1"
            " -addext basicConstraints=critical,CA:TRUE -keyout " +
            key_ + " -out " + cert_ + " >/dev/null 2>&1";
        if (std::system(cmd.c_str()) != 0)
            throw std::runtime_error("TestCertificate: openssl req failed");
    }
    ~TestCertificate() {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    TestCertificate(const TestCertificate&) = delete;
    TestCertificate& operator=(const TestCertificate&) = delete;

    const std::string& certPath() const { return cert_; }
    const std::string& keyPath() const { return key_; }
    const std::string& dir() const { return dir_; }

  private:
    std::string dir_;
    std::string cert_;
    std::string key_;
};

}  // namespace pelio::test
