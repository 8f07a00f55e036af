/**
 * What the host answers: by this a peer knows that it acted on a frame.
 */
#ifndef REACH_REPLIES_H
#define REACH_REPLIES_H

#include <optional>
#include <span>
#include <vector>

#include "consumers.h"

struct ReplyConsumer {
    const char *name;
    Verdicts verdicts;
};

const std::vector<ReplyConsumer> &replyConsumers();

struct Reply {
    size_t consumer; /**< index of replyConsumers() */
    std::optional<uint32_t> id;
};

/** Whose answer a frame is that the host sent, or nobody's. */
std::optional<Reply> replyIn(std::span<const uint8_t> frame);

#endif
