/**
 * Where what looks wrong is heard: whether an item alone shows it again, and how little of the item
 * is enough.
 */
#ifndef REACH_COURT_H
#define REACH_COURT_H

#include <functional>
#include <string>
#include <vector>

#include "scene.h"
#include "ways.h"

class Court
{
public:
    /** Whether an item shows what is claimed. */
    using Test = std::function<bool(const Item &)>;

    explicit Court(Scene *scene) : scene_(*scene) {}

    /**
     * Note the way of each suspect that shows by itself what is claimed, in its simplest form; and
     * that there is a way unknown when none does.
     * @param around the policy; @param claim who saw what
     */
    void hear(const std::string &around, const std::string &claim,
              const std::vector<const Item *> &suspects, const Test &test);

    /** The same, but a claim that cannot be shown again was no claim. */
    void hearIfShown(const std::string &around, const std::string &claim,
                     const std::vector<const Item *> &suspects, const Test &test);

    Scene &scene() { return scene_; }
    const std::vector<Way> &ways() const { return ways_.all(); }

private:
    bool isShown(const std::string &around, const std::string &claim, const Item &item,
                 const Test &test);

    Scene &scene_;
    Ways ways_;
};

#endif
