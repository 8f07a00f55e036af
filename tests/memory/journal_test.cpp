#include "journal_fixture.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

/** The head of the first line. */
std::string head(const std::string &call)
{
    return R"({"seq":1,"uptime":12.34,"call":")" + call + "\",";
}

const char entryText[] =
    R"("entry":{"pktType":1,"cir":16,"cbs":6400,"pps":200,"queue":0,"priority":0,"op":11,"bit":32})";

} // namespace

/* ---- A line for each call ------------------------------------------------------------- */

TEST_F(Journal, SlotSet)
{
    carAdd(&slotA, car(1, 200));
    EXPECT_EQ(text(), head("zynHwSlotSet") +
                          R"("slot":{"sys":1,"slot":0,"type":0},)"
                          R"("cmd":"HW_SLOT_CPUDEFENDPKTCARADD","flag":3,)" +
                          entryText + ",\"result\":0}\n");
}

TEST_F(Journal, ScalarSetOfTheSystem)
{
    carDel(system, car(1, 200));
    EXPECT_EQ(text(), head("zynScalarSetApi") +
                          R"("slot":null,"index":0,"cmd":0,)"
                          R"("func":{"hwCmd":"HW_SYS_CPUDEFENDPKTCARDEL","action":0,"res":0,)"
                          R"("argLen":0,"flag":0},)" +
                          entryText + ",\"result\":2}\n");
}

TEST_F(Journal, AclAddAndDel)
{
    acl_cpudefend_add(&slotB, 2000, ZYN_HW_OP_PERMIT, 16, 6400, 6400);
    acl_cpudefend_del(nullptr, 2001, ZYN_HW_OP_DENY, 0, 0, 0);
    EXPECT_EQ(lines().at(0), head("acl_cpudefend_add") +
                                 R"("slot":{"sys":1,"slot":1,"type":0},"acl":2000,"action":11,)" +
                                 R"("cir":16,"cbs":6400,"ebs":6400,"result":0})");
    EXPECT_EQ(lines().at(1), R"({"seq":2,"uptime":12.34,"call":"acl_cpudefend_del","slot":null,)"
                             R"("acl":2001,"action":3,"cir":0,"cbs":0,"ebs":0,"result":2})");
}

TEST_F(Journal, IndexTrans)
{
    tPhyIfInfo info;
    sysIndexTrans(7, SYS_INDEX_TRANS_PHY, &info);
    sysIndexTrans(7, 5, &info);
    EXPECT_EQ(lines().at(0), head("sysIndexTrans") +
                                 R"("ifUnit":7,"mode":6,"info":{"unit":0,"slot":0,"port":7,)" +
                                 R"("channel":0,"virtualnum":0,"endType":0,"card":0},"result":0})");
    EXPECT_EQ(lines().at(1), R"({"seq":2,"uptime":12.34,"call":"sysIndexTrans",)"
                             R"("ifUnit":7,"mode":5,"info":null,"result":22})");
}

/* ---- Strings -------------------------------------------------------------------------- */

TEST_F(Journal, BytesOutsidePrintableAsciiAreEscaped)
{
    std::string bytes("a\"b\\c\0\n\x1f \x7e\x7f\x80\xff/", 14);
    octetstring octets = octetsOf(bytes);
    zynHwScalarSync(0, 8000, &octets, 3 | ZYN_SYNC_OCTETS);
    EXPECT_NE(last().find(R"("value":"a\"b\\c\u0000\u000a\u001f ~\u007f\u0080\u00ff/","flag")"),
              std::string::npos)
        << last();
}

TEST_F(Journal, EmptyAndMissingStrings)
{
    unsigned char none = 0;
    for (unsigned char *bytes : {&none, static_cast<unsigned char *>(nullptr)}) {
        octetstring empty = {bytes, 0};
        zynHwScalarSync(0, 8000, &empty, 3 | ZYN_SYNC_OCTETS);
        EXPECT_NE(last().find(R"("value":"",)"), std::string::npos) << last();
    }
    zynHwScalarSync(0, 8000, nullptr, 3 | ZYN_SYNC_OCTETS);
    EXPECT_NE(last().find(R"("value":null,)"), std::string::npos) << last();
}

TEST_F(Journal, LongStringsAreWrittenWhole)
{
    std::string bytes(3000, '\x01');
    octetstring octets = octetsOf(bytes);
    zynHwScalarSync(0, 8020, &octets, 3 | ZYN_SYNC_OCTETS);
    std::string escaped;
    for (size_t i = 0; i < bytes.size(); i++)
        escaped += "\\u0001";
    EXPECT_EQ(text(), head("zynHwScalarSync") + R"("index":0,"scalarId":8020,"value":")" + escaped +
                          R"(","flag":2147483651,"result":0})" + "\n");
}

/* ---- The file ------------------------------------------------------------------------- */

TEST_F(Journal, NewFileIsItsOwnersAlone)
{
    mode_t mask = umask(0);
    EXPECT_EQ(journalOpen(scratch.path("open").c_str()), 0);
    umask(mask);
    struct stat info;
    ASSERT_EQ(stat(scratch.path("open").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777u, 0600u);
}

TEST_F(Journal, DescriptorIsCloseOnExec)
{
    struct stat journal, other;
    ASSERT_EQ(stat(scratch.path("journal").c_str(), &journal), 0);
    int found = 0;
    for (int fd = 0; fd < 256; fd++) {
        if (fstat(fd, &other) != 0 || other.st_dev != journal.st_dev ||
            other.st_ino != journal.st_ino)
            continue;
        found++;
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    }
    EXPECT_EQ(found, 1);
}

TEST_F(Journal, GoesBehindWhatTheFileHolds)
{
    zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISSLAVE, nullptr);
    ASSERT_EQ(journalOpen(scratch.path("journal").c_str()), 0);
    zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISSLAVE, nullptr);
    ASSERT_EQ(lines().size(), 2u);
    EXPECT_EQ(lines()[0], lines()[1]); // numbered from 1 again
}

TEST_F(Journal, ClosedJournalWritesNothing)
{
    journalClose();
    zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISSLAVE, nullptr);
    EXPECT_EQ(text(), "");
}

TEST_F(Journal, UnusablePathIsTold)
{
    EXPECT_EQ(journalOpen(scratch.path("none/journal").c_str()), ENOENT);
    zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISSLAVE, nullptr); // the open one stays in use
    EXPECT_EQ(lines().size(), 1u);
}

/* ---- Failures ------------------------------------------------------------------------- */

TEST_F(Journal, FullDiskIsReportedOnceAndCallsGoOn)
{
    const std::string disk = scratch.path("disk"), file = disk + "/journal";
    mkdir(disk.c_str(), 0700);
    if (mount("none", disk.c_str(), "tmpfs", 0, "size=4096") != 0)
        GTEST_SKIP() << "no small disk: " << strerror(errno);
    ASSERT_EQ(journalOpen(file.c_str()), 0);
    std::ofstream(file) << std::string(4096, '\n');
    testing::internal::CaptureStderr();
    EXPECT_EQ(carAdd(system, car(1, 100)), 0);
    EXPECT_EQ(carAdd(system, car(1, 200)), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "cpuDefend: couldn't write the journal: No space left on device\n");
    EXPECT_EQ(ppsInForce(system, 1), 200);
    umount2(disk.c_str(), MNT_DETACH);
}

namespace
{

/** Writing beyond @a size bytes of a file fails while this lives. */
struct FileSizeLimit {
    explicit FileSizeLimit(rlim_t size)
    {
        getrlimit(RLIMIT_FSIZE, &before);
        rlimit limit = {size, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &before); }
    rlimit before;
};

} // namespace

TEST_F(Journal, TornLineDoesNotSwallowTheNext)
{
    carAdd(system, car(1, 1));
    ASSERT_EQ(lines().size(), 1u);
    testing::internal::CaptureStderr();
    {
        FileSizeLimit limit(text().size() + 10);
        EXPECT_EQ(carAdd(system, car(1, 2)), 0); // SIGXFSZ must not end the process
        EXPECT_EQ(carAdd(system, car(1, 3)), 0);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "cpuDefend: couldn't write the journal: File too large\n");
    carAdd(system, car(1, 4));
    carAdd(system, car(1, 5));
    ASSERT_EQ(lines().size(), 4u);
    EXPECT_EQ(lines()[1].size(), 10u);
    EXPECT_EQ(lines()[2].substr(0, 9), R"({"seq":4,)"); // the lost ones have numbers
    EXPECT_EQ(lines()[3].substr(0, 9), R"({"seq":5,)");
    EXPECT_EQ(text().back(), '\n');
}

TEST_F(Journal, PipeIsRefusedAndNobodyWaitsForItsReader)
{
    const std::string path = scratch.path("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(journalOpen(path.c_str()), EINVAL);
    const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(journalOpen(path.c_str()), EINVAL);
    close(reader);
}

TEST_F(Journal, LinkIsNotFollowed)
{
    const std::string path = scratch.path("link"), target = scratch.write("target", "");
    ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
    EXPECT_EQ(journalOpen(path.c_str()), ELOOP);
    zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISSLAVE, nullptr); // the open one stays in use
    EXPECT_EQ(lines().size(), 1u);
    EXPECT_EQ(scratch.read("target"), "");
}
