#pragma once

#include <httplib.h>

#include <cstddef>
#include <string>

// Reads a request body through the HTTP layer's content reader, which inflates gzip and deflate
// bodies chunk by chunk: the limit applies to the inflated bytes as they arrive, chunked
// transfer or not, so no more than `maxBytes` are ever held. Used on the listener's worker thread.
class RequestBody {
  public:
    enum class Outcome { Complete, TooLarge, Unreadable };

    static Outcome read(const httplib::Request& req, const httplib::ContentReader& reader,
                        std::size_t maxBytes, std::string& body);
};
