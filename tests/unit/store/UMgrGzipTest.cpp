#include "utils/UMgrGzip.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "support/Gzip.h"
#include "support/LogCapture.h"

using namespace pelio::test;

namespace {

std::string gunzipOf(const unsigned char* data, int size) {
    return gunzip(std::string(reinterpret_cast<const char*>(data), static_cast<std::size_t>(size)));
}

TEST(UMgrGzipTest, CompressOutputIsOneCompleteGzipMember) {
    LogCapture log;
    UMgrGzip gzip;
    std::string json = "{\"docs\": [";
    for (int i = 0; i < 500; ++i)
        json += "{\"_id\": \"contact" + std::to_string(i) + "\"},";
    json += "{}]}";
    unsigned char* compressed = nullptr;
    int size = 0;
    EXPECT_EQ(100, gzip.compress(json, 6, &compressed, &size));
    ASSERT_NE(nullptr, compressed);
    std::unique_ptr<unsigned char, decltype(&std::free)> owned(compressed, &std::free);
    ASSERT_GT(size, 18);
    EXPECT_LT(size, static_cast<int>(json.size()));
    EXPECT_EQ(0x1F, compressed[0]);
    EXPECT_EQ(0x8B, compressed[1]);
    EXPECT_EQ(json, gunzipOf(compressed, size));
    EXPECT_TRUE(log.hasMessage("sourceLen[" + std::to_string(json.size()) + "]"));
    EXPECT_TRUE(log.hasMessage("compressLevel[6]"));
    EXPECT_TRUE(log.hasMessage("outPutSize[" + std::to_string(size) + "]"));

    // And back through deCompress.
    std::string back;
    EXPECT_EQ(100, gzip.deCompress(compressed, size, back));
    EXPECT_EQ(json, back);
}

TEST(UMgrGzipTest, ShortBodiesThatGrowStillGiveCompleteMembers) {
    UMgrGzip gzip;
    for (const std::string& body :
         {std::string("a"),
          std::string("{\"docs\":[{\"_id\":\"pkg_vlc\",\"_rev\":\"\",\"_deleted\":true}]}")}) {
        unsigned char* compressed = nullptr;
        int size = 0;
        gzip.compress(body, 6, &compressed, &size);
        ASSERT_NE(nullptr, compressed) << body;
        std::unique_ptr<unsigned char, decltype(&std::free)> owned(compressed, &std::free);
        EXPECT_EQ(body, gunzipOf(compressed, size)) << body;
    }
}

TEST(UMgrGzipTest, CompressRejectsEmptySourceAndNullSize) {
    LogCapture log;
    UMgrGzip gzip;
    unsigned char* compressed = reinterpret_cast<unsigned char*>(0x1);
    int size = 77;
    EXPECT_EQ(100, gzip.compress("", 6, &compressed, &size));
    EXPECT_EQ(reinterpret_cast<unsigned char*>(0x1), compressed);
    EXPECT_EQ(77, size);
    EXPECT_TRUE(log.hasMessage("Empty source"));
    EXPECT_EQ(100, gzip.compress("abc", 6, &compressed, nullptr));
    EXPECT_EQ(reinterpret_cast<unsigned char*>(0x1), compressed);
    EXPECT_TRUE(log.hasMessage("compressedSize is NULL"));
}

TEST(UMgrGzipTest, DeCompressAssemblesLargeRepliesInOrderAndCutsChunksAtZeroBytes) {
    LogCapture log;
    UMgrGzip gzip;
    // 2.5 chunks of text whose every position is distinct enough to catch misordering.
    std::string big;
    std::mt19937 rng(7);
    while (big.size() < 2560000)
        big += "[\"row" + std::to_string(rng() % 100000) + "\"],";
    const std::string gz = pelio::test::gzip(big);
    std::string out;
    EXPECT_EQ(100,
              gzip.deCompress(reinterpret_cast<const unsigned char*>(gz.data()), gz.size(), out));
    EXPECT_EQ(big.size(), out.size());
    EXPECT_TRUE(out == big);
    // Two full rounds, then the end of the stream in a third.
    EXPECT_EQ(2, log.count("inflate result[0], deCompressing Size[0]"));
    EXPECT_EQ(1, log.count("inflate result[1], deCompressing Size[" +
                           std::to_string(3 * 1024000 - big.size()) + "]"));
    EXPECT_TRUE(log.hasMessage("deCompressed Size[" + std::to_string(big.size()) + "]"));

    // A zero byte ends the chunk's text.
    const std::string withZero = std::string("abc") + '\0' + "def";
    const std::string gz2 = pelio::test::gzip(withZero);
    std::string cut;
    gzip.deCompress(reinterpret_cast<const unsigned char*>(gz2.data()), gz2.size(), cut);
    EXPECT_EQ("abc", cut);
}

TEST(UMgrGzipTest, DeCompressOfBadInputStillReturns100) {
    LogCapture log;
    UMgrGzip gzip;
    std::string out = "kept";
    EXPECT_EQ(100, gzip.deCompress(nullptr, 10, out));
    EXPECT_TRUE(log.hasMessage("Empty source"));
    const unsigned char byte = 1;
    EXPECT_EQ(100, gzip.deCompress(&byte, 0, out));
    EXPECT_TRUE(log.hasMessage("Empty source size"));
    EXPECT_EQ("kept", out);

    const std::string garbage = "this is not gzip at all";
    EXPECT_EQ(100, gzip.deCompress(reinterpret_cast<const unsigned char*>(garbage.data()),
                                   garbage.size(), out));
    EXPECT_EQ("", out);
    EXPECT_TRUE(log.contains("inflate result[-3]"));

    // A zlib-wrapped reply is not accepted.
    uLongf zlen = compressBound(5);
    std::vector<Bytef> zlibbed(zlen);
    ::compress(zlibbed.data(), &zlen, reinterpret_cast<const Bytef*>("hello"), 5);
    out = "x";
    gzip.deCompress(zlibbed.data(), zlen, out);
    EXPECT_EQ("", out);

    // A truncated member gives nothing: half a reply is never read as a whole one.
    std::string text(5000, 'a');
    std::string gz = pelio::test::gzip(text);
    gz.resize(gz.size() - 8);  // trailer gone
    out = "x";
    gzip.deCompress(reinterpret_cast<const unsigned char*>(gz.data()), gz.size(), out);
    EXPECT_EQ("", out);
}

}  // namespace
