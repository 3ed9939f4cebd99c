#include "mirror.h"

#include "config_diff.h"
#include "config_file.h"
#include "console.h"
#include "core.h"
#include "platform/syslog_client.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace cli
{
namespace
{

using std::chrono::milliseconds;

constexpr char client_name[] = "SFLOW_CONFIG";
constexpr unsigned long text_version = 1;
constexpr std::size_t piece_bytes = 32768;
constexpr int log_warning = 4;

/// What differs for long is looked at so much less often.
constexpr int patience_factor = 30;
/// Rounds after which what still differs is told of.
constexpr int rounds_told = 10;

/// Begins every piece. Both units are alike: host byte order.
struct PieceHead {
    std::uint32_t generation;
    std::uint32_t total;
    std::uint32_t offset;
    std::uint32_t saved;
};

bool is_passive()
{
    const rdnd_role role = rdnd_get_role();
    return role == RDND_ROLE_SLAVE || role == RDND_ROLE_CANDIDATE;
}

} // namespace

// ---- Pieces -------------------------------------------------------------------------------------------------------

std::vector<std::string> ConfigAssembly::pieces(std::string_view text, bool saved, std::uint32_t generation)
{
    std::vector<std::string> list;
    std::size_t offset = 0;
    do {
        const std::string_view part = text.substr(offset, piece_bytes);
        const PieceHead head{.generation = generation,
                             .total = static_cast<std::uint32_t>(text.size()),
                             .offset = static_cast<std::uint32_t>(offset),
                             .saved = saved ? 1U : 0U};
        std::string piece(sizeof(head), '\0');
        std::memcpy(piece.data(), &head, sizeof(head));
        list.push_back(piece.append(part));
        offset += part.size();
    } while (offset < text.size());
    return list;
}

std::optional<ConfigAssembly::Whole> ConfigAssembly::add(std::string_view piece)
{
    PieceHead head{};
    if (piece.size() < sizeof(head)) {
        text_.reset();
        return std::nullopt;
    }
    std::memcpy(&head, piece.data(), sizeof(head));
    const std::string_view part = piece.substr(sizeof(head));
    if (head.offset == 0) {
        generation_ = head.generation;
        total_ = head.total;
        saved_ = head.saved != 0;
        text_.emplace();
    }
    const bool continues = text_ && head.generation == generation_ && head.total == total_ &&
                           head.offset == text_->size() && part.size() <= total_ - text_->size() &&
                           total_ <= CONFIG_FILE_LIMIT;
    if (!continues) {
        text_.reset();
        return std::nullopt;
    }
    text_->append(part);
    if (text_->size() < total_)
        return std::nullopt;
    Whole whole{.text = std::move(*text_), .saved = saved_};
    text_.reset();
    return whole;
}

// ---- Registration and events --------------------------------------------------------------------------------------

void ConfigMirror::start(kx_thread_master_t *master)
{
    if (master != master_)
        timer_armed_ = false; // it was the old master's
    master_ = master;
    try_register();
}

void ConfigMirror::try_register()
{
    if (registered_)
        return;
    registered_ = rdnd_callback_register(client_name, text_version, on_event, 0, this) == 0;
    if (!registered_)
        arm(look_again_);
}

int ConfigMirror::on_event(char *name, RDND_EVENT event, int data_len, void *data_buf, void *arg)
{
    auto *mirror = static_cast<ConfigMirror *>(arg);
    Core &core = mirror->core_;
    switch (event) {
    case RDND_E_VERSION_CHECK:
        return rdnd_get_version(data_len, data_buf) == text_version ? RDND_VERCHK_PASS : RDND_VERCHK_NG;
    case RDND_E_BATCH_SYN_REQ:
        core.post([mirror] { mirror->begin_feeding(); });
        break;
    case RDND_E_BACKUP_MSG:
        core.post(
            [mirror, piece = std::string(static_cast<const char *>(data_buf),
                                         static_cast<std::size_t>(data_len))] { mirror->receive(piece); });
        break;
    case RDND_E_SWITCHOVER:
        rdnd_notify_completion(name, RDND_NOTIFY_SWITCHOVER);
        break;
    case RDND_E_STAT_READY:
    case RDND_E_SWITCHOVER_END:
        core.post([mirror] { mirror->role_changed(); });
        break;
    case RDND_E_WILL_SWITCHOVER:
    case RDND_E_FAST_SWITCHOVER:
        break;
    }
    return 0;
}

int ConfigMirror::on_timer(kx_thread_t *thread)
{
    auto *mirror = static_cast<ConfigMirror *>(kx_thread_arg(thread));
    mirror->timer_armed_ = false;
    mirror->attend();
    return 0;
}

void ConfigMirror::arm(milliseconds delay)
{
    if (!timer_armed_ && master_ != nullptr)
        timer_armed_ =
            kx_thread_add_timer_msec(master_, on_timer, this, static_cast<long>(delay.count())) != nullptr;
}

void ConfigMirror::attend()
{
    notified_.store(false);
    try_register();
    if (feeding_)
        feeding_ = send(core_.running_config(false));
    reconcile();
    interested_.store(feeding_ || desired_.has_value());
}

void ConfigMirror::changed()
{
    if (interested_.load() && !notified_.exchange(true))
        core_.post([this] { arm(desired_ ? look_again_ : send_delay_); });
}

// ---- The active unit ----------------------------------------------------------------------------------------------

void ConfigMirror::begin_feeding()
{
    // Before that the startup configuration is still to come, and a standby would give up what it has.
    asked_ = !core_.ready();
    if (asked_)
        return;
    sent_.reset();
    feeding_ = send(core_.running_config(false));
    interested_.store(feeding_ || desired_.has_value());
    if (feeding_)
        rdnd_notify_completion(client_name, RDND_NOTIFY_BATCH);
}

/// False when the redundancy service takes no more, until the next batch.
bool ConfigMirror::send(const std::string &text)
{
    const bool as_saved = core_.is_saved(text);
    if (sent_ == text && sent_as_saved_ == as_saved)
        return true;
    for (const std::string &piece : ConfigAssembly::pieces(text, as_saved, ++generation_)) {
        const int result = rdnd_chkpnt_enqueue(client_name, static_cast<int>(piece.size()), piece.data(), 0);
        if (result == RDND_ENQUEUE_STOP)
            return false;
    }
    sent_ = text;
    sent_as_saved_ = as_saved;
    return true;
}

void ConfigMirror::saved()
{
    if (feeding_)
        feeding_ = send(core_.running_config(false));
}

// ---- The standby --------------------------------------------------------------------------------------------------

std::string ConfigMirror::refusal()
{
    switch (rdnd_get_role()) {
    case RDND_ROLE_SLAVE:
        return "This unit is the standby: configure the active unit, this one follows it";
    case RDND_ROLE_CANDIDATE:
        return "This unit is not the active one and cannot be configured; \"show redundancy\" tells why";
    default:
        return {};
    }
}

void ConfigMirror::receive(const std::string &piece)
{
    std::optional<ConfigAssembly::Whole> whole = assembly_.add(piece);
    if (!whole || !is_passive())
        return;
    if (whole->saved)
        core_.save_mirrored(whole->text);
    desired_ = std::move(whole->text);
    rounds_ = 0;
    interested_.store(true);
    reconcile();
}

void ConfigMirror::ready()
{
    reconcile();
    if (!asked_)
        return;
    // What the startup configuration sets becomes part of the running one with the sampling service's answers.
    core_.when_settled([this] {
        if (asked_)
            begin_feeding();
    });
}

void ConfigMirror::role_changed()
{
    feeding_ = asked_ = false;
    if (is_passive())
        return;
    // The last chance of what is still missing: from here on the configuration is the operators' again.
    std::string failure;
    if (desired_ && core_.ready() && enter_differences(false, &failure) &&
        enter_differences(true, &failure) && !failure.empty())
        printk_syslog_ext(log_warning, "CLI", "MIRROR", SYSLOG_DEST_OPERATOR,
                          "this unit took over without a line of the configuration: %s", failure.c_str());
    if (core_.ready())
        desired_.reset();
    interested_.store(desired_.has_value());
}

void ConfigMirror::reconcile()
{
    // Before the daemon is ready the startup configuration is still to come.
    if (!desired_ || !core_.ready())
        return;
    if (!is_passive()) {
        role_changed();
        return;
    }
    if (std::exchange(waiting_, true))
        return;
    // A setting that is entered while the sampling service has not answered the one before can miss interfaces.
    core_.when_settled([this] {
        waiting_ = false;
        if (desired_ && core_.ready() && is_passive())
            follow();
    });
}

void ConfigMirror::follow()
{
    std::string failure;
    if (!enter_differences(rounds_ > 0, &failure)) {
        rounds_ = 0;
        return;
    }
    if (++rounds_ == rounds_told)
        printk_syslog_ext(log_warning, "CLI", "MIRROR", SYSLOG_DEST_OPERATOR,
                          "this unit cannot follow the active unit's configuration: %s",
                          failure.empty() ? "what was entered has not taken effect" : failure.c_str());
    arm(rounds_ < rounds_told ? look_again_ : patience_factor * look_again_);
}

bool ConfigMirror::enter_differences(bool exactly, std::string *first_failure)
{
    std::vector<ConfigChange> changes = config_changes(core_.running_config(false), *desired_);
    if (!exactly)
        changes = exchanging_values(std::move(changes));
    for (const ConfigChange &change : changes)
        if (!enter(change) && first_failure->empty())
            *first_failure = (change.remove ? "no " : "") + change.line +
                             (change.section.empty() ? "" : " (" + change.section + ")");
    return !changes.empty();
}

bool ConfigMirror::enter(const ConfigChange &change)
{
    Console console(core_, Level::privileged, Mode::config);
    console.set_internal();
    const auto run = [&console](std::string_view line) {
        Status status = Status::failed;
        if (!console.busy())
            console.run(
                line, 0, [](std::string_view) {}, [&](Status s) { status = s; });
        return status;
    };
    if (!change.section.empty() && run(change.section) != Status::ok)
        return change.remove; // with its interface the setting is gone
    if (!change.remove)
        return run(change.line) == Status::ok;
    for (const std::string &line : negations(change.line))
        if (const Status status = run(line); status != Status::refused)
            return status == Status::ok;
    return false;
}

} // namespace cli
