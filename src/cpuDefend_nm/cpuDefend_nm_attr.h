/**
 * Attributes as data: where an attribute stands in its record, and what may be done with it.
 */
#ifndef CPUDEFEND_NM_ATTR_H
#define CPUDEFEND_NM_ATTR_H

#include <stddef.h>

#include "cpuDefend_nm_api.h"

namespace cpudefend
{

/** One attribute. Row n of a table is attribute n. */
struct tNmAttr {
    uint32_t id;
    tNmKind kind;
    uint8_t width;      /**< bytes of a number: 1, 2 or 4 */
    uint8_t checks;     /**< access, and what else a set looks at, by table */
    uint16_t offset;    /**< of the number or the bytes in the record */
    uint16_t lenOffset; /**< of the 8-bit length that goes with bytes */
};

/** Access: bits of tNmAttr::checks. With neither, an attribute is read and set. */
enum : uint8_t {
    NM_READ_ONLY = 0x80,
    NM_SET_ONLY = 0x40 /**< an order: there is nothing to read */
};

/** A number in field @a field of record type @a type. */
#define NM_ATTR_NUMBER(id, type, field, checks)                                                    \
    {                                                                                              \
        id, NM_NUMBER, sizeof(type::field), checks, offsetof(type, field), 0                       \
    }

/** Bytes in field @a field, their count in @a lenField. */
#define NM_ATTR_OCTETS(id, type, field, lenField, checks)                                          \
    {                                                                                              \
        id, NM_OCTETS, 0, checks, offsetof(type, field), offsetof(type, lenField)                  \
    }

/** An attribute without a field of its own. */
#define NM_ATTR_NO_FIELD(id, kind, checks)                                                         \
    {                                                                                              \
        id, kind, 0, checks, 0, 0                                                                  \
    }

/** Whether row n of a table is attribute n, for a static_assert beside each table. */
template <typename Attr, size_t N> constexpr bool nmAttrsInOrder(const Attr (&attrs)[N])
{
    for (size_t i = 0; i < N; i++)
        if (attrs[i].id != i)
            return false;
    return true;
}

/** The same for a table whose rows have a function `set`: whether just those that can be set do. */
template <typename Attr, size_t N> constexpr bool nmSettersMatch(const Attr (&attrs)[N])
{
    for (const Attr &attr : attrs)
        if ((attr.set == nullptr) != ((attr.checks & NM_READ_ONLY) != 0))
            return false;
    return true;
}

/** @return attribute @a id, or null for an id that stands for none */
template <typename Attr, size_t N> const Attr *nmAttr(const Attr (&attrs)[N], uint32_t id)
{
    return id < N ? &attrs[id] : nullptr;
}

/** The same of one that can be read. */
template <typename Attr, size_t N> const Attr *nmAttrToGet(const Attr (&attrs)[N], uint32_t id)
{
    const Attr *attr = nmAttr(attrs, id);
    return attr && !(attr->checks & NM_SET_ONLY) ? attr : nullptr;
}

/** The same of one that can be set. */
template <typename Attr, size_t N> const Attr *nmAttrToSet(const Attr (&attrs)[N], uint32_t id)
{
    const Attr *attr = nmAttr(attrs, id);
    return attr && !(attr->checks & NM_READ_ONLY) ? attr : nullptr;
}

/** Kind of attribute @a id, of an id that stands for none too. */
template <typename Attr, size_t N> tNmKind nmAttrKind(const Attr (&attrs)[N], uint32_t id)
{
    const Attr *attr = nmAttr(attrs, id);
    return attr ? attr->kind : NM_ANY;
}

/** The number of attribute @a attr in @a record, zero-extended. */
uint32_t nmAttrNumber(const tNmAttr &attr, const void *record);

/** Store the low bytes of @a number in the attribute's field. */
void nmAttrStoreNumber(const tNmAttr &attr, void *record, uint32_t number);

/** Put the attribute into @a value: a number into its first word, or bytes as far as they fit. */
void nmAttrGet(const tNmAttr &attr, const void *record, void *value);

/** The number in a value: its first 32-bit word. */
uint32_t nmNumber(const void *value);
void nmSetNumber(void *value, uint32_t number);

/** The bytes in a value. */
octetstring *nmOctets(void *value);

/** Answer @a value with at most as many of the @a len bytes at @a bytes as it asked for. */
void nmAnswerOctets(void *value, const uint8_t *bytes, uint32_t len);

/** Whether the bytes in @a value are that name. */
bool nmIsName(const octetstring *value, const uint8_t *name, uint8_t len);

/** Store the bytes in @a value, cut to 32, as a name; null stands for the empty name. */
void nmStoreName(uint8_t (&name)[CPUDEFEND_NAME_MAXLEN], uint8_t *len, const octetstring *value);

/**
 * Find the policy that @a value names.
 * @param policy receives it; null for the empty name or when there is none
 * @return CPUDEFEND_OK, or CPUDEFEND_ENONAME
 */
int32_t nmFindPolicy(const octetstring *value, tCpuDefendPolicyEntry **policy);

/** Whether there is a policy of that name and it is programmed anywhere. */
bool nmPolicyIsBound(const uint8_t *name, uint32_t len);

/** The record of @a tree that follows @a key, which need not be in it; null after the last. */
void *nmAvlAfter(avl_tree_t *tree, const void *key);

/** Delete the traced sources that @a concerns. */
template <typename Concerns> void nmDeleteSrcTraces(Concerns concerns)
{
    void *next;
    for (void *found = avl_first(&gCpuDefend.srcTraceList); found; found = next) {
        auto *entry = static_cast<tCpuDefendSrcTraceEntry *>(found);
        next = avl_next(&gCpuDefend.srcTraceList, found);
        if (concerns(entry))
            cpuDefendSrcTraceEntryDel(entry);
    }
}

/** A name as text for printing. */
struct NmText {
    NmText(const uint8_t *name, uint32_t len);
    char text[CPUDEFEND_NAME_MAXLEN + 1];
};

/** Holds the daemon's semaphore while it lives. */
class NmLock
{
public:
    NmLock() { OsixTakeSem(gCpuDefend.cpuDefendSem, OSIX_WAIT_FOREVER); }
    ~NmLock() { OsixGiveSem(gCpuDefend.cpuDefendSem); }
    NmLock(const NmLock &) = delete;
    NmLock &operator=(const NmLock &) = delete;
};

} // namespace cpudefend

#endif
