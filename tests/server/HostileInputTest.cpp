// What pds-server does with hostile bodies before any database is involved: the nesting check,
// the per-document verdicts of a batch, duplicate ids, and the bound on connections per address.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "BulkGateway.h"
#include "ClientSlots.h"
#include "GzipCodec.h"
#include "JsonDepth.h"

using nlohmann::json;

TEST(JsonDepthTest, CountsOnlyNestingOutsideStrings) {
    const auto nested = [](std::size_t n) { return std::string(n, '[') + std::string(n, ']'); };
    EXPECT_TRUE(JsonDepth::within(nested(64)));
    EXPECT_FALSE(JsonDepth::within(nested(65)));
    EXPECT_FALSE(JsonDepth::within(std::string(100000, '[')));  // unbalanced, still refused
    EXPECT_TRUE(JsonDepth::within(R"({"a":"[[[[{{{{","b":[1,{"c":"\"[[["}]})", 3));
    EXPECT_FALSE(JsonDepth::within(R"({"a":"\\",[[[]]]})", 3));  // an escaped backslash ends
    EXPECT_TRUE(JsonDepth::within("]]]]{}", 1));
}

TEST(BulkGatewayParseTest, RefusesBadDocumentsOneByOneAndKeepsTheRest) {
    const std::string body = R"({"docs":[
        {"_id":"ok1","v":1},
        {"_id":"_design/lock","validate_doc_update":"function(){throw 1}"},
        {"_id":"_foo"},
        {"_id":5},
        {"_id":"s","_deleted":"true"},
        {"_id":"r","_rev":7},
        {"_id":"q","_rev":"abc"},
        {"_id":"m","_attachments":{}},
        "text",
        {"_deleted":true},
        {"_id":"","v":1},
        {"_id":"del","_deleted":true,"_rev":"3-zz"},
        {"_id":"stale","_rev":"2-ab","v":2},
        {"v":"no id"}]})";
    BulkGateway::Batch batch;
    ASSERT_FALSE(BulkGateway::parse(body, 1 << 20, batch));
    ASSERT_EQ(batch.answers.size(), 14u);
    const auto err = [&](std::size_t i) { return batch.answers[i].value("error", ""); };
    EXPECT_EQ(err(1), "forbidden");
    EXPECT_EQ(batch.answers[1]["id"], "_design/lock");
    EXPECT_EQ(err(2), "forbidden");
    for (std::size_t i : {3, 4, 5, 6, 8, 9, 10}) {
        EXPECT_EQ(err(i), "bad_request") << i;
    }
    EXPECT_EQ(err(7), "doc_validation");
    ASSERT_EQ(batch.items.size(), 4u);
    EXPECT_EQ(batch.items[0].id, "ok1");
    EXPECT_TRUE(batch.items[0].owned);
    EXPECT_TRUE(batch.items[1].deletion && batch.items[1].owned);
    EXPECT_FALSE(batch.items[2].owned);  // a _rev to check: the database decides
    EXPECT_EQ(batch.items[3].slot, 13u);
    EXPECT_TRUE(batch.items[3].id.empty());
}

TEST(BulkGatewayParseTest, RepeatedIdsWriteTheLastOccurrenceOnce) {
    BulkGateway::Batch batch;
    ASSERT_FALSE(BulkGateway::parse(
        R"({"docs":[{"_id":"d","v":1},{"_id":"e"},{"_id":"d","v":2},{"_id":"d","v":3}]})", 4096,
        batch));
    ASSERT_EQ(batch.items.size(), 2u);
    EXPECT_EQ(batch.items[0].doc["v"], 3);
    EXPECT_EQ(batch.items[0].slot, 3u);
    using Pairs = std::vector<std::pair<std::size_t, std::size_t>>;
    Pairs followers = batch.followers;
    std::sort(followers.begin(), followers.end());
    EXPECT_EQ(followers, (Pairs{{0, 3}, {2, 3}}));
}

TEST(BulkGatewayParseTest, RefusesWholeBodiesThatCannotBeRead) {
    BulkGateway::Batch batch;
    const auto status = [&](const std::string& body, std::size_t max) {
        const auto a = BulkGateway::parse(body, max, batch);
        return a ? a->status : 0;
    };
    EXPECT_EQ(
        status("{\"docs\":" + std::string(100000, '[') + std::string(100000, ']') + "}", 1 << 20),
        400);
    EXPECT_EQ(
        status(GzipCodec::compress("{\"docs\":[" + std::string(2 << 20, ' ') + "]}"), 1 << 20),
        400);  // inflates beyond the bound
    EXPECT_EQ(status(R"({"docs":{}})", 4096), 400);
    EXPECT_EQ(status("[1,", 4096), 400);
    EXPECT_EQ(status(GzipCodec::compress(R"({"docs":[]})"), 4096), 0);
}

TEST(ClientSlotsTest, BoundsConnectionsPerAddressUntilReleased) {
    ClientSlots slots(2);
    ClientSlots::Slot a1;
    ClientSlots::Slot b1;
    EXPECT_TRUE(slots.acquire("127.0.0.21", a1));
    EXPECT_TRUE(slots.acquire("127.0.0.22", b1));
    {
        ClientSlots::Slot a2;
        ClientSlots::Slot a3;
        EXPECT_TRUE(slots.acquire("127.0.0.21", a2));
        EXPECT_FALSE(slots.acquire("127.0.0.21", a3));
        EXPECT_FALSE(a3);
    }
    ClientSlots::Slot a4;
    EXPECT_TRUE(slots.acquire("127.0.0.21", a4));  // a2 was given back
}
