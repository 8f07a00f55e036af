#include "table_sets.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "acl_compiler.h"
#include "failure.h"

namespace zynlinux
{

namespace
{

std::vector<const AclList *> listsOf(const AclLists &lists, const std::vector<uint16_t> &numbers)
{
    std::vector<const AclList *> found;
    for (uint16_t number : numbers)
        found.push_back(&lists.at(number));
    return found;
}

} // namespace

TableSets::TableSets(DataPlane &plane, const AclLists &lists)
    : plane_(plane), lists_(lists), sets_(CPD_TABLE_SETS)
{
}

void TableSets::prepare()
{
    if (!lists_.empty())
        idleSet();
}

bool TableSets::known(const std::vector<uint16_t> &numbers) const
{
    return std::all_of(numbers.begin(), numbers.end(),
                       [this](uint16_t number) { return lists_.contains(number); });
}

const cpd_tables *TableSets::compile(const std::vector<uint16_t> &numbers)
{
    if (compiledNumbers_ == numbers)
        return compiled_.get();
    if (!compiled_)
        compiled_ = std::make_unique_for_overwrite<cpd_tables>();
    compiledNumbers_.clear();
    compiledCells_ = compileAcls(listsOf(lists_, numbers), *compiled_);
    if (compiledCells_ == 0)
        return nullptr;
    compiledNumbers_ = numbers;
    return compiled_.get();
}

bool TableSets::fits(const std::vector<uint16_t> &numbers)
{
    if (numbers.empty())
        return true;
    auto before = fits_.find(numbers);
    if (before == fits_.end())
        before = fits_.emplace(numbers, compile(numbers) != nullptr).first;
    return before->second;
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
void TableSets::fill(Set &set, const cpd_tables &tables) const
{
    std::copy_n(tables.cells, compiledCells_, set.tables->cells);
    if (set.used > compiledCells_)
        std::fill(set.tables->cells + compiledCells_, set.tables->cells + set.used, 0u);
    set.used = compiledCells_;
}

uint32_t TableSets::use(const std::vector<uint16_t> &numbers)
{
    auto before = numbers_.find(numbers);
    if (before != numbers_.end())
        return before->second;
    const cpd_tables *tables = compile(numbers);
    if (!tables)
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
    dropCompiled();
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

void TableSets::dropCompiled()
{
    compiledNumbers_.clear();
    compiled_.reset();
}

void TableSets::forget()
{
    fits_.clear();
    numbers_.clear();
    dropCompiled();
}

} // namespace zynlinux
