/**
 * The tree of commands: one table that the parser, the help, the completion and main walk.
 */
#ifndef CPUDEFENDCTL_COMMANDS_H
#define CPUDEFENDCTL_COMMANDS_H

#include <map>
#include <ostream>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "cli/output.h"
#include "client/client.h"

namespace ctl
{

/** Exit statuses. */
enum Exit : int {
    kExitDone = 0,
    kExitRefused = 1,    /**< the daemon refused it */
    kExitUsage = 2,      /**< the command line is wrong; nothing was sent */
    kExitUnreachable = 3 /**< no daemon, no permission, or no proper reply */
};

/** A command that could not do its job. what() is "couldn't do X to Y: reason". */
class CommandFailed : public std::runtime_error
{
public:
    CommandFailed(Exit status, const std::string &message)
        : std::runtime_error(message), status_(status)
    {
    }

    Exit status() const { return status_; }

private:
    Exit status_;
};

/** What an argument is, for its check and its completion. */
enum class ArgKind {
    NewPolicy,
    Policy,
    PktType,
    Rule,
    Slot,
    Interface,
    Ip4,
    Mac,
    OnOff,
    PolicySettings,
    CarSettings,
    RuleSettings,
    SlotSettings,
    SystemSettings
};

struct Arg {
    ArgKind kind;
    const char *name;
    const char *help;
    bool required = true;

    bool isSettings() const { return kind >= ArgKind::PolicySettings; }

    /** The attributes that settings may name. */
    std::span<const cpudefend::Attribute> attributes() const;
};

/** An option that only some commands have. */
struct Option {
    ArgKind kind;
    const char *name;
    const char *value; /**< what the help calls its value */
    const char *help;
};

/** What a command works on. */
struct Context {
    cpudefend::Client client;
    Format format;
    std::ostream &out;
    std::map<std::string, std::string> options = {}; /**< the command's own that were given */

    /** @return the option's value, or null when it was not given */
    const std::string *option(const char *name) const
    {
        const auto found = options.find(name);
        return found == options.end() ? nullptr : &found->second;
    }
};

using Words = std::vector<std::string>;

struct Command {
    const char *object; /**< empty for the system as a whole */
    const char *verb;
    const char *help;
    std::vector<Arg> args;

    /** @param words the arguments in order; throws CommandFailed */
    void (*run)(Context &context, const Words &words);
    std::vector<Option> options = {};
};

struct Object {
    const char *name;
    const char *help;
};

std::span<const Object> objects();
std::span<const Command> commands();

} // namespace ctl

#endif
