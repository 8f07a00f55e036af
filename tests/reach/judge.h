/**
 * Whether anybody saw what nobody may see, or more than a limit allows.
 */
#ifndef REACH_JUDGE_H
#define REACH_JUDGE_H

#include <functional>

#include "scene.h"
#include "ways.h"

class Judge
{
public:
    explicit Judge(Scene *scene) : scene_(*scene) {}

    /** Deny something, and send so many items. */
    void deny(Denial denial, uint64_t items);

    /** Hold something to rates, and send each of so many items a hundred times. */
    void limit(const RatePolicy &policy, uint64_t items);

    /** The same while policies that limit to the same rate take turns. */
    void limitByTurns(uint64_t items);

    const std::vector<Way> &ways() const { return ways_.all(); }

private:
    using Test = std::function<bool(const Item &)>;

    /** An item that passes a test alone: note its simplest form. @return whether it does */
    bool explain(const std::string &around, const std::string &claim, const Item &item,
                 const Test &test);

    void judgeDenial(Denial denial, const std::vector<Item> &batch);
    void accuse(Denial denial, size_t consumer, const std::vector<Item> &batch, const Seen &seen);
    void expectCounted(Denial denial, size_t consumer, const std::vector<Item> &batch,
                       const Seen &seen);

    Scene &scene_;
    Ways ways_;
};

#endif
