/**
 * What the kernel's own protocols count of what they took.
 */
#ifndef REACH_KERNEL_COUNTERS_H
#define REACH_KERNEL_COUNTERS_H

#include <memory>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "consumers.h"

/** A consumer in the kernel, and the counters that say what it took: their sum. */
struct KernelConsumer {
    const char *name;
    Verdicts verdicts;
    std::vector<std::string> counters; /**< "Ip InDelivers", or "Ip6InDelivers" */
};

const std::vector<KernelConsumer> &kernelConsumers();

/** The tables of /proc, read all at once. */
class KernelCounters
{
public:
    KernelCounters();

    void refresh();

    /** What the counters grow by from one refresh() to another. This must stay where it is. */
    std::unique_ptr<Eye> watch(const std::vector<std::string> &names) const;

    /** Packets that the host sent to itself, in the same way. */
    std::unique_ptr<Eye> watchOwn() const;

    /**
     * A number of the tables with titles ("Ip InDelivers") or the list for IPv6 ("Ip6InDelivers"),
     * or what the loopback device has carried ("lo:").
     * @throw std::runtime_error when the kernel has no such counter
     */
    uint64_t number(const std::string &name) const;

private:
    std::vector<zynlinux::Descriptor> files_;
    std::string text_;
};

/** BPDUs that the kernel's spanning tree took from a port of a bridge. */
std::unique_ptr<Eye> watchSpanningTree(const std::string &port);

#endif
