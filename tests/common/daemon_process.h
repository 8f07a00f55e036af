/**
 * The daemon as a process of its own on its real socket, for tests; and a bare client.
 */
#ifndef DAEMON_PROCESS_H
#define DAEMON_PROCESS_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/** Starts the daemon, waits until its socket answers, and ends it with the test. */
class DaemonProcess
{
public:
    /**
     * @param args arguments; @param env variables added to the environment
     * @param program the executable; the daemon that this build made where nothing else is said
     * @param errFd   takes its standard error, and is closed with the object; -1 for a file
     */
    explicit DaemonProcess(std::vector<std::string> args = {},
                           std::map<std::string, std::string> env = {},
                           const std::string &program = "", int errFd = -1);
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess &) = delete;
    DaemonProcess &operator=(const DaemonProcess &) = delete;

    bool running(); /**< alive, and not a zombie */
    pid_t pid() const { return pid_; }

    /** Send a signal and wait for the end. @return the wait status */
    int stop(int signal);

    /** What it has written to standard error so far. */
    std::string errors() const;

private:
    pid_t pid_ = -1;
    int errFd_ = -1;
};

/**
 * Start the daemon and wait for its end.
 * @return its exit status, 128 plus the signal that ended it, or -1 when it runs longer than
 *         @a seconds (it is then killed); @a errors receives its standard error
 */
int runDaemon(const std::vector<std::string> &args, const std::map<std::string, std::string> &env,
              int seconds, std::string *errors);

using Bytes = std::vector<uint8_t>;

/** A connection to the daemon's socket; -1 when it is refused. The caller closes it. */
int connectToDaemon();

/**
 * One request and its reply over the real socket.
 * @param body the request's body, sent behind its 4-byte length
 * @param reply receives the reply's body
 * @return false when the connection ended without a whole reply
 */
bool exchange(const Bytes &body, Bytes *reply);

#endif
