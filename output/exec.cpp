#include "exec.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <vector>

#include "agent/descriptors.h"
#include "agent/event_names.h"
#include "spawn_setting.h"

namespace output
{

namespace
{

// Two values of one name would leave it to the shell which of them counts.
bool is_ours(const char *variable)
{
    for (const char *name : {"FMON_EVENTS=", "FMON_PATH=", "FMON_PID="})
        if (strncmp(variable, name, strlen(name)) == 0)
            return true;
    return false;
}

std::vector<std::string> own_variables(const agent::Event &event)
{
    return {"FMON_EVENTS=" + agent::events_text(event.mask), "FMON_PATH=" + std::string(event.path),
            "FMON_PID=" + std::to_string(event.pid)};
}

// The caller's environment with our variables in place of any of their names. Points into `own` and `environ`.
std::vector<char *> environment(std::vector<std::string> &own)
{
    std::vector<char *> all;
    for (char **variable = environ; *variable; variable++)
        if (!is_ours(*variable))
            all.push_back(*variable);
    for (std::string &variable : own)
        all.push_back(variable.data());
    all.push_back(nullptr);
    return all;
}

// False: it has not ended in time. A signal to the whole terminal has reached the command already; one to this process
// alone has not.
bool wait_for(pid_t child, const Executor::Patience &patience, int &status)
{
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return true;
        if (patience() != 0)
            continue;
        const bool ended = waitpid(child, &status, WNOHANG) == child;
        if (!ended)
            kill(child, SIGTERM);
        return ended;
    }
    return true;
}

// What is to be said of an end; empty: nothing.
std::string end_text(int status)
{
    if (WIFSIGNALED(status))
        return "was ended by signal " + std::to_string(WTERMSIG(status)) + " (" + strsignal(WTERMSIG(status)) + ")";
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
    return code == 0 ? "" : "ended with status " + std::to_string(code);
}

}  // namespace

bool Executor::run(const agent::Event &event, const Patience &patience, std::string &trouble) const
{
    std::vector<std::string> own = own_variables(event);
    std::vector<char *> variables = environment(own);
    std::string shell = "sh", option = "-c", command = agent::default_descriptors() + command_;
    char *const arguments[] = {shell.data(), option.data(), command.data(), nullptr};
    SpawnSetting setting;
    posix_spawn_file_actions_addopen(&setting.files, 0, "/dev/null", 0, 0);
    pid_t child;
    const int code = posix_spawn(&child, "/bin/sh", &setting.files, &setting.attributes, arguments, variables.data());
    if (code != 0) {
        trouble = std::string("cannot run the command of --exec: ") + strerror(code);
        return false;
    }
    int status = 0;
    const std::string end =
        wait_for(child, patience, status) ? end_text(status) : "was sent SIGTERM: it ran for too long";
    trouble = end.empty() ? "" : "the command of --exec for " + std::string(event.path) + " " + end;
    return true;
}

}  // namespace output
