/*
 * process_messages.h: the kernel's messages of processes, made up, and a directory that looks like /proc.
 */
#ifndef PROCESS_MESSAGES_H
#define PROCESS_MESSAGES_H

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "agent/process_event.h"
#include "unit/agent/agent_testing.h"

namespace process_messages
{

/* One message as the kernel sends it; `numbers` are its data. */
inline std::string message(uint32_t what, uint64_t time_ns, const std::vector<uint32_t> &numbers, uint32_t ack = 0)
{
    struct nlmsghdr head = {};
    struct cn_msg body = {};
    std::string event(40, '\0');
    memcpy(event.data(), &what, sizeof what);
    memcpy(event.data() + 8, &time_ns, sizeof time_ns);
    memcpy(event.data() + 16, numbers.data(), std::min<size_t>(24, numbers.size() * sizeof numbers[0]));
    body.id = {CN_IDX_PROC, CN_VAL_PROC};
    body.ack = ack;
    body.len = static_cast<uint16_t>(event.size());
    head.nlmsg_len = static_cast<uint32_t>(sizeof head + sizeof body + event.size());
    head.nlmsg_type = NLMSG_DONE;
    return std::string(reinterpret_cast<const char *>(&head), sizeof head) +
           std::string(reinterpret_cast<const char *>(&body), sizeof body) + event;
}

inline std::string forked(uint64_t time_ns, uint32_t parent, uint32_t child, uint32_t parent_thread = 0)
{
    return message(agent::process_message::kFork, time_ns,
                   {parent_thread ? parent_thread : parent, parent, child, child});
}
inline std::string executed(uint64_t time_ns, uint32_t pid)
{
    return message(agent::process_message::kExec, time_ns, {pid, pid});
}
inline std::string user(uint64_t time_ns, uint32_t pid, uint32_t real, uint32_t effective)
{
    return message(agent::process_message::kUid, time_ns, {pid, pid, real, effective});
}
inline std::string named(uint64_t time_ns, uint32_t pid, const char *name)
{
    uint32_t text[4] = {};
    memcpy(text, name, std::min<size_t>(strlen(name), sizeof text));
    return message(agent::process_message::kComm, time_ns, {pid, pid, text[0], text[1], text[2], text[3]});
}
inline std::string ended(uint64_t time_ns, uint32_t pid)
{
    return message(agent::process_message::kExit, time_ns, {pid, pid, 0, 17, 1, 1});
}

/* /proc, as far as processes are read from it. */
class MadeUpProc
{
public:
    struct Look {
        std::string name, exe, arguments; /* arguments: joined by NULs */
        uint32_t ppid = 1;
        int start = 5;
        std::string loginuid = "4294967295", uid = "1001", cgroup = "0::/\n";
    };
    const std::string &root() const { return directory_.root(); }

    void put(uint32_t pid, const Look &look) const
    {
        const std::string at = std::to_string(pid);
        end(pid);
        directory_.dir(at);
        directory_.file(at + "/stat", at + " (" + look.name + ") S " + std::to_string(look.ppid) +
                                          " 1 1 0 -1 4194304 1 0 0 0 0 0 0 0 20 0 1 0 " + std::to_string(look.start) +
                                          " 100 200 -1 400 500 600 0 0 0 0 0 0 0 0 0 17 0 0 0 0 0 0 1 2 3 4 5 6 7 0\n");
        directory_.file(at + "/comm", look.name + "\n");
        directory_.file(at + "/status", "Name:\tx\nUid:\t1000\t" + look.uid + "\t1000\t1000\n");
        directory_.file(at + "/cmdline", look.arguments + std::string(look.arguments.empty() ? 0 : 1, '\0'));
        directory_.file(at + "/loginuid", look.loginuid);
        directory_.file(at + "/cgroup", look.cgroup);
        if (!look.exe.empty()) {
            EXPECT_EQ(0, symlink(look.exe.c_str(), directory_.path(at + "/exe").c_str()));
        }
    }
    void end(uint32_t pid) const { std::filesystem::remove_all(directory_.path(std::to_string(pid))); }

private:
    agent_testing::Directory directory_;
};

}  // namespace process_messages

#endif
