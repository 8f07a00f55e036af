/** Requests of every table and kind, sound and malformed. */
#ifndef RECORDED_RANDOM_REQUEST_H
#define RECORDED_RANDOM_REQUEST_H

#include "channel/request.h"
#include "recorded/dice.h"

namespace recorded
{

channel::Bytes randomRequest(Dice &dice);

/** Policies that trace eagerly, one of them bound to the system. */
std::vector<channel::Bytes> provisions();

/** A request to set global attribute @a attr to @a value. */
channel::Bytes setGlobal(uint32_t attr, uint32_t value);

} // namespace recorded

#endif
