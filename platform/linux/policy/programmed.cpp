#include "policy/programmed.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "policy/policer_settings.h"

namespace zynlinux
{

namespace
{

static_assert(std::atomic_ref<__u64>::is_always_lock_free, "the kernel shares these words");

constexpr uint32_t policedFlags[CPD_KINDS] = {CPD_RULE_PACKETS, CPD_RULE_BYTES};

uint64_t read(__u64 &word)
{
    return std::atomic_ref<__u64>(word).load();
}

/** Replace a word that packets are charged to meanwhile. @return what it was */
template <class Next> uint64_t replace(__u64 &shared, Next next)
{
    std::atomic_ref<__u64> word(shared);
    __u64 seen = word.load();
    while (!word.compare_exchange_weak(seen, next(seen))) {
    }
    return seen;
}

constexpr uint32_t policers = CPD_RULE_PACKETS | CPD_RULE_BYTES;

bool has(const Held &held, int kind)
{
    return held.kinds & policedFlags[kind];
}

/** Of a policer that is charged, the kind from which one of this kind takes over, and how. */
std::pair<int, Carry> source(const Held &held, int kind)
{
    static_assert(CPD_KINDS == 2);
    return has(held, kind) ? std::pair(kind, Carry::Tokens) : std::pair(1 - kind, Carry::Share);
}

bool sameRates(const cpd_settings &a, const cpd_settings &b)
{
    return a.cost == b.cost && a.depth == b.depth && a.shift == b.shift;
}

/** What an entry does to its packets, the policers aside. */
uint8_t treatment(const tHwCpuDefendPktCarEntry &entry)
{
    uint8_t flags = 0;
    if (entry.res & ZYN_HW_CAR_QUEUE)
        flags |= CPD_RULE_QUEUE;
    if (entry.res & ZYN_HW_CAR_PRIORITY)
        flags |= CPD_RULE_PRIORITY;
    return flags;
}

/** The policers that an entry puts in force. */
uint8_t policersOf(const tHwCpuDefendPktCarEntry &entry)
{
    uint8_t flags = 0;
    if (entry.res & (ZYN_HW_CAR_CIR | ZYN_HW_CAR_CBS))
        flags |= CPD_RULE_BYTES;
    if (entry.res & ZYN_HW_CAR_PPS || flags == 0)
        flags |= CPD_RULE_PACKETS;
    return flags;
}

bool sameAcl(const layer::tAclSetting &a, const layer::tAclSetting &b)
{
    return a.acl == b.acl && a.action == b.action && a.cir == b.cir && a.cbs == b.cbs &&
           a.ebs == b.ebs;
}

Holder holderOf(const uint16_t *numbers, uint32_t position)
{
    auto nth = std::count(numbers, numbers + position, numbers[position]);
    return {Holder::Acl, numbers[position], static_cast<uint16_t>(nth)};
}

} // namespace

/* ---- Draft ---------------------------------------------------------------------------- */

Draft::~Draft()
{
    for (const Successor &each : successors_) // moved from or settled, there are none
        place_->pool_->release(each.after.policer);
}

bool Draft::rulesAnything() const
{
    return policy_.acl_count != 0 || std::any_of(policy_.types, policy_.types + CPD_TYPES,
                                                 [](const cpd_rule &rule) { return rule.flags; });
}

void Draft::moveTokens(uint64_t now)
{
    for (Successor &each : successors_) {
        cpd_policer &before = (*place_->pool_)[each.before.policer];
        cpd_policer &after = (*place_->pool_)[each.after.policer];
        std::array<uint64_t, CPD_KINDS> had{};
        for (int kind = 0; kind < CPD_KINDS; kind++) {
            if (!has(each.before, kind))
                continue;
            const cpd_settings &settings = before.settings[kind];
            each.drained[kind] = cpd_units(now, &settings) + settings.depth;
            had[kind] = replace(before.word[kind], [&](uint64_t) { return each.drained[kind]; });
        }
        for (int kind = 0; kind < CPD_KINDS; kind++) {
            const cpd_settings &to = after.settings[kind];
            const auto [from, carry] = source(each.before, kind);
            after.word[kind] = each.before.policer == 0
                                   ? cpd_units(now, &to) // full
                                   : carryOver(had[from], before.settings[from], to, now, carry);
        }
    }
}

void Draft::undo(uint64_t now)
{
    for (const Successor &each : successors_) {
        cpd_policer &before = (*place_->pool_)[each.before.policer];
        cpd_policer &after = (*place_->pool_)[each.after.policer];
        for (int kind = 0; kind < CPD_KINDS; kind++) {
            if (!has(each.before, kind))
                continue;
            const cpd_settings &settings = before.settings[kind];
            const auto [from, carry] = source(each.after, kind);
            uint64_t left =
                carryOver(read(after.word[from]), after.settings[from], settings, now, carry);
            replace(before.word[kind], [&](uint64_t word) {
                return chargeLate(left, settings, {settings, each.drained[kind], word}, now);
            });
        }
    }
}

void Draft::charge(const Successor &successor, uint64_t now)
{
    cpd_policer &before = (*place_->pool_)[successor.before.policer];
    cpd_policer &after = (*place_->pool_)[successor.after.policer];
    for (int kind = 0; kind < CPD_KINDS; kind++) {
        const auto [from, carry] = source(successor.before, kind);
        const LateUse use{before.settings[from], successor.drained[from], read(before.word[from])};
        if (has(successor.after, kind) && use.wordNow != use.wordThen)
            replace(after.word[kind], [&, how = carry](uint64_t word) {
                return chargeLate(word, after.settings[kind], use, now, how);
            });
    }
}

void Draft::settle(uint64_t now)
{
    for (const Successor &each : successors_) {
        if (each.before.policer != 0) {
            charge(each, now);
            place_->pool_->release(each.before.policer);
        }
        place_->held_[each.holder] = each.after;
    }
    successors_.clear();
    place_->forgetIdleAcls(policy_);
}

/* ---- Programmed ---------------------------------------------------------------------------- */

bool Programmed::hasAcl(const layer::tAclSetting &acl) const
{
    return std::any_of(acls.begin(), acls.end(),
                       [&](const auto &each) { return sameAcl(each, acl); });
}

bool Programmed::removeAcl(const layer::tAclSetting &acl)
{
    auto newest = std::find_if(acls.rbegin(), acls.rend(),
                               [&](const auto &each) { return sameAcl(each, acl); });
    if (newest == acls.rend())
        return false;
    acls.erase(std::next(newest).base());
    return true;
}

std::vector<uint16_t> Programmed::aclNumbers() const
{
    std::vector<uint16_t> numbers;
    numbers.reserve(acls.size());
    for (const layer::tAclSetting &each : acls)
        numbers.push_back(each.acl);
    return numbers;
}

/** The policer for these settings: the holder's, or one that goes on from where that is. */
uint32_t Programmed::policer(Draft &draft, const Holder &holder, uint32_t flags,
                             const cpd_settings (&wanted)[CPD_KINDS])
{
    const auto held = held_.find(holder);
    const Held before = held == held_.end() ? Held{} : held->second;
    Held after{before.policer, flags & policers};
    bool fits = before.policer != 0 && before.kinds == after.kinds;
    for (int kind = 0; fits && kind < CPD_KINDS; kind++)
        fits =
            !has(after, kind) || sameRates((*pool_)[before.policer].settings[kind], wanted[kind]);
    if (fits)
        return before.policer;

    after.policer = pool_->take();
    draft.successors_.push_back({holder, before, after, {}});
    cpd_policer next{};
    for (int kind = 0; kind < CPD_KINDS; kind++)
        if (has(after, kind))
            next.settings[kind] = wanted[kind];
    (*pool_)[after.policer] = next;
    return after.policer;
}

cpd_rule Programmed::rule(Draft &draft, const Holder &holder, const tHwCpuDefendPktCarEntry &entry)
{
    cpd_rule rule{};
    rule.flags = CPD_RULE_DENY;
    if (entry.op == ZYN_HW_OP_DENY)
        return rule;
    rule.flags = static_cast<uint8_t>(policersOf(entry) | treatment(entry));
    rule.queue = entry.queue;
    rule.priority = entry.priority;
    rule.policer = policer(draft, holder, rule.flags,
                           {packetSettings(entry.pps), byteSettings(entry.cir, entry.cbs)});
    return rule;
}

cpd_rule Programmed::rule(Draft &draft, const Holder &holder, const layer::tAclSetting &acl)
{
    cpd_rule rule{};
    rule.flags = CPD_RULE_DENY;
    if (acl.action == ZYN_HW_OP_DENY)
        return rule;
    rule.flags = CPD_RULE_BYTES;
    rule.policer =
        policer(draft, holder, rule.flags, {cpd_settings{}, byteSettings(acl.cir, acl.cbs)});
    return rule;
}

/** What cannot be judged is limited wherever anything is. */
cpd_rule Programmed::unreadRule(Draft &draft)
{
    if (unreadPps_ == 0)
        return {CPD_RULE_DENY, 0, 0, 0, 0};
    const uint32_t index = policer(draft, {Holder::Type, CPD_UNREAD, 0}, CPD_RULE_PACKETS,
                                   {packetSettings(unreadPps_), cpd_settings{}});
    return {CPD_RULE_PACKETS, 0, 0, 0, index};
}

Draft Programmed::draft()
{
    Draft draft(*this);
    cpd_policy &policy = draft.policy_;
    for (uint16_t type = 0; type < CPD_TYPES; type++)
        if (const CarEntry *entry = std::as_const(cars).inForce(type))
            policy.types[type] = rule(draft, {Holder::Type, type, 0}, entry->settings);
    cpd_let_stand_in(&policy);
    for (const layer::tAclSetting &acl : acls) {
        uint32_t position = policy.acl_count++;
        policy.acl_number[position] = acl.acl;
        policy.acls[position] = rule(draft, holderOf(policy.acl_number, position), acl);
    }
    if (draft.rulesAnything())
        policy.types[CPD_UNREAD] = unreadRule(draft);
    return draft;
}

void Programmed::inherit(const cpd_policy &policy)
{
    auto take = [this](const Holder &holder, const cpd_rule &rule) {
        if (rule.flags & policers && pool_->take(rule.policer))
            held_[holder] = {rule.policer, rule.flags & policers};
    };
    for (uint16_t type = 0; type < CPD_RULES; type++)
        take({Holder::Type, type, 0}, policy.types[type]);
    for (uint32_t i = 0; i < std::min<uint32_t>(policy.acl_count, CPD_ACLS); i++)
        take(holderOf(policy.acl_number, i), policy.acls[i]);
}

/** Policers of ACL entries that have gone are kept for their return, but only so many. */
void Programmed::forgetIdleAcls(const cpd_policy &policy)
{
    auto inUse = [&](uint32_t index) {
        return std::any_of(policy.acls, policy.acls + policy.acl_count,
                           [&](const cpd_rule &rule) { return rule.policer == index; });
    };
    for (auto each = held_.begin(); each != held_.end() && held_.size() > CPD_RULES + CPD_ACLS;) {
        if (each->first.kind == Holder::Acl && !inUse(each->second.policer)) {
            pool_->release(each->second.policer);
            each = held_.erase(each);
        } else {
            ++each;
        }
    }
}

} // namespace zynlinux
