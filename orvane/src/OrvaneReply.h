#pragma once

#include <map>
#include <string>

// How an answer of the PDS server reads (the transport library's reply parsing, apart from the
// transfer so that it can be exercised on its own). Stateless.
enum class OrvaneReply {
    Result,     // 200 with a JSON object: `result` holds its members
    Refused,    // another status: `message` is the server's message, or "<op>: HTTP <status>"
    Malformed,  // 200 without a JSON object (or nested too deeply to be read)
};

// Reads `answer` of `op` with HTTP `status`. Members that are not strings reach `result` as
// their JSON text, null as "". Arrays and objects nested deeper than 64 levels are not parsed.
OrvaneReply orvaneReadReply(const std::string& op, long status, const std::string& answer,
                            std::map<std::string, std::string>& result, std::string& message);
