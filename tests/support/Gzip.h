// gzip members made and read with zlib directly, for checking what the system writes and reads.
// Header-only; any thread.
#pragma once

#include <zlib.h>

#include <string>

namespace pelio::test {

// One gzip member (window bits 31) of text.
inline std::string gzip(const std::string& text) {
    z_stream s{};
    deflateInit2(&s, 6, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
    std::string out(deflateBound(&s, text.size()) + 32, '\0');
    s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    s.avail_in = static_cast<uInt>(text.size());
    s.next_out = reinterpret_cast<Bytef*>(out.data());
    s.avail_out = static_cast<uInt>(out.size());
    deflate(&s, Z_FINISH);
    out.resize(s.total_out);
    deflateEnd(&s);
    return out;
}

// The text of one complete gzip member (its checksum verified); empty text when data is not one.
inline std::string gunzip(const std::string& data) {
    z_stream s{};
    if (inflateInit2(&s, 31) != Z_OK)
        return {};
    s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    s.avail_in = static_cast<uInt>(data.size());
    std::string out;
    char buf[65536];
    int rc = Z_OK;
    while (rc == Z_OK) {
        s.next_out = reinterpret_cast<Bytef*>(buf);
        s.avail_out = sizeof buf;
        rc = inflate(&s, Z_NO_FLUSH);
        out.append(buf, sizeof buf - s.avail_out);
    }
    inflateEnd(&s);
    return rc == Z_STREAM_END ? out : std::string();
}

}  // namespace pelio::test
