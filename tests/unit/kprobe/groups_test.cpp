/* Deliveries to this process's inotify instances, told from those to anybody else's. */
#include "groups.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>

#include "kprobe_instance_fixture.h"
#include "testlib/fault.h"

using namespace kprobe_fixture;
using kprobe::Fd;
using kprobe::Groups;
using testlib::Fault;

namespace
{

Fd inotify() { return Fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)); }

struct GroupsFixture : Fixture {
    explicit GroupsFixture(bool is_64 = true) : Fixture(is_64) {}

    int add_inotify(const std::string &filter = "")
    {
        return add(testlib::inotify_probe_of(kernel.is_64, 6, 1, filter));
    }
    /* The same watch descriptor and the same directory, as anybody may have them. */
    void deliver(uint64_t group, uint32_t mask = IN_CREATE)
    {
        const uint64_t mark = objects.mark(objects.inode(0x12345, 040755), 7, group);
        kernel.hit({"inotify_handle_inode_event", {mark, mask, 0, 0, 0, 0}});
    }
    /* The masks of what is handed on. */
    std::vector<uint32_t> reported()
    {
        sweep();
        instance.parse(100);
        std::vector<uint32_t> masks;
        for (const Received &record : received)
            masks.push_back(record.word(12));
        received.clear();
        return masks;
    }
    std::string filter() { return kernel.perf.filters(kernel.id_of("Ki")).at(0); }
};

using Masks = std::vector<uint32_t>;

std::string hex(uint64_t value)
{
    char text[32];
    snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

class KprobeGroups : public testing::TestWithParam<bool>
{
};
INSTANTIATE_TEST_SUITE_P(words, KprobeGroups, testing::Values(true, false));

}  // namespace

TEST_P(KprobeGroups, OnlyDeliveriesToThisProcessAreHandedOn)
{
    GroupsFixture f(GetParam());
    const Fd own = inotify(), another = inotify();
    const uint64_t stranger = f.kernel.memory.allocate(512);
    ASSERT_EQ(0, f.add_inotify("w!=0"));
    ASSERT_EQ(0, f.instance.enable("Ki", true));
    f.deliver(stranger, IN_CREATE);
    f.deliver(f.kernel.group_of(own.get()), IN_MODIFY);
    f.deliver(stranger, IN_IGNORED);
    f.deliver(f.kernel.group_of(another.get()), IN_OPEN);
    f.deliver(0, IN_CREATE);
    EXPECT_EQ((Masks{IN_MODIFY, IN_OPEN}), f.reported());
    const kp_losses losses = f.losses();
    EXPECT_EQ(2u, losses.delivered);
    EXPECT_EQ(0u, losses.unreadable) << "what is somebody else's is no loss";
}

TEST_P(KprobeGroups, TheKernelIsGivenTheFilter)
{
    GroupsFixture f(GetParam());
    const Fd own = inotify();
    ASSERT_EQ(0, f.add_inotify("w!=0"));
    EXPECT_EQ("((w!=0)||m&33792)&&(g==" + hex(f.kernel.group_of(own.get())) + ")", f.filter());
    ASSERT_EQ(0, f.instance.filter("Ki", ""));
    EXPECT_EQ("(g==" + hex(f.kernel.group_of(own.get())) + ")", f.filter());
}

TEST(KprobeGroups, AProcessWithoutInotifyHearsNothing)
{
    GroupsFixture f;
    ASSERT_EQ(0, f.add_inotify());
    EXPECT_EQ("g==0", f.filter());
    ASSERT_EQ(0, f.instance.enable("Ki", true));
    EXPECT_EQ("g==0", f.filter());
    f.deliver(f.kernel.memory.allocate(512));
    f.deliver(0);
    EXPECT_EQ(Masks{}, f.reported());
}

TEST(KprobeGroups, ADescriptorThatIsMadeLater)
{
    GroupsFixture f;
    ASSERT_EQ(0, f.add_inotify("w!=0"));
    const Fd own = inotify();
    ASSERT_EQ(0, f.instance.enable("Ki", true));
    f.deliver(f.kernel.group_of(own.get()), IN_MODIFY);
    EXPECT_EQ(Masks{IN_MODIFY}, f.reported());
    const Fd later = inotify();
    ASSERT_EQ(0, f.instance.filter("Ki", "w!=0&&m!=0"));
    EXPECT_NE(std::string::npos, f.filter().find("g==" + hex(f.kernel.group_of(later.get()))));
    f.deliver(f.kernel.group_of(later.get()), IN_OPEN);
    EXPECT_EQ(Masks{IN_OPEN}, f.reported());
}

TEST(KprobeGroups, NothingIsAskedTwice)
{
    GroupsFixture f;
    const Fd own = inotify();
    Groups groups;
    EXPECT_EQ(1, groups.learn(f.tracefs, f.facts));
    f.kernel.refuse("inotify_ioctl", "asked again");
    EXPECT_EQ(0, groups.learn(f.tracefs, f.facts));
    EXPECT_TRUE(groups.has(f.kernel.group_of(own.get())));
    const Fd later = inotify();
    EXPECT_LT(groups.learn(f.tracefs, f.facts), 0);
    EXPECT_TRUE(groups.has(f.kernel.group_of(own.get()))) << "nothing changed";
    EXPECT_FALSE(groups.has(f.kernel.group_of(later.get())));
}

/* The kernel gives its memory to the next instance, whoever makes it. */
TEST(KprobeGroups, AClosedDescriptorCountsNoMore)
{
    GroupsFixture f;
    Fd own = inotify();
    const uint64_t group = f.kernel.group_of(own.get());
    ASSERT_EQ(0, f.add_inotify());
    ASSERT_EQ(0, f.instance.enable("Ki", true));
    f.deliver(group, IN_MODIFY);
    EXPECT_EQ(Masks{IN_MODIFY}, f.reported());
    const int number = own.get();
    own.reset();
    const Fd same_number(open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(number, same_number.get());
    f.deliver(group, IN_IGNORED);
    EXPECT_EQ(Masks{}, f.reported());
}

TEST(KprobeGroups, ACopyOfADescriptorKeepsItsInstance)
{
    GroupsFixture f;
    Fd own = inotify();
    const Fd copy(fcntl(own.get(), F_DUPFD_CLOEXEC, 3));
    f.kernel.one_group = f.kernel.memory.allocate(512);
    Groups groups;
    ASSERT_EQ(1, groups.learn(f.tracefs, f.facts));
    own.reset();
    groups.forget_closed();
    EXPECT_TRUE(groups.has(f.kernel.one_group));
    EXPECT_EQ("(g==" + hex(f.kernel.one_group) + ")", groups.filter(""));
}

TEST(KprobeGroups, MoreDescriptorsThanTheKernelsFilterTakes)
{
    GroupsFixture f;
    std::vector<Fd> many;
    for (int i = 0; i < 33; i++)
        many.push_back(inotify());
    ASSERT_TRUE(many.back());
    ASSERT_EQ(0, f.add_inotify("w!=0"));
    EXPECT_EQ("(w!=0)||m&33792", f.filter());
    ASSERT_EQ(0, f.instance.enable("Ki", true));
    f.deliver(f.kernel.group_of(many.back().get()), IN_MODIFY);
    f.deliver(f.kernel.memory.allocate(512), IN_OPEN);
    EXPECT_EQ(Masks{IN_MODIFY}, f.reported());
}

TEST(KprobeGroups, TheLibrarysOwnWatchesAreNobodys)
{
    GroupsFixture f;
    f.kernel.file("/proc/self/mountinfo", "23 1 0:20 / /tmp rw - tmpfs tmpfs rw\n");
    ASSERT_EQ(0, f.add("Km", "mnt==23"));
    ASSERT_EQ(0, f.instance.enable("Km", true));
    ASSERT_EQ(0, f.add_inotify());
    EXPECT_EQ("g==0", f.filter());
    ASSERT_EQ(0, f.instance.enable("Km", false));
    const Fd own = inotify(); /* of the same number, perhaps */
    ASSERT_EQ(0, f.instance.filter("Ki", ""));
    EXPECT_EQ("(g==" + hex(f.kernel.group_of(own.get())) + ")", f.filter());
}

TEST(KprobeGroups, InstancesThatCannotBeToldApart)
{
    GroupsFixture f;
    Fd own = inotify();
    f.kernel.refuse("inotify_ioctl", "no such function");
    EXPECT_LT(f.add_inotify(), 0);
    EXPECT_TRUE(testlib::has_line(testlib::take_log(), "cannot be told from others"));
    EXPECT_EQ(-1, f.kernel.id_of("Ki"));
    own.reset();
    EXPECT_LT(f.add_inotify(), 0) << "nor with none";
    f.kernel.one_group = 5; /* no pointer */
    GroupsFixture g;
    g.kernel.one_group = 5;
    const Fd more = inotify();
    EXPECT_LT(g.add_inotify(), 0);
}

TEST(KprobeGroups, CallsThatFail)
{
    for (const char *call : {"epoll_create1", "epoll_ctl", "perf_event_open", "open", "write", "inotify_init1"}) {
        GroupsFixture f;
        const bool with = strcmp(call, "inotify_init1") != 0;
        const Fd own = with ? inotify() : Fd();
        const int before = open_descriptors();
        int failed = 0;
        testlib::fail_each(call, EMFILE, [&](Fault &fault) {
            Groups groups;
            const int status = groups.learn(f.tracefs, f.facts);
            EXPECT_TRUE(status >= 0 || fault.hit()) << call;
            EXPECT_EQ(with && status >= 0, groups.has(with ? f.kernel.group_of(own.get()) : 1)) << call;
            failed += status < 0;
        });
        EXPECT_GT(failed, 0) << call;
        EXPECT_EQ(before, open_descriptors()) << call;
        testlib::take_log();
    }
}
