#include "GzipCodec.h"

#include <pelio/CHandles.h>
#include <zlib.h>

#include <memory>
#include <stdexcept>

namespace {

constexpr int kGzipWindowBits = 15 + 16;

}  // namespace

std::string GzipCodec::compress(const std::string& plain) {
    z_stream zs{};
    if (deflateInit2(&zs, 6, Z_DEFLATED, kGzipWindowBits, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::runtime_error("deflateInit2 failed");
    }
    pelio::DeflateGuard guard(&zs);
    std::string out;
    out.resize(deflateBound(&zs, plain.size()) + 32);
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(plain.data()));
    zs.avail_in = static_cast<uInt>(plain.size());
    zs.next_out = reinterpret_cast<Bytef*>(out.data());
    zs.avail_out = static_cast<uInt>(out.size());
    if (deflate(&zs, Z_FINISH) != Z_STREAM_END) {
        throw std::runtime_error("deflate failed");
    }
    out.resize(zs.total_out);
    return out;
}

std::optional<std::string> GzipCodec::inflate(const std::string& gz, std::size_t maxBytes) {
    z_stream zs{};
    if (inflateInit2(&zs, kGzipWindowBits) != Z_OK) {
        return std::nullopt;
    }
    pelio::InflateGuard guard(&zs);
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(gz.data()));
    zs.avail_in = static_cast<uInt>(gz.size());
    std::string out;
    char chunk[64 * 1024];
    while (true) {
        zs.next_out = reinterpret_cast<Bytef*>(chunk);
        zs.avail_out = sizeof chunk;
        const int rc = ::inflate(&zs, Z_NO_FLUSH);
        out.append(chunk, sizeof chunk - zs.avail_out);
        if (out.size() > maxBytes) {
            return std::nullopt;
        }
        if (rc == Z_STREAM_END) {
            return out;
        }
        if (rc != Z_OK) {
            return std::nullopt;  // corrupt, or truncated (Z_BUF_ERROR: no progress possible)
        }
    }
}
