// Inside the library only: how the library calls what its users have written.
#pragma once

#include <cxxabi.h>

#include <exception>

// Ends the process with the line "nxbase: an exception left CALLBACK: WHAT" on stderr.
[[noreturn]] void EndByException(const char* callback, const char* what) noexcept;

// Calls `call` and returns its result. An exception must not leave a callback: the state of what
// called it would be anybody's guess. A thread that is cancelled in it ends as ever.
template <class Call>
auto CallOut(const char* callback, const Call& call) {
    try {
        return call();
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& exception) {
        EndByException(callback, exception.what());
    } catch (...) {
        EndByException(callback, "not a std::exception");
    }
}
