#include "zynosal.h"

#include <time.h>

namespace
{

uint64_t monotonicMs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

tOsClock osClock = monotonicMs;

void disarm(tTimerNode *node)
{
    if (!node->link.next)
        return;
    list_del_init(&node->link);
    node->link = {};
}

void insertByExpiry(tTimerLst *list, tTimerNode *node)
{
    // From the end: most timers are armed for later than those already waiting.
    list_head *before = list->prev;
    while (before != list && list_entry(before, tTimerNode, link)->expiry > node->expiry)
        before = before->prev;
    list_add(&node->link, before);
}

tTimerNode *firstTimer(const tTimerLst *list)
{
    return list_empty(list) ? nullptr : list_entry(list->next, tTimerNode, link);
}

/** Move every timer due at @a now from @a list to the end of @a due. */
void moveDue(tTimerLst *list, uint64_t now, list_head *due)
{
    for (tTimerNode *node = firstTimer(list); node && node->expiry <= now;
         node = firstTimer(list)) {
        list_del_init(&node->link);
        list_add_tail(&node->link, due);
    }
}

} // namespace

void osClockSet(tOsClock clock)
{
    osClock = clock ? clock : monotonicMs;
}

uint64_t osClockNow(void)
{
    return osClock();
}

uint32_t sysGetUpTime(void)
{
    return static_cast<uint32_t>(osClockNow() / 10);
}

void timerListInit(tTimerLst *list)
{
    INIT_LIST_HEAD(list);
}

int32_t timerStart(tTimerLst *list, tTimerNode *node, uint32_t period, tTimerFunc func, void *arg1,
                   uintptr_t arg2, uintptr_t arg3)
{
    if (!func)
        return -1;
    disarm(node);
    *node = {.link = {},
             .expiry = osClockNow() + period,
             .func = func,
             .arg1 = arg1,
             .arg2 = arg2,
             .arg3 = arg3};
    insertByExpiry(list, node);
    return 0;
}

void timerStop(tTimerLst *, tTimerNode *node)
{
    disarm(node);
}

int32_t timerListNextTimeout(tTimerLst *list)
{
    const tTimerNode *first = firstTimer(list);
    if (!first)
        return -1;
    const uint64_t now = osClockNow();
    if (first->expiry <= now)
        return 0;
    const uint64_t left = first->expiry - now;
    return left < INT32_MAX ? static_cast<int32_t>(left) : INT32_MAX;
}

void timerListCheck(tTimerLst *list)
{
    // Due timers wait on a list of their own, so that one armed by a callback, even for this
    // very millisecond, is not seen here. Callbacks may take any timer off that list as well.
    list_head due;
    INIT_LIST_HEAD(&due);
    moveDue(list, osClockNow(), &due);
    while (tTimerNode *node = firstTimer(&due)) {
        disarm(node);
        node->func(node->arg1, node->arg2, node->arg3);
    }
}
