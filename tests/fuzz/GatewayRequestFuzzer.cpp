// Fuzz target: the gateway's reading of a _bulk_docs body (gzip, nesting check, JSON, each
// document's checks, duplicate ids), and the printing of what it would forward and answer.
#include <cstddef>
#include <cstdint>
#include <string>

#include "BulkGateway.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string body(reinterpret_cast<const char*>(data), size);
    BulkGateway::Batch batch;
    if (BulkGateway::parse(body, 1u << 20, batch)) {
        return 0;
    }
    for (const BulkGateway::Item& item : batch.items) {
        if (item.slot >= batch.answers.size() || !item.doc.is_object()) {
            __builtin_trap();
        }
        (void)item.doc.dump();
    }
    for (const auto& [slot, leader] : batch.followers) {
        if (slot >= leader || leader >= batch.answers.size()) {
            __builtin_trap();
        }
    }
    (void)nlohmann::json(batch.answers).dump();
    return 0;
}
