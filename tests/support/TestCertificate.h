// A throw-away self-signed TLS certificate for loopback test servers: CN localhost, subject
// alternative names localhost, 127.0.0.1 and ::1, an EC P-256 key, valid for one day, made by the
// openssl command. Writes cert.pem and key.pem into a fresh temporary directory, removed when the
// object is destroyed.
// Throws std::runtime_error when openssl or the file system fails.
#pragma once

#include <string>

namespace pelio::test {

class TestCertificate {
  public:
    TestCertificate();
    ~TestCertificate();
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
