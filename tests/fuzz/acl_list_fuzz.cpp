// The input is the text of a published access list: it goes through the reader as it is and once more behind a first line
// with the right length and checksum. What is read must be sound, and must be read back the same when it is written.
#include "acl_list/acl_file.h"

#include <cstdio>
#include <cstdlib>
#include <zlib.h>

namespace
{

void check(std::string_view text)
{
    const acl::ReadResult result = acl::decode_list(text);
    const auto *const list = std::get_if<acl::List>(&result);
    if (list == nullptr)
        return;
    if (acl::find_fault(*list))
        std::abort();
    const acl::ReadResult again = acl::decode_list(acl::encode_list(*list));
    if (again.index() != 0 || std::get<acl::List>(again) != *list)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    check(text);
    char head[64];
    std::snprintf(head, sizeof head, "sflow-access-list 1 %08lx %zu\n",
                  ::crc32_z(0, reinterpret_cast<const Bytef *>(text.data()), text.size()), text.size());
    check(head + text);
    return 0;
}
