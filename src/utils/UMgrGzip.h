// gzip codec of upload bodies and server replies. Stateless; make one on the stack per use.
// Both operations return 100 on every path: a failure shows in the outputs (compressed stays
// null, the result string empty), never in the code.
#pragma once

#include <string>

class UMgrGzip {
  public:
    static constexpr int RESULT = 100;

    UMgrGzip();
    ~UMgrGzip();

    // Single-shot gzip deflate of source at level; *compressed receives a calloc'd buffer (free()
    // it), *compressedSize its length. Empty source or null size: outputs untouched. When deflate
    // wrote nothing ("compressingSize is invalid") the buffer is released and the outputs
    // untouched. The capacity is deflateBound() of the gzip stream, so the member always completes;
    // a deflate that does not reach its end leaves the outputs untouched.
    int compress(const std::string& source, int level, unsigned char** compressed,
                 int* compressedSize);
    // Inflates a gzip member in rounds of 1,024,000 bytes; each round is cut at its first zero
    // byte. A truncated or damaged member, or one inflating to more than 256 MiB, gives "".
    int deCompress(const unsigned char* source, size_t sourceSize, std::string& result);
};
