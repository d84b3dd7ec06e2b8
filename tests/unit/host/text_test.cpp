/* Tests of the text functions of orx_base.h, the end of a library, and watch_map. */

#include <dlfcn.h>

#include <cstring>

#include "host_support.h"
#include "orx_base.h"
#include "orx_fmon.h"
#include "watch_map.h"

namespace
{

TEST(Text, FormatsIntoABuffer)
{
    char out[6];
    EXPECT_EQ(4, orx_str_snprintf(out, sizeof out, "%d-%s", 1, "ab"));
    EXPECT_STREQ("1-ab", out);
    EXPECT_EQ(5, orx_str_snprintf(out, sizeof out, "%s", "12345"));
    EXPECT_STREQ("12345", out);
    EXPECT_EQ(7, orx_str_snprintf(out, sizeof out, "%s", "1234567")) << "what would have been written";
    EXPECT_STREQ("12345", out);
    EXPECT_EQ(1, orx_str_snprintf(out, 1, "%s", "x"));
    EXPECT_STREQ("", out);
    EXPECT_EQ(3, orx_str_snprintf(nullptr, 10, "%s", "xyz"));
    EXPECT_EQ(3, orx_str_snprintf(out, 0, "%s", "xyz"));
}

TEST(Text, TerminatesWhenTheFormatFails)
{
    char out[6] = "xxxxx";
    const wchar_t beyond[] = {0x7fffffff, 0}; /* no character of any encoding */
    EXPECT_LT(orx_str_snprintf(out, sizeof out, "%ls", beyond), 0);
    EXPECT_STREQ("", out);
}

TEST(Text, CopiesAsStrncpyDoes)
{
    char out[5] = {'x', 'x', 'x', 'x', 'x'};
    EXPECT_EQ(orx_strncpy(out, "ab", 4), out);
    EXPECT_EQ(0, memcmp(out, "ab\0\0x", 5));
    orx_strncpy(out, "abcdef", 4);
    EXPECT_EQ(0, memcmp(out, "abcdx", 5)) << "full, and without a NUL";
    orx_strncpy(out, "z", 0);
    EXPECT_EQ('a', out[0]);
    orx_strncpy(out, nullptr, 2);
    EXPECT_EQ(0, memcmp(out, "\0\0cdx", 5));
}

TEST(Text, CopiesAsStrlcpyDoes)
{
    char out[4] = "xxx";
    EXPECT_EQ(2u, orx_str_strlcpy(out, "ab", 4));
    EXPECT_STREQ("ab", out);
    EXPECT_EQ(3u, orx_str_strlcpy(out, "abc", 4));
    EXPECT_STREQ("abc", out);
    EXPECT_EQ(4u, orx_str_strlcpy(out, "abcd", 4));
    EXPECT_STREQ("abc", out);
    EXPECT_EQ(1u, orx_str_strlcpy(out, "z", 1));
    EXPECT_STREQ("", out);
    EXPECT_EQ(4u, orx_str_strlcpy(nullptr, "abcd", 0));
    EXPECT_EQ(0u, orx_str_strlcpy(out, nullptr, 4));
}

TEST(Library, IsClosed)
{
    void *self = dlopen(nullptr, RTLD_NOW);
    ASSERT_NE(nullptr, self);
    EXPECT_EQ(0, orx_dll_close(self));
    EXPECT_EQ(-1, orx_dll_close(nullptr));
}

TEST(WatchMap, BeginsWithCreations)
{
    EXPECT_EQ(static_cast<uint32_t>(FMON_CREATE), watch_map[0]);
    EXPECT_EQ(0u, watch_map[1]);
}

}  // namespace
