#include "utils/UMgrGzip.h"

#include <pelio/CHandles.h>
#include <zlib.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include "PelioLog.h"

namespace {

constexpr size_t kChunkRoom = 1024000;  // output room per inflate round (one byte less than held)
constexpr size_t kMaxInflated = 256u << 20;  // largest inflated reply accepted

}  // namespace

UMgrGzip::UMgrGzip() {
    LOGD("");
}

UMgrGzip::~UMgrGzip() {
    LOGD("");
}

int UMgrGzip::compress(const std::string& source, int level, unsigned char** compressed,
                       int* compressedSize) {
    if (source.empty()) {
        LOGE("Empty source");
        return RESULT;
    }
    if (compressedSize == nullptr) {
        LOGE("compressedSize is NULL");
        return RESULT;
    }
    const uLong sourceLen = static_cast<uLong>(source.size());
    z_stream stream;
    std::memset(&stream, 0, sizeof stream);
    stream.zalloc = Z_NULL;
    stream.zfree = Z_NULL;
    stream.opaque = Z_NULL;
    // gzip wrapper (window bits 15 + 16), memory level 9.
    if (deflateInit2_(&stream, level, Z_DEFLATED, 31, 9, Z_DEFAULT_STRATEGY, "1.2.8",
                      static_cast<int>(sizeof(z_stream))) != Z_OK) {
        LOGE("deflateInit failed");
        return RESULT;
    }
    // deflateBound knows the gzip header and trailer: the whole member always fits, also when a
    // short body compresses to more than its input.
    const uLong capacity = deflateBound(&stream, sourceLen);
    LOGD("sourceLen[%d]", static_cast<int>(sourceLen));
    LOGD("compressLevel[%d]", level);
    LOGD("compressedLen[%d]", static_cast<int>(capacity));

    pelio::MallocPtr<unsigned char> buffer(static_cast<unsigned char*>(std::calloc(capacity, 1)));
    if (!buffer) {
        LOGE("Failed to Calloc");
        deflateEnd(&stream);
        return RESULT;
    }
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(source.data()));
    stream.avail_in = static_cast<uInt>(sourceLen);
    stream.next_out = buffer.get();
    stream.avail_out = static_cast<uInt>(capacity);
    const int finished = deflate(&stream, Z_FINISH);
    deflateEnd(&stream);
    if (finished != Z_STREAM_END) {
        LOGE("deflate did not complete [%d]", finished);
        return RESULT;  // no torn member ever leaves here
    }
    const int outSize = static_cast<int>(stream.next_out - buffer.get());
    LOGD("inputSize[%d]", static_cast<int>(sourceLen));
    LOGD("outPutSize[%d]", outSize);
    if (outSize == 0) {
        LOGE("compressingSize is invalid");
        return RESULT;  // the buffer is released here, nothing refers to it
    }
    *compressedSize = outSize;
    if (compressed != nullptr)
        *compressed = buffer.release();
    return RESULT;
}

int UMgrGzip::deCompress(const unsigned char* source, size_t sourceSize, std::string& result) {
    if (source == nullptr) {
        LOGE("Empty source");
        return RESULT;
    }
    if (sourceSize == 0) {
        LOGE("Empty source size");
        return RESULT;
    }
    // Not zero-filled: each chunk is cut at its first zero byte among the bytes inflated into it,
    // which is what a zeroed buffer read as a C string gives. Only the pages inflate writes to
    // are touched, which for a short reply is one or two, not the whole megabyte.
    pelio::MallocPtr<char> work(static_cast<char*>(std::malloc(kChunkRoom + 1)));
    if (!work) {
        LOGE("Failed to Calloc");
        return RESULT;
    }
    z_stream stream;
    std::memset(&stream, 0, sizeof stream);
    stream.zalloc = Z_NULL;
    stream.zfree = Z_NULL;
    stream.opaque = Z_NULL;
    stream.next_in = const_cast<Bytef*>(source);
    stream.avail_in = static_cast<uInt>(sourceSize);
    std::ostringstream text;
    size_t produced = 0;
    int rc = Z_DATA_ERROR;
    if (inflateInit2_(&stream, 31, "1.2.8", static_cast<int>(sizeof(z_stream))) == Z_OK) {
        do {
            stream.next_out = reinterpret_cast<Bytef*>(work.get());
            stream.avail_out = static_cast<uInt>(kChunkRoom);
            rc = inflate(&stream, Z_NO_FLUSH);
            LOGD("inflate result[%d], deCompressing Size[%u]", rc, stream.avail_out);
            const size_t chunk = kChunkRoom - stream.avail_out;
            produced += chunk;
            if (produced > kMaxInflated) {
                LOGE("inflated size over [%u] bytes, refused", static_cast<unsigned>(kMaxInflated));
                rc = Z_DATA_ERROR;
                break;
            }
            text.write(work.get(), static_cast<std::streamsize>(strnlen(work.get(), chunk)));
        } while (stream.avail_out == 0 && rc == Z_OK);
        inflateEnd(&stream);
    }
    if (rc != Z_STREAM_END) {
        // A truncated or damaged stream: nothing of it is used.
        LOGE("gzip stream incomplete or damaged [%d]", rc);
        result.clear();
        return RESULT;
    }
    result = text.str();
    LOGD("deCompressed Size[%d]", static_cast<int>(result.size()));
    return RESULT;
}
