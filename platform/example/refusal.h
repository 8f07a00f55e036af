/**
 * How this layer says that it can't do a thing. It has no hardware; put yours in the place of each
 * refusal.
 */
#ifndef EXAMPLE_REFUSAL_H
#define EXAMPLE_REFUSAL_H

#include <string.h>

#include "zynosal.h"

/** What can't be done. */
typedef struct tRefusal {
    const char *what; /**< as in "couldn't ..." */
    int32_t code;     /**< an errno value above 0 */
    int isSaid;       /**< the daemon asks again and again; the log hears of it once */
} tRefusal;

/** Refuse, and say so the first time. @return the code */
static inline int32_t refuse(tRefusal *refusal)
{
    if (!refusal->isSaid)
        NM_DEBUG_OUTPUT("cpuDefend: couldn't %s: the example layer has no hardware: %s\n",
                        refusal->what, strerror(refusal->code));
    refusal->isSaid = 1;
    return refusal->code;
}

#endif
