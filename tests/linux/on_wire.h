/**
 * A test on a wire of its own, or skipped where the machine has none.
 */
#ifndef ON_WIRE_H
#define ON_WIRE_H

#include <gtest/gtest.h>

#include "bpf_probe.h"
#include "frame.h"
#include "test_net.h"

class OnWire : public testing::Test
{
protected:
    void SetUp() override
    {
        if (std::string why = enterNameSpace(); !why.empty())
            GTEST_SKIP() << why;
        SKIP_WITHOUT_BPF();
        makeWire();
    }

    const std::vector<uint8_t> arp = Frame(broadcast).u16(0x0806).zeros(46).bytes();
};

#endif
