#include <pelio/platform/Bundle.h>

#include <gtest/gtest.h>

using pelio::platform::Bundle;

TEST(Bundle, KeepsOrderTypesAndRoundTripsThroughItsEncoding) {
    Bundle b;
    ASSERT_EQ(b.addStr("z", "last-added-first"), 0);
    const unsigned char raw[] = {0, 1, 2, 255};
    ASSERT_EQ(b.addByte("a_blob", raw, sizeof raw), 0);
    ASSERT_EQ(b.addStr("empty", ""), 0);
    EXPECT_EQ(b.addStr("z", "again"), pelio::platform::BUNDLE_ERROR_KEY_EXISTS);
    EXPECT_EQ(b.addStr("", "x"), pelio::platform::BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(b.count(), 3);
    EXPECT_EQ(b.entries()[0].key, "z");
    EXPECT_EQ(b.entries()[1].key, "a_blob");

    std::string s;
    EXPECT_EQ(b.getStr("a_blob", s), pelio::platform::BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(b.getStr("missing", s), pelio::platform::BUNDLE_ERROR_KEY_NOT_AVAILABLE);

    auto decoded = Bundle::decode(b.encode());
    ASSERT_TRUE(decoded.has_value());
    EXPECT_TRUE(*decoded == b);
    std::vector<uint8_t> bytes;
    ASSERT_EQ(decoded->getByte("a_blob", bytes), 0);
    EXPECT_EQ(bytes, std::vector<uint8_t>(raw, raw + sizeof raw));
}

TEST(Bundle, DecodeRejectsEveryTruncationAndDamage) {
    Bundle b;
    b.addStr("key", "value");
    b.addStr("other", "text");
    const auto good = b.encode();
    // Every strict prefix is incomplete.
    for (size_t n = 0; n < good.size(); ++n)
        EXPECT_FALSE(Bundle::decode(good.data(), n).has_value()) << "prefix " << n;
    // Trailing garbage, a wrong magic, a huge length and a duplicated key are all rejected.
    auto longer = good;
    longer.push_back(0);
    EXPECT_FALSE(Bundle::decode(longer).has_value());
    auto magic = good;
    magic[0] = 'X';
    EXPECT_FALSE(Bundle::decode(magic).has_value());
    auto huge = good;
    huge[9] = 0xff, huge[10] = 0xff, huge[11] = 0xff, huge[12] = 0x7f;  // first key length
    EXPECT_FALSE(Bundle::decode(huge).has_value());
    Bundle dup;
    dup.addStr("k", "1");
    auto dupBytes = dup.encode();
    dupBytes[4] = 2;  // claims two entries
    dupBytes.insert(dupBytes.end(), dupBytes.begin() + 8, dupBytes.end());
    EXPECT_FALSE(Bundle::decode(dupBytes).has_value());
    EXPECT_FALSE(Bundle::decode(nullptr, 10).has_value());
}
