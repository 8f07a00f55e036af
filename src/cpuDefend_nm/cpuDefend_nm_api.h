/**
 * The management API: get, set, sync and walk of each table.
 *
 * Every get, set, sync and walk takes gCpuDefend.cpuDefendSem while it looks at the tables. A value
 * is passed as a pointer: to an octetstring for a string attribute, to an unsigned 32-bit number
 * (or anything that begins with one) for a numeric attribute. cpuDefend*AttrKind tells which; the
 * dispatcher uses it to keep unfit values away from the handlers.
 *
 * Results are the codes of cpuDefend_nm.h, or whatever the platform returned.
 */
#ifndef CPUDEFEND_NM_API_H
#define CPUDEFEND_NM_API_H

#include "cpuDefend.h"

namespace cpudefend
{

/** What a value must be for an attribute. */
enum tNmKind : uint8_t {
    NM_ANY,    /**< anything: a reset, or an id that stands for no attribute */
    NM_NUMBER, /**< a 32-bit integer, or a 64-bit counter whose high word is the integer */
    NM_OCTETS  /**< bytes */
};

} // namespace cpudefend

/* Global attributes. The index is not used. */
int32_t cpuDefendGlobalGetApi(uint32_t index, uint32_t attrId, octetstring *value);
int32_t _cpuDefendGlobalSetApi(uint32_t index, uint32_t attrId, octetstring *value, uint32_t flag);
int32_t cpuDefendGlobalSetApi(uint32_t index, uint32_t attrId, octetstring *value);
int32_t cpuDefendGlobalSyncApi(uint32_t index, uint32_t attrId, octetstring *value);
cpudefend::tNmKind cpuDefendGlobalAttrKind(uint32_t attrId);

/* Slots. A walk goes from a slot to the next greater one in the order of creation. */
int32_t cpuDefendSlotGetApi(tcpuDefendSlotIdx *idx, uint32_t attrId, octetstring *value);
int32_t _cpuDefendSlotSetApi(tcpuDefendSlotIdx *idx, uint32_t attrId, octetstring *value,
                             uint32_t flag);
int32_t cpuDefendSlotSetApi(tcpuDefendSlotIdx *idx, uint32_t attrId, octetstring *value);
int32_t cpuDefendSlotSyncApi(tcpuDefendSlotIdx *idx, uint32_t attrId, octetstring *value);
int32_t cpuDefendSlotGetFirst(tcpuDefendSlotIdx *idx);
int32_t cpuDefendSlotGetNext(tcpuDefendSlotIdx *slotIdx, tcpuDefendSlotIdx *nextSlotId);
cpudefend::tNmKind cpuDefendSlotAttrKind(uint32_t attrId);

/* Policies. A walk visits them in byte-wise order of their names. */
int32_t cpuDefendPolicyGetApi(tCpuDefendPolicyIdx *nameIdx, uint32_t cmd, void *var);
int32_t _cpuDefendPolicySetApi(tCpuDefendPolicyIdx *nameIdx, uint32_t cmd, void *var,
                               uint32_t flag);
int32_t cpuDefendPolicySetApi(tCpuDefendPolicyIdx *nameIdx, uint32_t cmd, void *var);
int32_t cpuDefendPolicySyncApi(tCpuDefendPolicyIdx *nameIdx, uint32_t cmd, void *var);
int32_t cpuDefendPolicyGetFirst(tCpuDefendPolicyIdx *nameIdx);
int32_t cpuDefendPolicyGetNext(tCpuDefendPolicyIdx *nameIdx, tCpuDefendPolicyIdx *nextNameIdx);
cpudefend::tNmKind cpuDefendPolicyAttrKind(uint32_t cmd);

/* User-defined rules. A walk visits them by length of the policy name, then name, then index. */
int32_t cpuDefendUserDefinedGetApi(tcpuDefendUserDefinedIdx *userDefinedIdx, uint32_t cmd,
                                   void *var);
int32_t _cpuDefendUserDefinedSetApi(tcpuDefendUserDefinedIdx *userDefinedIdx, uint32_t cmd,
                                    void *var, uint32_t flag);
int32_t cpuDefendUserDefinedSetApi(tcpuDefendUserDefinedIdx *userDefinedIdx, uint32_t cmd,
                                   void *var);
int32_t cpuDefendUserDefinedSyncApi(tcpuDefendUserDefinedIdx *userDefinedIdx, uint32_t cmd,
                                    void *var);
int32_t cpuDefendUserDefinedGetFirst(tcpuDefendUserDefinedIdx *userDefinedIdx);
int32_t cpuDefendUserDefinedGetNext(tcpuDefendUserDefinedIdx *userDefinedIdx,
                                    tcpuDefendUserDefinedIdx *nextUserDefinedIdx);
cpudefend::tNmKind cpuDefendUserDefinedAttrKind(uint32_t cmd);

/* CAR entries. A walk visits them by length of the policy name, then name, then packet type. */
int32_t cpuDefendCarPktGetApi(tcpuDefendCarPktIdx *carPktIdx, uint32_t cmd, void *var);
int32_t _cpuDefendCarPktSetApi(tcpuDefendCarPktIdx *carPktIdx, uint32_t cmd, void *var,
                               uint32_t flag);
int32_t cpuDefendCarPktSetApi(tcpuDefendCarPktIdx *carPktIdx, uint32_t cmd, void *var);
int32_t cpuDefendCarPktSyncApi(tcpuDefendCarPktIdx *carPktIdx, uint32_t cmd, void *var);
int32_t cpuDefendCarPktGetFirst(tcpuDefendCarPktIdx *carPktIdx);
int32_t cpuDefendCarPktGetNext(tcpuDefendCarPktIdx *carPktIdx, tcpuDefendCarPktIdx *nextCarPktIdx);
cpudefend::tNmKind cpuDefendCarPktAttrKind(uint32_t cmd);

/* Traced sources, read only. A walk visits them in key order, filtered by the index's searchBit. */
int32_t cpuDefendSrcTraceGetApi(tcpuDefendSrcTraceIdx *srcTraceIdx, uint32_t cmd, void *var);
int32_t cpuDefendSrcTraceGetFirst(tcpuDefendSrcTraceIdx *srcTraceIdx);
int32_t cpuDefendSrcTraceGetNext(tcpuDefendSrcTraceIdx *srcTraceIdx,
                                 tcpuDefendSrcTraceIdx *nextSrcTraceIdx);
cpudefend::tNmKind cpuDefendSrcTraceAttrKind(uint32_t cmd);

/*
 * Debugging entries, which a debugger or the platform's console calls by name: they print to
 * standard output. The executables keep them (src/CMakeLists.txt).
 */
extern "C" {
int32_t cpuDefendSlotShow();
int32_t cpuDefendPolicyShow();
int32_t cpuDefendUserDefinedShow(); /**< @return what its last printf returned */
int32_t cpuDefendCarPktShow();
int32_t cpuDefendSrcTraceShow();
int32_t cpuDefendSrcTraceShow2();
int32_t cpuDefendSlotTest(); /**< makes two slots and binds the policy "test" to them. @return 0 */
void testcpuDefend();
void ade(); /**< all of the tables' console tests */
}

/**
 * Where a per-table synchronisation to the standby card goes: called before each change, a
 * non-zero result abandons it. They do nothing and return 0.
 * @param syncId ZYN_SYNC_POLICY, _USERDEFINED or _CARPKT plus the attribute id
 * @param flag   ZYN_FLAG_LOCAL or ZYN_FLAG_PEER, with ZYN_SYNC_OCTETS for an octetstring
 */
extern "C" {
int32_t zynHwPolicySync(tCpuDefendPolicyIdx *nameIdx, uint32_t syncId, void *var, uint32_t flag);
int32_t zynHwUserDefinedSync(tcpuDefendUserDefinedIdx *userDefinedIdx, uint32_t syncId, void *var,
                             uint32_t flag);
int32_t zynHwCarPktSync(tcpuDefendCarPktIdx *carPktIdx, uint32_t syncId, void *var, uint32_t flag);
int32_t zynHwCpuRatControlSync(void *idx, uint32_t syncId, void *var, uint32_t flag);
}

#endif
