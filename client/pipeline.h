/**
 * Requests of which several are under way.
 */
#ifndef CPUDEFEND_CLIENT_PIPELINE_H
#define CPUDEFEND_CLIENT_PIPELINE_H

#include <deque>
#include <optional>
#include <span>
#include <vector>

#include "client/requests.h"

namespace cpudefend
{

/** Takes replies in the order in which the requests were sent. */
class Pipeline
{
public:
    /** @param lastId counts the requests up */
    Pipeline(const Channel &channel, uint32_t *lastId) : channel_(channel), lastId_(lastId) {}

    void send(Request request);
    Reply receive();

private:
    // Enough for neither side to wait for the other, and fewer than the daemon lets stand in its
    // queue: there stays a place for other front ends.
    static constexpr std::size_t kUnderWay = 8;

    struct Asked {
        Request request;
        Pending pending;
    };

    Reply takeOldest();

    const Channel &channel_;
    uint32_t *lastId_;
    std::deque<Asked> underWay_;
    std::deque<Reply> arrived_;
};

/** Reads the same attributes of many entries. */
template <class Index> class Lister
{
public:
    Lister(Pipeline *pipeline, std::span<const uint32_t> attributeIds)
        : pipeline_(pipeline), attributeIds_(attributeIds)
    {
    }

    void ask(const Index &index)
    {
        for (const uint32_t id : attributeIds_)
            pipeline_->send(getRequest(index, attribute(Table<Index>::attributes(), id)));
    }

    /** Take what was asked for this entry, which may have gone away meanwhile. */
    void take(const Index &index)
    {
        Row<Index> row{index, {}};
        bool isGone = false;
        for (std::size_t i = 0; i < attributeIds_.size(); ++i) {
            Reply reply = pipeline_->receive();
            isGone |= reply.code == CPUDEFEND_ENOENTRY;
            if (!isGone)
                row.values.push_back(valueFrom<Index>(std::move(reply)));
        }
        if (!isGone)
            rows.push_back(std::move(row));
    }

    std::vector<Row<Index>> rows;

private:
    Pipeline *pipeline_;
    std::span<const uint32_t> attributeIds_;
};

/**
 * Walk a table, with the requests for one entry under way while the next is looked for.
 * @param ask  sends requests for an entry
 * @param take takes their replies; called for each entry in the order of the walk
 */
template <class Index, class Ask, class Take> void walkAhead(Pipeline *pipeline, Ask ask, Take take)
{
    const auto lookBehind = [&](const Index &index) {
        pipeline->send(walkRequest(Table<Index>::functions.next, index));
        ask(index);
    };
    pipeline->send(walkRequest(Table<Index>::functions.first, Index{}));
    auto index = indexFrom<Index>(pipeline->receive());
    if (index)
        lookBehind(*index);
    while (index) {
        auto following = indexFrom<Index>(pipeline->receive());
        if (following)
            lookBehind(*following);
        take(*index);
        index = std::move(following);
    }
}

} // namespace cpudefend

#endif
