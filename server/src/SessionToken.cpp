#include "SessionToken.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <stdexcept>
#include <vector>

#include "Text.h"

SessionToken::SessionToken(std::string secret) : secret_(std::move(secret)) {}

std::string SessionToken::mac(const std::string& signedPart) const {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (!HMAC(EVP_sha256(), secret_.data(), static_cast<int>(secret_.size()),
              reinterpret_cast<const unsigned char*>(signedPart.data()), signedPart.size(), out,
              &len)) {
        throw std::runtime_error("HMAC failed");
    }
    return Text::base64url(std::string(reinterpret_cast<char*>(out), len));
}

std::string SessionToken::issue(const std::string& deviceId, const std::string& database,
                                std::int64_t expiresAt) const {
    const std::string signedPart =
        Text::base64url(deviceId) + "." + database + "." + std::to_string(expiresAt);
    return signedPart + "." + mac(signedPart);
}

bool SessionToken::verify(const std::string& token, const std::string& database, std::int64_t now,
                          std::string& why) const {
    const std::vector<std::string> parts = Text::split(token, '.');
    if (parts.size() != 4 || parts[0].empty() || parts[1].empty() || parts[3].empty()) {
        why = "malformed session cookie";
        return false;
    }
    const std::string signedPart = parts[0] + "." + parts[1] + "." + parts[2];
    const std::string expected = mac(signedPart);
    if (expected.size() != parts[3].size() ||
        CRYPTO_memcmp(expected.data(), parts[3].data(), expected.size()) != 0) {
        why = "session cookie signature mismatch";
        return false;
    }
    std::int64_t expiry = 0;
    try {
        std::size_t used = 0;
        expiry = std::stoll(parts[2], &used);
        if (used != parts[2].size()) {
            throw std::invalid_argument("trailing");
        }
    } catch (const std::exception&) {
        why = "malformed session cookie";
        return false;
    }
    if (expiry <= now) {
        why = "session expired";
        return false;
    }
    if (parts[1] != database) {
        why = "session is for another database";
        return false;
    }
    return true;
}

std::string SessionToken::randomSecret() {
    unsigned char buf[32];
    if (RAND_bytes(buf, sizeof buf) != 1) {
        throw std::runtime_error("RAND_bytes failed");
    }
    return Text::hex(std::string(reinterpret_cast<char*>(buf), sizeof buf));
}
