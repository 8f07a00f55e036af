#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <map>

#include "cli/commands.h"
#include "cli/complete.h"
#include "cli/output.h"
#include "cli/values.h"
#include "client/text.h"

using namespace ctl;
using cpudefend::printable;

namespace
{

/** Typed by the shell's completion, never by people: the words behind it are to be completed. */
constexpr std::string_view kCompleteCommand = "__complete";

/** Completion must never make a shell wait. */
constexpr std::chrono::milliseconds kCompleteTimeout{500};

struct Options {
    bool json = false;
    std::string socket = CPUDEFEND_CMD_SOCKET;
    double timeout = 5;
};

/** A command's place in the parser, and its arguments there. */
struct Entry {
    CLI::App *parser;
    std::vector<CLI::Option *> args;
    std::vector<CLI::Option *> options;
};

/** The settings that a command takes, for the end of its help. */
std::string settingsHelp(const Arg &arg)
{
    std::string text = "\nSettings:\n";
    for (const cpudefend::Attribute &attribute : arg.attributes()) {
        if (!attribute.isSettable())
            continue;
        const std::string unit =
            attribute.unit.empty() ? "" : " (" + std::string(attribute.unit) + ")";
        text += "  " + std::string(attribute.name) + "=" + cpudefend::describeValues(attribute) +
                "\n      " + std::string(attribute.help) + unit + "\n";
    }
    text.pop_back();
    return text;
}

Entry addCommand(CLI::App *parent, const Command &command)
{
    Entry entry{parent->add_subcommand(command.verb, command.help), {}, {}};
    for (const Arg &arg : command.args) {
        CLI::Option *option = entry.parser->add_option(arg.name)->description(arg.help);
        option->required(arg.required)->type_name("");
        if (arg.isSettings()) {
            option->expected(CLI::detail::expected_max_vector_size);
            entry.parser->footer(settingsHelp(arg));
        }
        entry.args.push_back(option);
    }
    for (const Option &own : command.options)
        entry.options.push_back(entry.parser->add_option(own.name, own.help)->type_name(own.value));
    return entry;
}

void addOptions(CLI::App *app, Options *options)
{
    app->set_version_flag("--version", "cpudefendctl " CPUDEFEND_VERSION);
    app->add_flag("--json", options->json, "print JSON: always an array of objects");
    app->add_option("--socket", options->socket, "the daemon's socket")
        ->capture_default_str()
        ->type_name("PATH");
    app->add_option("--timeout", options->timeout, "seconds to wait for the daemon")
        ->capture_default_str()
        ->type_name("SECONDS")
        ->check(CLI::Range(0.001, 3600.0));
}

/** The commands in the order of the table. */
std::vector<Entry> addCommands(CLI::App *app)
{
    std::map<std::string, CLI::App *> parents{{"", app}};
    for (const Object &object : objects())
        parents[object.name] = app->add_subcommand(object.name, object.help)->require_subcommand(1);
    std::vector<Entry> entries;
    for (const Command &command : commands())
        entries.push_back(addCommand(parents[command.object], command));
    return entries;
}

cpudefend::Client clientFor(const Options &options)
{
    const auto timeout = std::chrono::duration<double>(options.timeout);
    const cpudefend::Channel channel(
        options.socket, std::chrono::duration_cast<std::chrono::milliseconds>(timeout));
    return cpudefend::Client(channel, [](const cpudefend::Warning &warning) {
        std::cerr << "cpudefendctl: warning: " << warning.text << '\n';
    });
}

int run(const Options &options, const std::vector<Entry> &entries)
{
    Context context{clientFor(options), options.json ? Format::Json : Format::Text, std::cout};
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (!entries[i].parser->parsed())
            continue;
        Words words;
        for (const CLI::Option *arg : entries[i].args)
            words.insert(words.end(), arg->results().begin(), arg->results().end());
        for (const CLI::Option *option : entries[i].options)
            if (!option->empty())
                context.options[option->get_name()] = option->results().back();
        commands()[i].run(context, words);
    }
    return std::cout.flush() ? kExitDone : kExitRefused;
}

int printCompletions(const Words &words)
{
    cpudefend::Client client(cpudefend::Channel(CPUDEFEND_CMD_SOCKET, kCompleteTimeout));
    for (const std::string &candidate : complete(words, client))
        std::cout << candidate << '\n';
    return kExitDone;
}

/** What is wrong with the command line. A word that is no command is why a command is missing. */
std::string usageError(const CLI::App &app, const CLI::ParseError &error)
{
    const Words rest = app.remaining(true);
    if (dynamic_cast<const CLI::RequiredError *>(&error) && !rest.empty() &&
        !rest.front().starts_with("-"))
        return "unknown command \"" + printable(rest.front()) + "\"";
    return error.what();
}

int fail(Exit status, const std::string &message)
{
    std::cerr << "cpudefendctl: " << message << '\n';
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc > 1 && argv[1] == kCompleteCommand)
        return printCompletions({argv + 2, argv + argc});

    CLI::App app("Manage the control-plane protection daemon", "cpudefendctl");
    app.require_subcommand(1)->fallthrough();
    app.footer("\nExit status: 0 done, 1 refused by the daemon, 2 wrong command line,\n"
               "3 daemon not reached.");
    Options options;
    addOptions(&app, &options);
    const std::vector<Entry> entries = addCommands(&app);
    try {
        app.parse(argc, argv);
        return run(options, entries);
    } catch (const CLI::Success &success) { // help or version
        return app.exit(success);
    } catch (const CLI::ParseError &error) {
        return fail(kExitUsage, usageError(app, error) + " (try --help)");
    } catch (const CommandFailed &failed) {
        return fail(failed.status(), failed.what());
    } catch (const cpudefend::Error &error) {
        return fail(kExitUnreachable, error.what());
    }
}
