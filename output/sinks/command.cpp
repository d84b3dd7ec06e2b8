/* The standard input of a command that runs as long as the output does. */

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "agent/descriptors.h"
#include "agent/time_format.h"
#include "output/spawn_setting.h"
#include "queued_sink.h"
#include "rows.h"
#include "stream.h"

namespace output
{

namespace
{

constexpr uint64_t kEndMs = 500; /* between SIGTERM and SIGKILL */

/* Our end of the pipe. What lies in it has not been read. */
class PipeStream : public FdStream
{
public:
    using FdStream::FdStream;
    bool is_closed() const
    {
        struct pollfd one = {fd(), 0, 0};
        return poll(&one, 1, 0) > 0;
    }
    size_t unread() const override
    {
        int bytes = 0;
        return ioctl(fd(), FIONREAD, &bytes) == 0 && bytes > 0 ? static_cast<size_t>(bytes) : 0;
    }
};

class CommandTransport : public Transport
{
public:
    explicit CommandTransport(std::string command) : command_(std::move(command)) {}
    ~CommandTransport() override;

    Carried carry(const Packets &packets, const Patience &patience) override;
    int idle() override;
    void descriptors(std::vector<struct pollfd> &polled) override;
    bool finish(uint64_t deadline_ms, const Patience &patience) override;

private:
    int start();
    int spawn(int input);
    std::string end_of(int failed);
    bool has_ended();

    std::string command_;
    PipeStream stream_{common::Fd()};
    PacketWriter writer_;
    pid_t child_ = 0;   /* 0: none */
    common::Fd watch_;  /* readable once it has ended; null where the kernel has no such descriptors */
    std::string ended_; /* how the last one did */
};

CommandTransport::~CommandTransport()
{
    stream_.close();
    for (const int signal : {SIGTERM, SIGKILL}) {
        if (has_ended())
            return;
        kill(-child_, signal);
        struct pollfd one = {watch_.get(), POLLIN, 0};
        poll(&one, 1, kEndMs);
    }
    if (child_ != 0)
        waitpid(child_, nullptr, 0);
}

// 0 or an errno.
int CommandTransport::start()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return errno;
    const common::Fd input(ends[0]);
    common::Fd output(ends[1]);
    if (fcntl(output.get(), F_SETFL, O_NONBLOCK) != 0)
        return errno;
    if (const int failed = spawn(input.get()))
        return failed;
    stream_ = PipeStream(std::move(output));
    watch_.reset(static_cast<int>(syscall(SYS_pidfd_open, child_, 0)));
    return 0;
}

int CommandTransport::spawn(int input)
{
    std::string shell = "sh", option = "-c", text = agent::default_descriptors() + command_;
    char *const arguments[] = {shell.data(), option.data(), text.data(), nullptr};
    SpawnSetting setting;
    setting.own_group();
    posix_spawn_file_actions_adddup2(&setting.files, input, STDIN_FILENO);
    const int failed = posix_spawn(&child_, "/bin/sh", &setting.files, &setting.attributes, arguments, environ);
    if (failed)
        child_ = 0;
    return failed;
}

// Reaps it; ended_ says how it ended.
bool CommandTransport::has_ended()
{
    int status = 0;
    if (child_ == 0 || waitpid(child_, &status, WNOHANG) == 0)
        return child_ == 0;
    child_ = 0;
    watch_.reset();
    writer_.restart(stream_.unread());
    stream_.close();
    if (WIFSIGNALED(status))
        ended_ = "the command was ended by signal " + std::to_string(WTERMSIG(status));
    else
        ended_ = "the command has ended with status " + std::to_string(WEXITSTATUS(status));
    say(ended_ + "; it is started again with the next record");
    return true;
}

// What it has not read by then is for the next.
Carried CommandTransport::carry(const Packets &packets, const Patience &patience)
{
    const bool is_needed = has_ended();
    if (writer_.is_settling())
        return writer_.settle(packets);
    int failed = is_needed ? start() : 0;
    if (failed)
        return {.trouble = "cannot start the command: " + agent::reason_text(failed)};
    Carried carried = writer_.write(stream_, packets, patience, failed);
    if (child_ != 0 && has_ended()) {
        carried.trouble = ended_;
    } else if (carried.again_ms != 0 && stream_.is_closed()) {
        carried.trouble = end_of(EPIPE);
    } else if (failed == EAGAIN) {
        carried.trouble = "the command does not read";
        carried.pause_ms = carried.again_ms;
    } else if (failed != 0) {
        carried.trouble = end_of(failed);
    }
    return carried;
}

// One that has closed its standard input, and lives on, will never read again.
std::string CommandTransport::end_of(int failed)
{
    kill(-child_, SIGTERM);
    return failed == EPIPE ? "the command has closed its standard input"
                           : std::string("cannot write to the command: ") + strerror(failed);
}

int CommandTransport::idle()
{
    has_ended();
    return -1;
}

void CommandTransport::descriptors(std::vector<struct pollfd> &polled)
{
    if (watch_)
        polled.push_back({watch_.get(), POLLIN, 0});
}

// Having read all it is to end by itself.
bool CommandTransport::finish(uint64_t deadline_ms, const Patience &patience)
{
    stream_.close();
    uint64_t now = agent::steady_ms();
    for (; !has_ended() && now < deadline_ms && !patience.over(); now = agent::steady_ms())
        patience.wait(watch_.get(), POLLIN, watch_ ? deadline_ms - now : std::min<uint64_t>(20, deadline_ms - now));
    return child_ == 0;
}

constexpr Setting kSettings[] = {
    {"command", SettingType::kText,
     "what is run, by sh -c, when the first record comes, and again when it ends; records are its standard input",
     nullptr, true},
    kBufferSetting,
};

std::unique_ptr<Sink> make(const Settings &settings, const Origin &, std::string &error)
{
    const std::string command = settings.text("command");
    if (command.empty()) {
        error = "command: what is to be run is needed";
        return nullptr;
    }
    return std::make_unique<QueuedSink>(std::make_unique<CommandTransport>(command), limits_of(settings));
}

}  // namespace

constinit const SinkRow kCommandRow = {"command", "a command's standard input", kSettings, make};

}  // namespace output
