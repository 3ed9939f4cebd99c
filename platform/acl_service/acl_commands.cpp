#include "acl_service/acl_commands.h"

#include "acl_service/acl_service.h"
#include "acl_service/acl_slots.h"
#include "cli_service/command.h"
#include "cli_service/console.h"
#include "cli_service/core.h"

namespace platform
{

namespace
{

/// Tells the operator why a command fails.
void refuse(struct_command_data_block *record, const std::string &error)
{
    cli_printf("%% %s\n", error.c_str());
    cli_client_execmd_fail(record);
}

void refuse_if_failed(struct_command_data_block *record, const std::string &error)
{
    if (!error.empty())
        refuse(record, error);
}

std::string typed_name(const struct_command_data_block *record)
{
    return record->string_var[0][0] != '\0' ? std::string(record->string_var[0])
                                            : std::to_string(record->int_var[0]);
}

std::string is_another(const AccessList &list)
{
    return "Access list " + list.name() + " is " + std::string(info_of(list.kind()).noun);
}

bool is_ip(ListKind kind)
{
    return kind == ListKind::standard || kind == ListKind::extended;
}

/// Deletes a list that clients use, between what was set before and what is set next. A client that has asked for a
/// setting by the list and has no answer yet would not find it among its own and keep it; one that has asked for its
/// end still has it, and would take the next setting by a list of that name for one that it has already.
void delete_used_list(cli_session_t &session, int id)
{
    session.hold();
    session.core().when_settled([command = session.shared_from_this(), id] {
        if (const std::string error = acl_service().remove(id); !error.empty()) {
            command->write("% " + error + "\n");
            command->fail();
            command->release();
            return;
        }
        command->core().mark_changed();
        command->core().when_settled([command] { command->release(); });
    });
}

void delete_list(struct_command_data_block *record)
{
    const std::string name = typed_name(record);
    const auto present = acl_service().find(name);
    if (!present) {
        refuse(record, "Access list " + name + " does not exist");
        return;
    }
    const ListKind kind = present->list.kind();
    const bool meant = record->flag_1 == 0 ? is_ip(kind) : record->flag_1 == 1 + static_cast<int64_t>(kind);
    cli_session_t &session = *record->session;
    // who follows another unit's configuration waits by itself, and can be held up by no command
    const bool waits = session.console() != nullptr && !session.console()->internal();
    if (meant && waits && (present->references > 0 || acl_is_named(present->list.name())))
        delete_used_list(session, present->list.id());
    else
        refuse_if_failed(record,
                         meant ? acl_service().remove(present->list.id()) : is_another(present->list));
}

/// The list of the mode. It can be deleted while an operator is in it: then the mode is left.
std::optional<AclService::Snapshot> list_of_mode(struct_command_data_block *record)
{
    auto present = acl_service().find(static_cast<int>(record->mode_intidx));
    const bool meant = present && info_of(present->list.kind()).mode == std::string_view(record->mode_name);
    if (meant)
        return present;
    refuse(record, "The access list does not exist any more");
    cli_enter_mode(record, CLI_MODE_CONFIG, 0, nullptr);
    return std::nullopt;
}

/// Enters or, after `no`, takes away a line of the mode's list.
void change_line(struct_command_data_block *record, const AccessList &list, const Line &line)
{
    const auto sequence = static_cast<std::uint32_t>(record->int_var[VAR_SEQUENCE]);
    const bool negated = record->flag_nd_prefix != 0;
    refuse_if_failed(record, acl_service().edit(list.id(), [&](AccessList &changed) {
        return negated ? changed.remove(sequence, line) : changed.put(sequence, line);
    }));
}

} // namespace

void acl_list_cmd(struct_command_data_block *record)
{
    if (record->flag_nd_prefix != 0) {
        delete_list(record);
        return;
    }
    const auto kind = static_cast<ListKind>(record->flag_1 - 1);
    const std::string name = typed_name(record);
    int id = 0;
    const std::string error = acl_service().enter(kind, name, id);
    if (error.empty())
        cli_enter_mode(record, info_of(kind).mode, static_cast<u_int64_t>(id), name.c_str());
    else
        refuse(record, error);
}

void acl_lists_c2p(struct_command_data_block *record)
{
    for (const AclService::Snapshot &entry : acl_service().all()) {
        const AccessList &list = entry.list;
        const ListKindInfo &info = info_of(list.kind());
        c2p_printf(1, record, "%s %s", std::string(info.command).c_str(), list.name().c_str());
        cli_change_mode(record, info.mode, 1);
        for (const auto &[number, line] : list.lines())
            c2p_printf(1, record, "%u %s", number, line_text(line, list.kind()).c_str());
        cli_change_mode(record, CLI_MODE_CONFIG, 1);
        c2p_printf(1, record, "!");
    }
}

void acl_entry_cmd(struct_command_data_block *record)
{
    if (const auto present = list_of_mode(record)) {
        const AccessList &list = present->list;
        change_line(record, list, entry_of(*record, info_of(list.kind()).family));
    }
}

void acl_remark_cmd(struct_command_data_block *record)
{
    if (const auto present = list_of_mode(record))
        change_line(record, present->list, std::string(record->string_var[0]));
}

void acl_no_sequence_cmd(struct_command_data_block *record)
{
    const auto present = list_of_mode(record);
    if (!present)
        return;
    const auto sequence = static_cast<std::uint32_t>(record->int_var[VAR_SEQUENCE]);
    refuse_if_failed(record, acl_service().edit(present->list.id(), [sequence](AccessList &changed) {
        return changed.remove(sequence);
    }));
}

void acl_resequence_cmd(struct_command_data_block *record)
{
    const auto present = list_of_mode(record);
    if (!present)
        return;
    const auto typed = [record](int slot) {
        return record->int_var[slot] == 0 ? AccessList::step
                                          : static_cast<std::uint32_t>(record->int_var[slot]);
    };
    refuse_if_failed(record,
                     acl_service().resequence(present->list.id(), typed(VAR_SEQUENCE), typed(VAR_STEP)));
}

} // namespace platform
