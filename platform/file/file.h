// Whole files: reading and writing all of one, and replacing one so that nobody ever sees half of it.
//
// Functions are stateless and safe on any thread. Nothing here throws but std::bad_alloc.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>

namespace platform
{

/// Reads up to the end, but not much more than `limit` bytes: a text that is larger than that says that there are more.
/// False with errno set.
[[nodiscard]] bool read_all(int fd, std::size_t limit, std::string &text);

/// Writes all of it. False with errno set.
[[nodiscard]] bool write_all(int fd, std::string_view text);

enum class Durable {
    no,  ///< a power failure may leave an empty or torn file
    yes, ///< text and name are on the disk on return
};

/// Replaces the file: readers, and a restart at any moment, see the old text or the new one. The new text is written to
/// PATH.new first, which must not be a link. The directory must be there; the permissions become `mode`, whatever the
/// process's mask.
/// @return why that failed, the old file being as it was; empty on success
[[nodiscard]] std::string replace_file(const std::string &path, std::string_view text, mode_t mode,
                                       Durable durable);

/// The part of a path that names the directory.
[[nodiscard]] std::string directory_of(const std::string &path);

} // namespace platform
