#include "limits.h"

#include <algorithm>
#include <iterator>
#include <thread>
#include <unordered_set>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr size_t batchSize = 64;
constexpr unsigned flood = 100; // times that an item is sent: more than any bucket holds
constexpr unsigned turnsTaken = 16;
constexpr std::chrono::milliseconds turnLength(5);

/** What a limit is charged with each time that a consumer of this item sees something. */
double least(const Item &item, Unit unit)
{
    if (unit == Unit::Packet)
        return 1;
    const Offload &offload = item.shots.front().offload;
    return static_cast<double>(offload.kind == Offload::None ? item.shortest() : offload.segment);
}

/**
 * What the consumer saw that saw most, in packets or octets. What the host sent to itself in answer
 * did not come through the port.
 */
double seenBy(const Consumers &consumers, const Cap &cap, const Item &item, const Seen &seen)
{
    uint64_t count = 0;
    for (const std::string &name : cap.consumers)
        for (size_t index : consumers.of(name))
            count = std::max(count, seen.by[index].count);
    const uint64_t answers = seen.by[consumers.of(Consumers::loopback)[0]].count;
    return static_cast<double>(count - std::min(count, answers)) * least(item, cap.unit);
}

double allowed(const Cap &cap, double seconds)
{
    return cap.burst + cap.rate * seconds;
}

/** With room for a part of a packet, and for a clock that is not the policer's. */
bool exceeds(double seen, double most, double packet)
{
    return seen > 1.01 * most + packet;
}

void hearExcess(Court *court, const char *around, const Cap &cap, const Item &item,
                const Court::Test &test)
{
    court->hear(around, cap.name + ": more than its rate", {&item}, test);
}

/** Whether what was seen of an item in a flood is more than its limit allows. */
bool isMore(Court *court, const Cap &cap, const Item &item, const Seen &seen)
{
    return exceeds(seenBy(court->scene().consumers(), cap, item, seen), allowed(cap, seen.seconds),
                   least(item, cap.unit));
}

/** What is seen of an item when the limit has its burst to give. */
Seen watchRefilled(Scene *scene, const Cap &cap, const Item &item)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(2 * cap.burst / cap.rate));
    return scene->watch(item, flood);
}

/** How to show again that an item exceeds its limit: with the burst to give, if it takes that. */
Court::Test flooding(Court *court, const Cap &cap, const Item &item)
{
    Scene &scene = court->scene();
    const Court::Test atOnce = [=, &scene](const Item &again) {
        return isMore(court, cap, again, scene.watch(again, flood));
    };
    if (atOnce(scene.again(item.choices)))
        return atOnce;
    return [=, &scene](const Item &again) {
        return isMore(court, cap, again, watchRefilled(&scene, cap, again));
    };
}

void add(Seen *sum, const Seen &more)
{
    sum->by.resize(more.by.size());
    for (size_t i = 0; i < more.by.size(); i++)
        sum->by[i].count += more.by[i].count;
}

/** What is seen of an item that comes all the time while policies take turns. */
Seen watchTurns(Scene *scene, const Item &item)
{
    Seen sum;
    const auto begin = Clock::now();
    for (unsigned turn = 0; turn < turnsTaken; turn++) {
        scene->protection().bind(turns[turn % 2]);
        for (const auto end = Clock::now() + turnLength; Clock::now() < end;)
            add(&sum, scene->watch(item, 2 * flood));
    }
    sum.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    return sum;
}

/** No more than the greater of two limits, in octets, with a single burst. */
bool isMoreThanOne(Court *court, size_t cap, const Item &item, const Seen &seen)
{
    const Cap &octets = turningCaps(Unit::Octet)[cap], &packets = turningCaps(Unit::Packet)[cap];
    const auto length = static_cast<double>(item.longest());
    const double most = std::max(octets.burst, packets.burst * length) +
                        std::max(octets.rate, packets.rate * length) * seen.seconds;
    return exceeds(seenBy(court->scene().consumers(), octets, item, seen), most, length);
}

std::unordered_set<uint32_t> idsSeen(const Consumers &consumers,
                                     const std::vector<std::string> &names, const Seen &seen)
{
    std::unordered_set<uint32_t> ids;
    for (const std::string &name : names)
        for (size_t index : consumers.of(name))
            ids.insert(seen.by[index].ids.begin(), seen.by[index].ids.end());
    return ids;
}

/** The next so many items that consumers see when nothing is bound; flooded with what nobody sees
 *  anyway, a port tells nothing. */
std::vector<Item> nextSeen(Scene *scene, const std::vector<std::string> &consumers, uint64_t count)
{
    std::vector<Item> found;
    scene->protection().unbind();
    while (found.size() < count) {
        std::vector<Item> batch;
        for (size_t i = 0; i < batchSize; i++)
            batch.push_back(scene->next());
        const auto ids = idsSeen(scene->consumers(), consumers, scene->watch(batch));
        std::copy_if(batch.begin(), batch.end(), std::back_inserter(found),
                     [&](const Item &item) { return ids.contains(item.id); });
    }
    return found;
}

} // namespace

void limit(Court *court, const RatePolicy &policy, uint64_t items)
{
    Scene &scene = court->scene();
    const std::vector<Item> all = nextSeen(&scene, policy.consumers, items);
    scene.protection().bind(policy.name);
    for (const Item &item : all) {
        const Seen seen = scene.watch(item, flood);
        for (const Cap &cap : policy.caps)
            if (isMore(court, cap, item, seen))
                hearExcess(court, policy.name, cap, item, flooding(court, cap, item));
    }
}

void limitByTurns(Court *court, uint64_t items)
{
    Scene &scene = court->scene();
    const std::vector<Cap> &caps = turningCaps(Unit::Octet);
    for (const Item &item : nextSeen(&scene, consumersOf(caps), items)) {
        const Seen seen = watchTurns(&scene, item);
        for (size_t cap = 0; cap < caps.size(); cap++)
            if (isMoreThanOne(court, cap, item, seen))
                hearExcess(court, "turns", caps[cap], item, [&, cap](const Item &again) {
                    return isMoreThanOne(court, cap, again, watchTurns(&scene, again));
                });
    }
}
