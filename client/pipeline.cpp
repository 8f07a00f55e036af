#include "client/pipeline.h"

namespace cpudefend
{

void Pipeline::send(Request request)
{
    if (underWay_.size() == kUnderWay)
        arrived_.push_back(takeOldest());
    request.id = ++*lastId_;
    Pending pending = channel_.begin(encode(request));
    underWay_.push_back({std::move(request), std::move(pending)});
}

Reply Pipeline::receive()
{
    if (arrived_.empty())
        return takeOldest();
    Reply reply = std::move(arrived_.front());
    arrived_.pop_front();
    return reply;
}

Reply Pipeline::takeOldest()
{
    Asked oldest = std::move(underWay_.front());
    underWay_.pop_front();
    return decode(oldest.request, oldest.pending.reply());
}

} // namespace cpudefend
