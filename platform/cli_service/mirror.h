// The running configuration follows to the standby.
//
// A client of the redundancy service, beside the daemon's own: the active unit sends its running configuration as text
// when a standby asks and after each change; a standby enters what it lacks of it, line by line, as an operator would,
// until its own running configuration says the same. So a unit that takes over has everything in force already.
//
// While this unit is passive, operators are refused configuration commands and are shown the active unit's text.
//
// Members belong to the CLI service's thread; the redundancy service's calls come on its thread and are handed over.
#pragma once

#include "platform/kx_thread.h"
#include "platform/rdnd.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace cli
{

class Core;
struct ConfigChange;

/// Puts the pieces of a configuration together again.
class ConfigAssembly
{
public:
    struct Whole {
        std::string text;
        bool saved; ///< it is the active unit's startup configuration too
    };

    /// The pieces of `text`, in the order in which they are to be sent.
    [[nodiscard]] static std::vector<std::string> pieces(std::string_view text, bool saved,
                                                         std::uint32_t generation);

    /// Takes a piece; the whole when it was the last one. What does not continue the piece before, and does not begin
    /// another text, is dropped with all before it.
    [[nodiscard]] std::optional<Whole> add(std::string_view piece);

private:
    std::uint32_t generation_ = 0;
    std::size_t total_ = 0;
    bool saved_ = false;
    std::optional<std::string> text_; ///< so far; empty between texts
};

class ConfigMirror
{
public:
    explicit ConfigMirror(Core &core) : core_(core) {}
    ConfigMirror(const ConfigMirror &) = delete;
    ConfigMirror &operator=(const ConfigMirror &) = delete;

    /// Registers with the redundancy service, now or as soon as that is there; the service's thread serves `master`.
    void start(kx_thread_master_t *master);

    /// Why operators may not configure this unit; empty when they may. Any thread.
    [[nodiscard]] static std::string refusal();

    /// The active unit's configuration; nothing when this unit is not passive or has not got it yet.
    [[nodiscard]] const std::optional<std::string> &mirrored() const { return desired_; }

    /// The configuration may have changed. Any thread.
    void changed();
    /// The running configuration has been saved.
    void saved();
    /// How long a change may be followed by others before it is sent, and how long what has been entered may take to
    /// have effect. For tests.
    void set_delays(std::chrono::milliseconds send, std::chrono::milliseconds look_again)
    {
        send_delay_ = send;
        look_again_ = look_again;
    }
    /// The daemon accepts configuration, and the startup configuration has been applied.
    void ready();

private:
    static int on_event(char *name, RDND_EVENT event, int data_len, void *data_buf, void *arg);
    static int on_timer(kx_thread_t *thread);
    void arm(std::chrono::milliseconds delay);
    void attend();
    void try_register();

    void begin_feeding();
    bool send(const std::string &text);
    void receive(const std::string &piece);
    void role_changed();

    void reconcile();
    void follow();
    /// @param exactly  also takes back what another value of the same command should have replaced
    /// @return false when nothing differs
    [[nodiscard]] bool enter_differences(bool exactly, std::string *first_failure);
    [[nodiscard]] bool enter(const ConfigChange &change);

    Core &core_;
    std::chrono::milliseconds send_delay_{200};
    /// What is entered becomes part of the configuration when the sampling service has answered. A registration that
    /// failed is tried again after the same time.
    std::chrono::milliseconds look_again_{1000};
    kx_thread_master_t *master_ = nullptr;
    bool registered_ = false;
    bool timer_armed_ = false;

    // As active unit.
    bool feeding_ = false; ///< a standby takes configurations
    bool asked_ = false;   ///< a standby has asked, and the daemon was not ready
    std::uint32_t generation_ = 0;
    std::optional<std::string> sent_;
    bool sent_as_saved_ = false;

    // As standby.
    ConfigAssembly assembly_;
    std::optional<std::string> desired_;
    int rounds_ = 0;       ///< of entering differences, since the configuration came
    bool waiting_ = false; ///< for this unit's configuration to settle

    std::atomic<bool> interested_{false}; ///< feeding or following: changes matter
    std::atomic<bool> notified_{false};
};

} // namespace cli
