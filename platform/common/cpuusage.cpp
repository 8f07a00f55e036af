#include "cpuusage.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

namespace
{

constexpr int fieldsAtLeast = CPU_IDLE + 1;
constexpr size_t lineMax = 256; // ten counters of at most 20 digits

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool endsNumber(char c)
{
    return c == ' ' || c == '\n' || c == '\0';
}

/** Read a number at @a at and move past it; stay there when there is none that fits. */
bool takeNumber(const char *&at, uint64_t &number)
{
    uint64_t value = 0;
    const char *p = at;
    for (; isDigit(*p); p++) {
        uint64_t digit = static_cast<uint64_t>(*p - '0');
        if (value > (UINT64_MAX - digit) / 10)
            return false;
        value = value * 10 + digit;
    }
    if (p == at || !endsNumber(*p))
        return false;
    number = value;
    at = p;
    return true;
}

/** Read the beginning of a file, NUL-terminated. @return 0 or an errno value */
int32_t readHead(const char *path, char *text, size_t size)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno;
    ssize_t got;
    do
        got = read(fd, text, size - 1);
    while (got < 0 && errno == EINTR);
    int32_t result = got < 0 ? errno : 0;
    close(fd);
    text[got < 0 ? 0 : got] = '\0';
    return result;
}

} // namespace

int cpuSampleParse(const char *line, tCpuSample *sample)
{
    static const char label[] = "cpu ";
    if (strncmp(line, label, sizeof label - 1) != 0)
        return -1;
    const char *at = line + sizeof label - 1;
    tCpuSample read = {};
    int fields = 0;
    while (fields < CPU_FIELDS) {
        at += strspn(at, " ");
        if (!takeNumber(at, read.ticks[fields]))
            break;
        fields++;
    }
    if (fields < fieldsAtLeast || !endsNumber(*at))
        return -1;
    *sample = read;
    return 0;
}

int cpuUsageCompute(const tCpuSample *before, const tCpuSample *now, uint32_t scale,
                    uint32_t *usage)
{
    uint64_t delta[CPU_FIELDS];
    uint64_t greatest = 0;
    for (int i = 0; i < CPU_FIELDS; i++) {
        delta[i] = now->ticks[i] > before->ticks[i] ? now->ticks[i] - before->ticks[i] : 0;
        if (delta[i] > greatest)
            greatest = delta[i];
    }
    // Eight deltas below 2^29 add up to less than 2^32, which leaves room for any scale.
    int shift = 0;
    while (greatest >> shift >= 1u << 29)
        shift++;
    uint64_t total = 0;
    for (uint64_t ticks : delta)
        total += ticks >> shift;
    if (total == 0)
        return -1;
    uint64_t idle = (delta[CPU_IDLE] >> shift) + (delta[CPU_IOWAIT] >> shift);
    *usage = static_cast<uint32_t>((total - idle) * scale / total);
    return 0;
}

int32_t cpuMeterRead(tCpuMeter *meter, const char *path, uint32_t scale, uint32_t *usage)
{
    char line[lineMax];
    int32_t result = readHead(path, line, sizeof line);
    if (result != 0)
        return result;
    tCpuSample now;
    if (cpuSampleParse(line, &now) != 0)
        return EIO;
    (void)cpuUsageCompute(&meter->last, &now, scale, &meter->usage); // no tick: the last value
    meter->last = now;
    *usage = meter->usage;
    return 0;
}

int32_t cpuMetersRead(tCpuMeters *meters, const char *path, uint32_t selector, uint32_t *usage)
{
    static const uint32_t scales[] = {100, 10000};
    return cpuMeterRead(&meters->meter[selector], path, scales[selector], usage);
}
