// Requests to the dispatcher, several per input on a state that starts fresh.
//
// An input is a row of requests: one byte of time to let pass before it (in 10 ms), two bytes of
// length, big-endian, and that many bytes of body (as many as there are, 1518 at most).

#include <string.h>

#include <memory>

#include "cpuDefend.h"
#include "fuzz_state.h"

namespace
{

constexpr size_t HEAD = 3;

/** The source that the seeds ask for: no request makes one. */
void addSource()
{
    const uint8_t ip[] = {10, 0, 0, 1}, mac[] = {2, 0, 0, 0, 0, 1};
    tCpuDefendSrcTraceEntry *source = cpuDefendSrcTraceEntryAdd(7, ip, 1, mac);
    source->sysId = 1;
    source->slotId = 2;
    FUZZ_REQUIRE(cpuDefendSrcTraceEntryAdd(8, ip, 0, mac));
}

/** Hand over a copy of exactly the request's size, and hold the reply to what it must keep. */
void request(const uint8_t *body, size_t len)
{
    const auto buffer = std::make_unique<uint8_t[]>(len);
    memcpy(buffer.get(), body, len);
    const uint32_t replyLen = cpudefendCmdProcess(buffer.get(), static_cast<uint32_t>(len));
    FUZZ_REQUIRE(replyLen == 0 || replyLen == len);
    // What precedes the return code comes back as it was.
    FUZZ_REQUIRE(replyLen == 0 || memcmp(buffer.get(), body, ZYN_MSG_RETCODE) == 0);
    fuzzCheckState();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzzStart();
    addSource();
    while (size >= HEAD) {
        fuzzPass(data[0] * 10u);
        size_t len = static_cast<size_t>(data[1] << 8 | data[2]);
        data += HEAD;
        size -= HEAD;
        if (len > size)
            len = size;
        if (len > CPUDEFEND_CMD_MAXLEN)
            len = CPUDEFEND_CMD_MAXLEN;
        request(data, len);
        data += len;
        size -= len;
    }
    fuzzEnd();
    return 0;
}
