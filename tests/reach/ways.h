/**
 * Ways around a policy that were found, each told once, by its simplest example.
 */
#ifndef REACH_WAYS_H
#define REACH_WAYS_H

#include <cstdint>
#include <string>
#include <vector>

#include "item.h"

struct Way {
    std::string around; /**< the policy */
    std::string claim;  /**< who saw what */
    std::vector<std::string> shape;
    std::string story;
    std::string hex;
    uint64_t times = 1;

    std::string text() const;
};

/** What an item was made of, without numbers, sorted. */
std::vector<std::string> shapeOf(const Item &item);

/** Whether an item is made of nothing that is not in the shape. */
bool isWithin(const Item &item, const std::vector<std::string> &shape);

class Ways
{
public:
    /** Whether a way is known that the item goes as well; it is counted then. */
    bool knows(const std::string &around, const std::string &claim, const Item &item);

    /** Note a new one. @param item its simplest example */
    void add(const std::string &around, const std::string &claim, const Item &item);

    /** Note something that no item alone shows again. */
    void addUnexplained(const std::string &around, const std::string &claim,
                        const std::string &story);

    const std::vector<Way> &all() const { return all_; }

private:
    std::vector<Way> all_;
};

#endif
