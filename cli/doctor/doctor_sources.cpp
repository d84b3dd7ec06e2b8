/*
 * The doctor's section on what serves a watch on each mount: the mark of its file system, or marks on directories;
 * doctor.h.
 *
 * Each mount is tried as the monitor tries it when a watch is placed. The marks go with the group that carries them.
 */
#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "agent/fallback.h"
#include "agent/paths.h"
#include "common/fd.h"
#include "doctor.h"

namespace cli
{

namespace
{

constexpr char kSources[] = "sources";

using Step = SourceTrial::Step;

// The kernel's own file systems. Before 6.7 a mark on tracefs may crash the kernel.
constexpr std::string_view kKernelTypes[] = {
    "proc",   "sysfs", "tracefs",  "debugfs", "securityfs", "cgroup",      "cgroup2",   "devpts",   "bpf",  "pstore",
    "mqueue", "nsfs",  "configfs", "fusectl", "autofs",     "binfmt_misc", "selinuxfs", "efivarfs", "nfsd", "resctrl",
};

constexpr std::string_view kRemoteTypes[] = {"nfs", "nfs4",   "cifs", "smb3",  "smbfs",    "ceph", "afs",
                                             "9p",  "lustre", "gfs2", "ocfs2", "virtiofs", "fuse", "vboxsf"};

bool is_remote(const std::string &type)
{
    return type.starts_with("fuse.") ||
           std::find(std::begin(kRemoteTypes), std::end(kRemoteTypes), type) != std::end(kRemoteTypes);
}

bool is_kernels(const std::string &type)
{
    return std::find(std::begin(kKernelTypes), std::end(kKernelTypes), type) != std::end(kKernelTypes);
}

/* A file system by its id, which is all that an event says of it. */
struct Known {
    uint64_t id;
    dev_t device;
    std::string point;
};

/* Tries one mount after the other. */
class Trials
{
public:
    explicit Trials(int group) : group_(group) {}

    SourceTrial run(const agent::Mount &mount)
    {
        SourceTrial trial = {mount};
        if (is_kernels(mount.type))
            trial.step = Step::kKernels;
        else if (is_remote(mount.type))
            trial.step = Step::kRemote;
        else if (group_ >= 0)
            reach(trial);
        return trial;
    }

private:
    static void fail(SourceTrial &trial, Step step, int error = errno)
    {
        trial.step = step;
        trial.error = error;
    }

    void reach(SourceTrial &trial)
    {
        const char *const point = trial.mount.point.c_str();
        const common::Fd top(open(point, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
        if (!top)
            return fail(trial, errno == ENOTDIR ? Step::kFile : Step::kReach);
        const agent::Identity identity = agent::identify_open(top.get());
        if (identity.mount_id != 0 && identity.mount_id != trial.mount.id)
            return fail(trial, Step::kHidden, 0);
        mark(trial, top.get(), identity.dev);
    }

    void mark(SourceTrial &trial, int top, dev_t device)
    {
        const uint64_t mask = FAN_CREATE | FAN_DELETE | FAN_ONDIR;
        if (fanotify_mark(group_, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, mask, top, nullptr) != 0)
            return fail(trial, Step::kMark);
        open_handle(trial, top);
        if (trial.step == Step::kServed)
            look_for_twin(trial, top, device);
    }

    static void open_handle(SourceTrial &trial, int top)
    {
        alignas(struct file_handle) char room[sizeof(struct file_handle) + MAX_HANDLE_SZ];
        struct file_handle *const handle = reinterpret_cast<struct file_handle *>(room);
        int mount_id;
        handle->handle_bytes = MAX_HANDLE_SZ;
        if (name_to_handle_at(top, "", handle, &mount_id, AT_EMPTY_PATH) != 0)
            return fail(trial, Step::kHandle);
        if (!common::Fd(open_by_handle_at(top, handle, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK)))
            fail(trial, Step::kOpen);
    }

    // The one that is watched first has the id; here it is the one that was mounted first.
    void look_for_twin(SourceTrial &trial, int top, dev_t device)
    {
        struct statfs facts;
        uint64_t id = 0;
        static_assert(sizeof id == sizeof facts.f_fsid);
        if (fstatfs(top, &facts) != 0)
            return;
        memcpy(&id, &facts.f_fsid, sizeof id);
        for (const Known &known : known_) {
            if (known.id != id || known.device == device)
                continue;
            trial.twin = known.point;
            return fail(trial, Step::kTwin, 0);
        }
        known_.push_back({id, device, trial.mount.point});
    }

    const int group_; /* -1: there is none */
    std::vector<Known> known_;
};

common::Fd make_group(SourceFacts &facts)
{
    constexpr unsigned kFlags = FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK;
    common::Fd group(fanotify_init(kFlags | FAN_REPORT_DFID_NAME_TARGET, O_RDONLY | O_CLOEXEC));
    facts.names_object = bool(group);
    if (!group)
        group.reset(fanotify_init(kFlags | FAN_REPORT_DFID_NAME, O_RDONLY | O_CLOEXEC));
    facts.init_error = group ? 0 : errno;
    return group;
}

/* ---- what it means ---- */

std::string refused(const std::string &what, int error) { return what + " (" + strerror(error) + ")"; }

agent::FallbackWords words_of(const SourceTrial &trial, bool root)
{
    const std::string &type = trial.mount.type;
    switch (trial.step) {
        case Step::kFile:
            return {"a single file is mounted there", ""};
        case Step::kReach:
            return {refused("it cannot be opened", trial.error), root ? "" : "run as root"};
        case Step::kHandle:
            return agent::explain_fallback(FMON_FALLBACK_HANDLE, trial.error, type, root);
        case Step::kOpen:
            return agent::explain_fallback(FMON_FALLBACK_OPEN, trial.error, type, root);
        case Step::kTwin: {
            const std::string remedy = agent::explain_fallback(FMON_FALLBACK_FSID, 0, type, root).remedy;
            return {"its file system has the id of the one on " + trial.twin + ", as copied images have", remedy};
        }
        default:
            return agent::explain_fallback(FMON_FALLBACK_MARK, trial.error, type, root);
    }
}

// A single file has no directories that could have one mark less.
State state_of(Step step) { return step == Step::kServed || step == Step::kFile ? State::kOk : State::kWarn; }

bool is_tried(Step step) { return step != Step::kKernels && step != Step::kRemote && step != Step::kHidden; }

Check judge_mount(const SourceTrial &trial, const SourceFacts &facts)
{
    Check check = {kSources, trial.mount.point, State::kOk, "filesystem", "", true};
    if (facts.container || facts.init_error) {
        check.text = "marks";
    } else if (trial.step != Step::kServed) {
        const agent::FallbackWords words = words_of(trial, facts.root);
        check.state = state_of(trial.step);
        check.text = "marks: " + words.text;
        check.remedy = words.remedy;
    }
    return check;
}

Check judge_group(const SourceFacts &facts)
{
    Check check = {kSources, "group", State::kOk, "", "", true};
    if (facts.container) {
        check.state = State::kWarn;
        check.text = "inside a container directories are watched by marks only";
        check.remedy = "run fmon on the host itself";
    } else if (facts.init_error) {
        check.state = State::kWarn;
        const agent::FallbackWords words =
            agent::explain_fallback(FMON_FALLBACK_INIT, facts.init_error, "", facts.root);
        check.text = words.text;
        check.remedy = words.remedy;
        check.reachable = facts.init_error != EINVAL && facts.init_error != ENOSYS;
    } else {
        check.text = facts.names_object ? "reports directory, name and object"
                                        : "reports directory and name, but not the object, as kernels before 5.17";
    }
    return check;
}

// One line for all mounts of a type that nobody tries.
void add_untried(const SourceFacts &facts, Step step, const char *text, Checks &checks)
{
    std::map<std::string, uint64_t> types;
    for (const SourceTrial &trial : facts.mounts)
        if (trial.step == step)
            types[trial.mount.type]++;
    for (const auto &[type, count] : types)
        checks.push_back({kSources, type, State::kOk, text, "", true});
}

}  // namespace

SourceFacts gather_sources(const Machine &machine)
{
    SourceFacts facts;
    facts.container = machine.setup.container;
    facts.root = geteuid() == 0;
    const common::Fd group = make_group(facts);
    Trials trials(group.get());
    for (const agent::Mount &mount : machine.mounts)
        facts.mounts.push_back(trials.run(mount));
    return facts;
}

Checks judge_sources(const SourceFacts &facts)
{
    Checks checks = {judge_group(facts)};
    for (const SourceTrial &trial : facts.mounts)
        if (is_tried(trial.step))
            checks.push_back(judge_mount(trial, facts));
    add_untried(facts, Step::kRemote, "not tried, since others answer for it: decided when a watch is placed", checks);
    add_untried(facts, Step::kKernels, "marks: the kernel's own", checks);
    return checks;
}

}  // namespace cli
