#include "utils/UMgrGzip.h"

#include <gtest/gtest.h>
#include <pelio/CHandles.h>

#include <memory>
#include <string>
#include <vector>

#include "support/Gzip.h"

namespace {

// Compressing gives one complete gzip member, also for short bodies that grow; empty source or
// null size leave the outputs untouched.
TEST(UMgrGzipTest, CompressGivesOneCompleteGzipMember) {
    // Larger bodies go through the uploader's tests, inflated by a real server.
    UMgrGzip gzip;
    unsigned char* grown = nullptr;
    int size = 0;
    EXPECT_EQ(100, gzip.compress("a", 6, &grown, &size));
    ASSERT_NE(nullptr, grown);
    pelio::MallocPtr<unsigned char> owned(grown);
    EXPECT_EQ("a", pelio::test::gunzip(std::string(reinterpret_cast<char*>(grown), size)));
    unsigned char* compressed = reinterpret_cast<unsigned char*>(0x1);
    size = 77;
    EXPECT_EQ(100, gzip.compress("", 6, &compressed, &size));
    EXPECT_EQ(100, gzip.compress("abc", 6, &compressed, nullptr));
    EXPECT_EQ(reinterpret_cast<unsigned char*>(0x1), compressed);
    EXPECT_EQ(77, size);
}

// A zero byte ends the text; missing and non-gzip (also zlib-wrapped) input give "" (a truncated
// member is a failed reply in the uploader's tests).
TEST(UMgrGzipTest, DeCompressCutsAtZeroBytesAndGivesNothingForBadInput) {
    UMgrGzip gzip;
    auto inflate = [&](const std::string& in) {
        std::string out = "x";
        EXPECT_EQ(100, gzip.deCompress(reinterpret_cast<const unsigned char*>(in.data()), in.size(),
                                       out));
        return out;
    };
    EXPECT_EQ("abc", inflate(pelio::test::gzip(std::string("abc") + '\0' + "def")));
    std::string out = "kept";
    gzip.deCompress(nullptr, 10, out);
    gzip.deCompress(reinterpret_cast<const unsigned char*>("a"), 0, out);
    EXPECT_EQ("kept", out);

    uLongf zlen = compressBound(5);
    std::vector<Bytef> zlibbed(zlen);
    ::compress(zlibbed.data(), &zlen, reinterpret_cast<const Bytef*>("hello"), 5);
    EXPECT_EQ("", inflate("this is not gzip at all"));
    EXPECT_EQ("", inflate(std::string(zlibbed.begin(), zlibbed.begin() + zlen)));
}

}  // namespace
