// Published access lists: one file a list, written by the ACL service and read by the sampling service.
//
// $TMPDIR/platform/acl/ID.acl holds one line and a JSON text:
//
//     sflow-access-list 1 <CRC-32 of the text, 8 hexadecimal digits> <bytes of the text>
//     { "family": "ipv4", "id": 5, …, "entries": [ … ] }
//
// A file is replaced by a rename, never changed in place: a reader sees one version or the next, and a watcher of the
// directory sees IN_MOVED_TO for a new version and IN_DELETE for a deleted list. What does not have exactly this form is
// corrupt; a member that this edition does not know is, too, because a condition that is passed over would let a list
// match more than it says.
//
// Functions are stateless and safe on any thread; only one process writes. Nothing here throws but std::bad_alloc.
#pragma once

#include "acl_list/acl_list.h"

#include <string>
#include <string_view>
#include <variant>

namespace acl
{

/// Why a published list cannot be used.
enum class Fault {
    missing,    ///< no such file: the list does not exist, or is not published yet
    unreadable, ///< the file cannot be opened or read
    corrupt,    ///< the contents are not what a publisher writes
    stale,      ///< the file is of another list than the one asked for: its id was given anew
};

struct ReadError {
    Fault fault;
    std::string reason; ///< one line, names the file
};

using ReadResult = std::variant<List, ReadError>;

/// Where the lists of a $TMPDIR are published, and a list's file there.
[[nodiscard]] std::string directory_below(std::string_view tmpdir);
[[nodiscard]] std::string file_of(std::string_view directory, std::int32_t id);

/// Reads the list `id`, which is called `name`; an empty name fits every list.
[[nodiscard]] ReadResult read_list(std::string_view directory, std::int32_t id, std::string_view name);

/// Replaces the file of the list, which must be sound; makes the directory when it is missing.
/// @return why that failed, and then the file is as before; empty on success
[[nodiscard]] std::string publish_list(std::string_view directory, const List &list);

/// Takes the file of a list away. No file is no error.
/// @return why that failed; empty on success
[[nodiscard]] std::string withdraw_list(std::string_view directory, std::int32_t id);

/// Takes all lists away, also what an interrupted publication left. No directory is no error.
/// @return why the last one of those that stay could not be removed; empty on success
[[nodiscard]] std::string withdraw_all(std::string_view directory);

/// The contents of a file, and back. The error's reason does not name a file.
[[nodiscard]] std::string encode_list(const List &list);
[[nodiscard]] ReadResult decode_list(std::string_view text);

} // namespace acl
