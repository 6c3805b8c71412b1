#pragma once

#include <stdexcept>
#include <string>

// What went wrong in a call of the transport library. Callers decide by the code; what() stays
// the text to log.
enum class OrvaneErrorCode {
    Setup = 1,                // the transfer handle or a request could not be built (out of memory)
    Transport = 2,            // no answer: connection, TLS or time-out failure
    Refused = 3,              // the server answered another status than 200, with its message
    DatabaseUnreachable = 4,  // refused: the server cannot reach the device's database
    ForceLimited = 5,         // refused: the server allows no forced sync for now
    BadReply = 6,             // a 200 answer that is not a JSON object
};

// The exception Orvane throws. what() is either the server's "message" (non-200 answer) or
// "<op>: <transport error text>" (op = open, close or wipe) when no answer arrived; code() says
// which failure it is.
class OrvaneError : public std::runtime_error {
  public:
    OrvaneError(OrvaneErrorCode code, const std::string& message)
        : std::runtime_error(message), code_(code) {}

    OrvaneErrorCode code() const noexcept { return code_; }

  private:
    OrvaneErrorCode code_;
};
