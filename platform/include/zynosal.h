/**
 * OS layer: what the daemon needs of its operating system.
 *
 * Lists, AVL trees, a timer list, a semaphore, the cursor over management messages, the
 * up-time clock and diagnostics. Nothing here allocates but OsixCreateMSem and zynCatchSegFault,
 * nothing here throws, and nothing but the semaphore may be used from more than one thread.
 *
 * A port replaces platform/osal by a library with these functions; the records below are laid
 * out by this header and shared with the daemon.
 */
#ifndef ZYNOSAL_H
#define ZYNOSAL_H

#include <stddef.h>
#include <stdint.h>

#include "zynwire.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Values that cross the management API --------------------------------------------- */

/** A run of bytes: @a len bytes at @a pBuf, not NUL-terminated, not owned. */
typedef struct octetstring {
    unsigned char *pBuf;
    uint32_t len;
} octetstring;

/** A 64-bit counter as two 32-bit halves, the order in which it travels. */
typedef struct U_INT8 {
    uint32_t high;
    uint32_t low;
} U_INT8;

/* ---- Intrusive doubly linked lists ---------------------------------------------------- */

/** Head of a list, or the link of one element. An all-zero link is on no list. */
typedef struct list_head {
    struct list_head *next;
    struct list_head *prev;
} list_head;

static inline void INIT_LIST_HEAD(list_head *head)
{
    head->next = head;
    head->prev = head;
}

static inline int list_empty(const list_head *head)
{
    return head->next == head;
}

static inline void list_insert_between(list_head *node, list_head *prev, list_head *next)
{
    node->prev = prev;
    node->next = next;
    prev->next = node;
    next->prev = node;
}

/** Insert @a node as the first element of @a head. */
static inline void list_add(list_head *node, list_head *head)
{
    list_insert_between(node, head, head->next);
}

/** Insert @a node as the last element of @a head; with an element as @a head, just before it. */
static inline void list_add_tail(list_head *node, list_head *head)
{
    list_insert_between(node, head->prev, head);
}

/** Unlink @a node, which must be on a list, and leave it pointing to itself. */
static inline void list_del_init(list_head *node)
{
    node->prev->next = node->next;
    node->next->prev = node->prev;
    INIT_LIST_HEAD(node);
}

/** The record of type @a type whose member @a member is the link @a ptr. */
#define list_entry(ptr, type, member) ((type *)(void *)((char *)(ptr)-offsetof(type, member)))

/** Walk the records of a list in order; the body must not unlink @a pos. */
#define list_for_each_entry(type, pos, head, member)                                               \
    for (type *pos = list_entry((head)->next, type, member); &pos->member != (head);               \
         pos = list_entry(pos->member.next, type, member))

/* ---- AVL trees ------------------------------------------------------------------------ */

/** Link of one record in a tree. */
typedef struct avl_node_t {
    struct avl_node_t *child[2]; /**< subtrees of smaller [0] and greater [1] records */
    struct avl_node_t *parent;   /**< null at the root */
    int balance;                 /**< height of child[1] minus height of child[0]: -1, 0 or 1 */
} avl_node_t;

/** Order of two records: negative, 0 or positive as @a a stands before, at or after @a b. */
typedef int (*avl_cmp_t)(const void *a, const void *b);

typedef struct avl_tree_t {
    avl_node_t *root;
    avl_cmp_t cmp;
    size_t offset;  /**< of the avl_node_t within a record, in bytes */
    uint32_t count; /**< records in the tree */
} avl_tree_t;

/** A place where a missing record would be inserted; valid until the tree changes. */
typedef struct avl_index_t {
    avl_node_t *node; /**< the node below which it would hang; null in an empty tree */
    int child;        /**< the side: 0 when it is smaller than @a node, 1 when greater */
} avl_index_t;

#define AVL_BEFORE 0
#define AVL_AFTER 1

/**
 * Make @a tree empty.
 * @param cmp    total order of the records
 * @param size   size of a record in bytes, at least @a offset plus the size of a node
 * @param offset of the avl_node_t within a record, in bytes
 */
void avl_create(avl_tree_t *tree, avl_cmp_t cmp, size_t size, size_t offset);

/**
 * Insert @a record, whose key fields are set.
 * @return 0, or -1 when an equal record is in the tree already (nothing changes)
 */
int avl_add(avl_tree_t *tree, void *record);

/**
 * Find the record equal to @a key (a record of which only the key fields count).
 * @param where null, or receives the insertion place when nothing is found
 * @return the record or null
 */
void *avl_find(avl_tree_t *tree, const void *key, avl_index_t *where);

/** Take @a record, which must be in the tree, out of it. Other records stay where they are. */
void avl_remove(avl_tree_t *tree, void *record);

/** The smallest record, or null in an empty tree. */
void *avl_first(avl_tree_t *tree);

/** The successor of @a record, which must be in the tree, or null after the last. */
void *avl_next(avl_tree_t *tree, void *record);

/**
 * The record next to a place that avl_find gave.
 * @param direction AVL_AFTER for the nearest greater record, AVL_BEFORE for the nearest smaller
 * @return the record, or null when there is none on that side
 */
void *avl_nearest(avl_tree_t *tree, avl_index_t where, int direction);

/* ---- Clock and timers ----------------------------------------------------------------- */

/** Milliseconds of a monotonic clock. */
typedef uint64_t (*tOsClock)(void);

/**
 * Replace the clock behind the timers and sysGetUpTime, so that a test can step it.
 * @param clock the new source; null restores CLOCK_MONOTONIC
 */
void osClockSet(tOsClock clock);

/** The clock's reading, in milliseconds. */
uint64_t osClockNow(void);

/** Up-time in hundredths of a second, wrapping at 2^32 (as sysUpTime, RFC 3418). */
uint32_t sysGetUpTime(void);

typedef int32_t (*tTimerFunc)(void *arg1, uintptr_t arg2, uintptr_t arg3);

/** One timer. All zero, it is stopped. It may be embedded in a record of a pool. */
typedef struct tTimerNode {
    list_head link;  /**< in its list while armed; all zero while not */
    uint64_t expiry; /**< osClockNow() at which it is due */
    tTimerFunc func;
    void *arg1;
    uintptr_t arg2;
    uintptr_t arg3;
} tTimerNode;

/** Armed timers, the next one due first; equal expiries in the order they were armed. */
typedef list_head tTimerLst;

void timerListInit(tTimerLst *list);

/**
 * Arm @a node to call @a func(arg1, arg2, arg3) once, @a period milliseconds from now. A node
 * that is armed already is re-armed.
 * @return 0, or -1 without a callback (nothing changes)
 */
int32_t timerStart(tTimerLst *list, tTimerNode *node, uint32_t period, tTimerFunc func, void *arg1,
                   uintptr_t arg2, uintptr_t arg3);

/** Disarm @a node; a node that is not armed stays so. Safe in any callback, for any node. */
void timerStop(tTimerLst *list, tTimerNode *node);

/**
 * Milliseconds until the first timer is due, INT32_MAX at the most: 0 when it is overdue, -1
 * without an armed timer. In a callback, timers that the check has yet to call don't count.
 */
int32_t timerListNextTimeout(tTimerLst *list);

/**
 * Call every timer that is due, in order of expiry. Each is disarmed before its call, so it may
 * re-arm itself; a timer armed during the call runs at the next check at the earliest. A callback
 * may start and stop any timer: one that is due in the same check is then not called by it.
 */
void timerListCheck(tTimerLst *list);

/* ---- Semaphore ------------------------------------------------------------------------ */

typedef struct tOsixSem *tOsixSemId;
typedef uint32_t tOsixTaskId;

#define OSIX_WAIT_FOREVER (-1)

/**
 * Create a mutual-exclusion semaphore, free, that its holder may take again.
 * @param options option word for the target's kernel; a POSIX host needs none of it
 * @return the semaphore, or null when there is no memory
 */
tOsixSemId OsixCreateMSem(uint32_t options);

/**
 * Take @a sem, as many times as the holder likes.
 * @param wait OSIX_WAIT_FOREVER (as any negative number), or the longest wait in milliseconds
 * @return 0, or -1 when it was not free in time
 */
int32_t OsixTakeSem(tOsixSemId sem, int32_t wait);

/** Give back one take of @a sem. @return 0, or -1 when the caller does not hold it */
int32_t OsixGiveSem(tOsixSemId sem);

/** Destroy @a sem, which nobody holds; null is allowed. */
void OsixDeleteSem(tOsixSemId sem);

/* ---- ADR: the cursor over a management message ---------------------------------------- */

/**
 * A read and write position in one message, whose format zynwire.h describes. No call moves, reads
 * or writes beyond the message.
 */
typedef struct adr_t {
    unsigned char *adr_stream; /**< start of the message */
    unsigned char *adr_now;    /**< position */
    unsigned char *adr_end;    /**< first byte past the message */
} adr_t;

/** Put the cursor at the start of the @a len bytes at @a stream. */
void adr_start(adr_t *adr, unsigned char *stream, uint32_t len);

/** Bytes between the start of the message and the cursor. */
uint32_t adr_count(const adr_t *adr);

/** Bytes between the cursor and the end of the message. */
uint32_t adr_left(const adr_t *adr);

/*
 * All of the following advance the cursor past what they read or write and return 0. When
 * that would pass the end of the message they return -1 and neither move the cursor nor touch
 * the result, the encoders excepted (see there).
 */

/** Move the cursor to @a pos bytes from the start of the message. */
int adr_pos(adr_t *adr, uint32_t pos);

/** Move the cursor @a count bytes forward. */
int adr_offset(adr_t *adr, uint32_t count);

/** Function code, and whatever precedes the return code (request id and reserved word). */
int adr_decodefunc(adr_t *adr, uint32_t *func);
int adr_decoderetcode(adr_t *adr, int32_t *retCode);
int adr_decodecmd(adr_t *adr, uint32_t *cmd);

/** Copy @a len bytes to @a dst, which may be where they already stand. */
int adr_getchar(adr_t *adr, void *dst, uint32_t len);
int adr_getushort(adr_t *adr, uint16_t *value);
int adr_getuint32(adr_t *adr, uint32_t *value);
int adr_getint32(adr_t *adr, int32_t *value);

/**
 * Write an integer or an item. What does not fit is cut off at the end of the message, where the
 * cursor then stands, and the result is -1.
 *
 * adr_encodedata takes @a data as @a len bytes for ZYN_ITEM_OCTETS (they may overlap the place
 * they are written to), a uint32_t for ZYN_ITEM_UINT32 (@a len is 4) and a U_INT8 for
 * ZYN_ITEM_COUNTER64 (@a len is 8); another type is written as its head alone. The head carries
 * @a len as it is.
 */
int adr_int32(adr_t *adr, int32_t value);
int adr_encodedata(adr_t *adr, unsigned char type, uint16_t len, const void *data);

/* ---- Diagnostics ---------------------------------------------------------------------- */

/** What messages are about. */
enum {
    OS_MESSAGES_OF_START,   /**< a start says as much as it has to */
    OS_MESSAGES_OF_EVENTS,  /**< what happens by itself, or is done to us from outside */
    OS_MESSAGES_OF_REQUESTS /**< what somebody asks for who may be watching */
};

#define OS_MESSAGES_BURST 1000 /**< messages of events, and as many of requests, at once */
#define OS_MESSAGES_RATE 20    /**< more of them in each second */

/**
 * Print to standard error, as printf; errno stays as it is. A message that osMessageAdmitted
 * refuses is left out.
 */
void NM_DEBUG_OUTPUT(const char *format, ...) __attribute__((format(printf, 1, 2)));

/**
 * Say what the messages from now on are about; of a start to begin with. To be called now and
 * then: how many were left out since is said here, once a second at most.
 * @param about OS_MESSAGES_OF_EVENTS or OS_MESSAGES_OF_REQUESTS; another value stands for a start
 */
void osMessagesAbout(uint32_t about);

/**
 * Whether a message may be printed now, by whatever means. One that may counts as printed, one
 * that may not as left out. Events and requests do not take from each other.
 * @return 1, or 0 while there were too many
 */
int osMessageAdmitted(void);

/**
 * From now on a fatal signal (SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT) prints its name and a
 * backtrace on standard error before its default action ends the process; in the calling thread
 * also when its stack has run out.
 */
void zynCatchSegFault(void);

#ifdef __cplusplus
}
#endif

#endif
