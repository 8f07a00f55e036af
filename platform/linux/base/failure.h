/**
 * How the parts of this layer fail: with the sentence that the user reads.
 */
#ifndef ZYNLINUX_FAILURE_H
#define ZYNLINUX_FAILURE_H

#include <cstring>
#include <stdexcept>
#include <string>

namespace zynlinux
{

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;

    /** "couldn't <what>: <reason>" */
    Failure(const std::string &what, const std::string &reason)
        : std::runtime_error("couldn't " + what + ": " + reason)
    {
    }

    /** The same with an errno value as the reason. */
    Failure(const std::string &what, int error) : Failure(what, std::strerror(error)) {}
};

} // namespace zynlinux

#endif
