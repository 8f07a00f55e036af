/**
 * What can go wrong between a front end and the daemon.
 */
#ifndef CPUDEFEND_CLIENT_ERRORS_H
#define CPUDEFEND_CLIENT_ERRORS_H

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace cpudefend
{

enum class Failure {
    NotRunning,       /**< nobody listens on the socket */
    NotPermitted,     /**< the socket may not be opened by this user */
    NotTrusted,       /**< who listens there is neither root nor this user: nothing was sent */
    TimedOut,         /**< no whole reply in time */
    Closed,           /**< the connection ended before a whole reply */
    RequestMalformed, /**< zero-length reply: the daemon could not read the request */
    ReplyMalformed,   /**< the reply does not belong to the request, or is cut short */
    System,           /**< a system call failed otherwise */
    Refused           /**< a whole reply with a return code other than 0 */
};

/** Thrown by every operation of the library that fails. what() is a sentence for the operator. */
class Error : public std::runtime_error
{
public:
    Error(Failure failure, const std::string &reason)
        : std::runtime_error(reason), failure_(failure)
    {
    }

    /** The daemon's refusal; the sentence is that of @a code. */
    explicit Error(int32_t code);

    Failure failure() const { return failure_; }

    /** The daemon's return code; 0 unless the failure is Failure::Refused. */
    int32_t code() const { return code_; }

private:
    Failure failure_;
    int32_t code_ = 0;
};

/** A return code and what it says. */
struct CodeText {
    int32_t code;
    std::string_view text;
};

/** The return codes that the daemon gives a meaning to. Others come from the platform. */
std::span<const CodeText> codeTexts();

/** @return what the code says, as the second half of a sentence; for any code */
std::string codeText(int32_t code);

/** The same for a code that is known to come from the platform, whatever it is elsewhere. */
std::string platformCodeText(int32_t code);

} // namespace cpudefend

#endif
