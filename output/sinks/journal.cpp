/* The systemd journal, by the protocol of its own socket: fields, a datagram a record. */

#include <endian.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "address.h"
#include "agent/event_names.h"
#include "datagrams.h"
#include "queued_sink.h"
#include "rows.h"

namespace output
{

namespace
{

constexpr const char *kSocketKey = "socket";

// A value with a line end in it is preceded by its length, as 64 bits little endian.
void append_field(std::string_view name, std::string_view value, std::string &out)
{
    out += name;
    if (value.find('\n') == std::string_view::npos) {
        out += '=';
    } else {
        const uint64_t length = htole64(value.size());
        out += '\n';
        out.append(reinterpret_cast<const char *>(&length), sizeof length);
    }
    out += value;
    out += '\n';
}

void append_optional(std::string_view name, std::string_view value, std::string &out)
{
    if (!value.empty())
        append_field(name, value, out);
}

void append_event(const agent::Event &event, std::string &out)
{
    append_field("FMON_PATH", event.path, out);
    append_field("FMON_EVENTS", agent::events_text(event.mask), out);
    append_optional("FMON_CONTAINER", event.container, out);
    if (event.pid != 0)
        append_field("FMON_PID", std::to_string(event.pid), out);
    if (event.process) {
        append_field("FMON_PROCESS", event.process->name, out);
        append_optional("FMON_EXE", event.process->exe, out);
    }
}

// All of it in memory that can be read from its beginning.
common::Fd sealed(std::string_view bytes)
{
    common::Fd file(memfd_create("fmon-record", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    while (file && !bytes.empty()) {
        const ssize_t n = write(file.get(), bytes.data(), bytes.size());
        if (n < 0)
            return common::Fd();
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    const int seals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;
    return file && fcntl(file.get(), F_ADD_SEALS, seals) == 0 ? std::move(file) : common::Fd();
}

// 0 or an errno.
int send_descriptor(int socket, int fd)
{
    union {
        struct cmsghdr header;
        char room[CMSG_SPACE(sizeof(int))];
    } control = {};
    struct msghdr message = {};
    message.msg_control = &control;
    message.msg_controllen = sizeof control.room;
    struct cmsghdr *const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof fd);
    memcpy(CMSG_DATA(header), &fd, sizeof fd);
    return sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0 ? 0 : errno;
}

class JournalTransport : public DatagramTransport
{
public:
    JournalTransport(std::string path, const Origin &origin) : path_(std::move(path)), origin_(origin) {}

    bool encode(const Record &record, std::string &out) override
    {
        const bool is_loss = std::string_view(record.type) == "loss";
        append_field("MESSAGE", record.text.substr(0, record.text.size() - (record.text.empty() ? 0 : 1)), out);
        append_field("PRIORITY", is_loss ? "4" : "6", out);
        append_field("SYSLOG_IDENTIFIER", "fmon", out);
        append_field("FMON_INSTANCE", origin_.instance, out);
        append_field("FMON_TYPE", record.type, out);
        append_field("FMON_NUMBER", std::to_string(record.number), out);
        if (record.event)
            append_event(*record.event, out);
        return true;
    }

private:
    common::Fd connect(const Patience &, std::string &error) override
    {
        return connect_to_path(path_, SOCK_DGRAM, error);
    }
    int send_long(int socket, std::string_view bytes) override
    {
        const common::Fd file = sealed(bytes);
        return file ? send_descriptor(socket, file.get()) : errno;
    }
    std::string far_side() const override { return "the journal"; }

    const std::string path_;
    const Origin origin_;
};

constexpr Setting kSettings[] = {
    {kSocketKey, SettingType::kText, "the journal's socket", "/run/systemd/journal/socket"},
    kBufferSetting,
};

std::unique_ptr<Sink> make(const Settings &settings, const Origin &origin, std::string &error)
{
    const std::string path = settings.text(kSocketKey);
    if (!path.starts_with('/') || path.size() > kLongestSocketPath) {
        error = "socket: an absolute path of 107 bytes at most is needed";
        return nullptr;
    }
    return std::make_unique<QueuedSink>(std::make_unique<JournalTransport>(path, origin), limits_of(settings));
}

}  // namespace

constinit const SinkRow kJournalRow = {"journal", "the systemd journal, with fields", kSettings, make};

}  // namespace output
