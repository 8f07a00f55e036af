/**
 * The journal of a hardware layer: one JSON object per line for every call. docs/journal.md
 * describes the lines.
 *
 * A line is written between journalBegin and journalEnd, member by member; while no journal is
 * open journalBegin returns false and the rest must not be called.
 */
#ifndef ZYN_JOURNAL_H
#define ZYN_JOURNAL_H

#include "zynhwal.h"

/**
 * Open the journal, behind what the file holds already. A new file is readable by its owner
 * alone. From then on the process ignores SIGXFSZ, so that a journal which can't be written any
 * more costs lines and not the daemon.
 * @return 0 or an errno value: EINVAL for what is no regular file, ELOOP for a link, which is not
 *         followed
 */
int32_t journalOpen(const char *path);

/**
 * Open the journal that the environment variable CPUDEFEND_JOURNAL names; without one, or with an
 * empty one, there is none.
 * @return 0, or -1 with the reason printed on standard error
 */
int32_t journalInit();

/** Close the journal, if one is open. The next one starts at number 1. */
void journalClose();

/** Begin the line of a call. @return whether a journal is open */
bool journalBegin(const char *call);

/** Begin a member whose value is an object. */
void journalObject(const char *key);
void journalObjectEnd();

void journalNumber(const char *key, int64_t number);
void journalCount(const char *key, uint64_t count);
void journalNull(const char *key);

/** A hardware command or condition: by its name, or as a number when it has none. */
void journalId(const char *key, uint32_t id);

/** A run of bytes as a string; null without one. */
void journalOctets(const char *key, const octetstring *octets);

/** A slot as an object; null for the system. */
void journalSlot(const char *key, const tSlotIndex *slot);

/** The settings of a CAR entry as an object; null without one. */
void journalCar(const char *key, const tHwCpuDefendPktCarEntry *entry);

/** End the line with the result of the call, and write it. */
void journalEnd(int32_t result);

#endif
