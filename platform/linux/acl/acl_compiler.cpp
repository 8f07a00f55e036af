#include "acl/acl_compiler.h"

#include <algorithm>
#include <map>
#include <set>

#include "acl/acl_cells.h"
#include "acl/acl_classes.h"

namespace zynlinux
{

namespace
{

constexpr AclFields only(cpd_acl_field field)
{
    return 1u << field;
}

constexpr AclFields addressFields = only(CPD_ACL_SOURCE) | only(CPD_ACL_DESTINATION);
constexpr AclFields portFields = only(CPD_ACL_SOURCE_PORT) | only(CPD_ACL_DESTINATION_PORT);

/** How many bits of its first word a field has: ports and extra have values above their range. */
constexpr unsigned addressBits = 32;
constexpr unsigned portBits = 17;
constexpr unsigned extraBits = 9;

AclRange numbers(uint32_t low, uint32_t high)
{
    return {{low, 0, 0, 0}, {high, UINT32_MAX, UINT32_MAX, UINT32_MAX}};
}

AclMatch matchOf(const AclPrefix &prefix)
{
    if (prefix.length == 0)
        return {};
    AclRange range{prefix.address, prefix.address};
    for (unsigned i = 0; i < range.high.size(); i++)
        if (prefix.length < 32 * (i + 1))
            range.high[i] |=
                prefix.length <= 32 * i ? UINT32_MAX : UINT32_MAX >> prefix.length % 32;
    return {range};
}

AclMatch matchOf(const std::optional<AclPorts> &ports)
{
    return ports ? AclMatch{numbers(ports->low, ports->high)} : AclMatch{};
}

AclMatch matchOfFlags(unsigned set, unsigned clear)
{
    AclMatch match;
    for (uint32_t flags = 0; flags < 256; flags++) {
        if ((flags & set) != set || flags & clear)
            continue;
        if (!match.empty() && match.back().high[0] + 1 == flags)
            match.back().high[0] = flags;
        else
            match.push_back(numbers(flags, flags));
    }
    return match;
}

AclMatch matchOfExtra(const AclRule &rule)
{
    if (rule.fragments)
        return {numbers(CPD_ACL_FRAGMENT, CPD_ACL_FRAGMENT)};
    if (rule.type)
        return {numbers(*rule.type, *rule.type)};
    if (rule.flagsSet | rule.flagsClear)
        return matchOfFlags(rule.flagsSet, rule.flagsClear);
    return {};
}

/** The rules that packets of a protocol can match. */
class Flattener
{
public:
    Flattener() : result_{{}, {AclMatch{}}}, known_{{AclMatch{}, 0}} {}

    void add(uint32_t list, const AclRule &rule);
    AclRules take() { return std::move(result_); }

private:
    uint32_t intern(AclMatch match);

    AclRules result_;
    std::map<AclMatch, uint32_t> known_;
};

uint32_t Flattener::intern(AclMatch match)
{
    auto [at, isNew] =
        known_.try_emplace(std::move(match), static_cast<uint32_t>(result_.matches.size()));
    if (isNew)
        result_.matches.push_back(at->first);
    return at->second;
}

void Flattener::add(uint32_t list, const AclRule &rule)
{
    AclFlatRule flat{list, rule.permit, {}};
    flat.match[CPD_ACL_SOURCE] = intern(matchOf(rule.source));
    flat.match[CPD_ACL_DESTINATION] = intern(matchOf(rule.destination));
    flat.match[CPD_ACL_SOURCE_PORT] = intern(matchOf(rule.sourcePorts));
    flat.match[CPD_ACL_DESTINATION_PORT] = intern(matchOf(rule.destinationPorts));
    flat.match[CPD_ACL_EXTRA] = intern(matchOfExtra(rule));
    result_.rules.push_back(flat);
}

/** A field with its classes. */
struct Field {
    Field(const AclRules &rules, cpd_acl_field field, AclBudget &budget)
        : classes(rules, aclAllFields & ~only(field), budget), steps(classifyField(field, classes))
    {
    }

    AclClasses classes;
    std::vector<AclStep> steps;
};

/** The tables of a protocol. */
class ProtocolCompiler
{
public:
    ProtocolCompiler(AclCells &cells, const AclRules &rules)
        : cells_(cells), rules_(rules), budget_(cells.budget())
    {
    }

    /** @return the place of the record */
    uint32_t compile();

private:
    void compilePorts(AclClasses &ports);
    void compileAddresses(const AclClasses &ports);
    std::vector<uint32_t> writeRest(const AclClasses &addresses, const AclClasses &ports);
    std::vector<uint32_t> writeAnswers(const AclClasses &rest, const AclClasses &ports);
    void write(cpd_acl_field field, std::vector<AclStep> steps, unsigned bits)
    {
        record_[field] = writeTrie(cells_, steps, bits);
    }

    AclCells &cells_;
    const AclRules &rules_;
    AclBudget &budget_;
    std::array<uint32_t, CPD_ACL_FIELDS> record_{};
};

void translate(std::vector<AclRow> &rows, const std::vector<uint32_t> &values)
{
    for (AclRow &row : rows) {
        row.other = values[row.other];
        for (auto &[column, value] : row.cells)
            value = values[value];
        std::erase_if(row.cells, [&row](const auto &cell) { return cell.second == row.other; });
    }
}

std::vector<AclStep> translated(const std::vector<AclStep> &steps,
                                const std::vector<uint32_t> &values)
{
    std::vector<AclStep> result;
    for (const AclStep &step : steps)
        if (result.empty() || result.back().value != values[step.value])
            result.push_back({step.start, values[step.value]});
    return result;
}

void ProtocolCompiler::compilePorts(AclClasses &ports)
{
    Field source(rules_, CPD_ACL_SOURCE_PORT, budget_);
    Field destination(rules_, CPD_ACL_DESTINATION_PORT, budget_);
    auto rows = crossClasses(destination.classes, source.classes, ports);
    auto values = writeRows(cells_, rows, source.classes.count(), true);
    write(CPD_ACL_DESTINATION_PORT, translated(destination.steps, values), portBits);
    write(CPD_ACL_SOURCE_PORT, source.steps, portBits);
}

std::vector<uint32_t> ProtocolCompiler::writeAnswers(const AclClasses &rest,
                                                     const AclClasses &ports)
{
    AclClasses classes(rules_, 0, budget_);
    auto rows = crossClasses(rest, ports, classes);
    std::vector<uint32_t> values;
    for (uint32_t cls = 0; cls < classes.count(); cls++) {
        auto sequence = classes.sequence(cls);
        values.push_back(sequence.empty() ? 0 : rules_.rules[sequence.front()].list + 1);
    }
    translate(rows, values);
    return writeRows(cells_, rows, ports.count(), true);
}

std::vector<uint32_t> ProtocolCompiler::writeRest(const AclClasses &addresses,
                                                  const AclClasses &ports)
{
    Field extra(rules_, CPD_ACL_EXTRA, budget_);
    if (extra.classes.count() == 1)
        return writeAnswers(addresses, ports);
    AclClasses rest(rules_, portFields, budget_);
    auto rows = crossClasses(addresses, extra.classes, rest);
    translate(rows, writeAnswers(rest, ports));
    write(CPD_ACL_EXTRA, extra.steps, extraBits);
    return writeRows(cells_, rows, extra.classes.count(), false);
}

void ProtocolCompiler::compileAddresses(const AclClasses &ports)
{
    Field source(rules_, CPD_ACL_SOURCE, budget_);
    Field destination(rules_, CPD_ACL_DESTINATION, budget_);
    AclClasses addresses(rules_, portFields | only(CPD_ACL_EXTRA), budget_);
    auto rows = crossClasses(source.classes, destination.classes, addresses);
    translate(rows, writeRest(addresses, ports));
    auto values = writeRows(cells_, rows, destination.classes.count(), false);
    write(CPD_ACL_SOURCE, translated(source.steps, values), addressBits);
    write(CPD_ACL_DESTINATION, destination.steps, addressBits);
}

uint32_t ProtocolCompiler::compile()
{
    AclClasses ports(rules_, addressFields | only(CPD_ACL_EXTRA), budget_);
    compilePorts(ports);
    compileAddresses(ports);
    uint32_t place = cells_.take(record_.size(), 8); // within one cache line
    for (size_t field = 0; field < record_.size(); field++)
        cells_[place + field] = record_[field];
    return place;
}

/** All tables of a family. */
class FamilyCompiler
{
public:
    FamilyCompiler(AclCells &cells, std::span<const AclList *const> lists, AclFamily family)
        : cells_(cells), lists_(lists), family_(family)
    {
    }

    void compile();

private:
    template <class Visit> void visit(Visit each) const;
    uint32_t compile(std::optional<uint8_t> protocol);

    AclCells &cells_;
    std::span<const AclList *const> lists_;
    AclFamily family_;
};

template <class Visit> void FamilyCompiler::visit(Visit each) const
{
    for (uint32_t list = 0; list < lists_.size(); list++)
        if (lists_[list]->family == family_)
            for (const AclRule &rule : lists_[list]->rules)
                each(list, rule);
}

/** @param protocol none for those that no rule names */
uint32_t FamilyCompiler::compile(std::optional<uint8_t> protocol)
{
    Flattener flattener;
    visit([&](uint32_t list, const AclRule &rule) {
        if (rule.protocol && rule.protocol != protocol)
            return;
        cells_.budget().spend(AclBudget::perFlat);
        flattener.add(list, rule);
    });
    AclRules rules = flattener.take();
    if (rules.rules.empty())
        return 0;
    return ProtocolCompiler(cells_, rules).compile();
}

void FamilyCompiler::compile()
{
    std::set<uint8_t> named;
    visit([&](uint32_t, const AclRule &rule) {
        if (rule.protocol)
            named.insert(*rule.protocol);
    });
    uint32_t first = family_ == AclFamily::Ipv6 ? 256 : 0;
    uint32_t others = compile(std::nullopt);
    for (uint32_t protocol = 0; protocol < 256; protocol++)
        cells_[first + protocol] = others;
    for (uint8_t protocol : named)
        cells_[first + protocol] = compile(protocol);
}

} // namespace

size_t compileAcls(std::span<const AclList *const> lists, cpd_tables &tables,
                   const std::atomic<bool> *stop)
try {
    std::ranges::fill(tables.cells, 0);
    AclBudget budget(stop);
    for (const AclList *list : lists)
        budget.spend(list->rules.size() * AclBudget::perRule);
    AclCells cells(tables, budget);
    for (AclFamily family : {AclFamily::Ipv4, AclFamily::Ipv6})
        FamilyCompiler(cells, lists, family).compile();
    return cells.used();
} catch (const AclTooLarge &) {
    return 0;
}

} // namespace zynlinux
