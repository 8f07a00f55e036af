/**
 * The tables behind the function codes, for the dispatcher.
 */
#ifndef CPUDEFEND_CMD_H
#define CPUDEFEND_CMD_H

#include "cpuDefend_nm_api.h"

namespace cpudefend
{

/** The index of a request, by table. */
union tCmdIndex {
    tcpuDefendSlotIdx slot;
    tCpuDefendPolicyIdx policy;
    tcpuDefendUserDefinedIdx userDefined;
    tcpuDefendCarPktIdx carPkt;
    tcpuDefendSrcTraceIdx srcTrace;
};

/** The value of a request, and the cell that a get answers into. */
union tCmdValue {
    uint32_t number;
    octetstring octets;
    U_INT8 counter;
};

/** One table of the management API. Calls that no function code leads to are null. */
struct tCmdTable {
    uint8_t indexNum; /**< index count that a request must state */
    const char *indexNumError = "\r\n indexNum %d err in func %s in line %d!";
    bool (*readIndex)(adr_t *adr, tCmdIndex *idx); /**< false: past the end, or no such name */
    void (*writeIndex)(adr_t *adr, const tCmdIndex *idx) = nullptr;
    bool walkNeedsInteger = false; /**< a walk is answered to a request for an integer only */
    tNmKind (*kind)(uint32_t cmd);
    int32_t (*getFirst)(tCmdIndex *idx) = nullptr;
    int32_t (*getNext)(tCmdIndex *idx, tCmdIndex *next) = nullptr;
    int32_t (*get)(tCmdIndex *idx, uint32_t cmd, tCmdValue *value) = nullptr;
    int32_t (*set)(tCmdIndex *idx, uint32_t cmd, tCmdValue *value) = nullptr;
    int32_t (*sync)(tCmdIndex *idx, uint32_t cmd, tCmdValue *value) = nullptr;
};

enum tCmdOp : uint8_t { CMD_GETFIRST, CMD_GETNEXT, CMD_GET, CMD_SET, CMD_SYNC };

struct tCmdFunc {
    const tCmdTable *table;
    tCmdOp op;
};

/** Table and operation of function code @a func, 1 to CPUDEFEND_FUNC_MAX. */
const tCmdFunc &cmdFunc(uint32_t func);

} // namespace cpudefend

#endif
