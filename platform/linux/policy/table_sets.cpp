#include "policy/table_sets.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "base/failure.h"

namespace zynlinux
{

TableSets::TableSets(DataPlane &plane, AclLists lists, std::function<void()> done)
    : plane_(plane), compiler_(std::make_shared<const AclLists>(std::move(lists)), std::move(done)),
      sets_(CPD_TABLE_SETS)
{
}

void TableSets::keepOneReady()
{
    if (compiler_.anyLists())
        idleSet();
}

Fit TableSets::fits(const AclNumbers &numbers)
{
    if (numbers.empty() || numbers_.contains(numbers))
        return Fit::Yes;
    const AclTables *tables = compiler_.compile(numbers, end_);
    return !tables ? Fit::NotYet : tables->empty() ? Fit::No : Fit::Yes;
}

size_t TableSets::countFitting(const AclNumbers &numbers, bool *sure)
{
    size_t fitting = 0, refused = numbers.size() + 1;
    for (size_t count = numbers.size(); refused - fitting > 1; count = (fitting + refused) / 2) {
        switch (fits({numbers.begin(), numbers.begin() + static_cast<long>(count)})) {
        case Fit::Yes: fitting = count; break;
        case Fit::No: refused = count; break;
        case Fit::NotYet: *sure = false; return fitting;
        }
    }
    return fitting;
}

/** A set that is made and that nobody refers to; a new one where there is none. */
uint32_t TableSets::idleSet()
{
    auto idle = std::find_if(sets_.begin(), sets_.end(),
                             [](const Set &set) { return !set.taken && set.tables; });
    if (idle == sets_.end())
        idle = std::find_if(sets_.begin(), sets_.end(), [](const Set &set) { return !set.taken; });
    if (idle == sets_.end())
        throw Failure("compile ACLs", "all sets of tables are in use");
    auto number = static_cast<uint32_t>(idle - sets_.begin());
    if (!idle->tables) {
        idle->tables = plane_.makeTables(number);
        idle->used = 0;
    }
    return number;
}

/** Take over what was compiled; the most of a set is never touched. */
void TableSets::fill(Set &set, const AclTables &tables)
{
    std::ranges::copy(tables, set.tables->cells);
    if (set.used > tables.size())
        std::fill(set.tables->cells + tables.size(), set.tables->cells + set.used, 0u);
    set.used = tables.size();
}

uint32_t TableSets::use(const AclNumbers &numbers)
{
    auto before = numbers_.find(numbers);
    if (before != numbers_.end())
        return before->second;
    const AclTables *tables = compiler_.compile(numbers, end_);
    if (!tables || tables->empty())
        throw Failure("compile ACLs", "their tables do not fit");
    uint32_t number = idleSet();
    fill(sets_[number], *tables);
    sets_[number].taken = true;
    return numbers_[numbers] = number;
}

void TableSets::inherit(uint32_t set)
{
    if (set < sets_.size())
        sets_[set].taken = true;
}

void TableSets::dropUnknown()
{
    for (uint32_t number = 0; number < sets_.size(); number++)
        if (!sets_[number].taken && plane_.hasTables(number))
            plane_.dropTables(number);
}

void TableSets::keep(const std::vector<uint32_t> &inForce)
{
    bool spare = false; // one that is idle stays, for the next change
    compiler_.forgetTables([this](const AclNumbers &each) { return numbers_.contains(each); });
    for (uint32_t number = 0; number < sets_.size(); number++) {
        Set &set = sets_[number];
        bool wasMade = set.tables || set.taken;
        set.taken = std::find(inForce.begin(), inForce.end(), number) != inForce.end();
        if (set.taken || !wasMade)
            continue;
        std::erase_if(numbers_, [number](const auto &each) { return each.second == number; });
        if (set.tables && !std::exchange(spare, true))
            continue;
        plane_.dropTables(number);
        set.tables.reset();
    }
}

void TableSets::exchange(CompiledLists &lists)
{
    compiler_.exchange(lists);
    numbers_.clear();
}

} // namespace zynlinux
