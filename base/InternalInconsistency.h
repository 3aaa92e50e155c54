// Internal-consistency failures: a broken invariant of the code itself (never
// a consequence of what a client sends or what a bundle contains, which are
// refused with ordinary errors).
//
// They are raised as a C++ exception of one type. Every boundary where work
// enters the system from outside (a request being dispatched, a queued task,
// a client library completion) catches it, logs it at error level and goes
// on, so such a failure ends the one piece of work it broke and never takes
// the process down.
#pragma once

#include <stdexcept>
#include <string>

namespace tv {

class TvInternalInconsistency : public std::logic_error {
public:
    using std::logic_error::logic_error;
};

[[noreturn]] void raiseInternalInconsistency(const std::string& message);

} // namespace tv
