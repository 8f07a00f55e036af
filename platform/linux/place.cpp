#include "place.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "policer_settings.h"

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

bool isUsed(const cpd_settings &settings)
{
    return settings.cost != 0;
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
        place_->pool_->release(each.after);
}

bool Draft::rulesAnything() const
{
    return policy_.acl_count != 0 || std::any_of(std::begin(policy_.types), std::end(policy_.types),
                                                 [](const cpd_rule &rule) { return rule.flags; });
}

void Draft::moveTokens(uint64_t now)
{
    for (Successor &each : successors_) {
        cpd_policer &after = (*place_->pool_)[each.after];
        cpd_policer *before = each.before != 0 ? &(*place_->pool_)[each.before] : nullptr;
        for (int kind = 0; kind < CPD_KINDS; kind++) {
            const cpd_settings &to = after.settings[kind];
            if (!before || !isUsed(before->settings[kind])) {
                after.word[kind] = cpd_units(now, &to); // full
                continue;
            }
            const cpd_settings &from = before->settings[kind];
            each.drained[kind] = cpd_units(now, &from) + from.depth;
            uint64_t had =
                replace(before->word[kind], [&](uint64_t) { return each.drained[kind]; });
            after.word[kind] = carryOver(had, from, to, now);
        }
    }
}

void Draft::undo(uint64_t now)
{
    for (const Successor &each : successors_) {
        if (each.before == 0)
            continue;
        cpd_policer &before = (*place_->pool_)[each.before];
        cpd_policer &after = (*place_->pool_)[each.after];
        for (int kind = 0; kind < CPD_KINDS; kind++) {
            const cpd_settings &settings = before.settings[kind];
            if (!isUsed(settings))
                continue;
            uint64_t left = carryOver(read(after.word[kind]), after.settings[kind], settings, now);
            replace(before.word[kind], [&](uint64_t word) {
                return chargeLate(left, settings, {settings, each.drained[kind], word}, now);
            });
        }
    }
}

void Draft::charge(const Successor &successor, uint64_t now)
{
    cpd_policer &before = (*place_->pool_)[successor.before];
    cpd_policer &after = (*place_->pool_)[successor.after];
    for (int kind = 0; kind < CPD_KINDS; kind++) {
        const LateUse use{before.settings[kind], successor.drained[kind], read(before.word[kind])};
        if (isUsed(use.settings) && use.wordNow != use.wordThen)
            replace(after.word[kind], [&](uint64_t word) {
                return chargeLate(word, after.settings[kind], use, now);
            });
    }
}

void Draft::settle(uint64_t now)
{
    for (const Successor &each : successors_) {
        if (each.before != 0) {
            charge(each, now);
            place_->pool_->release(each.before);
        }
        place_->held_[each.holder] = each.after;
    }
    successors_.clear();
    place_->forgetIdleAcls(policy_);
}

/* ---- Place ---------------------------------------------------------------------------- */

bool Place::hasAcl(const layer::tAclSetting &acl) const
{
    return std::any_of(acls.begin(), acls.end(),
                       [&](const auto &each) { return sameAcl(each, acl); });
}

bool Place::removeAcl(const layer::tAclSetting &acl)
{
    auto newest = std::find_if(acls.rbegin(), acls.rend(),
                               [&](const auto &each) { return sameAcl(each, acl); });
    if (newest == acls.rend())
        return false;
    acls.erase(std::next(newest).base());
    return true;
}

std::vector<uint16_t> Place::aclNumbers() const
{
    std::vector<uint16_t> numbers;
    for (const layer::tAclSetting &each : acls)
        numbers.push_back(each.acl);
    return numbers;
}

/** The policer for these settings: the holder's, or one that goes on from where that is. */
uint32_t Place::policer(Draft &draft, const Holder &holder, uint32_t flags,
                        const cpd_settings (&wanted)[CPD_KINDS])
{
    auto held = held_.find(holder);
    uint32_t before = held == held_.end() ? 0 : held->second;
    bool fits = before != 0;
    for (int kind = 0; kind < CPD_KINDS; kind++)
        if (flags & policedFlags[kind])
            fits = fits && sameRates((*pool_)[before].settings[kind], wanted[kind]);
    if (fits)
        return before;

    uint32_t index = pool_->take();
    draft.successors_.push_back({holder, before, index, {}});
    const cpd_policer former = before != 0 ? (*pool_)[before] : cpd_policer{};
    cpd_policer next{};
    for (int kind = 0; kind < CPD_KINDS; kind++)
        next.settings[kind] = flags & policedFlags[kind] ? wanted[kind] : former.settings[kind];
    (*pool_)[index] = next;
    return index;
}

cpd_rule Place::rule(Draft &draft, const Holder &holder, const tHwCpuDefendPktCarEntry &entry)
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

cpd_rule Place::rule(Draft &draft, const Holder &holder, const layer::tAclSetting &acl)
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

Draft Place::draft()
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
    return draft;
}

void Place::inherit(const cpd_policy &policy)
{
    auto take = [this](const Holder &holder, const cpd_rule &rule) {
        if (rule.flags & (CPD_RULE_PACKETS | CPD_RULE_BYTES) && pool_->take(rule.policer))
            held_[holder] = rule.policer;
    };
    for (uint16_t type = 0; type < CPD_TYPES; type++)
        take({Holder::Type, type, 0}, policy.types[type]);
    for (uint32_t i = 0; i < std::min<uint32_t>(policy.acl_count, CPD_ACLS); i++)
        take(holderOf(policy.acl_number, i), policy.acls[i]);
}

/** Policers of ACL entries that have gone are kept for their return, but only so many. */
void Place::forgetIdleAcls(const cpd_policy &policy)
{
    auto inUse = [&](uint32_t index) {
        return std::any_of(policy.acls, policy.acls + policy.acl_count,
                           [&](const cpd_rule &rule) { return rule.policer == index; });
    };
    for (auto each = held_.begin(); each != held_.end() && held_.size() > CPD_TYPES + CPD_ACLS;) {
        if (each->first.kind == Holder::Acl && !inUse(each->second)) {
            pool_->release(each->second);
            each = held_.erase(each);
        } else {
            ++each;
        }
    }
}

} // namespace zynlinux
