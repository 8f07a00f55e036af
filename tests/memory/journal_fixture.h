/**
 * The memory layer with a journal in a folder of its own, at an up-time of 12.34 seconds.
 */
#ifndef JOURNAL_FIXTURE_H
#define JOURNAL_FIXTURE_H

#include <sstream>
#include <string>
#include <vector>

#include "journal.h"
#include "memory_fixture.h"
#include "scratch.h"

struct Journal : Memory {
    Journal()
    {
        osClockSet([] { return uint64_t{12345}; });
        EXPECT_EQ(journalOpen(scratch.path("journal").c_str()), 0);
    }
    ~Journal() override
    {
        journalClose();
        osClockSet(nullptr);
    }

    std::string text() const { return scratch.read("journal"); }

    std::vector<std::string> lines() const
    {
        std::istringstream all(text());
        std::vector<std::string> found;
        for (std::string line; std::getline(all, line);)
            found.push_back(line);
        return found;
    }

    /** The last line; empty without one. */
    std::string last() const { return lines().empty() ? "" : lines().back(); }

    Scratch scratch;
};

/** A synchronised octetstring with these bytes. */
inline octetstring octetsOf(std::string &bytes)
{
    return {reinterpret_cast<unsigned char *>(bytes.data()), static_cast<uint32_t>(bytes.size())};
}

#endif
