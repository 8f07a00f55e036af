/**
 * Writing compiled tables: tries and rows in the cells of acl_lookup.h.
 */
#ifndef ZYNLINUX_ACL_CELLS_H
#define ZYNLINUX_ACL_CELLS_H

#include <span>
#include <vector>

#include "acl/acl_classes.h"

namespace zynlinux
{

class AclCells
{
public:
    /** @param tables all zero */
    AclCells(cpd_tables &tables, AclBudget &budget) : cells_(tables.cells), budget_(budget) {}

    /** Room for so many cells, from a multiple of a number on. @throw AclTooLarge */
    uint32_t take(size_t count, uint32_t alignment = 1);

    uint32_t &operator[](size_t place) { return cells_[place]; }
    uint32_t used() const { return used_; }
    AclBudget &budget() const { return budget_; }

private:
    std::span<uint32_t> cells_;
    AclBudget &budget_;
    uint32_t used_ = CPD_ACL_PROTOCOLS;
};

/**
 * Write a table.
 * @param rows their values are as they shall be in the cells
 * @param last whether no table follows: then a row of one value is final
 * @return for each row the value that leads to it
 */
std::vector<uint32_t> writeRows(AclCells &cells, std::span<const AclRow> rows, uint32_t columns,
                                bool last);

/**
 * Write the trie of a field.
 * @param steps their values are as they shall be in the leaves
 * @param bits  of the first word that are ever set
 * @return the reference to it
 */
uint32_t writeTrie(AclCells &cells, std::span<const AclStep> steps, unsigned bits);

} // namespace zynlinux

#endif
