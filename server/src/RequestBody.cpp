#include "RequestBody.h"

#include <cstdlib>

RequestBody::Outcome RequestBody::read(const httplib::Request& req,
                                       const httplib::ContentReader& reader, std::size_t maxBytes,
                                       std::string& body) {
    body.clear();
    bool tooLarge = false;
    const bool complete = reader([&](const char* data, std::size_t length) {
        if (body.size() + length > maxBytes) {
            tooLarge = true;
            return false;
        }
        body.append(data, length);
        return true;
    });
    if (complete) {
        return Outcome::Complete;
    }
    if (!tooLarge && req.has_header("Content-Length")) {
        // Refused by the HTTP layer before any byte arrived.
        tooLarge =
            std::strtoull(req.get_header_value("Content-Length").c_str(), nullptr, 10) > maxBytes;
    }
    body.clear();
    body.shrink_to_fit();
    return tooLarge ? Outcome::TooLarge : Outcome::Unreadable;
}
