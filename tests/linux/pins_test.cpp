/**
 * Whose the folder is that the data plane is pinned in, and what becomes of what is in it.
 */
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "layer_on_wire.h"
#include "scarce.h"

using namespace zynlinux;
using namespace std::chrono_literals;

namespace
{

constexpr uid_t somebody = 1000;

class Pins : public LayerOnWire
{
protected:
    std::string linkPin() const
    {
        return pinFolder + "/link-" + std::to_string(if_nametoindex(protectedPort));
    }

    static bool isThere(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

    void expectRefused(const std::string &reason)
    {
        Outcome outcome = startOnPort();
        EXPECT_EQ(outcome.result, -1);
        EXPECT_EQ(outcome.text,
                  "couldn't keep the data plane in " + pinFolder + ": " + reason + "\n");
        EXPECT_EQ(programOn(protectedPort), 0u);
    }

    void startAndDeny()
    {
        ASSERT_EQ(startOnPort().result, 0);
        ASSERT_EQ(set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
        beQuiet();
    }

    /** What the layer says until a condition holds. */
    static std::string toldUntil(const std::function<bool()> &condition)
    {
        testing::internal::CaptureStderr();
        EXPECT_TRUE(runUntil(condition));
        return testing::internal::GetCapturedStderr();
    }

    std::string pinnedAgain(int count) const
    {
        return "[platform] " + std::to_string(count) + " of what was pinned in " + pinFolder +
               " had vanished: pinned again\n";
    }
};

TEST_F(Pins, FolderIsRootsAlone)
{
    ASSERT_EQ(startOnPort().result, 0);
    struct stat info {
    };
    ASSERT_EQ(stat(pinFolder.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777u, 0700u);
    EXPECT_EQ(info.st_uid, 0u);
}

TEST_F(Pins, FolderThatSomebodyMadeFirstIsRefused)
{
    ASSERT_EQ(mkdir(pinFolder.c_str(), 0700), 0);
    ASSERT_EQ(chown(pinFolder.c_str(), somebody, somebody), 0);
    expectRefused("it belongs to user 1000, and not to root");
}

TEST_F(Pins, LinkThatSomebodyMadeFirstIsRefused)
{
    ASSERT_EQ(mkdir((mounted + "/other").c_str(), 0700), 0);
    ASSERT_EQ(symlink("other", pinFolder.c_str()), 0);
    expectRefused("Not a directory");
}

TEST_F(Pins, FolderThatOthersMayWriteToIsRefused)
{
    ASSERT_EQ(mkdir(pinFolder.c_str(), 0700), 0);
    ASSERT_EQ(chmod(pinFolder.c_str(), 0702), 0);
    expectRefused("others may write to it (mode 0702)");
    ASSERT_EQ(chmod(pinFolder.c_str(), 01770), 0);
    expectRefused("others may write to it (mode 1770)");
    ASSERT_EQ(chmod(pinFolder.c_str(), 0755), 0);
    EXPECT_EQ(startOnPort().result, 0);
}

TEST_F(Pins, FolderThatOthersMayPutAnotherInThePlaceOfIsRefused)
{
    const std::string above = mounted + "/above"; // it does not matter that this is a BPF folder
    ASSERT_EQ(mkdir(above.c_str(), 0700), 0);
    pinFolder = above + "/pinned";
    ASSERT_EQ(chmod(above.c_str(), 0777), 0);
    expectRefused("others may write to " + above + " (mode 0777)");
    EXPECT_FALSE(isThere(pinFolder));
    ASSERT_EQ(chmod(above.c_str(), 0755), 0);
    ASSERT_EQ(chown(above.c_str(), somebody, 0), 0);
    expectRefused(above + " belongs to user 1000, and not to root");
    ASSERT_EQ(chown(above.c_str(), 0, 0), 0);
    ASSERT_EQ(chmod(above.c_str(), 01777), 0); // in there they may remove what is their own
    EXPECT_EQ(startOnPort().result, 0);
}

TEST_F(Pins, FolderIsThatOfTheFileSystemAndNotOfALinkToIt)
{
    const std::string folder = pinFolder, link = mounted + "/link";
    ASSERT_EQ(symlink(".", link.c_str()), 0);
    pinFolder = link + "/pinned/";
    ASSERT_EQ(startOnPort().result, 0);
    ASSERT_EQ(unlink(link.c_str()), 0);
    pinFolder = folder;
    EXPECT_TRUE(isThere(linkPin()));
    beQuiet();
    ASSERT_EQ(unlink(linkPin().c_str()), 0);
    EXPECT_TRUE(runUntil([&] { return isThere(linkPin()); }));
}

TEST_F(Pins, FolderMustBeOneOfItsOwn)
{
    pinFolder = mounted + "/.";
    expectRefused("it is no folder of its own");
    pinFolder = mounted + "/..";
    expectRefused("it is no folder of its own");
}

TEST_F(Pins, ThatVanishAreMadeAgainAndProtectMeanwhile)
{
    startAndDeny();
    for (const std::string &pin : {linkPin(), pinFolder + "/cpudefend_meter"}) {
        ASSERT_EQ(unlink(pin.c_str()), 0);
        EXPECT_FALSE(arpArrives());
        EXPECT_EQ(toldUntil([&] { return isThere(pin); }), pinnedAgain(1));
    }
    EXPECT_FALSE(arpArrives());
    ASSERT_EQ(startOnPort().result, 0); // a successor finds all that it needs
    EXPECT_FALSE(arpArrives());
}

TEST_F(Pins, FolderThatVanishesIsMadeAgain)
{
    startAndDeny();
    const std::string info = pinFolder + "/cpudefend_info";
    command("rm -r " + pinFolder);
    EXPECT_FALSE(arpArrives());
    const std::string told = toldUntil([&] { return isThere(info) && isThere(linkPin()); });
    EXPECT_NE(told.find(" of what was pinned in " + pinFolder + " had vanished: pinned again\n"),
              std::string::npos)
        << told;
    ASSERT_EQ(startOnPort().result, 0);
    EXPECT_FALSE(arpArrives());
}

TEST_F(Pins, FolderThatCannotBeMadeAgainIsSaidOnceAndProtectsAllTheSame)
{
    ASSERT_EQ(start("ports = [\"port0\", \"late0\"]\n").result, 0);
    ASSERT_EQ(set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    beQuiet();
    ASSERT_EQ(umount2(mounted.c_str(), MNT_DETACH), 0);
    const auto end = Clock::now() + 2500ms;
    EXPECT_EQ(toldUntil([&] { return Clock::now() > end; }),
              "couldn't keep the data plane in " + pinFolder + ": " + mounted +
                  " is no BPF file system (mount -t bpf -o mode=0700 bpf " + mounted +
                  ", or pin = \"none\")\n");
    EXPECT_FALSE(arpArrives());
    command("ip link add late0 type veth peer name late1");
    command("ip link set late0 arp off up && ip link set late1 arp off up");
    EXPECT_TRUE(runUntil([] { return programOn("late0") != 0; }));
    EXPECT_FALSE(arpArrives("late1", "late0"));
    ASSERT_EQ(mount("bpf", mounted.c_str(), "bpf", 0, nullptr), 0);
    EXPECT_TRUE(runUntil([&] { return isThere(linkPin()); }));
}

TEST_F(Pins, FolderThatCannotBeReadNowHasNotBeenEmptied)
{
    startAndDeny();
    Heard heard;
    {
        NoDescriptors none;
        EXPECT_TRUE(within(5s, [&] { // poll takes no descriptor either, then
            runPlatform();
            return heard.has("couldn't look into " + pinFolder);
        }));
    }
    beQuiet();
    EXPECT_FALSE(heard.has("vanished")) << heard.text();
}

TEST_F(Pins, ProgramThatVanishesIsPutBack)
{
    startAndDeny();
    {
        Descriptor link(bpf_obj_get(linkPin().c_str()));
        ASSERT_EQ(bpf_link_detach(link.get()), 0);
    }
    ASSERT_EQ(programOn(protectedPort), 0u);
    const auto begin = Clock::now();
    EXPECT_EQ(toldUntil([] { return programOn(protectedPort) != 0; }),
              "[platform] the program on port port0 has vanished\n"
              "[platform] port port0 is protected in native mode\n");
    EXPECT_LT(Clock::now() - begin, 2s);
    EXPECT_FALSE(arpArrives());
    EXPECT_TRUE(isThere(linkPin()));
}

TEST_F(Pins, LinkThatVanishesIsPutBackWhereItMayNotBeHeld)
{
    pid_t child = fork();
    if (child == 0) {
        const rlimit few{256, 256};
        setrlimit(RLIMIT_NOFILE, &few);
        startAndDeny();
        EXPECT_EQ(unlink(linkPin().c_str()), 0);
        EXPECT_TRUE(within(2s, [] { return programOn(protectedPort) == 0; }));
        EXPECT_TRUE(runUntil([&] { return programOn(protectedPort) != 0; }));
        EXPECT_FALSE(arpArrives());
        EXPECT_TRUE(isThere(linkPin()));
        _exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

} // namespace
