/**
 * The packet program in the kernel: loading it, attaching it to ports, telling it the rules.
 */
#ifndef ZYNLINUX_DATAPLANE_H
#define ZYNLINUX_DATAPLANE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bpf/cpudefend_shared.h"
#include "config.h"
#include "descriptor.h"
#include "zynhwal.h"

struct cpudefend_bpf;

namespace zynlinux
{

/** A port with the program on it. */
struct Port {
    std::string name;
    uint32_t ifindex;
    Mode mode;              /**< Native or Generic, as it came to be */
    std::string whyGeneric; /**< what kept it from the native mode; empty when nothing did */
    Descriptor link;
};

/**
 * The program, its maps and its attachments. All of them end with this object, and so with the
 * process, however that ends: nothing is pinned.
 */
class DataPlane
{
public:
    /** Load the program; it is on no port yet. @throw Failure */
    DataPlane();
    ~DataPlane();
    DataPlane(const DataPlane &) = delete;
    DataPlane &operator=(const DataPlane &) = delete;

    /**
     * Put the program on a port.
     * @return the port, which belongs to this object
     * @throw Failure for an unknown port, one that another program holds, or a mode that its
     *        driver does not have
     */
    const Port &attach(const std::string &name, Mode mode);

    const std::vector<Port> &ports() const { return ports_; }

    /**
     * Put an entry in force for a packet type, in place of what is. Every packet is judged by the
     * one or the other, except that while an entry with both policers replaces another one like it
     * the two policers follow each other.
     * @param type  below CPD_TYPES
     * @param entry null lets the type pass
     */
    void enforce(uint32_t type, const tHwCpuDefendPktCarEntry *entry);

    /** For test runs. */
    int program() const;

    /** For readCounters (counters.h). */
    int counters() const;

private:
    void setPolicer(uint32_t type, cpd_kind kind, const cpd_settings &settings);

    std::unique_ptr<cpudefend_bpf, void (*)(cpudefend_bpf *)> skeleton_;
    std::vector<Port> ports_;
    cpd_rule *rules_ = nullptr; /**< the maps themselves, CPD_TYPES elements each */
    cpd_state *states_ = nullptr;
};

} // namespace zynlinux

#endif
