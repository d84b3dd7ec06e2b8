/*
 * real_container.h: containers that runc starts from a small root made with busybox, each on an overlay of its own, and
 * the container library as the monitor loads it.
 */
#ifndef SYSTEM_REAL_CONTAINER_H
#define SYSTEM_REAL_CONTAINER_H

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "harness.h"
#include "orx_sensitivedir.h"

namespace systest
{

inline bool can_contain() { return testlib::can_mount() && std::system("runc --version >/dev/null 2>&1") == 0; }

/* 64 digits that no other run of this test has. */
inline std::string fresh_id()
{
    static unsigned count;
    char text[65];
    snprintf(text, sizeof text, "%048x%08x%08x", 0xfu, static_cast<unsigned>(getpid()), ++count);
    return text;
}

/* The library as the monitor has it, in this process. */
class Library
{
public:
    Library()
    {
        void *handle = dlopen(FMON_TEST_LIB "/liborx_sensitive_dir.6.so", RTLD_NOW | RTLD_LOCAL);
        EXPECT_TRUE(handle) << dlerror();
        find_ = reinterpret_cast<decltype(find_)>(dlsym(handle, "_orx_get_container_mount"));
        info_ = reinterpret_cast<decltype(info_)>(dlsym(handle, "_orx_get_container_info"));
        free_ = reinterpret_cast<decltype(free_)>(dlsym(handle, "_orx_free_container_info"));
    }
    /* "ID PID" or "host". */
    std::string owner(const std::string &mount) const
    {
        const struct orx_container_mount *record = find_(mount.c_str());
        return record ? record->label + (" " + std::to_string(record->pid)) : "host";
    }
    /* The same once it is what is expected, or time is up. Nothing but the host may come before. */
    std::string until_owner(const std::string &mount, const std::string &want) const
    {
        std::string have = owner(mount);
        for (const int64_t end = now_ms() + kPatienceMs; have == "host" && have != want && now_ms() < end;) {
            pause_ms(20);
            have = owner(mount);
        }
        return have;
    }
    int init_pid(const std::string &id) const
    {
        struct orx_container_info *info = info_(id.c_str());
        const int pid = info ? info->init_pid : -1;
        free_(info);
        return pid;
    }

private:
    decltype(&_orx_get_container_mount) find_;
    decltype(&_orx_get_container_info) info_;
    decltype(&_orx_free_container_info) free_;
};

inline std::vector<std::string> mounts_of(int pid)
{
    std::vector<std::string> ids;
    std::ifstream list("/proc/" + std::to_string(pid) + "/mountinfo");
    for (std::string line; std::getline(list, line);)
        ids.push_back(line.substr(0, line.find(' ')));
    return ids;
}

/* A container that writes a file in /data for each name that comes in through its pipe. */
class Container
{
public:
    explicit Container(const testlib::TempTree &tree) : directory_(made(tree.path(id_)))
    {
        make_root(tree);
        std::filesystem::create_directory(directory_ + "/rootfs");
        const std::string options =
            "lowerdir=" + tree.path("lower") + ",upperdir=" + directory_ + "/up,workdir=" + directory_ + "/scratch";
        EXPECT_EQ(mount("overlay", (directory_ + "/rootfs").c_str(), "overlay", 0, options.c_str()), 0)
            << strerror(errno);
        configure();
        EXPECT_EQ(mkfifo((directory_ + "/in").c_str(), 0600), 0);
        in_ = open((directory_ + "/in").c_str(), O_RDWR | O_CLOEXEC);
        runc("run --bundle " + directory_ + " " + id_ + " <" + directory_ + "/in >" + directory_ + "/out 2>&1 &");
        await_start();
    }
    ~Container()
    {
        stop();
        umount2((directory_ + "/rootfs").c_str(), MNT_DETACH);
        close(in_);
    }
    Container(const Container &) = delete;
    Container &operator=(const Container &) = delete;

    const std::string &id() const { return id_; }
    int pid() const { return pid_; }
    std::string owner() const { return id_ + " " + std::to_string(pid_); }
    std::string seen(const std::string &path) const { return "/proc/" + std::to_string(pid_) + "/root" + path; }
    void write(const std::string &name) const
    {
        const std::string line = name + "\n";
        EXPECT_EQ(::write(in_, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }
    void stop() const { runc("delete -f " + id_ + " 2>/dev/null"); }

private:
    static void make_root(const testlib::TempTree &tree)
    {
        for (const char *name : {"bin", "proc", "data"})
            std::filesystem::create_directories(tree.path("lower/") + name);
        std::filesystem::copy_file("/bin/busybox", tree.path("lower/bin/sh"),
                                   std::filesystem::copy_options::skip_existing);
    }
    void runc(const std::string &rest) const
    {
        const std::string command = "runc --root " + directory_ + "/state " + rest;
        [[maybe_unused]] const int status = std::system(command.c_str());
    }
    void configure() const
    {
        const std::string spec = "cd " + directory_ + " && runc spec";
        ASSERT_EQ(std::system(spec.c_str()), 0);
        const Json config = Json::parse(content(directory_ + "/config.json"));
        std::ofstream(directory_ + "/config.json")
            << config.with("/process/terminal", "false")
                   .with("/process/args", R"(["/bin/sh", "-c", "while read x; do echo y >/data/$x; done"])")
                   .with("/root/readonly", "false");
    }
    void await_start()
    {
        const std::string state = directory_ + "/state/" + id_ + "/state.json";
        for (const int64_t end = now_ms() + kPatienceMs; pid_ == 0 && now_ms() < end; pause_ms(20)) {
            const std::optional<Json> json = Json::parse_if(content(state));
            const int pid = json ? json->value("init_process_pid", 0) : 0;
            std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
            std::string name;
            if (pid > 0 && std::getline(comm, name) && name == "sh")
                pid_ = pid;
        }
        EXPECT_NE(pid_, 0) << std::ifstream(directory_ + "/out").rdbuf();
    }
    static std::string made(const std::string &directory)
    {
        for (const char *name : {"", "/up", "/scratch"})
            std::filesystem::create_directory(directory + name);
        return directory;
    }

    const std::string id_ = fresh_id(), directory_;
    int in_ = -1, pid_ = 0;
};

}  // namespace systest

#endif
