/* Kernel-probe libraries with more descriptors than they said, with fewer, and with none. */
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/resource.h>

#include "linux/inotify.h"
#include "probe_fixture.h"

namespace
{

PROBE_CASE(ProbeDescriptors, None)
{
    m.probes.behave("no-descriptors");
    m.start_with_instance();
    EXPECT_EQ(0, fmlnx.inotify_num);
    EXPECT_EQ(1u, fmlnx.kp_global);
    for (int i = 2; i < fmlnx.fd_num; i++)
        EXPECT_EQ(-1, fmlnx.fds[i]) << i;
    EXPECT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    EXPECT_EQ(std::vector<int>{}, m.turn());
}

/* What the library said and what it then makes differ. */
PROBE_CASE(ProbeDescriptors, MoreThanTheLibrarySaid)
{
    m.probes.behave("descriptors 100");
    m.start_with_instance();
    const int32_t n = fmlnx.fd_num;
    EXPECT_LE(n, 8);
    for (int i = 0; i < n; i++)
        EXPECT_TRUE(fmlnx.fds[i] == -1 || fcntl(fmlnx.fds[i], F_GETFD) >= 0) << i;
    EXPECT_EQ(0, get_inotify_event());
    m.probes.put("Ki", 9, testlib::inotify_probe_record(1, 1, IN_CREATE, "f"), 99); /* nobody waits for it */
    EXPECT_EQ(std::vector<int>{}, m.turn());
    m.probes.put("Ki", 9, testlib::inotify_probe_record(1, 1, IN_CREATE, "f"), 1);
    EXPECT_EQ(std::vector<int>{1}, m.turn());
    EXPECT_EQ(1u, fmlnx.unknown_wd_count);
}

PROBE_CASE(ProbeDescriptors, FewerThanTheLibrarySaid)
{
    m.probes.behave("descriptors 1");
    m.start_with_instance();
    EXPECT_EQ(1, fmlnx.inotify_num);
    EXPECT_EQ(6, fmlnx.fd_num);
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    m.happens("Kc", "new");
    EXPECT_EQ(std::vector<int>{3}, m.turn());
    EXPECT_EQ(Strings{"/d/new:create 7"}, m.events());
    EXPECT_EQ(-1, fmlnx.fds[4]);
    EXPECT_EQ(-1, fmlnx.fds[5]);
}

PROBE_CASE(ProbeDescriptors, AsManyAsACountCanSay)
{
    struct rlimit limit = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096); /* both ends of each, and two more of the monitor's */
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    m.probes.set_os_info({6, 1, 0, 2, 255, 4242});
    m.start_with_instance();
    EXPECT_EQ(512, fmlnx.fd_num);
    EXPECT_EQ(255, fmlnx.inotify_num);
    ASSERT_EQ(0, fmon_add_global_watch(0, FMON_CREATE));
    m.happens("Kc", "new", 7, 254);
    EXPECT_EQ(std::vector<int>{511}, m.turn());
    EXPECT_EQ(Strings{"/d/new:create 7"}, m.events());
}

PROBE_CASE(ProbeDescriptors, ACountOfNone)
{
    m.probes.set_os_info({6, 1, 0, 2, 0, 4242});
    m.start_with_instance();
    EXPECT_EQ(2, fmlnx.fd_num);
    EXPECT_EQ(0, fmlnx.inotify_num);
    EXPECT_EQ(std::vector<int>{}, m.turn());
}

}  // namespace
