/**
 * What can go wrong between a front end and the daemon, in sentences.
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
    Refused,          /**< a whole reply with a return code of the daemon's own */
    Platform,         /**< a whole reply with a return code of the platform's */
    InPart,           /**< a refusal by the hardware layer of a part; the rest is in force */
    Exists,           /**< what is to be created is there already; it is as it was */
    NotTracing,       /**< the sources of a slot whose policy traces none cannot be forgotten */
    BadArgument       /**< an argument that cannot be; nothing was sent */
};

/** The one of several steps that failed; empty when it was the whole. */
struct Step {
    std::string what;    /**< to stand before its subject: "set pps=200 for" */
    std::string subject; /**< what it was for: "arp in policy edge" */
};

/** Thrown by every operation of the library that fails. what() is the reason, half a sentence. */
class Error : public std::runtime_error
{
public:
    Error(Failure failure, const std::string &reason, int32_t code = 0, Step step = {})
        : std::runtime_error(reason), failure_(failure), code_(code), step_(std::move(step))
    {
    }

    /** A refusal; the reason is that of @a code. */
    explicit Error(int32_t code);

    Failure failure() const { return failure_; }

    /** The reply's return code; 0 unless the failure is Refused, Platform or InPart. */
    int32_t code() const { return code_; }

    /**
     * The whole sentence: "couldn't bind policy edge to the system: there is no policy of this
     * name". Where one step of several failed, it tells of that step.
     * @param asked   what was asked for: "bind policy edge to the system"
     * @param subject what a step is for, in the words of whoever asked; those of the library
     *                where it is empty
     */
    std::string sentence(const std::string &asked, const std::string &subject = "") const;

    /** The same failure, of a step. */
    Error during(Step step) const { return Error(failure_, what(), code_, std::move(step)); }

    /** What to do next: "unbind it, change it, and bind it again". */
    std::string_view advice() const;

private:
    Failure failure_;
    int32_t code_;
    Step step_;
};

/** What an operation did otherwise than it may have been meant. */
struct Warning {
    enum Kind {
        StoredOnly, /**< the policy is bound: in force when it is unbound and bound again */
        FewLimits,  /**< a new policy without limits for all its packet types */
        Unbound,    /**< the policy of the system, by a change into the mode cpu-rate */
        PassedOver  /**< slots that no walk visits */
    };
    Kind kind;
    std::string text; /**< a sentence without its full stop */
};

/** A return code, what it says, and what to do then. */
struct CodeText {
    int32_t code;
    std::string_view text;
    std::string_view advice;
};

/** The return codes that the daemon gives a meaning to. Others come from the platform. */
std::span<const CodeText> codeTexts();

/** @return what the code says, as the second half of a sentence; for any code */
std::string codeText(int32_t code);

/** The same for a code that is known to come from the platform, whatever it is elsewhere. */
std::string platformCodeText(int32_t code);

} // namespace cpudefend

#endif
