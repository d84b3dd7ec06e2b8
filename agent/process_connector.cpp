#include "process_connector.h"

#include <arpa/inet.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace agent
{

namespace
{

constexpr size_t kMessageBytes = 256; /* the kernel's have 76 */
constexpr size_t kHeads = sizeof(struct nlmsghdr) + sizeof(struct cn_msg);

constexpr uint32_t kWhat = kHeads, kData = kHeads + offsetof(struct proc_event, event_data);
constexpr uint32_t kChild = kData + 8; /* of a fork; of others the first number is the thread, the second its process */

constexpr struct sock_filter step(int code, uint32_t value, uint8_t yes = 0, uint8_t no = 0)
{
    return {static_cast<uint16_t>(code), yes, no, value};
}

constexpr int kLoad = BPF_LD | BPF_W | BPF_ABS, kIfEqual = BPF_JMP | BPF_JEQ | BPF_K, kReturn = BPF_RET | BPF_K;

// Nobody is woken for threads, nor for what is not looked at. A filter loads numbers as the network has them.
const std::array<struct sock_filter, 18> &event_filter()
{
    static const std::array<struct sock_filter, 18> program = {{
        step(kLoad, kWhat),
        step(kIfEqual, htonl(process_message::kNone), 14),
        step(kIfEqual, htonl(process_message::kExec), 13),
        step(kIfEqual, htonl(process_message::kFork), 8),
        step(kIfEqual, htonl(process_message::kExit), 3),
        step(kIfEqual, htonl(process_message::kUid), 2),
        step(kIfEqual, htonl(process_message::kComm), 1),
        step(kReturn, 0),
        step(kLoad, kData),
        step(BPF_MISC | BPF_TAX, 0),
        step(kLoad, kData + 4),
        step(BPF_JMP | BPF_JEQ | BPF_X, 0, 4, 5),
        step(kLoad, kChild),
        step(BPF_MISC | BPF_TAX, 0),
        step(kLoad, kChild + 4),
        step(BPF_JMP | BPF_JEQ | BPF_X, 0, 0, 1),
        step(kReturn, UINT32_MAX),
        step(kReturn, 0),
    }};
    return program;
}

struct sockaddr_nl address()
{
    struct sockaddr_nl group = {};
    group.nl_family = AF_NETLINK;
    group.nl_groups = CN_IDX_PROC;
    return group;
}

uint32_t request_number() { return 0x66000000 + static_cast<uint32_t>(getpid()); }

// Of the kernel, and not of a program that has found the socket's number.
bool is_kernels(const struct msghdr &head, const struct sockaddr_nl &sender)
{
    return head.msg_namelen < sizeof sender || sender.nl_family != AF_NETLINK || sender.nl_pid == 0;
}

ProcessConnector::Result result_of(int error)
{
    using Result = ProcessConnector::Result;
    if (error == ENOBUFS)
        return Result::kLoss;
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR ? Result::kAll : Result::kEnd;
}

/* Room for what one call receives. */
struct Messages {
    alignas(8) char data[ProcessConnector::kMost][kMessageBytes];
    struct sockaddr_nl senders[ProcessConnector::kMost];
    struct iovec parts[ProcessConnector::kMost];
    struct mmsghdr heads[ProcessConnector::kMost];

    Messages()
    {
        for (unsigned i = 0; i < ProcessConnector::kMost; i++) {
            parts[i] = {data[i], sizeof data[i]};
            heads[i] = {};
            heads[i].msg_hdr.msg_name = &senders[i];
            heads[i].msg_hdr.msg_namelen = sizeof senders[i];
            heads[i].msg_hdr.msg_iov = &parts[i];
            heads[i].msg_hdr.msg_iovlen = 1;
        }
    }
};

}  // namespace

const ConnectorCalls kConnectorCalls = {::socket, ::setsockopt, ::bind, ::send, ::recvmmsg};

bool ProcessConnector::fail(std::string &error, std::string text, int code)
{
    fd_.reset();
    error = std::move(text) + (code ? std::string(": ") + strerror(code) : "");
    return false;
}

bool ProcessConnector::open(std::string &error)
{
    fd_.reset(calls_.socket(PF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_CONNECTOR));
    if (!fd_)
        return fail(error, "there is no process connector here", errno);
    const int bytes = kQueueBytes;
    if (calls_.setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
        calls_.setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    const auto &steps = event_filter();
    const struct sock_fprog program = {static_cast<unsigned short>(steps.size()),
                                       const_cast<struct sock_filter *>(steps.data())};
    calls_.setsockopt(fd_.get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program); /* or more is read */
    const struct sockaddr_nl group = address();
    if (calls_.bind(fd_.get(), reinterpret_cast<const struct sockaddr *>(&group), sizeof group) != 0)
        return fail(error, "the kernel refuses to report processes", errno);
    if (!ask(PROC_CN_MCAST_LISTEN))
        return fail(error, "the kernel cannot be asked to report processes", errno);
    const int code = answer();
    if (code < 0)
        return fail(error, "the kernel reports processes to those of its own namespaces only", 0);
    return code == 0 || fail(error, "the kernel refuses to report processes", code);
}

// Until 6.6 the kernel counts those that asked, and not those that have gone without a word.
void ProcessConnector::close()
{
    if (fd_)
        ask(PROC_CN_MCAST_IGNORE);
    fd_.reset();
}

bool ProcessConnector::ask(uint32_t operation)
{
    struct nlmsghdr head = {};
    struct cn_msg request = {};
    char message[kHeads + sizeof operation];
    head.nlmsg_len = sizeof message;
    head.nlmsg_type = NLMSG_DONE;
    head.nlmsg_pid = static_cast<uint32_t>(getpid());
    request.id = {CN_IDX_PROC, CN_VAL_PROC};
    request.ack = request_number();
    request.len = sizeof operation;
    memcpy(message, &head, sizeof head);
    memcpy(message + sizeof head, &request, sizeof request);
    memcpy(message + kHeads, &operation, sizeof operation);
    return calls_.send(fd_.get(), message, sizeof message, 0) == static_cast<ssize_t>(sizeof message);
}

// The kernel answers before send() returns; what it reports meanwhile is of processes that will be found in /proc. All
// who listen get the answer.
int ProcessConnector::answer()
{
    int code = -1;
    const auto look = [&](const ProcessEvent &event) {
        if (event.kind == ProcessEvent::Kind::kAnswer && event.acknowledged == request_number() + 1)
            code = event.error;
    };
    for (Result result = Result::kMore; code < 0 && (result == Result::kMore || result == Result::kLoss);)
        result = receive(look);
    return code;
}

ProcessConnector::Result ProcessConnector::receive(const std::function<void(const ProcessEvent &)> &take)
{
    Messages messages;
    const int count = fd_ ? calls_.recvmmsg(fd_.get(), messages.heads, kMost, MSG_DONTWAIT, nullptr) : 0;
    if (count <= 0)
        return result_of(count == 0 ? 0 : errno);
    for (int i = 0; i < count; i++) {
        if (!is_kernels(messages.heads[i].msg_hdr, messages.senders[i]))
            continue;
        ProcessMessages cut(messages.data[i], messages.heads[i].msg_len);
        for (ProcessEvent event; cut.next(event);)
            take(event);
    }
    return count < static_cast<int>(kMost) ? Result::kAll : Result::kMore;
}

}  // namespace agent
