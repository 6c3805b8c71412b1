#include "JsonDepth.h"

bool JsonDepth::within(std::string_view text, std::size_t limit) {
    std::size_t depth = 0;
    bool inString = false;
    bool escaped = false;
    for (const char c : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        switch (c) {
            case '"':
                inString = true;
                break;
            case '[':
            case '{':
                if (++depth > limit) {
                    return false;
                }
                break;
            case ']':
            case '}':
                if (depth > 0) {
                    --depth;
                }
                break;
            default:
                break;
        }
    }
    return true;
}
