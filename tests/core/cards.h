/** What the tests of cards share: ports that come and go, and the work that is done in a turn. */
#ifndef CARDS_H
#define CARDS_H

#include "engine.h"
#include "link_message.h"

/** Interface units from here on: none that this machine has. */
constexpr uint32_t PORT = 2000000000;

inline void notify(const std::string &messages)
{
    cpuDefendCardNotify(bytes(messages), static_cast<int32_t>(messages.size()));
}

/** A port of a slot comes, or gets its place there. */
inline void comes(uint32_t port, uint32_t sys, uint32_t slot)
{
    scripted::script.ports[port] = {sys, slot};
    notify(linkIsThere(port));
}

inline void goes(uint32_t port)
{
    notify(linkIsGone(port));
}

/** The slots there are, as "1/1 1/2". */
inline std::string slots()
{
    std::string text;
    list_for_each_entry(const tCpuDefendSlotEntry, slot, &gCpuDefend.slotList, node)
    {
        text += (text.empty() ? "" : " ") + std::to_string(slot->sysId) + '/' +
                std::to_string(slot->slotId);
    }
    return text;
}

#endif
