// The result codes that almost every operation returns.
//
// 0 is success, failures count from 10001. Ordinary failures never throw. A few operations return
// what the system call they wrap does (-1 and errno); their headers say so.
#pragma once

using NxResult = unsigned int;

inline constexpr NxResult NX_OK = 0;

// A system call failed: errno says why, as the call left it; ENOMEM where there was no memory.
// Where an operation has other causes for this code too, errno means nothing after those.
inline constexpr NxResult NX_ERROR_FAILURE = 10001;
// Not open, or already stopped.
inline constexpr NxResult NX_ERROR_NOT_INITIALIZED = 10002;
// A second create, open or init of one object.
inline constexpr NxResult NX_ERROR_ALREADY_INITIALIZED = 10003;
// No meaning for this kind of object.
inline constexpr NxResult NX_ERROR_NOT_IMPLEMENTED = 10004;
// A needed object is missing.
inline constexpr NxResult NX_ERROR_NULL_POINTER = 10005;
// An inconsistent state, or a result that the system should not give.
inline constexpr NxResult NX_ERROR_UNEXPECTED = 10006;
// 10007 is not used.
// Null pointer, zero size, value out of range.
inline constexpr NxResult NX_ERROR_INVALID_ARG = 10008;
// No result (yet).
inline constexpr NxResult NX_ERROR_NOT_AVAILABLE = 10009;
// The result will come later.
inline constexpr NxResult NX_ERROR_WOULD_BLOCK = 10010;
// Nothing to take, or not registered.
inline constexpr NxResult NX_ERROR_NOT_FOUND = 10011;
// Already registered; from a registration it counts as success.
inline constexpr NxResult NX_ERROR_FOUND = 10012;
// Done in part; the out-parameter says how much.
inline constexpr NxResult NX_ERROR_PARTIAL_DATA = 10013;
// A timed wait ran out.
inline constexpr NxResult NX_ERROR_TIMEOUT = 10014;

// Whether the operation did what it was asked for: NX_OK, and NX_ERROR_FOUND, which tells of a
// registration that something was replaced.
[[nodiscard]] constexpr bool NxSucceeded(NxResult code) {
    return code == NX_OK || code == NX_ERROR_FOUND;
}

// The code's name as it stands above, "NX_ERROR_TIMEOUT" say, for messages; "unknown result" for a
// number that is none of them. Never null; lives as long as the program.
[[nodiscard]] constexpr const char* NxResultName(NxResult code) {
    switch (code) {
        case NX_OK:
            return "NX_OK";
        case NX_ERROR_FAILURE:
            return "NX_ERROR_FAILURE";
        case NX_ERROR_NOT_INITIALIZED:
            return "NX_ERROR_NOT_INITIALIZED";
        case NX_ERROR_ALREADY_INITIALIZED:
            return "NX_ERROR_ALREADY_INITIALIZED";
        case NX_ERROR_NOT_IMPLEMENTED:
            return "NX_ERROR_NOT_IMPLEMENTED";
        case NX_ERROR_NULL_POINTER:
            return "NX_ERROR_NULL_POINTER";
        case NX_ERROR_UNEXPECTED:
            return "NX_ERROR_UNEXPECTED";
        case NX_ERROR_INVALID_ARG:
            return "NX_ERROR_INVALID_ARG";
        case NX_ERROR_NOT_AVAILABLE:
            return "NX_ERROR_NOT_AVAILABLE";
        case NX_ERROR_WOULD_BLOCK:
            return "NX_ERROR_WOULD_BLOCK";
        case NX_ERROR_NOT_FOUND:
            return "NX_ERROR_NOT_FOUND";
        case NX_ERROR_FOUND:
            return "NX_ERROR_FOUND";
        case NX_ERROR_PARTIAL_DATA:
            return "NX_ERROR_PARTIAL_DATA";
        case NX_ERROR_TIMEOUT:
            return "NX_ERROR_TIMEOUT";
        default:
            return "unknown result";
    }
}
