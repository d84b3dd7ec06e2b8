#include "harness.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "events_source.h"
#include "kp_thread_utils.h"

namespace systest
{

namespace
{

constexpr char kMarker[] = ".marker-";

[[noreturn]] void exec_program(const Launch &launch, int in, int out, const std::string &errors)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL); /* a crashed test leaves nothing running */
    dup2(in, 0);
    dup2(out, 1);
    int err = open(errors.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(err, 2);
    for (const std::string &setting : launch.env)
        putenv(strdup(setting.c_str()));
    close_range(launch.close_standard ? 0 : 3, ~0U, 0);
    std::vector<std::string> arguments = launch.argv;
    add_source(arguments);
    std::vector<char *> argv;
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

bool wait_readable(int fd, int64_t deadline)
{
    struct pollfd p = {fd, POLLIN, 0};
    int64_t left = deadline - now_ms();
    return left > 0 && poll(&p, 1, static_cast<int>(left)) > 0;
}

std::string below(const std::string &root, const std::string &path)
{
    if (path == root)
        return ".";
    return path.starts_with(root + "/") ? path.substr(root.size() + 1) : path;
}

std::vector<std::string> watch_command(const std::string &root, const std::vector<std::string> &arguments)
{
    std::vector<std::string> argv = {std::string(FMON_TEST_BIN) + "/fmon", "watch", "--format", "json"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    argv.push_back(root);
    return argv;
}

std::vector<std::string> agent_command(const std::string &root, const std::vector<std::string> &options,
                                       const std::string &program)
{
    std::vector<std::string> argv = {program};
    argv.insert(argv.end(), options.begin(), options.end());
    argv.insert(argv.end(), {FMON_TEST_LIB, root});
    return argv;
}

/* Whether each digit of the form stands for some digit and everything else for itself. */
bool looks_like(const std::string &text, const std::string &form)
{
    return text.size() == form.size() && std::equal(text.begin(), text.end(), form.begin(), [](char have, char want) {
               return want == '0' ? have >= '0' && have <= '9' : have == want;
           });
}

/* What every object has. */
void check_object(const Json &object, const std::string &line)
{
    EXPECT_TRUE(object.is_object() && object.value("type", "") != "") << line;
    EXPECT_TRUE(looks_like(object.value("time", ""), "0000-00-00T00:00:00.000000000Z")) << line;
}

}  // namespace

int64_t now_ms()
{
    auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

Names names(const std::string &list)
{
    Names out;
    std::istringstream in(list);
    for (std::string name; std::getline(in, name, ',');)
        out.insert(name);
    return out;
}

Paths paths(const std::map<std::string, std::string> &table)
{
    Paths out;
    for (const auto &[path, list] : table)
        out[path] = names(list);
    return out;
}

/* ---- children ---- */

Child::Child(const std::function<void()> &body)
{
    int done[2];
    EXPECT_EQ(0, pipe2(done, O_CLOEXEC));
    pid_ = fork();
    char failed = 1;
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        body();
        failed = testing::Test::HasFailure();
        (void)!write(done[1], &failed, 1);
        for (;;)
            pause();
    }
    close(done[1]);
    EXPECT_EQ(1, read(done[0], &failed, 1));
    EXPECT_EQ(0, failed) << "a child's operation failed";
    close(done[0]);
}

Child::~Child()
{
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

Process::Process(const Launch &launch)
{
    int in[2], out[2];
    EXPECT_EQ(0, pipe2(in, O_CLOEXEC));
    EXPECT_EQ(0, pipe2(out, O_CLOEXEC));
    std::string errors = scratch_.path("stderr");
    pid_ = fork();
    if (pid_ == 0)
        exec_program(launch, in[0], out[1], errors);
    close(in[0]);
    close(out[1]);
    in_ = in[1];
    out_ = out[0];
}

Process::~Process()
{
    if (!reaped_) {
        send(SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close_input();
    close(out_);
}

std::optional<std::string> Process::line(int ms)
{
    int64_t deadline = now_ms() + ms;
    size_t end;
    while ((end = buffer_.find('\n')) == std::string::npos) {
        char chunk[65536];
        if (!wait_readable(out_, deadline))
            return std::nullopt;
        ssize_t n = read(out_, chunk, sizeof chunk);
        if (n <= 0)
            return std::nullopt;
        buffer_.append(chunk, static_cast<size_t>(n));
    }
    std::string found = buffer_.substr(0, end);
    buffer_.erase(0, end + 1);
    return found;
}

std::string Process::errors() const
{
    std::ifstream in(scratch_.path("stderr"));
    return {std::istreambuf_iterator<char>(in), {}};
}

void Process::close_input()
{
    if (in_ >= 0)
        close(in_);
    in_ = -1;
}

void Process::send(int signal)
{
    if (!reaped_)
        kill(pid_, signal);
}

int Process::wait(int ms)
{
    int64_t deadline = now_ms() + ms;
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) != pid_) {
        if (now_ms() >= deadline)
            return -1;
        pause_ms(5);
    }
    reaped_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Process::interrupt()
{
    send(SIGINT);
#ifdef __SANITIZE_THREAD__
    /* The thread sanitizer's run-time loses a signal now and then: one in some dozens, in any program with a thread. */
    for (int tries = 1; tries < kPatienceMs / 1000; tries++) {
        if (int status = wait(1000); status != -1)
            return status;
        send(SIGINT);
    }
#endif
    return wait();
}

/* ---- the command ---- */

Watch::Watch(std::string root, const std::vector<std::string> &arguments)
    : root_(std::move(root)), process_({watch_command(root_, arguments)})
{
}

/* The kernel counts for the whole machine how often it could not run a probe: what was missed need not be this watch's.
 * What is missing there fails a test by itself. */
static bool is_excused(const Json &object)
{
    return object.is_object() && object.value("type", "") == "loss" && object.value("source", "") == "probes";
}

std::optional<Json> Watch::next(int ms)
{
    const int64_t until = now_ms() + ms;
    auto line = process_.line(ms);
    if (!line)
        return std::nullopt;
    const std::optional<Json> object = Json::parse_if(*line);
    EXPECT_TRUE(object) << "not JSON, or not UTF-8: " << *line;
    if (!object)
        return Json();
    check_object(*object, *line);
    return is_excused(*object) ? next(static_cast<int>(std::max<int64_t>(until - now_ms(), 0))) : object;
}

Json Watch::next_of(const std::string &type, int ms)
{
    const int64_t deadline = now_ms() + ms;
    while (now_ms() < deadline)
        if (auto object = next(500); object && (*object)["type"] == type)
            return *object;
    ADD_FAILURE() << "no " << type << " " << process_.errors();
    return {};
}

Json Watch::established()
{
    auto first = next();
    EXPECT_TRUE(first && first->value("type", "") == "established") << (first ? first->dump() : "no output") << "\n"
                                                                    << process_.errors();
    return first.value_or(Json());
}

bool Watch::is_marker(const std::string &path) const { return path.find(kMarker) != std::string::npos; }

/* The monitor reads a directory that was moved in, and the kernel reports that, too. */
bool Watch::is_own_reading(const Json &event) const
{
    static const Names reading = {"open", "access", "close_nowrite"};
    if (event.value("pid", 0) != process_.pid())
        return false;
    for (const std::string name : event["events"])
        if (!reading.count(name))
            return false;
    return true;
}

void Watch::take(const Json &event, Paths &seen)
{
    if (event["type"] == "appeared" || event["type"] == "ended" || event["type"] == "resynced" ||
        (event["type"] == "loss" && losses_are_due_))
        return;
    EXPECT_EQ("event", event["type"]) << event;
    if (event["type"] != "event" || is_own_reading(event))
        return;
    events_.push_back(event);
    Names &at = seen[below(root_, event["path"])];
    for (const std::string name : event["events"])
        at.insert(name);
}

bool probes_work()
{
    static const bool work = [] {
        void *library = dlopen(FMON_TEST_LIB "/liborx_kp_thread.2.so", RTLD_NOW | RTLD_LOCAL);
        const struct kp_os_info *kernel;
        const auto ask = library ? reinterpret_cast<decltype(&_os_info_get)>(dlsym(library, "_os_info_get")) : nullptr;
        return ask && ask(&kernel) == 0;
    }();
    return work;
}

size_t longest_name()
{
    constexpr size_t kKernel = 255, kProbe = 127;
    return probes_work() ? kProbe : kKernel;
}

/* Two markers: where probes name the process, all that happens to a marker is one event, which may come before what
 * another descriptor told of earlier events in the same turn; a second one cannot. */
Paths Watch::barrier(const std::string &dir, const Names &awaited)
{
    events_.clear();
    Paths seen;
    for (int turn = 0; turn < 2; turn++)
        await_marker(dir, awaited, seen);
    return seen;
}

void Watch::await_marker(const std::string &dir, const Names &awaited, Paths &seen)
{
    std::string marker = dir + "/" + kMarker + std::to_string(markers_++);
    make_file(marker);
    Names marks;
    int64_t deadline = now_ms() + kPatienceMs;
    while (!std::includes(marks.begin(), marks.end(), awaited.begin(), awaited.end())) {
        auto object = next(static_cast<int>(std::max<int64_t>(deadline - now_ms(), 1)));
        if (!object) {
            ADD_FAILURE() << "the marker " << marker << " was not reported; fmon's status: " << process_.wait(0)
                          << " (-1: runs) " << process_.errors();
            break;
        }
        if (!is_marker(object->value("path", "")))
            take(*object, seen);
        else if ((*object)["path"] == marker)
            for (const std::string name : (*object)["events"])
                marks.insert(name);
    }
}

Paths Watch::until_reported(const std::function<void(int round)> &act, int ms)
{
    Paths seen;
    int64_t deadline = now_ms() + ms;
    for (int round = 0; seen.empty() && now_ms() < deadline; round++) {
        act(round);
        while (auto object = next(100))
            take(*object, seen);
    }
    return seen;
}

int Watch::stop() { return process_.interrupt(); }

/* ---- the agent ---- */

Agent::Agent(const std::string &root, const std::vector<std::string> &options, const std::string &program)
    : Process({agent_command(root, options, program), false, {"FMON_HOME=" FMON_TEST_BIN "/.."}})
{
    /* While the second watch is placed, the first client is told that directories are read. */
    auto first = line();
    while (first && *first != "ready")
        first = line();
    EXPECT_TRUE(first) << errors();
}

std::optional<Delivery> parse_delivery(const std::string &line)
{
    std::istringstream in(line);
    Delivery delivery;
    std::string hex;
    if (!(in >> delivery.client >> std::hex >> delivery.mask >> std::dec >> delivery.pid >> hex))
        return std::nullopt;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        delivery.path += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return delivery;
}

/* ---- file operations ---- */

namespace
{

void write_file(const std::string &path, int flags, const std::string &content)
{
    int fd = open(path.c_str(), flags | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << path << ": " << strerror(errno);
    EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(fd);
}

}  // namespace

void make_file(const std::string &path, const std::string &content) { write_file(path, O_CREAT | O_EXCL, content); }
void append_file(const std::string &path, const std::string &content) { write_file(path, O_APPEND, content); }

void read_file(const std::string &path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0) << path << ": " << strerror(errno);
    char c;
    EXPECT_EQ(1, read(fd, &c, 1)) << path;
    close(fd);
}

#define CHECK_CALL(call, path) EXPECT_EQ(0, call) << (path) << ": " << strerror(errno)
void make_dir(const std::string &path) { CHECK_CALL(mkdir(path.c_str(), 0755), path); }
void move(const std::string &from, const std::string &to) { CHECK_CALL(rename(from.c_str(), to.c_str()), from); }
void hard_link(const std::string &from, const std::string &to) { CHECK_CALL(link(from.c_str(), to.c_str()), from); }
void change_mode(const std::string &path, mode_t mode) { CHECK_CALL(chmod(path.c_str(), mode), path); }
void remove_file(const std::string &path) { CHECK_CALL(unlink(path.c_str()), path); }
void remove_dir(const std::string &path) { CHECK_CALL(rmdir(path.c_str()), path); }
std::string content(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

void pause_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

}  // namespace systest
