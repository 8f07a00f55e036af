/**
 * Kinds of consumers, by what a denial must keep from them. The lists and limits of each denial are
 * in policies.cpp.
 */
#ifndef REACH_VERDICTS_H
#define REACH_VERDICTS_H

#include "consumers.h"

/** Its packet type is one that policies have a limit for, or the rules name it whatever they ask.
 */
constexpr Verdicts never = {{Rule::Nothing, Rule::Nothing, Rule::Nothing}};

/** No IP, and its packet type is counted, but a policy has no limit for it. */
constexpr Verdicts counted = {{Rule::Counted, Rule::Counted, Rule::Counted}};

/** No IP, and of no packet type. */
constexpr Verdicts unpromised = {{Rule::Anything, Rule::Anything, Rule::Anything}};

/** IP of a protocol that rules can name; and whether it has a type. */
constexpr Verdicts typedProtocol = {{Rule::Nothing, Rule::Nothing, Rule::Counted}};
constexpr Verdicts plainProtocol = {{Rule::Nothing, Rule::Nothing, Rule::Anything}};

/** IP of a protocol that no rule but the one for all of IP names. */
constexpr Verdicts otherProtocol = {{Rule::Nothing, Rule::Anything, Rule::Anything}};

#endif
