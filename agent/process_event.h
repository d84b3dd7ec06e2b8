/*
 * process_event.h: the kernel's messages of processes that are made, execute programs, change and end, cut into events.
 *
 * The kernel reports threads too; what a thread does that is not its process's first is none of these events, but for a
 * process that it makes.
 */
#ifndef AGENT_PROCESS_EVENT_H
#define AGENT_PROCESS_EVENT_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace agent
{

/* Kinds of messages, which headers of different kernels define in different places. */
namespace process_message
{
inline constexpr uint32_t kNone = 0, kFork = 1, kExec = 2, kUid = 4, kComm = 0x200, kExit = 0x80000000;
}

struct ProcessEvent {
    enum class Kind { kAnswer, kFork, kExec, kUid, kName, kExit };
    Kind kind;
    uint32_t pid = 0;
    uint64_t time_ns = 0;      /* monotonic clock: when it happened */
    uint32_t parent = 0;       /* kFork */
    bool by_thread = false;    /* kFork: not the parent's first thread made it, which may have another name */
    uint32_t uid = 0;          /* kUid: effective */
    std::string_view name{};   /* kName; in the message */
    int error = 0;             /* kAnswer: errno */
    uint32_t acknowledged = 0; /* kAnswer: the request's own number and 1 */
};

/* Cuts one datagram, which must stay. Whatever its bytes are, nothing beyond `size` is read. */
class ProcessMessages
{
public:
    ProcessMessages(const void *data, size_t size) : rest_(static_cast<const char *>(data)), left_(size) {}

    /* The next event; false: there is none. What is not an event of above is passed over. */
    bool next(ProcessEvent &event);

private:
    const char *rest_;
    size_t left_;
};

}  // namespace agent

#endif
