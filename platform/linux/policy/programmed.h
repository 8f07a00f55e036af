/**
 * One place that policies are programmed at, the system or a slot: what was programmed, and the
 * policy for the packet program that comes of it. No input or output.
 */
#ifndef ZYNLINUX_PROGRAMMED_H
#define ZYNLINUX_PROGRAMMED_H

#include <array>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "bpf/cpudefend_shared.h"
#include "layer.h"
#include "policy/car_table.h"
#include "policy/policer_pool.h"

namespace zynlinux
{

/** Whom a policer belongs to, as long as it lasts: a packet type (the unread as one of them), or
 * the nth entry of an ACL. */
struct Holder {
    enum Kind : uint8_t { Type, Acl } kind;
    uint16_t number;
    uint16_t nth;
    auto operator<=>(const Holder &) const = default;
};

/** A policer of somebody's; 0: none. */
struct Held {
    uint32_t policer = 0;
    uint32_t kinds = 0; /**< CPD_RULE_*: which of the pair packets are, or were last, charged to */
};

class Programmed;

/**
 * A policy on its way to the program: it is made, gets the tokens, is put in force, and is settled.
 * One that ends unsettled leaves everything to the former policy, tokens too.
 */
class Draft
{
public:
    Draft(Draft &&) = default;
    Draft &operator=(Draft &&) = delete;
    ~Draft();

    const cpd_policy &policy() const { return policy_; }
    cpd_policy &policy() { return policy_; }

    /** Whether anything is in force with it. */
    bool rulesAnything() const;

    /**
     * Move the tokens of policers that have a successor to that: so that, whichever of the two
     * judges a packet in the next moment, no token is spent twice. Times are ns of the monotonic
     * clock, here and below.
     */
    void moveTokens(uint64_t now);

    /**
     * It is in force, and no packet is judged by the former one any more: what the former policers
     * let pass in the meantime is charged to their successors, and they are given back.
     */
    void settle(uint64_t now);

    /**
     * After the tokens were moved: it is not in force, and no packet is judged by it any more. The
     * former policers get the tokens back, less what they let pass in the meantime.
     */
    void undo(uint64_t now);

    /** It may be in force or not: its policers are given to nobody any more. */
    void abandon() { successors_.clear(); }

private:
    friend class Programmed;

    struct Successor {
        Holder holder;
        Held before;
        Held after;
        std::array<uint64_t, CPD_KINDS> drained; /**< words of the one before, without its tokens */
    };

    explicit Draft(Programmed &place) : place_(&place) {}
    void charge(const Successor &successor, uint64_t now);

    Programmed *place_;
    cpd_policy policy_{};
    std::vector<Successor> successors_;
};

class Programmed
{
public:
    /** @param unreadPps what packets that cannot be judged are limited to, in packets/s; 0 drops
     *  them. That is in force while anything is. */
    explicit Programmed(PolicerPool &pool, uint32_t unreadPps) : pool_(&pool), unreadPps_(unreadPps)
    {
    }

    CarTable cars;
    std::vector<layer::tAclSetting> acls; /**< in the order programmed */

    bool hasAcl(const layer::tAclSetting &acl) const;

    /** Remove the newest ACL entry with these settings. @return false when there is none */
    bool removeAcl(const layer::tAclSetting &acl);

    /** The ACLs' numbers in order: what finds a packet's entry depends on nothing else. */
    std::vector<uint16_t> aclNumbers() const;

    /** What takes effect next. @throw Failure */
    Draft draft();

    /** Take over the policers of a policy that was left in force. */
    void inherit(const cpd_policy &policy);

private:
    friend class Draft;

    cpd_rule rule(Draft &draft, const Holder &holder, const tHwCpuDefendPktCarEntry &entry);
    cpd_rule rule(Draft &draft, const Holder &holder, const layer::tAclSetting &acl);
    cpd_rule unreadRule(Draft &draft);
    uint32_t policer(Draft &draft, const Holder &holder, uint32_t flags,
                     const cpd_settings (&wanted)[CPD_KINDS]);
    void forgetIdleAcls(const cpd_policy &policy);

    PolicerPool *pool_;
    uint32_t unreadPps_;
    std::map<Holder, Held> held_; /**< also of what is no longer in force: no second burst */
};

} // namespace zynlinux

#endif
