#include "bpf_acl_tables.h"

#include "acl_compiler.h"

#include <bpf/bpf.h>
#include <cerrno>

namespace sampling
{

UniqueFd make_acl_table_map()
{
    return UniqueFd(bpf_map_create(BPF_MAP_TYPE_ARRAY, "sflow_acl", sizeof(std::uint32_t),
                                   sizeof(sflow_acl_table), 1, nullptr));
}

BpfAclTables::BpfAclTables(Log &log, int map_fd, std::uint32_t slots) : log_(log), map_fd_(map_fd)
{
    for (std::uint32_t slot = slots; slot-- > 1;)
        free_slots_.push_back(slot);
}

bool BpfAclTables::put(std::uint32_t slot, const acl::List &list)
{
    const std::uint32_t zero = 0;
    const UniqueFd table = make_acl_table_map();
    const int table_fd = table.get();
    if (table && bpf_map_update_elem(table_fd, &zero, compile(list).get(), BPF_ANY) == 0 &&
        bpf_map_update_elem(map_fd_, &slot, &table_fd, BPF_ANY) == 0)
        return true;
    log_.error("access list ", list.name, ": its table in the kernel: ", error_text(errno));
    return false;
}

void BpfAclTables::clear(std::uint32_t slot)
{
    bpf_map_delete_elem(map_fd_, &slot); // an empty slot is as good
}

bool BpfAclTables::install(const acl::List &list)
{
    if (const auto present = slots_.find(list.id); present != slots_.end())
        return put(present->second, list);
    if (free_slots_.empty()) {
        log_.error("access list ", list.name, ": all ", slots_.size(), " places for lists are taken");
        return false;
    }
    if (!put(free_slots_.back(), list))
        return false;
    slots_.emplace(list.id, free_slots_.back());
    free_slots_.pop_back();
    return true;
}

void BpfAclTables::withhold(std::int32_t id)
{
    if (const std::uint32_t slot = slot_of(id); slot != 0)
        clear(slot);
}

void BpfAclTables::drop(std::int32_t id)
{
    const auto present = slots_.find(id);
    if (present == slots_.end())
        return;
    clear(present->second);
    free_slots_.push_back(present->second);
    slots_.erase(present);
}

std::uint32_t BpfAclTables::slot_of(std::int32_t id) const
{
    const auto present = slots_.find(id);
    return present == slots_.end() ? 0 : present->second;
}

} // namespace sampling
