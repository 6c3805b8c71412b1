#pragma once

#include <cstdint>
#include <string>

// Signs and checks session cookies. A cookie is
//   base64url(device id) "." database name "." expiry (unix seconds) "." base64url(HMAC-SHA256)
// where the HMAC covers the first three fields with the server secret. Sessions live in the
// cookie, not in server memory, so every gateway sharing the secret accepts them.
// Immutable after construction; safe to use from any thread.
class SessionToken {
  public:
    explicit SessionToken(std::string secret);

    std::string issue(const std::string& deviceId, const std::string& database,
                      std::int64_t expiresAt) const;

    // True when `token` is well formed, correctly signed, not expired at `now` and made for
    // `database`. Otherwise false with the reason in `why`.
    bool verify(const std::string& token, const std::string& database, std::int64_t now,
                std::string& why) const;

    // A random secret (hex) for servers started without one.
    static std::string randomSecret();

  private:
    std::string mac(const std::string& signedPart) const;
    std::string secret_;
};
