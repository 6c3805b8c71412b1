// Fuzz target: the transport library's reading of a PDS answer. The first byte picks the HTTP
// status (even: 200, odd: a refusal), the rest is the body.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "OrvaneReply.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const long status = data[0] % 2 == 0 ? 200 : 400 + data[0] % 100;
    const std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::map<std::string, std::string> result;
    std::string message;
    const OrvaneReply r = orvaneReadReply("open", status, body, result, message);
    if ((r == OrvaneReply::Refused) != (status != 200) ||
        (r == OrvaneReply::Refused && message.empty())) {
        __builtin_trap();
    }
    return 0;
}
