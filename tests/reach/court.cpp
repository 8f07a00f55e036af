#include "court.h"

#include "choices.h"

namespace
{

std::string storyOf(const std::vector<const Item *> &items)
{
    std::string story = "nothing of this by itself:";
    for (const Item *item : items)
        story += "\n  " + item->story();
    return story;
}

} // namespace

bool Court::isShown(const std::string &around, const std::string &claim, const Item &item,
                    const Test &test)
{
    if (ways_.knows(around, claim, item))
        return true;
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

void Court::hearIfShown(const std::string &around, const std::string &claim,
                        const std::vector<const Item *> &suspects, const Test &test)
{
    for (const Item *item : suspects)
        isShown(around, claim, *item, test);
}

void Court::hear(const std::string &around, const std::string &claim,
                 const std::vector<const Item *> &suspects, const Test &test)
{
    bool isExplained = false;
    for (const Item *item : suspects)
        isExplained |= isShown(around, claim, *item, test);
    if (!isExplained)
        ways_.addUnexplained(around, claim, storyOf(suspects));
}
