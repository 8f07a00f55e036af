// Datagrams to the netlink walk: each input in a buffer of exactly its size, at an even and at an
// odd address.

#include <string.h>

#include <memory>

#include "cpuDefend.h"
#include "fuzz_state.h"

static void walk(const uint8_t *data, size_t size, size_t shift)
{
    const auto buffer = std::make_unique<uint8_t[]>(size + shift);
    memcpy(buffer.get() + shift, data, size);
    FUZZ_REQUIRE(cpudefendNotifyRecv(buffer.get() + shift, static_cast<int32_t>(size)) == 0);
    FUZZ_REQUIRE(memcmp(buffer.get() + shift, data, size) == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    gCpuDefend.cpuDefendDebug = 1;
    walk(data, size, 0);
    walk(data, size, 1);
    return 0;
}
