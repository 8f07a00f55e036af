#include "scene.h"

#include <array>
#include <poll.h>
#include <sched.h>
#include <stdexcept>
#include <sys/socket.h>

#include "host.h"
#include "plan.h"
#include "readers.h"

namespace
{

using Clock = std::chrono::steady_clock;

constexpr uint16_t allFrames = 0x0003, markerType = 0x88b5;
constexpr uint32_t markerMark = 0x4d41524b;
constexpr std::chrono::seconds patience(20);
constexpr size_t sentAtOnce = 100; // a port has room for 256 that nobody has looked at

/** What comes in on one CPU is dealt with in the order in which it was sent. */
void keepToThisCpu()
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(sched_getcpu()), &one);
    sched_setaffinity(0, sizeof one, &one);
}

/** Of no type and for nobody: when it has arrived, so has all before it. */
Shot marker(uint32_t number)
{
    OctetWriter writer;
    writer.bytes(ownMac).bytes(gatewayMac).u16(markerType).u32(markerMark).u32(number);
    return {writer.padded(60), {}};
}

uint32_t numberAt(const uint8_t *at)
{
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

bool isMarker(const uint8_t *frame, size_t length)
{
    return length >= 22 && frame[12] == markerType >> 8 && frame[13] == (markerType & 0xff) &&
           numberAt(frame + 14) == markerMark;
}

} // namespace

Scene::Scene(const PortKind &kind, uint64_t seed)
    : kind_(kind), seed_(seed), wire_(makeHost(kind)), consumers_(kind, wire_.get()),
      everything_(openReader(ownPort, allFrames, {}))
{
    keepToThisCpu();
}

void Scene::protect()
{
    protection_ = std::make_unique<Protection>(kind_);
    counted_.emplace(ownPort);
}

Item Scene::next()
{
    return makeItem(seed_ + made_++, ++lastId_, wire_->takesSuperFrames());
}

Item Scene::again(const std::vector<uint32_t> &choices)
{
    return makeItem(choices, ++lastId_, wire_->takesSuperFrames());
}

void Scene::send(std::span<const Item> items)
{
    std::vector<const Shot *> shots;
    for (const Item &item : items)
        for (const Shot &shot : item.shots)
            shots.push_back(&shot);
    wire_->send(shots);
}

bool Scene::lookForMarker(Seen *seen, uint32_t number)
{
    std::array<uint8_t, 64> data;
    for (ssize_t got; (got = recv(everything_.get(), data.data(), data.size(), 0)) >= 0;) {
        const auto length = static_cast<size_t>(got);
        if (!isMarker(data.data(), length)) {
            seen->passed.count++;
            if (const auto id = idOfFrame(data.data(), length))
                seen->passed.ids.push_back(*id);
        } else if (numberAt(&data[18]) == number) {
            return true;
        }
    }
    return false;
}

void Scene::awaitArrival(Seen *seen)
{
    const Shot last = marker(++lastMarker_);
    const Shot *shots[] = {&last};
    wire_->send(shots);
    const auto deadline = Clock::now() + patience;
    while (!lookForMarker(seen, lastMarker_)) {
        pollfd ready{everything_.get(), POLLIN, 0};
        poll(&ready, 1, 100);
        if (Clock::now() > deadline)
            throw std::runtime_error("what was sent does not arrive");
    }
}

Seen Scene::watch(std::span<const Item> items, unsigned times)
{
    Seen seen;
    seen.by.resize(consumers_.all().size());
    const auto begin = Clock::now();
    for (size_t sent = 0; times-- > 0;) {
        send(items);
        sent += items.size();
        if (times > 0 && sent % sentAtOnce < items.size())
            awaitArrival(&seen);
    }
    awaitArrival(&seen);
    consumers_.look(&seen.by);
    seen.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    return seen;
}
