/* Tests of release.h and of the functions of orx_host.h on the kernel's release. */
#include "release.h"

#include <sys/utsname.h>

#include <cerrno>
#include <cstring>

#include "host_support.h"
#include "orx_host.h"

using host::plugin_release;

namespace
{

TEST(Release, OfTheShapeThatPluginsTakeStays)
{
    for (const char *release : {"6.1.0-25-amd64", "3.10.0-1160.el7.x86_64", "5.4.0-0", "4.19.0-1"})
        EXPECT_EQ(release, plugin_release(release));
}

TEST(Release, KeepsItsNumbersAndTheRest)
{
    EXPECT_EQ("6.12.107-0+deb13-cloud-amd64", plugin_release("6.12.107+deb13-cloud-amd64"));
    EXPECT_EQ("6.11.5-0-arch1-1", plugin_release("6.11.5-arch1-1"));
    EXPECT_EQ("6.6.58-0", plugin_release("6.6.58"));
    EXPECT_EQ("5.15.167-0.4-microsoft-standard", plugin_release("5.15.167.4-microsoft-standard"));
    EXPECT_EQ("6.18.44-0-fc-v595", plugin_release("6.18.44-fc-v595"));
    EXPECT_EQ("5.4.0-0-", plugin_release("5.4.0-"));
    EXPECT_EQ("5.4.0-0.-3", plugin_release("5.4.0.-3"));
}

TEST(Release, WithoutAPatchGetsOne)
{
    EXPECT_EQ("7.2.0-0", plugin_release("7.2"));
    EXPECT_EQ("6.1.0-0-rc3", plugin_release("6.1-rc3"));
    EXPECT_EQ("6.1.0-0.", plugin_release("6.1."));
}

TEST(Release, WithoutNumbersStays)
{
    for (const char *release : {"", "x", "6", "6.", "6.x", ".1.2", "-6.1.2", " 6.1.2", "v6.1.2"})
        EXPECT_EQ(release, plugin_release(release));
}

TEST(Release, IsCutAndMeasuredWhole)
{
    char out[9] = "";
    EXPECT_EQ(static_cast<int>(strlen("6.6.58-0-arch1")), orx_host_release("6.6.58-arch1", out, sizeof out));
    EXPECT_STREQ("6.6.58-0", out);
    EXPECT_EQ(8, orx_host_release("6.6.58", nullptr, 0));
}

TEST(Release, OfThisKernelIsHandedOnInShape)
{
    struct utsname kernel, handed;
    ASSERT_EQ(0, orx_host_uname(&kernel));
    ASSERT_EQ(0, uname(&handed));
    EXPECT_EQ(plugin_release(kernel.release).substr(0, sizeof handed.release - 1), handed.release);
    EXPECT_STREQ(kernel.sysname, handed.sysname);
    EXPECT_STREQ(kernel.nodename, handed.nodename);
    EXPECT_STREQ(kernel.version, handed.version);
    EXPECT_STREQ(kernel.machine, handed.machine);
}

TEST(Release, TheKernelsRefusalIsPassedOn)
{
    errno = 0;
    EXPECT_EQ(-1, orx_host_uname(nullptr));
    EXPECT_EQ(EFAULT, errno);
    struct utsname *const nowhere = nullptr;
    EXPECT_EQ(-1, uname(nowhere));
}

}  // namespace
