/**
 * The host under test, as lenient as Linux can be set: what it does not take there, nobody takes.
 */
#ifndef REACH_HOST_H
#define REACH_HOST_H

#include "wire.h"

/** Empty, or why this machine has no such port. */
std::string missingFor(const PortKind &kind);

/** Make a wire of that kind and the host behind it, in the caller's network name space. */
std::unique_ptr<Wire> makeHost(const PortKind &kind);

/** The device that has the host's addresses. */
const char *addressed(const PortKind &kind);

#endif
