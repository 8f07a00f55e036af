/**
 * A daemon that dies in the middle of a change, between what it keeps and what it puts in force.
 */
#include <csignal>
#include <sys/wait.h>

#include <bpf/bpf.h>

#include "acls_on_wire.h"

namespace
{

bool deadly = false;

}

// The linker puts the second in the place of the first: by it policies come in force.
extern "C" int __real_bpf_map_update_batch(int, const void *, const void *, __u32 *,
                                           const bpf_map_batch_opts *);
extern "C" int __wrap_bpf_map_update_batch(int fd, const void *keys, const void *values,
                                           __u32 *count, const bpf_map_batch_opts *options)
{
    if (deadly)
        raise(SIGKILL);
    return __real_bpf_map_update_batch(fd, keys, values, count, options);
}

namespace
{

class CutShort : public AclsOnWire
{
protected:
    /** Let a daemon put something in force, and die just before it does so with something else. */
    void dieBetween(const std::string &text, const std::function<void()> &before,
                    const std::function<void()> &change)
    {
        pid_t child = fork();
        if (child == 0) {
            if (start(text).result != 0)
                _exit(1);
            before();
            deadly = true;
            change();
            _exit(2);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    }
};

TEST_F(CutShort, SuccessorPutsTheNewPolicyInForceAndNothingOfTheOld)
{
    const std::string text = std::string("ports = [\"port0\"]\n") + acls;
    dieBetween(
        text, [] { set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)); },
        [] {
            zynHwChangeBegin();
            set(nullptr, false, arpEntry(0, ZYN_HW_OP_DENY));
            bind(100);
            zynHwChangeEnd();
        });
    EXPECT_FALSE(arpArrives()); // until then the old one holds
    EXPECT_TRUE(udpArrives("192.0.2.7", 5000));
    ASSERT_EQ(start(text).result, 0);
    EXPECT_TRUE(arpArrives());
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000));
    EXPECT_TRUE(udpArrives("192.0.2.7", 5001));
}

TEST_F(CutShort, SuccessorPutsThatOfEverySlotInForce)
{
    const std::string text = "[[slot]]\nslot = 1\nports = [\"port0\"]\n"
                             "[[slot]]\nslot = 2\nports = [\"peer0\"]\n";
    const tSlotIndex one{0, 1, 0}, two{0, 2, 0};
    const auto deny = arpEntry(0, ZYN_HW_OP_DENY);
    dieBetween(
        text, [&] { set(&one, true, deny); },
        [&] {
            zynHwChangeBegin();
            set(&one, false, deny);
            set(&two, true, deny);
            zynHwChangeEnd();
        });
    EXPECT_FALSE(arpArrives());
    EXPECT_TRUE(arpArrives(protectedPort, peerPort));
    ASSERT_EQ(start(text).result, 0);
    EXPECT_TRUE(arpArrives());
    EXPECT_FALSE(arpArrives(protectedPort, peerPort));
}

} // namespace
