/**
 * Classes of packets: what of a packet has been looked at so far decides which rules may still
 * match it, and packets for which that makes no difference are of one class.
 */
#ifndef ZYNLINUX_ACL_CLASSES_H
#define ZYNLINUX_ACL_CLASSES_H

#include <array>
#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bpf/acl_lookup.h"

namespace zynlinux
{

/** Thrown where lists need more room, or more time to compile, than they may have. */
struct AclTooLarge {
};

/**
 * What compiling may still cost, in steps of some nanoseconds. Memory costs too: whatever the
 * lists, compiling them takes no more than some 200 MB.
 */
class AclBudget
{
public:
    static constexpr size_t perRule = 512; /**< in a list, before anything is known of it */
    static constexpr size_t perFlat = 64;  /**< of those that a protocol's packets can match */
    static constexpr size_t perWord = 8;   /**< of memory for sets of rules */

    /** @param stop when it turns true, nothing may be spent any more; may be null */
    explicit AclBudget(const std::atomic<bool> *stop = nullptr) : stop_(stop) {}

    void spend(size_t steps)
    {
        if (steps > left_ || (stop_ && *stop_))
            throw AclTooLarge();
        left_ -= steps;
    }

private:
    const std::atomic<bool> *stop_;
    size_t left_ = 100'000'000;
};

/** The value of a field as four words, the highest first; numbers are in the first alone. */
using AclValue = std::array<uint32_t, 4>;

struct AclRange {
    AclValue low;
    AclValue high;
    auto operator<=>(const AclRange &) const = default;
};

/** What a rule lets a field be: ranges in ascending order that do not touch; none for anything. */
using AclMatch = std::vector<AclRange>;

/** A rule as the compiler sees it. Matches are indexes, and equal ones have the same; 0 is any. */
struct AclFlatRule {
    uint32_t list;
    bool permit;
    std::array<uint32_t, CPD_ACL_FIELDS> match;
};

struct AclRules {
    std::vector<AclFlatRule> rules; /**< list by list, in order */
    std::vector<AclMatch> matches;
};

/** Fields that have not been looked at: bits 1 << CPD_ACL_*. */
using AclFields = unsigned;
constexpr AclFields aclAllFields = (1u << CPD_ACL_FIELDS) - 1;

/** A set of rules. */
class AclRuleSet
{
public:
    explicit AclRuleSet(size_t rules) : words_((rules + 63) / 64) {}

    void flip(uint32_t rule) { words_[rule / 64] ^= uint64_t(1) << rule % 64; }
    bool has(uint32_t rule) const { return words_[rule / 64] >> rule % 64 & 1; }
    std::vector<uint64_t> &words() { return words_; }
    const std::vector<uint64_t> &words() const { return words_; }

private:
    std::vector<uint64_t> words_;
};

/**
 * Shortens the sequence of rules that may match to those that can still decide, whatever is in the
 * remaining fields.
 */
class AclReducer
{
public:
    /** @param remaining the fields that have not been looked at */
    AclReducer(const AclRules &rules, AclFields remaining, AclBudget &budget);

    void begin();
    /** The next rule, in order. */
    void add(uint32_t rule);
    /** What is left; valid until begin(). */
    std::span<const uint32_t> finish();

    /** Equal for rules that do the same in the remaining fields. */
    uint64_t token(uint32_t rule) const
    {
        const AclFlatRule &each = rules_.rules[rule];
        return uint64_t(shape_[rule]) << 32 | uint64_t(each.list) << 1 | each.permit;
    }

private:
    void findCovering();
    bool covers(uint32_t shape, uint32_t other) const;
    bool covered(uint32_t shape) const;
    void enter(uint32_t list);
    void trim();

    const AclRules &rules_;
    AclFields remaining_;
    std::vector<uint32_t> shape_;             /**< of each rule: its remaining matches */
    std::vector<const AclFlatRule *> shapes_; /**< a rule of each shape */
    std::vector<std::vector<uint32_t>>
        covering_; /**< for each shape those that match all it does */

    static constexpr uint32_t never = 0;
    uint32_t sequence_ = never;        /**< number of the current sequence */
    uint32_t turn_ = never;            /**< number of the current list in it */
    std::vector<uint32_t> inList_;     /**< for each shape the turn that a rule of it was kept in */
    std::vector<uint32_t> inSequence_; /**< and the sequence, if a match ends the search */
    std::vector<uint32_t> kept_;
    size_t needed_ = 0; /**< of kept_; a list's last rules matter only if they permit */
    uint32_t list_ = UINT32_MAX;
    bool denied_ = false; /**< the current list has a rule that denies */
};

/** Classes, numbered in the order in which they were found, each with its sequence of rules. */
class AclClasses
{
public:
    AclClasses(const AclRules &rules, AclFields remaining, AclBudget &budget)
        : rules_(rules), budget_(budget), reducer_(rules, remaining, budget)
    {
    }

    /** The class of packets that the rules of this set may match. */
    uint32_t of(const AclRuleSet &set) { return of(set.words(), set.words()); }
    /** The same for the rules that are in two sets. */
    uint32_t of(const std::vector<uint64_t> &a, const std::vector<uint64_t> &b);

    uint32_t count() const { return static_cast<uint32_t>(begin_.size() - 1); }
    std::span<const uint32_t> sequence(uint32_t cls) const
    {
        return std::span(pool_).subspan(begin_[cls], begin_[cls + 1] - begin_[cls]);
    }
    const AclRules &rules() const { return rules_; }
    AclBudget &budget() const { return budget_; }

private:
    uint32_t intern(std::span<const uint32_t> sequence);
    bool same(uint32_t cls, std::span<const uint32_t> sequence) const;

    const AclRules &rules_;
    AclBudget &budget_;
    AclReducer reducer_;
    std::vector<uint32_t> pool_;
    std::vector<size_t> begin_{0};
    std::unordered_multimap<uint64_t, uint32_t> byHash_;
};

/** From a value of a field to its class: each step holds up to the next one's start. */
struct AclStep {
    AclValue start;
    uint32_t value;
};

/** Find the classes of a field. */
std::vector<AclStep> classifyField(cpd_acl_field field, AclClasses &classes);

/** A row of a table: one value but for some columns. */
struct AclRow {
    uint32_t other = 0;
    std::vector<std::pair<uint32_t, uint32_t>> cells; /**< column and value, in ascending order */
    bool operator==(const AclRow &) const = default;
};

/** Combine classes: a row for each class of the first, a column for each of the second. */
std::vector<AclRow> crossClasses(const AclClasses &rows, const AclClasses &columns,
                                 AclClasses &classes);

} // namespace zynlinux

#endif
