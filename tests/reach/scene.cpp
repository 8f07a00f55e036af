#include "scene.h"

#include <array>
#include <sched.h>
#include <stdexcept>
#include <sys/socket.h>

#include "host.h"
#include "marker.h"
#include "plan.h"
#include "readers.h"

namespace
{

using Clock = std::chrono::steady_clock;

constexpr uint16_t allFrames = 0x0003;
constexpr unsigned answersDeep = 3; // to an answer, say a reset to what answers a SYN
constexpr std::chrono::seconds patience(20);
constexpr size_t sentAtOnce = 100; // a port has room for 256 that nobody has looked at

/** What comes in on one CPU is dealt with in the order in which it was sent. */
cpu_set_t keepToThisCpu()
{
    cpu_set_t all, one;
    sched_getaffinity(0, sizeof all, &all);
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(sched_getcpu()), &one);
    sched_setaffinity(0, sizeof one, &one);
    return all;
}

/** Wait for something that takes moments, and would else take for ever. */
template <class Condition> void await(const Condition &condition)
{
    for (const auto end = Clock::now() + patience; !condition();)
        if (Clock::now() > end)
            throw std::runtime_error("what was sent does not arrive");
}

/** Send a marker from a packet socket of the host. */
void sendMarker(int socket, uint32_t number)
{
    const Octets frame = marker(number).frame;
    if (send(socket, frame.data(), frame.size(), 0) < 0)
        throw std::runtime_error("couldn't send from the host");
}

} // namespace

Scene::Scene(const PortKind &kind, uint64_t seed)
    : kind_(kind), seed_(seed), wire_(makeHost(kind)), consumers_(kind, wire_.get()),
      everything_(openReader(ownPort, allFrames, {})),
      loopback_(openReader("lo", allFrames, {{12, 2, markerType}})), cpus_(keepToThisCpu())
{
}

void Scene::protect()
{
    sched_setaffinity(0, sizeof cpus_, &cpus_); // for the daemon
    protection_ = std::make_unique<Protection>(kind_);
    keepToThisCpu();
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

void Scene::sendAll(std::span<const Item> items)
{
    std::vector<const Shot *> shots;
    for (const Item &item : items)
        for (const Shot &shot : item.shots)
            shots.push_back(&shot);
    sent_ += shots.size();
    wire_->send(shots);
}

bool Scene::lookForMarker(Seen *seen, uint32_t number)
{
    std::array<uint8_t, 64> data;
    for (ssize_t got; (got = recv(everything_.get(), data.data(), data.size(), 0)) >= 0;) {
        const auto frame = std::span(data).first(static_cast<size_t>(got));
        if (isMarker(frame, number))
            return true;
        if (isMarker(frame))
            continue;
        seen->passed.count++;
        if (const auto id = idOfFrame(frame.data(), frame.size()))
            seen->passed.ids.push_back(*id);
    }
    return false;
}

void Scene::awaitArrival(Seen *seen)
{
    const Shot last = marker(++lastMarker_);
    const Shot *shots[] = {&last};
    wire_->send(shots);
    await([&] { return lookForMarker(seen, lastMarker_); });
}

/** What the host sends itself in answer may have it answer again, and that again. */
void Scene::awaitLoopback()
{
    std::array<uint8_t, 64> data;
    for (unsigned answers = 0; answers < answersDeep; answers++) {
        sendMarker(loopback_.get(), ++lastMarker_);
        await([&] { return recv(loopback_.get(), data.data(), data.size(), 0) > 0; });
    }
}

/** The host's answers are on their way before the marker that it sends itself. */
void Scene::awaitReplies(Seen *seen)
{
    consumers_.lookAtReplies(&seen->by, ++lastMarker_); // makes room for the marker
    sendMarker(everything_.get(), lastMarker_);
    await([&] { return consumers_.lookAtReplies(&seen->by, lastMarker_); });
}

Seen Scene::watch(std::span<const Item> items, unsigned times)
{
    Seen seen;
    seen.by.resize(consumers_.all().size());
    const auto begin = Clock::now();
    for (size_t sent = 0; times-- > 0;) {
        sendAll(items);
        sent += items.size();
        if (times > 0 && sent % sentAtOnce < items.size())
            awaitArrival(&seen);
    }
    awaitArrival(&seen);
    awaitLoopback();
    awaitReplies(&seen);
    consumers_.look(&seen.by);
    seen.by[consumers_.of(Consumers::loopback)[0]].count -= answersDeep; // the markers
    passed_ += seen.passed.count;
    for (const Sightings &each : seen.by)
        sightings_ += each.count;
    seen.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    return seen;
}

std::string Scene::summary() const
{
    return std::to_string(made_) + " items made, " + std::to_string(sent_) + " frames sent, " +
           std::to_string(passed_) + " came through, " + std::to_string(sightings_) + " sightings";
}
