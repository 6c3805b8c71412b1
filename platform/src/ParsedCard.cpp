#include "ParsedCard.h"

namespace pelio::platform {

std::string ParsedCard::fingerprint() const {
    std::string out;
    auto add = [&out](const std::string& s) {
        out += s;
        out += '\x1f';
    };
    auto addInt = [&add](long v) { add(std::to_string(v)); };
    add(displayName);
    addInt(hasName);
    addInt(favorite);
    add(name.first);
    add(name.last);
    add(name.addition);
    add(name.prefix);
    add(name.suffix);
    add(name.phoneticFirst);
    add(name.phoneticMiddle);
    add(name.phoneticLast);
    out += '\x1e';
    for (const auto& n : numbers) {
        add(n.number);
        addInt(n.type);
        addInt(n.isDefault);
        add(n.label);
    }
    out += '\x1e';
    for (const auto& e : emails) {
        add(e.email);
        addInt(e.type);
        addInt(e.isDefault);
    }
    out += '\x1e';
    for (const auto& a : addresses) {
        add(a.text);
        addInt(a.type);
        addInt(a.isDefault);
    }
    return out;
}

}  // namespace pelio::platform
