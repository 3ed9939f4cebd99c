// The support text, to the operator who asks for it or into a file.
//
// Modules write their part on the service's thread, which must stay free for it meanwhile: each collection has a thread
// of its own, which ends with it. A file without a path goes to the daemon's folder for such files and is given to the
// operator. One with a path is made with the rights of the operator and not of the daemon, so that nobody gains any by
// asking for one.
#include "console.h"
#include "descriptor.h"
#include "own_commands.h"
#include "platform/tech.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <grp.h>
#include <string>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <system_error>
#include <thread>

namespace cli
{
namespace
{

constexpr std::chrono::seconds patience{10};
constexpr mode_t file_mode = 0600;

/// Gives the calling thread, for the rest of its life, the file rights of a user and his group. The kernel keeps them
/// for each thread; the library's setgroups() would change every thread's. False when they are not to be had.
bool take_rights_of(const User &user)
{
    constexpr auto ask = static_cast<unsigned>(-1);
    if (user.uid == geteuid())
        return true;
    if (syscall(SYS_setgroups, 0, nullptr) != 0)
        return false;
    setfsgid(user.gid);
    setfsuid(user.uid);
    return static_cast<gid_t>(setfsgid(ask)) == user.gid && static_cast<uid_t>(setfsuid(ask)) == user.uid;
}

/// A file that was not there before. It goes again unless it is kept.
class NewFile
{
public:
    explicit NewFile(std::string path)
        : path_(std::move(path)),
          file_(::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, file_mode)),
          error_(file_ ? 0 : errno), made_(static_cast<bool>(file_))
    {
    }
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;
    ~NewFile()
    {
        if (made_ && !kept_)
            ::unlink(path_.c_str());
    }

    void give_to(const User &user)
    {
        // It stays the daemon's where it may not be given away; an administrator can still read it.
        if (user.uid != geteuid())
            static_cast<void>(::fchown(file_.get(), user.uid, user.gid) == 0);
    }
    /// Nothing more is written once a write has failed.
    void write(std::string_view text)
    {
        while (error_ == 0 && !text.empty()) {
            const ssize_t written = ::write(file_.get(), text.data(), text.size());
            if (written < 0 && errno != EINTR)
                error_ = errno;
            if (written <= 0)
                continue;
            bytes_ += static_cast<std::size_t>(written);
            text.remove_prefix(static_cast<std::size_t>(written));
        }
    }
    /// Brings it onto the disk; true when everything is there.
    [[nodiscard]] bool keep()
    {
        if (error_ == 0 && ::fsync(file_.get()) != 0)
            error_ = errno;
        kept_ = error_ == 0;
        return kept_;
    }
    [[nodiscard]] bool good() const { return error_ == 0; }
    /// Why it is not.
    [[nodiscard]] const char *reason() const { return std::strerror(error_); }
    [[nodiscard]] std::size_t bytes() const { return bytes_; }

private:
    std::string path_;
    Descriptor file_;
    int error_;
    bool made_;
    bool kept_ = false;
    std::size_t bytes_ = 0;
};

void refuse(cli_session_t &command, const std::string &text)
{
    command.write("% " + text + "\n");
    command.fail();
}

void collect_to_operator(cli_session_t &command)
{
    if (tech_collect([&](std::string_view text) { command.write(text); }, patience) < 0)
        refuse(command, "Another collection is running");
}

/// The service unit's folder for logs, or else the platform's for its files.
std::string support_folder()
{
    const char *const logs = std::getenv("LOGS_DIRECTORY");
    if (logs != nullptr && *logs == '/')
        return std::string(logs).substr(0, std::string_view(logs).find(':'));
    const char *const files = std::getenv("TMPDIR");
    return std::string(files == nullptr ? "" : files) + "/platform";
}

void collect_to_file(cli_session_t &command, const std::string &name, const std::optional<User> &user)
{
    const bool is_path = name.front() == '/';
    const std::string path = is_path ? name : support_folder() + "/" + name;
    if (is_path && user && !take_rights_of(*user)) {
        refuse(command, "The daemon cannot take on your rights; give a file name without a path");
        return;
    }
    NewFile file(path);
    if (!file.good()) {
        refuse(command, "Cannot create " + path + ": " + file.reason());
        return;
    }
    if (!is_path && user)
        file.give_to(*user);
    const int answered = tech_collect_detail([&](std::string_view text) { file.write(text); },
                                             [&] { return file.good(); }, patience);
    if (answered < 0)
        refuse(command, "Another collection is running");
    else if (!file.keep())
        refuse(command, "Cannot write " + path + ": " + file.reason());
    else
        command.write(std::to_string(file.bytes()) + " bytes written to " + path + "\n");
}

/// Has `body` carry the command on in a thread of its own.
void carry_on(struct_command_data_block *record, const std::function<void(cli_session_t &command)> &body)
{
    cli_session_t &command = *record->session;
    try {
        std::thread collector([record, body] {
            body(*record->session);
            cli_proc_thread_end(record, pthread_self());
        });
        cli_proc_thread_start(record, collector.native_handle());
        collector.detach();
    } catch (const std::system_error &error) {
        refuse(command, std::string("The collection could not be started: ") + error.what());
    }
}

} // namespace

void show_tech_support(struct_command_data_block *record)
{
    carry_on(record, collect_to_operator);
}

void show_tech_support_file(struct_command_data_block *record)
{
    cli_session_t &command = *record->session;
    const std::string name = record->string_var[0];
    if (name.front() != '/' && name.find('/') != std::string::npos) {
        refuse(command, "A path must begin with /");
        return;
    }
    const std::optional<User> user = command.console() == nullptr ? std::nullopt : command.console()->user();
    carry_on(record, [name, user](cli_session_t &output) { collect_to_file(output, name, user); });
}

} // namespace cli
