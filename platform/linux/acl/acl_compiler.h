/**
 * From access lists to the tables that the packet program looks an ACL entry up in.
 */
#ifndef ZYNLINUX_ACL_COMPILER_H
#define ZYNLINUX_ACL_COMPILER_H

#include <atomic>
#include <span>

#include "acl/acl.h"
#include "bpf/acl_lookup.h"

namespace zynlinux
{

/**
 * Compile the lists of a target, in the order in which they were bound. Lookups give the first one
 * that selects the packet: the number n for lists[n - 1]. A list may stand there more than once.
 * @param tables receives the tables; of no use on failure
 * @param stop   when it turns true, the work is given up, as if the lists did not fit; may be null
 * @return how many cells from the first on are in use (those behind are 0), or 0 when the lists
 *         do not fit
 */
size_t compileAcls(std::span<const AclList *const> lists, cpd_tables &tables,
                   const std::atomic<bool> *stop = nullptr);

} // namespace zynlinux

#endif
