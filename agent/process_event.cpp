#include "process_event.h"

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cstring>

namespace agent
{

namespace
{

using Kind = ProcessEvent::Kind;

static_assert(sizeof(struct nlmsghdr) == 16 && sizeof(struct cn_msg) == 20);
constexpr size_t kEventHead = offsetof(struct proc_event, event_data);
static_assert(kEventHead == 16);

using Data = decltype(proc_event::event_data);
using Fork = decltype(Data::fork);
using Exec = decltype(Data::exec);
using Id = decltype(Data::id);
using Comm = decltype(Data::comm);
static_assert(sizeof(Fork) == 16 && sizeof(Exec) == 8 && sizeof(Id) == 16 && sizeof(Comm) == 24);

/* What a message holds behind its two headers. */
struct Body {
    const char *data;
    size_t size;

    // False: it is not all there.
    template <typename Data>
    bool get(Data &out) const
    {
        if (size < kEventHead + sizeof out)
            return false;
        memcpy(&out, data + kEventHead, sizeof out);
        return true;
    }
};

uint32_t number(__kernel_pid_t pid) { return static_cast<uint32_t>(pid); }

bool read_fork(const Body &body, ProcessEvent &event)
{
    Fork fork;
    if (!body.get(fork) || fork.child_pid != fork.child_tgid)
        return false;
    event.kind = Kind::kFork;
    event.pid = number(fork.child_tgid);
    event.parent = number(fork.parent_tgid);
    event.by_thread = fork.parent_pid != fork.parent_tgid;
    return true;
}

// Of all others the first two numbers are the thread and its process.
bool read_process(const Body &body, Kind kind, ProcessEvent &event)
{
    Exec exec;
    if (!body.get(exec) || exec.process_pid != exec.process_tgid)
        return false;
    event.kind = kind;
    event.pid = number(exec.process_tgid);
    return true;
}

bool read_uid(const Body &body, ProcessEvent &event)
{
    Id id;
    if (!body.get(id) || !read_process(body, Kind::kUid, event))
        return false;
    event.uid = id.e.euid;
    return true;
}

bool read_name(const Body &body, ProcessEvent &event)
{
    Comm comm;
    if (!body.get(comm) || !read_process(body, Kind::kName, event))
        return false;
    const char *const name = body.data + kEventHead + offsetof(Comm, comm);
    event.name = {name, strnlen(name, sizeof comm.comm)};
    return true;
}

bool read_answer(const Body &body, const struct cn_msg &head, ProcessEvent &event)
{
    uint32_t error;
    if (!body.get(error))
        return false;
    event.kind = Kind::kAnswer;
    event.error = static_cast<int>(error);
    event.acknowledged = head.ack;
    return true;
}

bool read_event(const Body &body, const struct cn_msg &head, ProcessEvent &event)
{
    uint32_t what;
    if (body.size < kEventHead)
        return false;
    memcpy(&what, body.data, sizeof what);
    memcpy(&event.time_ns, body.data + offsetof(struct proc_event, timestamp_ns), sizeof event.time_ns);
    if (event.time_ns == 0 && what != process_message::kNone)
        return false; /* the table takes that for a time that is not known; the kernel's is never it */
    switch (what) {
        case process_message::kNone:
            return read_answer(body, head, event);
        case process_message::kFork:
            return read_fork(body, event);
        case process_message::kExec:
            return read_process(body, Kind::kExec, event);
        case process_message::kUid:
            return read_uid(body, event);
        case process_message::kComm:
            return read_name(body, event);
        case process_message::kExit:
            return read_process(body, Kind::kExit, event);
        default:
            return false;
    }
}

// One netlink message of a connector, as long as it says that it is.
bool read_message(const char *data, size_t size, ProcessEvent &event)
{
    struct cn_msg head;
    constexpr size_t kHeads = sizeof(struct nlmsghdr) + sizeof head;
    if (size < kHeads)
        return false;
    memcpy(&head, data + sizeof(struct nlmsghdr), sizeof head);
    if (head.id.idx != CN_IDX_PROC || head.id.val != CN_VAL_PROC)
        return false;
    event = {};
    return read_event({data + kHeads, std::min<size_t>(head.len, size - kHeads)}, head, event);
}

}  // namespace

bool ProcessMessages::next(ProcessEvent &event)
{
    struct nlmsghdr head;
    while (left_ >= sizeof head) {
        memcpy(&head, rest_, sizeof head);
        if (head.nlmsg_len < sizeof head || head.nlmsg_len > left_)
            break;
        const char *const message = rest_;
        const size_t step = std::min<size_t>(NLMSG_ALIGN(head.nlmsg_len), left_);
        rest_ += step;
        left_ -= step;
        if (read_message(message, head.nlmsg_len, event))
            return true;
    }
    left_ = 0;
    return false;
}

}  // namespace agent
