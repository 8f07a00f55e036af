#include "ways.h"

#include <algorithm>

std::string Way::text() const
{
    return "around \"" + around + "\": " + claim + " " + std::to_string(times) +
           (times == 1 ? " time: " : " times: ") + story + "\n" + hex;
}

std::vector<std::string> shapeOf(const Item &item)
{
    std::vector<std::string> shape;
    for (const Note &note : item.notes)
        shape.emplace_back(note.what);
    std::sort(shape.begin(), shape.end());
    return shape;
}

bool isWithin(const Item &item, const std::vector<std::string> &shape)
{
    const std::vector<std::string> own = shapeOf(item);
    return std::includes(shape.begin(), shape.end(), own.begin(), own.end());
}

bool Ways::knows(const std::string &around, const std::string &claim, const Item &item)
{
    const std::vector<std::string> shape = shapeOf(item);
    for (Way &way : all_) {
        if (way.around != around || way.claim != claim || way.shape.empty() ||
            !std::includes(shape.begin(), shape.end(), way.shape.begin(), way.shape.end()))
            continue;
        way.times++;
        return true;
    }
    return false;
}

void Ways::add(const std::string &around, const std::string &claim, const Item &item)
{
    all_.push_back({around, claim, shapeOf(item), item.story(), item.hex()});
}

void Ways::addUnexplained(const std::string &around, const std::string &claim,
                          const std::string &story)
{
    all_.push_back({around, claim, {}, story, ""});
}
