/**
 * From access lists to the tables that the packet program looks an ACL entry up in.
 */
#ifndef ZYNLINUX_ACL_COMPILER_H
#define ZYNLINUX_ACL_COMPILER_H

#include <span>

#include "acl.h"
#include "bpf/acl_lookup.h"

namespace zynlinux
{

/**
 * Compile the lists of a target, in the order in which they were bound. Lookups give the first one
 * that selects the packet: the number n for lists[n - 1]. A list may stand there more than once.
 * @param tables receives the tables; of no use on failure
 * @return how many cells from the first on are in use (those behind are 0), or 0 when the lists
 *         do not fit
 */
size_t compileAcls(std::span<const AclList *const> lists, cpd_tables &tables);

} // namespace zynlinux

#endif
