#include "host/list_reload.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "host/config.h"

namespace zynlinux
{

ListReload::ListReload(std::string file, std::function<void()> done)
    : file_(std::move(file)), done_(std::move(done))
{
}

ListReload::~ListReload()
{
    stop_ = true; // and then the work is waited for
}

/** @param lists none: they are read first */
void ListReload::work(CompiledLists lists, std::set<AclNumbers> bound)
{
    auto all = [this, made = std::move(lists), wanted = std::move(bound)]() mutable {
        if (!made.lists)
            made.lists = std::make_shared<const AclLists>(readConfig(file_).acls);
        for (const AclNumbers &numbers : wanted)
            if (made.known(numbers) && !made.tables.contains(numbers))
                made.tables[numbers] = compileTogether(*made.lists, numbers, stop_);
        return std::move(made);
    };
    work_.emplace(std::move(all), done_);
}

void ListReload::begin(std::set<AclNumbers> bound)
{
    if (work_)
        again_ = true;
    else
        work({}, std::move(bound));
}

std::optional<CompiledLists> ListReload::take(const std::set<AclNumbers> &bound)
{
    if (!work_ || !work_->isDone())
        return {};
    auto done = std::exchange(work_, std::nullopt);
    if (std::exchange(again_, false)) {
        work({}, bound);
        return {};
    }
    CompiledLists made = done->take();
    const bool complete = std::ranges::all_of(bound, [&](const AclNumbers &numbers) {
        return !made.known(numbers) || made.tables.contains(numbers);
    });
    if (complete)
        return made;
    work(std::move(made), bound);
    return {};
}

} // namespace zynlinux
