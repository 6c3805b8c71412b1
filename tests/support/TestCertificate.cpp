#include "support/TestCertificate.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>

namespace pelio::test {

namespace {

struct PkeyFree {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct X509Free {
    void operator()(X509* x) const { X509_free(x); }
};
struct ExtFree {
    void operator()(X509_EXTENSION* e) const { X509_EXTENSION_free(e); }
};
struct FileClose {
    void operator()(FILE* f) const { std::fclose(f); }
};

void check(bool ok, const char* what) {
    if (!ok) {
        throw std::runtime_error(std::string("TestCertificate: ") + what);
    }
}

}  // namespace

TestCertificate::TestCertificate() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "pelio-cert.XXXXXX").string();
    check(::mkdtemp(tmpl.data()) != nullptr, "mkdtemp");
    dir_ = tmpl;
    cert_ = dir_ + "/cert.pem";
    key_ = dir_ + "/key.pem";

    std::unique_ptr<EVP_PKEY, PkeyFree> key(EVP_EC_gen("P-256"));
    check(key != nullptr, "EVP_EC_gen");
    std::unique_ptr<X509, X509Free> x509(X509_new());
    check(x509 != nullptr, "X509_new");
    X509_set_version(x509.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x509.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(x509.get()), -60);
    X509_gmtime_adj(X509_getm_notAfter(x509.get()), 24 * 3600);
    X509_set_pubkey(x509.get(), key.get());
    X509_NAME* name = X509_get_subject_name(x509.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
    X509_set_issuer_name(x509.get(), name);
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, x509.get(), x509.get(), nullptr, nullptr, 0);
    for (const auto& [nid, value] :
         {std::pair{NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1,IP:::1"},
          std::pair{NID_basic_constraints, "critical,CA:TRUE"}}) {
        std::unique_ptr<X509_EXTENSION, ExtFree> ext(
            X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
        check(ext != nullptr, "X509V3_EXT_conf_nid");
        X509_add_ext(x509.get(), ext.get(), -1);
    }
    check(X509_sign(x509.get(), key.get(), EVP_sha256()) > 0, "X509_sign");

    std::unique_ptr<FILE, FileClose> kf(std::fopen(key_.c_str(), "w"));
    check(kf && PEM_write_PrivateKey(kf.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr),
          "write key");
    std::unique_ptr<FILE, FileClose> cf(std::fopen(cert_.c_str(), "w"));
    check(cf && PEM_write_X509(cf.get(), x509.get()), "write certificate");
}

TestCertificate::~TestCertificate() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
}

}  // namespace pelio::test
