#include "cpuDefend_nm_attr.h"

#include <string.h>

using namespace cpudefend;

uint32_t cpudefend::nmAttrNumber(const tNmAttr &attr, const void *record)
{
    const auto *field = static_cast<const uint8_t *>(record) + attr.offset;
    uint16_t half;
    uint32_t word;
    switch (attr.width) {
    case 1: return *field;
    case 2: memcpy(&half, field, sizeof half); return half;
    default: memcpy(&word, field, sizeof word); return word;
    }
}

void cpudefend::nmAttrStoreNumber(const tNmAttr &attr, void *record, uint32_t number)
{
    auto *field = static_cast<uint8_t *>(record) + attr.offset;
    const auto half = static_cast<uint16_t>(number);
    switch (attr.width) {
    case 1: *field = static_cast<uint8_t>(number); break;
    case 2: memcpy(field, &half, sizeof half); break;
    default: memcpy(field, &number, sizeof number);
    }
}

void cpudefend::nmAttrGet(const tNmAttr &attr, const void *record, void *value)
{
    const auto *bytes = static_cast<const uint8_t *>(record);
    if (attr.kind == NM_OCTETS)
        nmAnswerOctets(value, bytes + attr.offset, bytes[attr.lenOffset]);
    else
        nmSetNumber(value, nmAttrNumber(attr, record));
}

uint32_t cpudefend::nmNumber(const void *value)
{
    uint32_t number;
    memcpy(&number, value, sizeof number);
    return number;
}

void cpudefend::nmSetNumber(void *value, uint32_t number)
{
    memcpy(value, &number, sizeof number);
}

octetstring *cpudefend::nmOctets(void *value)
{
    return static_cast<octetstring *>(value);
}

void cpudefend::nmAnswerOctets(void *value, const uint8_t *bytes, uint32_t len)
{
    octetstring *octets = nmOctets(value);
    if (octets->len > len)
        octets->len = len;
    memmove(octets->pBuf, bytes, octets->len);
}

bool cpudefend::nmIsName(const octetstring *value, const uint8_t *name, uint8_t len)
{
    return value->len == len && memcmp(value->pBuf, name, len) == 0;
}

void cpudefend::nmStoreName(uint8_t (&name)[CPUDEFEND_NAME_MAXLEN], uint8_t *len,
                            const octetstring *value)
{
    const uint32_t wanted = value ? value->len : 0;
    *len = static_cast<uint8_t>(wanted < sizeof name ? wanted : sizeof name);
    memset(name, 0, sizeof name);
    if (*len != 0)
        memcpy(name, value->pBuf, *len);
}

int32_t cpudefend::nmFindPolicy(const octetstring *value, tCpuDefendPolicyEntry **policy)
{
    *policy = nullptr;
    if (value->len == 0)
        return CPUDEFEND_OK;
    *policy = cpuDefendPolicyEntryGet(value->pBuf, value->len);
    return *policy ? CPUDEFEND_OK : CPUDEFEND_ENONAME;
}

bool cpudefend::nmPolicyIsBound(const uint8_t *name, uint32_t len)
{
    const tCpuDefendPolicyEntry *policy = cpuDefendPolicyEntryGet(name, len);
    return policy && policy->refCount != 0;
}

void *cpudefend::nmAvlAfter(avl_tree_t *tree, const void *key)
{
    avl_index_t where;
    void *found = avl_find(tree, key, &where);
    return found ? avl_next(tree, found) : avl_nearest(tree, where, AVL_AFTER);
}

cpudefend::NmText::NmText(const uint8_t *name, uint32_t len)
{
    memcpy(text, name, len);
    text[len] = '\0';
}
