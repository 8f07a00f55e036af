/**
 * Whether this machine lets a test load packet programs, asked without the program under test.
 */
#ifndef BPF_PROBE_H
#define BPF_PROBE_H

#include <cerrno>
#include <cstring>
#include <string>

#include <bpf/bpf.h>
#include <linux/bpf.h>

#include "base/descriptor.h"

/** A program that gives every packet the same verdict. */
inline zynlinux::Descriptor constantProgram(int verdict)
{
    const bpf_insn instructions[] = {
        {BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, verdict},
        {BPF_JMP | BPF_EXIT, 0, 0, 0, 0},
    };
    return zynlinux::Descriptor(
        bpf_prog_load(BPF_PROG_TYPE_XDP, "constant", "MIT", instructions, 2, nullptr));
}

/** Empty, or the reason why packet programs cannot be loaded here. */
inline std::string bpfMissing()
{
    if (constantProgram(XDP_PASS).get() >= 0)
        return {};
    return std::string("packet programs cannot be loaded here: ") + std::strerror(errno);
}

#define SKIP_WITHOUT_BPF()                                                                         \
    if (std::string missing = bpfMissing(); !missing.empty())                                      \
    GTEST_SKIP() << missing

#endif
