/**
 * cpudefendctl as a process, for tests.
 */
#ifndef CTL_H
#define CTL_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon_process.h"

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

/** Run a program and wait for its end. */
Outcome runProgram(std::vector<std::string> words);

/** Run cpudefendctl with these arguments. */
Outcome runCtl(std::vector<std::string> args);

/** The same for one that must succeed without a word on standard error. @return its output */
std::string ctlOutput(const std::vector<std::string> &args);

/** A real daemon on the memory layer, which journals what is programmed. */
class CtlTest : public testing::Test
{
protected:
    /** @param program the daemon's executable; the real one where nothing else is said */
    explicit CtlTest(const std::string &program = "");
    ~CtlTest() override;

    /** The journal's lines so far that contain @a text. */
    std::vector<std::string> journal(const std::string &text) const;

    /** Wait until the journal has a line that contains @a text, for at most 10 seconds. */
    bool journalGets(const std::string &text) const;

private:
    std::string journal_;
    DaemonProcess daemon_;
};

/** The same with the slots and the traced sources of slot_daemon.cpp. */
class SlotTest : public CtlTest
{
protected:
    SlotTest() : CtlTest(CPUDEFEND_TEST_SLOT_DAEMON) {}
};

/** A command that must succeed in silence, but for just the warning @a message. @return its output
 */
std::string outputWithWarning(const std::vector<std::string> &args, const std::string &message);

/** A command that must succeed and say nothing. */
void expectDone(const std::vector<std::string> &args);

/** A command that must print nothing, say just @a message on standard error, and end so. */
void expectFailure(const std::vector<std::string> &args, int status, const std::string &message);

#endif
