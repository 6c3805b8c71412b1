#include "support/TestCertificate.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace pelio::test {

TestCertificate::TestCertificate() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "pelio-cert.XXXXXX").string();
    if (::mkdtemp(tmpl.data()) == nullptr)
        throw std::runtime_error("TestCertificate: mkdtemp");
    dir_ = tmpl;
    cert_ = dir_ + "/cert.pem";
    key_ = dir_ + "/key.pem";
    const std::string cmd =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1"
        " -subj /CN=localhost -addext subjectAltName=DNS:localhost,IP:127.0.0.1,IP:::1"
        " -addext basicConstraints=critical,CA:TRUE -keyout " +
        key_ + " -out " + cert_ + " >/dev/null 2>&1";
    if (std::system(cmd.c_str()) != 0)
        throw std::runtime_error("TestCertificate: openssl req failed");
}

TestCertificate::~TestCertificate() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
}

}  // namespace pelio::test
