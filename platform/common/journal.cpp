#include "journal.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

/** The open journal and the line being written. */
struct tJournal {
    int fd = -1;
    uint64_t seq = 0;        /**< number of the last line; a lost line has one too */
    bool first = false;      /**< the next member is the first of its object */
    bool lost = false;       /**< the rest of this line is not to be written */
    bool torn = false;       /**< the file does not end with a line feed */
    bool complained = false; /**< a failure was reported */
    size_t used = 0;
    char text[1024]; /**< of the line, what is not written yet */
};

tJournal journal;

void lose()
{
    journal.lost = true;
    if (journal.complained)
        return;
    journal.complained = true;
    fprintf(stderr, "cpuDefend: couldn't write the journal: %s\n", strerror(errno));
}

void flush()
{
    size_t done = 0;
    while (done < journal.used && !journal.lost) {
        ssize_t n = write(journal.fd, journal.text + done, journal.used - done);
        if (n >= 0) {
            done += static_cast<size_t>(n);
            journal.torn = true;
        } else if (errno != EINTR) {
            lose();
        }
    }
    journal.used = 0;
}

void put(char c)
{
    if (journal.used == sizeof journal.text)
        flush();
    journal.text[journal.used++] = c;
}

void put(const char *text)
{
    while (*text != '\0')
        put(*text++);
}

/** Put a short run of plain text: at most 63 characters. */
__attribute__((format(printf, 1, 2))) void print(const char *format, ...)
{
    char text[64];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    put(text);
}

void putKey(const char *key)
{
    if (!journal.first)
        put(',');
    journal.first = false;
    print("\"%s\":", key);
}

void putWord(const char *key, const char *word)
{
    putKey(key);
    print("\"%s\"", word);
}

/** One byte within a string. Outside printable ASCII it stands as the code point it equals. */
void putEscaped(unsigned char c)
{
    if (c < 0x20 || c >= 0x7f) {
        print("\\u%04x", c);
        return;
    }
    if (c == '"' || c == '\\')
        put('\\');
    put(static_cast<char>(c));
}

struct tIdName {
    uint32_t id;
    const char *name;
};

const tIdName idNames[] = {
    {HW_SYS_SWRUNNINGROLEISMASTER, "HW_SYS_SWRUNNINGROLEISMASTER"},
    {HW_SYS_SWRUNNINGROLEISSLAVE, "HW_SYS_SWRUNNINGROLEISSLAVE"},
    {HW_SYS_CPUDEFENDPKTCARADD, "HW_SYS_CPUDEFENDPKTCARADD"},
    {HW_SYS_CPUDEFENDPKTCARDEL, "HW_SYS_CPUDEFENDPKTCARDEL"},
    {HW_SLOT_CPUDEFENDPKTCARADD, "HW_SLOT_CPUDEFENDPKTCARADD"},
    {HW_SLOT_CPUDEFENDPKTCARDEL, "HW_SLOT_CPUDEFENDPKTCARDEL"},
    {HW_CPU_USED, "HW_CPU_USED"},
};

const char *reasonOf(int32_t error)
{
    switch (error) {
    case EINVAL: return "it is no regular file";
    case ELOOP: return "it is a symbolic link";
    default: return strerror(error);
    }
}

} // namespace

int32_t journalOpen(const char *path)
{
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0)
        return errno == ENXIO ? EINVAL : errno; // a pipe that nobody reads, or a socket
    struct stat status;
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        close(fd);
        return EINVAL;
    }
    journalClose();
    signal(SIGXFSZ, SIG_IGN);
    journal.fd = fd;
    return 0;
}

int32_t journalInit()
{
    const char *path = getenv("CPUDEFEND_JOURNAL");
    if (path == nullptr || *path == '\0') {
        journalClose();
        return 0;
    }
    int32_t error = journalOpen(path);
    if (error == 0)
        return 0;
    fprintf(stderr, "cpuDefend: couldn't open the journal %s: %s\n", path, reasonOf(error));
    return -1;
}

void journalClose()
{
    if (journal.fd >= 0)
        close(journal.fd);
    journal = tJournal();
}

bool journalBegin(const char *call)
{
    if (journal.fd < 0)
        return false;
    journal.lost = false;
    journal.first = true;
    if (journal.torn) // by a failure: what follows gets a line of its own
        put('\n');
    put('{');
    journalNumber("seq", static_cast<int64_t>(++journal.seq));
    uint64_t now = osClockNow() / 10; // hundredths of a second
    putKey("uptime");
    print("%" PRIu64 ".%02u", now / 100, static_cast<unsigned>(now % 100));
    putWord("call", call);
    return true;
}

void journalObject(const char *key)
{
    putKey(key);
    put('{');
    journal.first = true;
}

void journalObjectEnd()
{
    put('}');
    journal.first = false;
}

void journalNumber(const char *key, int64_t number)
{
    putKey(key);
    print("%" PRId64, number);
}

void journalCount(const char *key, uint64_t count)
{
    putKey(key);
    print("%" PRIu64, count);
}

void journalNull(const char *key)
{
    putKey(key);
    put("null");
}

void journalId(const char *key, uint32_t id)
{
    for (const tIdName &known : idNames) {
        if (known.id == id) {
            putWord(key, known.name);
            return;
        }
    }
    journalNumber(key, id);
}

void journalOctets(const char *key, const octetstring *octets)
{
    if (octets == nullptr) {
        journalNull(key);
        return;
    }
    uint32_t len = octets->pBuf != nullptr ? octets->len : 0;
    putKey(key);
    put('"');
    for (uint32_t i = 0; i < len; i++)
        putEscaped(octets->pBuf[i]);
    put('"');
}

void journalSlot(const char *key, const tSlotIndex *slot)
{
    if (slot == nullptr) {
        journalNull(key);
        return;
    }
    journalObject(key);
    journalNumber("sys", slot->sys);
    journalNumber("slot", slot->slot);
    journalNumber("type", slot->type);
    journalObjectEnd();
}

void journalCar(const char *key, const tHwCpuDefendPktCarEntry *entry)
{
    if (entry == nullptr) {
        journalNull(key);
        return;
    }
    journalObject(key);
    journalNumber("pktType", entry->pktType);
    journalNumber("cir", entry->cir);
    journalNumber("cbs", entry->cbs);
    journalNumber("pps", entry->pps);
    journalNumber("queue", entry->queue);
    journalNumber("priority", entry->priority);
    journalNumber("op", entry->op);
    journalNumber("bit", entry->res);
    journalObjectEnd();
}

void journalEnd(int32_t result)
{
    journalNumber("result", result);
    put("}\n");
    flush();
    if (!journal.lost)
        journal.torn = false;
}
