#include "acl/acl_classes.h"

#include <algorithm>
#include <bit>
#include <map>

namespace zynlinux
{

namespace
{

/** Comparing each shape with each other is worth it up to here. */
constexpr size_t coveringMax = 128;

bool contains(const AclMatch &match, const AclMatch &other)
{
    if (match.empty() || other.empty())
        return match.empty();
    return std::ranges::all_of(other, [&](const AclRange &part) {
        return std::ranges::any_of(match, [&](const AclRange &each) {
            return each.low <= part.low && part.high <= each.high;
        });
    });
}

uint64_t mix(uint64_t hash, uint64_t value)
{
    hash = (hash ^ value) * 0x9e3779b97f4a7c15;
    return hash ^ hash >> 29;
}

/** The value behind this one. @return false when there is none */
bool increment(AclValue &value)
{
    for (size_t i = value.size(); i-- > 0;)
        if (++value[i] != 0)
            return true;
    return false;
}

} // namespace

AclReducer::AclReducer(const AclRules &rules, AclFields remaining, AclBudget &budget)
    : rules_(rules), remaining_(remaining)
{
    constexpr size_t stepsPerRule = 32;
    std::map<std::array<uint32_t, CPD_ACL_FIELDS>, uint32_t> shapes;
    for (const AclFlatRule &rule : rules.rules) {
        budget.spend(stepsPerRule);
        auto match = rule.match;
        for (unsigned field = 0; field < CPD_ACL_FIELDS; field++)
            if (!(remaining >> field & 1))
                match[field] = 0;
        auto [at, isNew] = shapes.try_emplace(match, static_cast<uint32_t>(shapes.size()));
        shape_.push_back(at->second);
        if (isNew)
            shapes_.push_back(&rule);
    }
    inList_.assign(shapes_.size(), never);
    inSequence_.assign(shapes_.size(), never);
    findCovering();
}

bool AclReducer::covers(uint32_t shape, uint32_t other) const
{
    for (unsigned field = 0; field < CPD_ACL_FIELDS; field++)
        if (remaining_ >> field & 1 && !contains(rules_.matches[shapes_[shape]->match[field]],
                                                 rules_.matches[shapes_[other]->match[field]]))
            return false;
    return true;
}

/** Where there are too many shapes for that, each is covered by itself and by those that match
 * anything. */
void AclReducer::findCovering()
{
    auto count = static_cast<uint32_t>(shapes_.size());
    covering_.resize(count);
    std::vector<uint32_t> candidates;
    for (uint32_t shape = 0; shape < count; shape++) {
        bool all = true;
        for (unsigned field = 0; field < CPD_ACL_FIELDS; field++)
            all = all && (!(remaining_ >> field & 1) || !shapes_[shape]->match[field]);
        if (all || count <= coveringMax)
            candidates.push_back(shape);
    }
    for (uint32_t shape = 0; shape < count; shape++) {
        covering_[shape].push_back(shape);
        for (uint32_t other : candidates)
            if (other != shape && covers(other, shape))
                covering_[shape].push_back(other);
    }
}

void AclReducer::begin()
{
    sequence_++;
    kept_.clear();
    needed_ = 0;
    list_ = UINT32_MAX;
}

/** A list that denies last does what it does without these rules: it selects nothing. */
void AclReducer::trim()
{
    kept_.resize(needed_);
}

void AclReducer::enter(uint32_t list)
{
    trim();
    turn_++;
    list_ = list;
    denied_ = false;
}

bool AclReducer::covered(uint32_t shape) const
{
    return std::ranges::any_of(covering_[shape], [&](uint32_t each) {
        return inList_[each] == turn_ || inSequence_[each] == sequence_;
    });
}

void AclReducer::add(uint32_t rule)
{
    const AclFlatRule &each = rules_.rules[rule];
    if (each.list != list_)
        enter(each.list);
    uint32_t shape = shape_[rule];
    if (covered(shape))
        return;
    kept_.push_back(rule);
    inList_[shape] = turn_;
    if (each.permit) {
        needed_ = kept_.size();
        // Where nothing in this list may deny before it, it decides over the lists behind as well.
        if (!denied_)
            inSequence_[shape] = sequence_;
    } else {
        denied_ = true;
    }
}

std::span<const uint32_t> AclReducer::finish()
{
    trim();
    return kept_;
}

bool AclClasses::same(uint32_t cls, std::span<const uint32_t> wanted) const
{
    return std::ranges::equal(
        sequence(cls), wanted, {}, [this](uint32_t rule) { return reducer_.token(rule); },
        [this](uint32_t rule) { return reducer_.token(rule); });
}

uint32_t AclClasses::intern(std::span<const uint32_t> sequence)
{
    uint64_t hash = 0;
    for (uint32_t rule : sequence)
        hash = mix(hash, reducer_.token(rule));
    auto [first, last] = byHash_.equal_range(hash);
    for (; first != last; ++first)
        if (same(first->second, sequence))
            return first->second;
    uint32_t cls = count();
    // Each is a row or a column somewhere, and so takes a cell at least.
    if (cls == CPD_ACL_FINAL - 1)
        throw AclTooLarge();
    byHash_.emplace(hash, cls);
    pool_.insert(pool_.end(), sequence.begin(), sequence.end());
    begin_.push_back(pool_.size());
    return cls;
}

uint32_t AclClasses::of(const std::vector<uint64_t> &a, const std::vector<uint64_t> &b)
{
    size_t steps = a.size();
    reducer_.begin();
    for (size_t word = 0; word < a.size(); word++)
        for (uint64_t bits = a[word] & b[word]; bits; bits &= bits - 1, steps += 4)
            reducer_.add(static_cast<uint32_t>(word * 64) +
                         static_cast<uint32_t>(std::countr_zero(bits)));
    budget_.spend(steps + 40);
    return intern(reducer_.finish());
}

std::vector<AclStep> classifyField(cpd_acl_field field, AclClasses &classes)
{
    const AclRules &rules = classes.rules();
    AclRuleSet active(rules.rules.size());
    std::vector<std::pair<AclValue, uint32_t>> changes;
    for (uint32_t rule = 0; rule < rules.rules.size(); rule++) {
        const AclMatch &match = rules.matches[rules.rules[rule].match[field]];
        if (match.empty())
            active.flip(rule);
        for (AclRange range : match) {
            changes.emplace_back(range.low, rule);
            if (increment(range.high))
                changes.emplace_back(range.high, rule);
        }
    }
    std::ranges::sort(changes);

    std::vector<AclStep> steps;
    AclValue start{};
    for (size_t i = 0; i <= changes.size();) {
        for (; i < changes.size() && changes[i].first == start; i++)
            active.flip(changes[i].second);
        uint32_t cls = classes.of(active);
        if (steps.empty() || steps.back().value != cls)
            steps.push_back({start, cls});
        if (i == changes.size())
            break;
        start = changes[i].first;
    }
    return steps;
}

namespace
{

/** The columns of a table, by the rules that tell them apart. */
class Columns
{
public:
    explicit Columns(const AclClasses &classes);

    /** Those that some rule of the row is in, if it is not in all. */
    const std::vector<uint32_t> &touched(std::span<const uint32_t> row);

    uint32_t count() const { return static_cast<uint32_t>(sets_.size()); }
    const std::vector<uint64_t> &set(uint32_t column) const { return sets_[column].words(); }
    /** The rules in all columns. */
    const std::vector<uint64_t> &common() const { return common_.words(); }

private:
    std::vector<AclRuleSet> sets_;
    AclRuleSet common_;
    std::vector<std::vector<uint32_t>> of_; /**< columns of each rule that is not in all of them */
    std::vector<uint32_t> seen_;            /**< by which row */
    uint32_t row_ = 0;
    std::vector<uint32_t> touched_;
};

Columns::Columns(const AclClasses &classes)
    : common_(classes.rules().rules.size()), of_(classes.rules().rules.size()),
      seen_(classes.count())
{
    for (uint32_t column = 0; column < classes.count(); column++) {
        classes.budget().spend(of_.size() / 64 * AclBudget::perWord +
                               classes.sequence(column).size());
        sets_.emplace_back(of_.size());
        for (uint32_t rule : classes.sequence(column)) {
            sets_.back().flip(rule);
            of_[rule].push_back(column);
        }
    }
    for (uint32_t rule = 0; rule < of_.size(); rule++) {
        if (of_[rule].size() != sets_.size())
            continue;
        common_.flip(rule);
        of_[rule].clear();
    }
}

const std::vector<uint32_t> &Columns::touched(std::span<const uint32_t> row)
{
    row_++;
    touched_.clear();
    for (uint32_t rule : row)
        for (uint32_t column : of_[rule])
            if (seen_[column] != row_) {
                seen_[column] = row_;
                touched_.push_back(column);
            }
    std::ranges::sort(touched_);
    return touched_;
}

/** Write down the columns that have no cell, too. */
void spread(AclRow &row, uint32_t columns)
{
    std::vector<std::pair<uint32_t, uint32_t>> all;
    auto next = row.cells.begin();
    for (uint32_t column = 0; column < columns; column++)
        if (next != row.cells.end() && next->first == column)
            all.push_back(*next++);
        else
            all.emplace_back(column, row.other);
    row.cells = std::move(all);
}

/** Make the most frequent value that of all columns that have no cell. */
void shorten(AclRow &row, uint32_t columns)
{
    std::unordered_map<uint32_t, size_t> uses;
    for (const auto &[column, value] : row.cells)
        uses[value]++;
    size_t bare = columns - row.cells.size();
    uint32_t best = row.other;
    size_t most = bare + uses[row.other];
    for (const auto &[value, count] : uses)
        if (count > most || (count == most && value < best && best != row.other)) {
            most = count;
            best = value;
        }
    if (best != row.other && bare)
        spread(row, columns);
    row.other = best;
    std::erase_if(row.cells, [best](const auto &cell) { return cell.second == best; });
}

} // namespace

std::vector<AclRow> crossClasses(const AclClasses &rows, const AclClasses &columns,
                                 AclClasses &classes)
{
    Columns all(columns);
    std::vector<AclRow> table(rows.count());
    for (uint32_t index = 0; index < rows.count(); index++) {
        AclRow &row = table[index];
        AclRuleSet set(rows.rules().rules.size());
        for (uint32_t rule : rows.sequence(index))
            set.flip(rule);
        const std::vector<uint32_t> &touched = all.touched(rows.sequence(index));
        if (touched.size() < all.count())
            row.other = classes.of(set.words(), all.common());
        for (uint32_t column : touched)
            row.cells.emplace_back(column, classes.of(set.words(), all.set(column)));
        shorten(row, all.count());
        classes.budget().spend(touched.size() * 8);
    }
    return table;
}

} // namespace zynlinux
