/**
 * Which hardware layer the host's configuration asks for.
 */
#ifndef ZYN_INIT_H
#define ZYN_INIT_H

/**
 * The file that asks for the Linux data plane.
 * @param configured the value of CPUDEFEND_PLATFORM, or null; empty counts as not set
 * @param standard   where the file stands otherwise; it asks by being there
 * @return one of the two, or null when the memory layer serves
 */
const char *linuxPlatformAsked(const char *configured, const char *standard);

#endif
