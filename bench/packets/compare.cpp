#include "compare.h"

#include "host.h"
#include "plot.h"
#include "protection.h"
#include "statistics.h"

#include <fmt/format.h>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace
{

using std::chrono::milliseconds;

constexpr int ROUNDS = 9;
constexpr milliseconds FLOOD{300};
constexpr unsigned RULES[] = {0, 1, 16, 64, 256, 1024};

enum Kind { BARE, DAEMON, NFTABLES, IPTABLES, NOTHING };

struct Variant {
    Kind kind;
    unsigned rules;
    auto operator<=>(const Variant &) const = default;
};

std::unique_ptr<Protection> daemon(unsigned rules)
{
    auto made = std::make_unique<Daemon>(rules);
    made->configure(rules ? 10 : 1);
    made->bind();
    return made;
}

std::unique_ptr<Protection> protect(const Variant &variant)
{
    switch (variant.kind) {
    case BARE: return std::make_unique<BareDrop>();
    case DAEMON: return daemon(variant.rules);
    case NFTABLES: return std::make_unique<Nftables>(variant.rules);
    case IPTABLES: return std::make_unique<Iptables>(variant.rules);
    default: return std::make_unique<Unprotected>();
    }
}

std::string counted(unsigned rules, const char *what)
{
    return fmt::format("{:>4} {}{}", rules, what, rules == 1 ? "" : "s");
}

/** Name within its kind; kinds that do not depend on rules have but one. */
std::string nameOf(const Variant &variant)
{
    switch (variant.kind) {
    case BARE: return "bare drop at the hook";
    case NOTHING: return "no protection";
    case DAEMON:
        return variant.rules ? "10 entries, " + counted(variant.rules, "access rule") : "one entry";
    default:
        return variant.rules ? "limit behind " + counted(variant.rules, "rule") : "limit alone";
    }
}

const char *groupOf(const Variant &variant)
{
    switch (variant.kind) {
    case DAEMON: return "cpuDefend";
    case NFTABLES: return "nftables, ingress";
    case IPTABLES: return "iptables, INPUT with hashlimit";
    default: return "";
    }
}

std::string fullNameOf(const Variant &variant)
{
    const std::string group = groupOf(variant);
    return group.empty() ? nameOf(variant) : group + ": " + nameOf(variant);
}

/** Values of each variant, one for each round. Who could not be set up has none. */
template <typename Value> using Rounds = std::map<Variant, std::vector<Value>>;

/** Measure variants in turn. One that cannot be set up is named, with the reason, and left out. */
template <typename Measure> auto inTurn(std::vector<Variant> variants, Measure measure)
{
    Rounds<std::invoke_result_t<Measure, Protection &>> values;
    for (int i = 0; i < ROUNDS; i++)
        std::erase_if(variants, [&](const Variant &variant) {
            try {
                const auto protection = protect(variant);
                values[variant].push_back(measure(*protection));
                return false;
            } catch (const Failure &failure) {
                fmt::print("left out: {}: {}\n", fullNameOf(variant), failure.what());
                values.erase(variant);
                return true;
            }
        });
    return values;
}

/** A line for each, with a title above those of a kind. */
template <typename Value>
void printGrouped(const Rounds<Value> &rounds,
                  const std::function<void(const std::string &, const Variant &)> &print)
{
    std::string last;
    for (const auto &[variant, each] : rounds) {
        const std::string group = groupOf(variant);
        if (group != last)
            fmt::print("{}\n", group);
        last = group;
        print((group.empty() ? "" : "  ") + nameOf(variant), variant);
    }
}

using Floods = Rounds<Flooded>;

/** One of the two rates of a flood. */
using Rate = double (Flooded::*)() const;

double medianRate(const std::vector<Flooded> &floods, Rate rate)
{
    std::vector<double> each;
    for (const Flooded &flood : floods)
        each.push_back((flood.*rate)());
    return median(each);
}

/** Median over the rounds of how a variant's rate compares with another's. */
std::optional<double> ratio(const Floods &floods, const Variant &of, const Variant &to, Rate rate)
{
    const auto one = floods.find(of), other = floods.find(to);
    if (one == floods.end() || other == floods.end())
        return {};
    std::vector<double> each;
    for (size_t i = 0; i < one->second.size(); i++)
        each.push_back((one->second[i].*rate)() / (other->second[i].*rate)());
    return median(each);
}

std::string shown(std::optional<double> value)
{
    return value ? fmt::format("{:.{}f}", *value, *value < 0.1 ? 3 : *value < 10 ? 2 : 1) : "-";
}

/** How a variant's rate compares with a bare drop and with nftables with as many rules. */
std::string ratios(const Floods &floods, const Variant &variant, Rate rate)
{
    return fmt::format("{:>9}{:>9}", shown(ratio(floods, variant, {BARE, 0}, rate)),
                       shown(ratio(floods, variant, {NFTABLES, variant.rules}, rate)));
}

void printRates(const Floods &floods)
{
    fmt::print("\nPACKETS WORKED OFF under a flood of 60-byte frames (medians of {} rounds)\n\n",
               ROUNDS);
    fmt::print("{:<34}{:<30}|  {}\n", "", "  packets/s by the wall clock,", "in the flood itself");
    fmt::print("{:<34}{:<30}|  {}\n", "", "  the sender's set-up included", "(kernel's clock)");
    fmt::print("{:<34}  ({} frames a call)      |\n", "", FRAMES_A_CALL);
    fmt::print("{:<34}{:>9}{:>9}{:>9}   |{:>9}{:>9}{:>9}\n", "", "million", "of bare", "of nft",
               "ns each", "of bare", "of nft");
    printGrouped(floods, [&](const std::string &name, const Variant &variant) {
        const std::vector<Flooded> &each = floods.at(variant);
        fmt::print(
            "{:<34}{:>9.3f}{}   |{:>9.0f}{}\n", name, medianRate(each, &Flooded::byWallClock) / 1e6,
            ratios(floods, variant, &Flooded::byWallClock),
            1e9 / medianRate(each, &Flooded::inFlood), ratios(floods, variant, &Flooded::inFlood));
    });
}

struct Goal {
    const char *what;
    Variant of, to;
    double least;
};

constexpr Goal GOALS[] = {
    {"one entry, of bare drop", {DAEMON, 0}, {BARE, 0}, 0.85},
    {"256 access rules, of bare drop", {DAEMON, 256}, {BARE, 0}, 0.6},
    {"1024 access rules, of 256", {DAEMON, 1024}, {DAEMON, 256}, 0.95},
    {"one entry, of nftables with 1 rule", {DAEMON, 0}, {NFTABLES, 0}, 1.9},
    {"256 access rules, of nftables, 257", {DAEMON, 256}, {NFTABLES, 256}, 20},
};

std::string judged(const Floods &floods, const Goal &goal, Rate rate)
{
    const auto measured = ratio(floods, goal.of, goal.to, rate);
    return fmt::format("{:>9} {}", shown(measured),
                       !measured                 ? "not measured"
                       : *measured >= goal.least ? "met"
                                                 : "MISSED");
}

void printGoals(const Floods &floods)
{
    fmt::print("\n{:<36}{:>9}   {:<22}   {}\n", "GOALS: rate, as a ratio", "at least",
               "by the wall clock", "in the flood itself");
    for (const Goal &goal : GOALS)
        fmt::print("{:<36}{:>9}{:<22}   {}\n", goal.what, goal.least,
                   judged(floods, goal, &Flooded::byWallClock),
                   judged(floods, goal, &Flooded::inFlood));
}

Series seriesOf(const Floods &floods, Kind kind, const char *name, const char *colour)
{
    Series series{name, colour, {}, {}};
    for (const auto &[variant, each] : floods)
        if (variant.kind == kind) {
            series.rules.push_back(variant.rules);
            series.rates.push_back(medianRate(each, &Flooded::byWallClock) / 1e6);
        }
    return series;
}

std::string drawn(const Floods &floods)
{
    std::vector<Level> levels;
    for (const auto &[kind, name] : {std::pair{BARE, "bare drop"}, {NOTHING, "no protection"}})
        if (const auto found = floods.find({kind, 0}); found != floods.end())
            levels.push_back({name, medianRate(found->second, &Flooded::byWallClock) / 1e6});
    return plot({seriesOf(floods, DAEMON, "cpuDefend", "#3b82f6"),
                 seriesOf(floods, NFTABLES, "nftables, ingress", "#e8590c"),
                 seriesOf(floods, IPTABLES, "iptables, INPUT with hashlimit", "#2f9e44")},
                levels);
}

} // namespace

void compareRates(Wire &wire, const std::string &svg)
{
    std::vector<Variant> variants{{BARE, 0}};
    for (Kind kind : {DAEMON, NFTABLES, IPTABLES})
        for (unsigned rules : RULES)
            variants.push_back({kind, rules});
    variants.push_back({NOTHING, 0});
    const Floods floods = inTurn(variants, [&](Protection &) { return wire.flood(FLOOD); });
    printRates(floods);
    printGoals(floods);
    if (!svg.empty())
        write(svg, drawn(floods));
}

void compareCosts(Wire &wire)
{
    const auto costs =
        inTurn({{BARE, 0}, {DAEMON, 0}, {DAEMON, 256}, {NFTABLES, 0}, {IPTABLES, 0}, {NOTHING, 0}},
               [&](Protection &protection) {
                   const double making = wire.making();
                   const double own = protection.ownTime();
                   const Flooded flooded = wire.flood(FLOOD);
                   const double receiving = flooded.taken.sending / flooded.packets - making;
                   const double others = flooded.serverSeconds + protection.ownTime() - own;
                   return (receiving + others / flooded.packets) * 1e6;
               });
    fmt::print(
        "\nCPU TIME of the protected side per million packets offered (medians of {} rounds):"
        "\nthe wire and what is behind it, the server that reads what passes, the daemon\n\n",
        ROUNDS);
    printGrouped(costs, [&](const std::string &name, const Variant &variant) {
        fmt::print("{:<34}{:>9.3f} s\n", name, median(costs.at(variant)));
    });
}
