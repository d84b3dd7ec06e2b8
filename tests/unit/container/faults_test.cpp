/* Each call of the container library that can fail, failing: what cannot be known is the host's or empty, nothing is
 * lost for the next call, and no descriptor is left open. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "container/details.h"
#include "container/ends.h"
#include "container/process_directory.h"
#include "orx_sensitivedir.h"
#include "testlib/container_world/container_world.h"
#include "testlib/fault.h"
#include "testlib/tree.h"

using container::Details;
using testlib::Fault;
using testlib::made_id;
using testlib::ThreadScope;

namespace
{

constexpr char kEngines[] = FMON_TEST_DATA "/engines";

class ContainerLibFaults : public testing::Test
{
protected:
    ContainerLibFaults() : world(tree.root())
    {
        world.add({1, 100, "/init.scope", {1, 2}});
        world.add({20, 101, "/docker/" + made_id(1), {30, 31}});
        orx_container_set_roots(world.proc().c_str(), kEngines);
    }
    ~ContainerLibFaults() override { orx_container_set_roots(nullptr, nullptr); }
    static std::string owner(const char *mount)
    {
        const struct orx_container_mount *record = _orx_get_container_mount(mount);
        return record ? record->label : "host";
    }
    testlib::TempTree tree;
    testlib::ContainerWorld world;
};

TEST_F(ContainerLibFaults, ACensusThatSeesLess)
{
    for (const char *call : {"open", "openat", "read", "readlinkat", "fdopendir", "dup"}) {
        int broken = 0;
        const int before = testlib::open_fds();
        const int failed = testlib::fail_each(call, EIO, [&](Fault &) {
            struct orx_container_census census;
            const int32_t status = orx_container_survey(&census);
            EXPECT_LE(census.mounts, 4u);
            broken += status < 0 || census.mounts < 4;
        });
        EXPECT_GT(failed, 0) << call;
        EXPECT_GT(broken, 0) << call;
        EXPECT_EQ(testlib::open_fds(), before) << call;
        EXPECT_EQ(owner("30"), made_id(1)) << call << ": the last census was whole";
    }
}

TEST_F(ContainerLibFaults, InterruptedReadsGoOn)
{
    testlib::fail_each("read", EINTR, [&](Fault &) {
        struct orx_container_census census;
        EXPECT_EQ(0, orx_container_survey(&census));
        EXPECT_EQ(4u, census.mounts);
    });
}

TEST_F(ContainerLibFaults, WithoutAThreadEverythingIsTheHosts)
{
    for (const char *call : {"eventfd", "pthread_create"}) {
        orx_container_set_roots(world.proc().c_str(), kEngines);
        const Fault fault(call, 1, EAGAIN);
        if (owner("30") == "host") {
            EXPECT_TRUE(fault.hit()) << call;
            EXPECT_EQ(owner("30"), made_id(1)) << call << ": it is tried again";
        } else {
            EXPECT_FALSE(fault.hit()) << call << ": it was there already";
        }
    }
}

TEST_F(ContainerLibFaults, ARecordWithoutMemory)
{
    struct orx_container_census census;
    orx_container_survey(&census);
    {
        const Fault fault("calloc");
        EXPECT_EQ(nullptr, _orx_get_container_info(made_id(1).c_str()));
        EXPECT_TRUE(fault.hit());
    }
    struct orx_container_info *info = _orx_get_container_info(made_id(1).c_str());
    EXPECT_NE(nullptr, info);
    _orx_free_container_info(info);
}

/* ---- files of the engines ---- */

const std::string kKnown[] = {std::string(64, 'a'), std::string(64, 'b'), std::string(64, 'c'),
                              std::string(64, 'd'), std::string(64, 'e'), std::string(64, 'f')};

bool equal(const Details &a, const Details &b)
{
    for (const auto text :
         {&Details::mounts, &Details::user, &Details::name_space, &Details::image_id, &Details::image_name,
          &Details::image_tag, &Details::repository, &Details::name, &Details::capability, &Details::ports})
        if (a.*text != b.*text)
            return false;
    return a.known == b.known && a.privileged == b.privileged && a.running == b.running;
}

TEST(ContainerLibFileFaults, FilesThatCannotBeReadAreNotThere)
{
    for (const char *call : {"open", "openat", "openat2", "read", "fstat", "fdopendir"}) {
        int failed = 0;
        const int before = testlib::open_fds();
        for (const std::string &id : kKnown) {
            failed += testlib::fail_each(call, EACCES, [&](Fault &) { container::read_details(kEngines, id); });
            EXPECT_TRUE(container::read_details(kEngines, id).known) << id;
        }
        EXPECT_GT(failed, 0) << call;
        EXPECT_EQ(testlib::open_fds(), before) << call;
    }
}

/* Before Linux 5.6, and in a sandbox that does not know the call. */
TEST(ContainerLibFileFaults, WithoutOpenat2TheSameIsFound)
{
    for (const std::string &id : kKnown) {
        const Details whole = container::read_details(kEngines, id);
        for (const int error : {ENOSYS, EPERM}) {
            const Fault fault("openat2", 1, error, 100'000);
            EXPECT_TRUE(equal(container::read_details(kEngines, id), whole)) << id;
            EXPECT_TRUE(fault.hit());
        }
    }
}

/* ---- ends of processes ---- */

container::Found found_of(pid_t pid)
{
    const common::Fd proc(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return {made_id(1), pid, container::start_time(proc.get(), pid), false};
}

TEST(ContainerLibEnds, AreNoticed)
{
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    container::Found other = found_of(child);
    other.start++; /* the number is another process's now */
    std::vector<container::End> ends = container::watch_ends({found_of(child), other});
    ASSERT_EQ(2u, ends.size());
    struct pollfd polled = {ends[0].process.get(), POLLIN, 0};
    EXPECT_EQ(0, poll(&polled, 1, 0));
    EXPECT_FALSE(ends[1].process);
    const container::Found gone = found_of(child);
    kill(child, SIGKILL);
    EXPECT_EQ(1, poll(&polled, 1, 5000));
    waitpid(child, nullptr, 0);
    ends = container::watch_ends({gone});
    ASSERT_EQ(1u, ends.size());
    EXPECT_FALSE(ends[0].process) << "it ended before";
}

/* An old kernel, or no descriptors left: containers that end are noticed by age. */
TEST(ContainerLibEnds, OfAsManyAsCanBeWatched)
{
    const container::Found self = found_of(getpid());
    for (const int error : {ENOSYS, EMFILE}) {
        const Fault fault("pidfd_open", 2, error);
        EXPECT_EQ(1u, container::watch_ends({self, self, self}).size());
        EXPECT_TRUE(fault.hit());
    }
    const Fault fault("open");
    EXPECT_EQ(0u, container::watch_ends({self}).size());
}

}  // namespace
