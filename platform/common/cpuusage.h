/**
 * CPU usage of the host, from the tick counters that the kernel shows in /proc/stat.
 */
#ifndef CPUUSAGE_H
#define CPUUSAGE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Counters of the line "cpu" in the order they stand there; see proc(5). */
enum {
    CPU_USER,
    CPU_NICE,
    CPU_SYSTEM,
    CPU_IDLE,
    CPU_IOWAIT,
    CPU_IRQ,
    CPU_SOFTIRQ,
    CPU_STEAL,
    CPU_FIELDS
};

/** One reading: ticks since boot, over all CPUs. All zero, it stands for boot itself. */
typedef struct tCpuSample {
    uint64_t ticks[CPU_FIELDS];
} tCpuSample;

/**
 * Parse the first line of /proc/stat.
 *
 * The guest counters behind CPU_STEAL are contained in user and nice already and are not read.
 * Counters that an old kernel does not show, CPU_IOWAIT and those after it, count as 0.
 *
 * @param line ends with a line feed or a NUL
 * @return 0, or -1 when this is no such line; the sample is then untouched
 */
int cpuSampleParse(const char *line, tCpuSample *sample);

/**
 * The share of the time between two readings that was not idle (idle and iowait are), rounded
 * down. A counter that went backwards, as iowait may, counts as one that stood still.
 *
 * @param scale what full use amounts to: 100 for percent
 * @return 0, or -1 when no tick went by; the usage is then untouched
 */
int cpuUsageCompute(const tCpuSample *before, const tCpuSample *now, uint32_t scale,
                    uint32_t *usage);

/** What one reader of the usage remembers. All zero before its first reading. */
typedef struct tCpuMeter {
    tCpuSample last; /**< its last reading */
    uint32_t usage;  /**< what that reading gave */
} tCpuMeter;

/**
 * Read the usage since this meter's last reading, at first since boot. When no tick went by the
 * last value stands, 0 at first.
 *
 * @param path  "/proc/stat", or a file like it
 * @param scale as in cpuUsageCompute
 * @param usage receives the usage; untouched, as the meter is, on failure
 * @return 0, or an errno value: EIO for a file that begins with another line
 */
int32_t cpuMeterRead(tCpuMeter *meter, const char *path, uint32_t scale, uint32_t *usage);

/** The two readers of zynHwCpuGet, by selector: 0 in percent, 1 in hundredths of a percent. */
typedef struct tCpuMeters {
    tCpuMeter meter[2];
} tCpuMeters;

/** Read the usage as zynHwCpuGet does. @param selector 0 or 1; the rest as in cpuMeterRead */
int32_t cpuMetersRead(tCpuMeters *meters, const char *path, uint32_t selector, uint32_t *usage);

#ifdef __cplusplus
}
#endif

#endif
