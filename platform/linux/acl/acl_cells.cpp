#include "acl/acl_cells.h"

#include <algorithm>
#include <bit>
#include <numeric>

namespace zynlinux
{

uint32_t AclCells::take(size_t count, uint32_t alignment)
{
    uint32_t first = (used_ + alignment - 1) / alignment * alignment;
    if (count > cells_.size() - first)
        throw AclTooLarge();
    used_ = first + static_cast<uint32_t>(count);
    return first;
}

namespace
{

constexpr uint32_t marksMax = CPD_ACL_VALUE >> 8; /**< 12 bits; 0 is that of a free cell */
constexpr uint32_t triesMax = 1024;               /**< places to look at for a row */
constexpr uint32_t triesMany = 64;                /**< after so many, look further on next time */

/**
 * Rows laid over each other. Each has its own mark; when all marks are given out, rows go to a new
 * area where no column of an older row can reach.
 */
class RowPacker
{
public:
    RowPacker(AclCells &cells, uint32_t columns) : cells_(cells), columns_(columns) { open(); }

    /** @return what the first cell of the row's own says */
    uint32_t place(const AclRow &row);

private:
    void open();
    void reach(uint32_t end);
    bool fits(const AclRow &row, uint32_t place) const;
    uint32_t find(const AclRow &row);

    AclCells &cells_;
    uint32_t columns_;
    uint32_t area_ = 0; /**< where it begins; its end is that of all that is taken */
    uint32_t mark_ = 0;
    uint32_t free_ = 0;  /**< no cell of the area before this one is free */
    uint32_t start_ = 0; /**< few cells before this one are free */
};

void RowPacker::open()
{
    area_ = free_ = start_ = cells_.take(columns_);
    mark_ = 0;
}

void RowPacker::reach(uint32_t end)
{
    if (end > cells_.used())
        cells_.take(end - cells_.used());
}

bool RowPacker::fits(const AclRow &row, uint32_t place) const
{
    return std::ranges::all_of(row.cells, [&](const auto &cell) {
        uint32_t at = place + cell.first;
        return at >= cells_.used() || cells_[at] == 0;
    });
}

/** Any gap does for a single cell; for more, gaps that are too small are left behind. */
uint32_t RowPacker::find(const AclRow &row)
{
    uint32_t first = row.cells.empty() ? 0 : row.cells.front().first;
    uint32_t from = std::max(area_ + first, row.cells.size() < 2 ? free_ : start_);
    for (uint32_t tries = 0; tries < triesMax; tries++) {
        cells_.budget().spend(1);
        if (!fits(row, from + tries - first))
            continue;
        if (tries > triesMany)
            start_ = std::max(start_, from) + tries / 4;
        return from + tries - first;
    }
    start_ = std::max(area_ + first, cells_.used());
    return start_ - first;
}

uint32_t RowPacker::place(const AclRow &row)
{
    if (mark_ == marksMax)
        open();
    mark_++;
    uint32_t place = find(row);
    reach(place + columns_);
    uint32_t mark = mark_ << CPD_ACL_MARK_SHIFT;
    for (const auto &[column, value] : row.cells)
        cells_[place + column] = mark | value;
    while (free_ < cells_.used() && cells_[free_] != 0)
        free_++;
    return mark | place;
}

uint64_t hashOf(const AclRow &row)
{
    uint64_t hash = row.other;
    for (const auto &[column, value] : row.cells)
        hash = (hash ^ (uint64_t(column) << 32 | value)) * 0x9e3779b97f4a7c15;
    return hash ^ hash >> 32;
}

/** For each row the first one that is equal to it. */
std::vector<uint32_t> firstOfEach(std::span<const AclRow> rows)
{
    std::unordered_multimap<uint64_t, uint32_t> seen;
    std::vector<uint32_t> result;
    for (uint32_t row = 0; row < rows.size(); row++) {
        auto [at, end] = seen.equal_range(hashOf(rows[row]));
        at = std::find_if(at, end, [&](auto &each) { return rows[each.second] == rows[row]; });
        result.push_back(at != end ? at->second : row);
        if (at == end)
            seen.emplace(hashOf(rows[row]), row);
    }
    return result;
}

} // namespace

std::vector<uint32_t> writeRows(AclCells &cells, std::span<const AclRow> rows, uint32_t columns,
                                bool last)
{
    std::vector<uint32_t> first = firstOfEach(rows), values(rows.size()), order;
    for (uint32_t row = 0; row < rows.size(); row++) {
        bool constant = rows[row].cells.empty();
        if (constant && (last || rows[row].other & CPD_ACL_FINAL))
            values[row] = rows[row].other | CPD_ACL_FINAL;
        else if (first[row] == row)
            order.push_back(row);
    }
    // The fullest rows first: the others fit into the gaps that these leave.
    std::ranges::stable_sort(order, std::greater(),
                             [&](uint32_t row) { return rows[row].cells.size(); });
    uint32_t place = cells.take(order.size() * 2, 2);
    if (!order.empty()) {
        RowPacker packer(cells, columns);
        for (uint32_t row : order) {
            values[row] = place / 2;
            cells[place++] = packer.place(rows[row]);
            cells[place++] = rows[row].other;
        }
    }
    for (uint32_t row = 0; row < rows.size(); row++)
        if (first[row] != row)
            values[row] = values[first[row]];
    return values;
}

namespace
{

/** From a value of a word to a reference, up to the next one's start. */
struct Item {
    uint32_t start;
    uint32_t reference;
};

/** An aligned part of a word's values. */
struct Block {
    uint32_t low;
    unsigned bits;

    uint32_t high() const { return low + static_cast<uint32_t>((uint64_t(1) << bits) - 1); }
};

class TrieWriter
{
public:
    explicit TrieWriter(AclCells &cells) : cells_(cells) {}

    uint32_t write(std::span<const AclStep> steps, unsigned word, unsigned bits);

private:
    uint32_t node(std::span<const Item> items, Block block, unsigned word, unsigned depth);
    uint32_t compare(uint32_t low, uint32_t high, uint32_t inside, uint32_t outside, unsigned word);
    uint32_t branch(std::span<const Item> items, Block block, unsigned word, unsigned depth);

    AclCells &cells_;
};

uint32_t leaf(uint32_t value)
{
    return CPD_ACL_LEAF | value;
}

bool isStart(const AclValue &value, unsigned word)
{
    return std::all_of(value.begin() + word + 1, value.end(), [](uint32_t each) { return !each; });
}

void append(std::vector<Item> &items, uint32_t start, uint32_t reference)
{
    if (items.empty() || items.back().reference != reference)
        items.push_back({start, reference});
}

/** Bits that a node looks at: enough for its items, and for all to be looked at in time. */
unsigned branchWidth(size_t items, unsigned bits, unsigned depth)
{
    constexpr unsigned widthMax = 12;
    unsigned wanted = std::min(static_cast<unsigned>(std::bit_width(items - 1)), widthMax);
    unsigned needed = (bits + depth - 1) / depth;
    return std::min(bits, std::max(wanted, needed));
}

uint32_t TrieWriter::compare(uint32_t low, uint32_t high, uint32_t inside, uint32_t outside,
                             unsigned word)
{
    uint32_t place = cells_.take(4, 4);
    cells_[place] = low;
    cells_[place + 1] = high - low;
    cells_[place + 2] = inside;
    cells_[place + 3] = outside;
    return place | word << CPD_ACL_WORD_SHIFT;
}

uint32_t TrieWriter::branch(std::span<const Item> items, Block block, unsigned word, unsigned depth)
{
    unsigned width = branchWidth(items.size(), block.bits, depth);
    Block part{block.low, block.bits - width};
    uint32_t place = cells_.take(size_t(1) << width);
    for (uint32_t i = 0; i < 1u << width; i++, part.low += 1u << part.bits) {
        size_t count = 1; // of items that begin within the part, or hold at its start
        while (items.size() > 1 && items[1].start <= part.low)
            items = items.subspan(1);
        while (count < items.size() && items[count].start <= part.high())
            count++;
        cells_[place + i] = node(items.first(count), part, word, depth - 1);
    }
    return place | word << CPD_ACL_WORD_SHIFT | width << CPD_ACL_WIDTH_SHIFT |
           part.bits << CPD_ACL_SHIFT_SHIFT;
}

/**
 * @param items the first one may begin before the block, the last one end behind it
 * @param depth how many nodes may still follow each other
 */
uint32_t TrieWriter::node(std::span<const Item> items, Block block, unsigned word, unsigned depth)
{
    if (items.size() == 1)
        return items.front().reference;
    uint32_t low = items[1].start, outside = items.front().reference;
    if (items.size() == 2)
        return compare(low, block.high(), items[1].reference, outside, word);
    uint32_t high = items.back().start - 1;
    if (items.back().reference != outside)
        return branch(items, block, word, depth);
    if (items.size() == 3)
        return compare(low, high, items[1].reference, outside, word);

    // Where all that differs is in a small part of the block, go there at once.
    auto bits = static_cast<unsigned>(std::bit_width(low ^ high));
    if (bits + 3 > block.bits || depth < 2 || bits > (depth - 1) * 5)
        return branch(items, block, word, depth);
    Block part{low & ~static_cast<uint32_t>((uint64_t(1) << bits) - 1), bits};
    if (items.back().start > part.high())
        items = items.first(items.size() - 1);
    if (low == part.low)
        items = items.subspan(1);
    return compare(part.low, part.high(), node(items, part, word, depth - 1), outside, word);
}

/** @param steps the first one may begin before the word's first value */
uint32_t TrieWriter::write(std::span<const AclStep> steps, unsigned word, unsigned bits)
{
    std::vector<Item> items{{0, leaf(steps.front().value)}};
    for (size_t i = 1; i < steps.size();) {
        uint32_t start = steps[i].start[word];
        size_t end = i;
        while (end < steps.size() && steps[end].start[word] == start)
            end++;
        if (end == i + 1 && isStart(steps[i].start, word)) {
            append(items, start, leaf(steps[i].value));
        } else {
            size_t first = isStart(steps[i].start, word) ? i : i - 1;
            append(items, start, write(steps.subspan(first, end - first), word + 1, 32));
            if (start != UINT32_MAX)
                append(items, start + 1, leaf(steps[end - 1].value));
        }
        i = end;
    }
    // Two at the same value: the later one holds, the earlier one was the end of a part before it.
    std::vector<Item> clean;
    for (const Item &item : items) {
        if (!clean.empty() && clean.back().start == item.start)
            clean.pop_back();
        append(clean, item.start, item.reference);
    }
    return node(clean, {0, bits}, word, CPD_ACL_STEPS);
}

} // namespace

uint32_t writeTrie(AclCells &cells, std::span<const AclStep> steps, unsigned bits)
{
    return TrieWriter(cells).write(steps, 0, bits);
}

} // namespace zynlinux
