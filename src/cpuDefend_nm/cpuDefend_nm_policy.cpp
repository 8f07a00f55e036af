/**
 * Management of policies.
 *
 * A set changes the configuration record only: the hardware sees it the next time the policy is
 * programmed.
 */
#include <string.h>

#include "cpuDefend/cpuDefend_change.h"
#include "cpuDefend_nm_attr.h"

using namespace cpudefend;

namespace
{

/** What a set looks at. */
enum : uint8_t {
    UNLESS_EQUAL = 1, // nothing to do when the value is there already
    IN_USE = 2,       // warn of a bound policy, and store all the same
    WHITE_LIST = 4,   // only while the white list is on
    BLACK_LIST = 8,   // only while the black list is on
};

constexpr uint8_t FIELD = UNLESS_EQUAL;
constexpr uint8_t ENABLE = UNLESS_EQUAL | IN_USE;
constexpr uint8_t WHITE = ENABLE | WHITE_LIST;
constexpr uint8_t BLACK = ENABLE | BLACK_LIST;

#define NUMBER(id, field, checks) NM_ATTR_NUMBER(id, tCpuDefendPolicyEntry, field, checks)
#define OCTETS(id, field, checks)                                                                  \
    NM_ATTR_OCTETS(id, tCpuDefendPolicyEntry, field, field##Len, checks)

constexpr tNmAttr attrs[] = {
    NUMBER(CPUDEFEND_POLICY_ENTRYSTATUS, policyStatus, 0),
    OCTETS(CPUDEFEND_POLICY_DESCRIPTION, policyDescription, 0),
    NM_ATTR_NO_FIELD(CPUDEFEND_POLICY_PRIORITY, NM_OCTETS, IN_USE),
    NUMBER(CPUDEFEND_POLICY_WHITELISTENABLE, whiteListEnable, ENABLE),
    NUMBER(CPUDEFEND_POLICY_WHITELISTIP4ACL, whiteListIp4Acl, WHITE),
    NUMBER(CPUDEFEND_POLICY_WHITELISTIP6ACL, whiteListIp6Acl, WHITE),
    NUMBER(CPUDEFEND_POLICY_WHITELISTIP4CIR, whiteListIp4Cir, WHITE),
    NUMBER(CPUDEFEND_POLICY_WHITELISTIP4CBS, whiteListIp4Cbs, WHITE),
    NUMBER(CPUDEFEND_POLICY_WHITELISTIP6CIR, whiteListIp6Cir, WHITE),
    NUMBER(CPUDEFEND_POLICY_WHITELISTIP6CBS, whiteListIp6Cbs, WHITE),
    NUMBER(CPUDEFEND_POLICY_BLACKLISTENABLE, blackListEnable, ENABLE),
    NUMBER(CPUDEFEND_POLICY_BLACKLISTIP4ACL, blackListIp4Acl, BLACK),
    NUMBER(CPUDEFEND_POLICY_BLACKLISTIP6ACL, blackListIp6Acl, BLACK),
    NUMBER(CPUDEFEND_POLICY_SRCTRACEENABLE, srcTraceEnable, FIELD),
    NUMBER(CPUDEFEND_POLICY_SRCTRACEPKTDATAENABLE, srcTracePktDataEnable, FIELD),
    NUMBER(CPUDEFEND_POLICY_SRCTRACEALARMENABLE, srcTraceAlarmEnable, FIELD),
    NUMBER(CPUDEFEND_POLICY_SRCTRACETHRESHOLD, srcTraceThreshold, FIELD),
    NUMBER(CPUDEFEND_POLICY_SRCTRACEALARMTHRESHOLD, srcTraceAlarmThreshold, FIELD),
    NUMBER(CPUDEFEND_POLICY_REFCOUNT, refCount, NM_READ_ONLY),
};
static_assert(nmAttrsInOrder(attrs));

#undef NUMBER
#undef OCTETS

tCpuDefendPolicyEntry *find(const tCpuDefendPolicyIdx *nameIdx)
{
    return cpuDefendPolicyEntryGet(nameIdx->name, nameIdx->len);
}

void nameOf(const tCpuDefendPolicyEntry *pPolicy, tCpuDefendPolicyIdx *nameIdx)
{
    nameIdx->len = pPolicy->policyNameLen;
    memcpy(nameIdx->name, pPolicy->policyName, pPolicy->policyNameLen);
}

int32_t create(const tCpuDefendPolicyIdx *nameIdx, tCpuDefendPolicyEntry *pPolicy)
{
    if (!pPolicy)
        pPolicy = cpuDefendPolicyEntryAdd(nameIdx->name, nameIdx->len);
    if (!pPolicy)
        return CPUDEFEND_ENOMEM;
    pPolicy->policyStatus = CPUDEFEND_STATUS_CREATED; // also for a policy that was there already
    return CPUDEFEND_OK;
}

int32_t setRowStatus(const tCpuDefendPolicyIdx *nameIdx, tCpuDefendPolicyEntry *pPolicy,
                     uint32_t status)
{
    if (status == CPUDEFEND_ROW_CREATE)
        return create(nameIdx, pPolicy);
    if (!pPolicy)
        return CPUDEFEND_OK;
    if (status == CPUDEFEND_ROW_DESTROY)
        return cpuDefendPolicyEntryDel(pPolicy);
    if (status == CPUDEFEND_ROW_ACTIVATE)
        pPolicy->policyStatus = CPUDEFEND_STATUS_ACTIVE;
    return CPUDEFEND_OK;
}

void setDescription(tCpuDefendPolicyEntry *pPolicy, const octetstring *value)
{
    const uint32_t room = sizeof pPolicy->policyDescription;
    const uint32_t len = value->len < room ? value->len : room;
    pPolicy->policyDescriptionLen = static_cast<uint8_t>(len);
    memcpy(pPolicy->policyDescription, value->pBuf, len);
}

void setPriority(tCpuDefendPolicyEntry *pPolicy, const octetstring *value)
{
    const uint32_t room = sizeof pPolicy->priority;
    memcpy(pPolicy->priority, value->pBuf, value->len < room ? value->len : room);
}

/** Always three bytes, whatever length was asked for. */
void getPriority(const tCpuDefendPolicyEntry *pPolicy, octetstring *value)
{
    value->len = CPUDEFEND_PRIORITY_LEN;
    memcpy(value->pBuf, pPolicy->priority, CPUDEFEND_PRIORITY_LEN);
}

void setSrcTraceEnable(tCpuDefendPolicyEntry *pPolicy, uint32_t value)
{
    if (value == CPUDEFEND_ENABLE)
        cpuDefendSrcTraceTimerStart(pPolicy);
    else
        timerStop(&gCpuDefend.timerList, &pPolicy->srcTraceTimer);
    pPolicy->srcTraceEnable = static_cast<uint8_t>(value);
}

void store(tCpuDefendPolicyEntry *pPolicy, const tNmAttr &attr, void *var)
{
    switch (attr.id) {
    case CPUDEFEND_POLICY_DESCRIPTION: return setDescription(pPolicy, nmOctets(var));
    case CPUDEFEND_POLICY_PRIORITY: return setPriority(pPolicy, nmOctets(var));
    case CPUDEFEND_POLICY_SRCTRACEENABLE: return setSrcTraceEnable(pPolicy, nmNumber(var));
    default: nmAttrStoreNumber(attr, pPolicy, nmNumber(var));
    }
}

/** Store after the checks. A list that is off refuses; a bound policy is changed with a warning. */
int32_t checkAndStore(tCpuDefendPolicyEntry *pPolicy, const tNmAttr &attr, void *var)
{
    if ((attr.checks & WHITE_LIST) && pPolicy->whiteListEnable != CPUDEFEND_ENABLE)
        return CPUDEFEND_EWHITELISTOFF;
    if ((attr.checks & BLACK_LIST) && pPolicy->blackListEnable != CPUDEFEND_ENABLE)
        return CPUDEFEND_EBLACKLISTOFF;
    store(pPolicy, attr, var);
    return (attr.checks & IN_USE) && pPolicy->refCount != 0 ? CPUDEFEND_EINUSE : CPUDEFEND_OK;
}

bool isEqual(const tCpuDefendPolicyEntry *pPolicy, const tNmAttr &attr, const void *var)
{
    return (attr.checks & UNLESS_EQUAL) && nmAttrNumber(attr, pPolicy) == nmNumber(var);
}

} // namespace

tNmKind cpuDefendPolicyAttrKind(uint32_t cmd)
{
    return nmAttrKind(attrs, cmd);
}

int32_t cpuDefendPolicyGetApi(tCpuDefendPolicyIdx *nameIdx, uint32_t cmd, void *var)
{
    NmLock lock;
    const tCpuDefendPolicyEntry *pPolicy = find(nameIdx);
    if (!pPolicy)
        return CPUDEFEND_ENOENTRY;
    if (cmd == CPUDEFEND_POLICY_PRIORITY)
        getPriority(pPolicy, nmOctets(var));
    else if (const tNmAttr *attr = nmAttrToGet(attrs, cmd))
        nmAttrGet(*attr, pPolicy, var);
    return CPUDEFEND_OK;
}

int32_t _cpuDefendPolicySetApi(tCpuDefendPolicyIdx *nameIdx, uint32_t cmd, void *var, uint32_t flag)
{
    Change change; // a policy that comes may be bound already, by its name
    tCpuDefendPolicyEntry *pPolicy = find(nameIdx);
    if (!pPolicy && cmd == CPUDEFEND_POLICY_ENTRYSTATUS)
        return setRowStatus(nameIdx, nullptr, nmNumber(var));
    if (!pPolicy)
        return CPUDEFEND_ENOENTRY;
    const tNmAttr *attr = nmAttrToSet(attrs, cmd);
    if (!attr)
        return CPUDEFEND_FAIL;
    if (isEqual(pPolicy, *attr, var))
        return CPUDEFEND_OK;
    const uint32_t syncFlag = attr->kind == NM_OCTETS ? flag | ZYN_SYNC_OCTETS : flag;
    const int32_t result = zynHwPolicySync(nameIdx, ZYN_SYNC_POLICY + cmd, var, syncFlag);
    if (result != 0)
        return result;
    if (cmd == CPUDEFEND_POLICY_ENTRYSTATUS)
        return setRowStatus(nameIdx, pPolicy, nmNumber(var));
    return checkAndStore(pPolicy, *attr, var);
}

int32_t cpuDefendPolicySetApi(tCpuDefendPolicyIdx *nameIdx, uint32_t cmd, void *var)
{
    return _cpuDefendPolicySetApi(nameIdx, cmd, var, ZYN_FLAG_LOCAL);
}

int32_t cpuDefendPolicySyncApi(tCpuDefendPolicyIdx *nameIdx, uint32_t cmd, void *var)
{
    return _cpuDefendPolicySetApi(nameIdx, cmd, var, ZYN_FLAG_PEER);
}

int32_t cpuDefendPolicyGetFirst(tCpuDefendPolicyIdx *nameIdx)
{
    if (!nameIdx)
        return CPUDEFEND_FAIL;
    NmLock lock;
    const auto *pPolicy = static_cast<tCpuDefendPolicyEntry *>(avl_first(&gCpuDefend.policyList));
    if (!pPolicy)
        return CPUDEFEND_FAIL;
    nameOf(pPolicy, nameIdx);
    return CPUDEFEND_OK;
}

int32_t cpuDefendPolicyGetNext(tCpuDefendPolicyIdx *nameIdx, tCpuDefendPolicyIdx *nextNameIdx)
{
    if (nameIdx->len > CPUDEFEND_NAME_MAXLEN)
        return CPUDEFEND_FAIL;
    tCpuDefendPolicyEntry key{};
    key.policyNameLen = static_cast<uint8_t>(nameIdx->len);
    memcpy(key.policyName, nameIdx->name, nameIdx->len);
    NmLock lock;
    void *found = nmAvlAfter(&gCpuDefend.policyList, &key);
    if (!found)
        return CPUDEFEND_FAIL;
    nameOf(static_cast<tCpuDefendPolicyEntry *>(found), nextNameIdx);
    return CPUDEFEND_OK;
}
