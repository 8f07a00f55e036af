#include "judge.h"

#include <algorithm>
#include <unordered_set>

#include "choices.h"

namespace
{

constexpr size_t batchSize = 64;
constexpr unsigned repeated = 100;
constexpr unsigned turnsTaken = 6;

/** The items that have one of these numbers. */
std::vector<const Item *> ofIds(const std::vector<Item> &batch, const std::vector<uint32_t> &ids)
{
    const std::unordered_set<uint32_t> wanted(ids.begin(), ids.end());
    std::vector<const Item *> found;
    for (const Item &item : batch)
        if (wanted.contains(item.id))
            found.push_back(&item);
    return found;
}

size_t framesIn(const std::vector<Item> &batch)
{
    size_t frames = 0;
    for (const Item &item : batch)
        frames += item.shots.size();
    return frames;
}

std::string storyOf(const std::vector<const Item *> &items)
{
    std::string story = "nothing of this alone:";
    for (const Item *item : items)
        story += "\n  " + item->story();
    return story;
}

/** What a consumer of this item is charged with at least, each time that it sees it. */
double weightOf(const Item &item, Unit unit)
{
    if (unit == Unit::Packets)
        return 1;
    const Offload &offload = item.shots.front().offload;
    return static_cast<double>(offload.kind == Offload::None ? item.shortest() : offload.segment);
}

/** The most that one of the limit's consumers saw. */
double most(const Consumers &consumers, const Cap &cap, const Seen &seen)
{
    uint64_t count = 0;
    for (const std::string &name : cap.consumers)
        for (size_t index : consumers.of(name))
            count = std::max(count, seen.by[index].count);
    return static_cast<double>(count);
}

double allowed(const Cap &cap, double seconds)
{
    return cap.burst + cap.rate * seconds;
}

/** Less than a packet, and less than a clock's fault. */
double slack(const Cap &cap, double weight, double seconds)
{
    return weight + 0.01 * allowed(cap, seconds);
}

} // namespace

bool Judge::explain(const std::string &around, const std::string &claim, const Item &item,
                    const Test &test)
{
    if (!test(scene_.again(item.choices)))
        return false;
    const std::vector<std::string> shape = shapeOf(item);
    const auto choices = simplest(item.choices, [&](const std::vector<uint32_t> &fewer) {
        const Item simpler = scene_.again(fewer);
        return isWithin(simpler, shape) && test(simpler);
    });
    ways_.add(around, claim, scene_.again(choices));
    return true;
}

void Judge::deny(Denial denial, uint64_t items)
{
    scene_.protection().bind(denialNames[denial]);
    for (uint64_t sent = 0; sent < items; sent += batchSize) {
        std::vector<Item> batch;
        for (size_t i = 0; i < batchSize; i++)
            batch.push_back(scene_.next());
        judgeDenial(denial, batch);
    }
}

void Judge::judgeDenial(Denial denial, const std::vector<Item> &batch)
{
    const uint64_t before = scene_.counted();
    const Seen seen = scene_.watch(batch);
    const bool allCounted = scene_.counted() - before >= framesIn(batch);
    for (size_t i = 0; i < seen.by.size(); i++) {
        if (seen.by[i].count == 0)
            continue;
        const Rule rule = scene_.consumers().all()[i].verdicts.of[denial];
        if (rule == Rule::Nothing)
            accuse(denial, i, batch, seen);
        else if (rule == Rule::Counted && !allCounted)
            expectCounted(denial, i, batch, seen);
    }
}

void Judge::accuse(Denial denial, size_t consumer, const std::vector<Item> &batch, const Seen &seen)
{
    const Sightings &sightings = seen.by[consumer];
    const bool haveIds = sightings.ids.size() == sightings.count;
    const auto suspects = ofIds(batch, haveIds ? sightings.ids : seen.passed.ids);
    const std::string claim = scene_.consumers().all()[consumer].name + ": saw it";
    const Test sees = [&](const Item &item) { return scene_.watch(item).by[consumer].count > 0; };
    bool isExplained = false;
    for (const Item *item : suspects)
        isExplained |= ways_.knows(denialNames[denial], claim, *item) ||
                       explain(denialNames[denial], claim, *item, sees);
    if (!isExplained)
        ways_.addUnexplained(denialNames[denial], claim, storyOf(suspects));
}

void Judge::expectCounted(Denial denial, size_t consumer, const std::vector<Item> &batch,
                          const Seen &seen)
{
    const std::string claim = scene_.consumers().all()[consumer].name + ": saw it, uncounted";
    const Test isUncounted = [&](const Item &item) {
        const uint64_t before = scene_.counted();
        const bool saw = scene_.watch(item).by[consumer].count > 0;
        return saw && scene_.counted() == before;
    };
    for (const Item *item : ofIds(batch, seen.by[consumer].ids))
        if (!ways_.knows(denialNames[denial], claim, *item))
            explain(denialNames[denial], claim, *item, isUncounted);
}

void Judge::limit(const RatePolicy &policy, uint64_t items)
{
    scene_.protection().bind(policy.name);
    for (uint64_t i = 0; i < items; i++) {
        const Item item = scene_.next();
        const Seen seen = scene_.watch(item, repeated);
        for (const Cap &cap : policy.caps) {
            const auto exceeds = [&](const Item &which, const Seen &what) {
                const double weight = weightOf(which, cap.unit);
                return most(scene_.consumers(), cap, what) * weight >
                       allowed(cap, what.seconds) + slack(cap, weight, what.seconds);
            };
            if (!exceeds(item, seen))
                continue;
            const std::string claim = cap.name + ": more than its rate";
            const Test exceedsAlone = [&](const Item &which) {
                return exceeds(which, scene_.watch(which, repeated));
            };
            if (!ways_.knows(policy.name, claim, item) &&
                !explain(policy.name, claim, item, exceedsAlone))
                ways_.addUnexplained(policy.name, claim, storyOf({&item}));
        }
    }
}

void Judge::limitByTurns(uint64_t)
{
    (void)turnsTaken;
}
