#include "acl/compiled_acls.h"

#include <algorithm>

#include "acl/acl_compiler.h"

namespace zynlinux
{

namespace
{

constexpr std::ptrdiff_t tablesMax = 4;

} // namespace

bool CompiledLists::known(const AclNumbers &numbers) const
{
    return std::ranges::all_of(numbers, [this](uint16_t each) { return lists->contains(each); });
}

AclTables compileTogether(const AclLists &lists, const AclNumbers &numbers,
                          const std::atomic<bool> &stop)
{
    std::vector<const AclList *> found;
    for (uint16_t number : numbers)
        found.push_back(&lists.at(number));
    auto tables = std::make_unique_for_overwrite<cpd_tables>();
    size_t cells = compileAcls(found, *tables, &stop);
    return {tables->cells, tables->cells + cells};
}

void AclCompiler::begin(const AclNumbers &numbers)
{
    auto made = std::make_unique<Work>();
    made->numbers = numbers;
    made->result.emplace(
        [lists = compiled_.lists, work = made.get()] {
            return compileTogether(*lists, work->numbers, work->stop);
        },
        done_);
    work_ = std::move(made);
}

/** Take what is done. */
void AclCompiler::collect()
{
    if (!work_ || !work_->result->isDone())
        return;
    const std::unique_ptr<Work> done = std::move(work_);
    compiled_.tables[done->numbers] = done->result->take();
}

void AclCompiler::giveUp()
{
    if (work_)
        work_->stop = true;
    work_.reset(); // waits for it
}

const AclTables *AclCompiler::compile(const AclNumbers &numbers, Clock::time_point end)
{
    collect();
    auto found = compiled_.tables.find(numbers);
    if (found != compiled_.tables.end())
        return &found->second;
    if (work_ && work_->numbers != numbers && Clock::now() < end)
        giveUp();
    if (!work_)
        begin(numbers);
    if (work_->numbers != numbers || !work_->result->isDone(end))
        return nullptr;
    collect();
    return &compiled_.tables.at(numbers);
}

void AclCompiler::forgetTables(const std::function<bool(const AclNumbers &)> &which)
{
    auto has = [](const auto &each) { return !each.second.empty(); };
    std::erase_if(compiled_.tables,
                  [&](const auto &each) { return has(each) && which(each.first); });
    if (std::ranges::count_if(compiled_.tables, has) > tablesMax)
        std::erase_if(compiled_.tables, has);
}

void AclCompiler::exchange(CompiledLists &lists)
{
    giveUp();
    std::swap(compiled_, lists);
}

} // namespace zynlinux
