/**
 * A fixed conversation with the daemon and the form in which it is kept.
 */
#ifndef CHANNEL_TRANSCRIPT_H
#define CHANNEL_TRANSCRIPT_H

#include <string>
#include <vector>

#include "request.h"

namespace channel
{

/** One connection: what is sent on it, the length of the body included. */
struct Exchange {
    std::string comment;
    Bytes sent;
};

/** The conversation, for a daemon just started with the arguments "4 2". */
std::vector<Exchange> conversation();

/**
 * An exchange on one line: the comment, and of the reply what is not as it was sent, each run of
 * bytes behind its offset; all of a reply of another length; or "closed" where none came.
 */
std::string written(const Exchange &exchange, const Bytes &reply);

} // namespace channel

#endif
