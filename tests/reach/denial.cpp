#include "denial.h"

#include <algorithm>
#include <unordered_set>

namespace
{

constexpr size_t batchSize = 64;

using Batch = std::vector<Item>;

std::vector<const Item *> ofIds(const Batch &batch, const std::vector<uint32_t> &ids)
{
    const std::unordered_set<uint32_t> wanted(ids.begin(), ids.end());
    std::vector<const Item *> found;
    for (const Item &item : batch)
        if (wanted.contains(item.id))
            found.push_back(&item);
    return found;
}

size_t framesIn(const Batch &batch)
{
    size_t frames = 0;
    for (const Item &item : batch)
        frames += item.shots.size();
    return frames;
}

/** Whether all that was seen had a number, and one of the batch: frames are damaged there, too. */
bool areKnown(const Batch &batch, const Sightings &seen)
{
    const auto isKnown = [&](uint32_t id) {
        return std::any_of(batch.begin(), batch.end(),
                           [&](const Item &item) { return item.id == id; });
    };
    return seen.ids.size() == seen.count && std::all_of(seen.ids.begin(), seen.ids.end(), isKnown);
}

/** Who saw something without its number is looked for among all that passed. */
std::vector<const Item *> suspects(const Batch &batch, const Seen &seen, size_t consumer)
{
    const Sightings &sightings = seen.by[consumer];
    return ofIds(batch, areKnown(batch, sightings) ? sightings.ids : seen.passed.ids);
}

void expectNothing(Court *court, Denial denial, size_t consumer, const Batch &batch,
                   const Seen &seen)
{
    Scene &scene = court->scene();
    court->hear(denialNames[denial], scene.consumers().all()[consumer].name + ": saw it",
                suspects(batch, seen, consumer),
                [&](const Item &item) { return scene.watch(item).by[consumer].count > 0; });
}

/** Of an item at least one frame must be counted as passed. */
void expectCounted(Court *court, Denial denial, size_t consumer, const Batch &batch,
                   const Seen &seen)
{
    Scene &scene = court->scene();
    court->hearIfShown(denialNames[denial],
                       scene.consumers().all()[consumer].name + ": saw it, uncounted",
                       ofIds(batch, seen.by[consumer].ids), [&](const Item &item) {
                           const uint64_t before = scene.counted();
                           const bool saw = scene.watch(item).by[consumer].count > 0;
                           return saw && scene.counted() == before;
                       });
}

void judge(Court *court, Denial denial, const Batch &batch)
{
    Scene &scene = court->scene();
    const uint64_t before = scene.counted();
    const Seen seen = scene.watch(batch);
    const bool areAllCounted = scene.counted() - before >= framesIn(batch);
    for (size_t i = 0; i < seen.by.size(); i++) {
        const Rule rule = scene.consumers().all()[i].verdicts.of[denial];
        if (seen.by[i].count > 0 && rule == Rule::Nothing)
            expectNothing(court, denial, i, batch, seen);
        else if (seen.by[i].count > 0 && rule == Rule::Counted && !areAllCounted)
            expectCounted(court, denial, i, batch, seen);
    }
}

} // namespace

void deny(Court *court, Denial denial, uint64_t items)
{
    court->scene().protection().bind(denialNames[denial]);
    for (uint64_t sent = 0; sent < items; sent += batchSize) {
        Batch batch;
        for (size_t i = 0; i < batchSize; i++)
            batch.push_back(court->scene().next());
        judge(court, denial, batch);
    }
}
