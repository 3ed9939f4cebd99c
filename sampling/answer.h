// Result codes that the sampling service puts into the `ret` of its answers.
//
// 0 is success. The daemon gives -10 and -11 a meaning of their own (conflicts with two other features), which this
// service never has; its own codes therefore begin at -20. The reason of each refusal stands in the service's log.
#pragma once

#include <cstdint>

namespace sampling
{

enum class Answer : std::int32_t {
    ok = 0,
    no_interface = -20,    ///< no interface has this index
    acl_unsupported = -21, ///< sampling in this direction cannot be limited to an access list
    hook_refused = -22,    ///< the kernel refused the hook, or another program occupies its place
    bad_request = -23,     ///< direction, rate or flags make no sense
    type_unsupported =
        -24, ///< frames of this kind of interface carry no Ethernet header, or it passes no frames
    too_many_samplers = -25, ///< the table of samplers is full
    acl_missing = -26,       ///< the access list is not published
    acl_unreadable = -27,    ///< its file cannot be read
    acl_corrupt = -28,       ///< its file is not what the ACL service writes
    acl_stale = -29,         ///< its file is of another list, or older than what is in force
    acl_refused = -30,       ///< the backend cannot take one more list
    too_many_acls = -31,     ///< two other lists limit this sampling already
};

/// One clause for the log.
[[nodiscard]] constexpr const char *answer_text(Answer answer)
{
    switch (answer) {
    case Answer::ok:
        return "accepted";
    case Answer::no_interface:
        return "no such interface";
    case Answer::acl_unsupported:
        return "sampling in this direction cannot be limited to an access list";
    case Answer::hook_refused:
        return "the kernel refused the hook";
    case Answer::bad_request:
        return "the request makes no sense";
    case Answer::type_unsupported:
        return "this type of interface cannot be sampled";
    case Answer::too_many_samplers:
        return "the table of samplers is full";
    case Answer::acl_missing:
        return "the access list is not published";
    case Answer::acl_unreadable:
        return "the access list cannot be read";
    case Answer::acl_corrupt:
        return "the published access list is corrupt";
    case Answer::acl_stale:
        return "the published access list is stale";
    case Answer::acl_refused:
        return "the access list cannot be put in force";
    case Answer::too_many_acls:
        return "two other access lists limit it already";
    }
    return "unknown result";
}

} // namespace sampling
