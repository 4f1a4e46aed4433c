// Shared pieces of the qmxmgr command-line manager: error reporting, WWN text,
// output helpers.  The manager uses only the exported interface of qmxvlib.h.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "qmxvlib.h"

namespace qmxmgr {

using json = nlohmann::ordered_json;

// Exit statuses, following the usual conventions of Linux storage tools.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // a library call failed
constexpr int kExitUsage = 2;   // bad command line or operand
// The call returned success but left a reason code: part of its work failed
// (a path group no target has, a rewrite of the file that failed).
constexpr int kExitPartial = 4;

// A library call that returned a failure.  what() is the one-line message:
// the call's name, the meaning of the reason code, and the code.
class CallError : public std::runtime_error {
public:
    CallError(std::string call, int code);
    const std::string &call() const { return call_; }
    int code() const { return code_; }

private:
    std::string call_;
    int code_;
};

// A bad operand on the command line (unknown port, unknown parameter, ...).
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The meaning of a reason code left by the library.
const char *reasonText(int code);

// Throws CallError when st is not 0, reading the reason code at once.
void check(QMX_STATUS st, const char *call);

// "21:00:00:11:22:33:44:55"
std::string wwnText(const QMX_WWN &w);
// Parses 16 hexadecimal digits, with or without colons between the byte
// pairs and with an optional "0x" prefix.  false when the text is no WWN.
bool parseWwn(std::string_view text, QMX_WWN *out);
bool isAllZeroWwn(const QMX_WWN &w);

// Text of a fixed-size character field of a driver record: up to the first
// NUL or the end of the field, trailing blanks removed, control bytes shown
// as '?'.
std::string fieldText(const void *data, std::size_t size);

// What a host without the driver lacks, one line each (empty when the device
// files and /etc/qmxldd.conf are there): printed beside a failure or an empty
// listing, so that a new user sees the cause, not only a reason code.
void reportMissingHostPieces();

}  // namespace qmxmgr
