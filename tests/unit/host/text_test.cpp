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
    EXPECT_EQ(orx_str_snprintf(out, sizeof out, "%d-%s", 1, "ab"), 4);
    EXPECT_STREQ(out, "1-ab");
    EXPECT_EQ(orx_str_snprintf(out, sizeof out, "%s", "12345"), 5);
    EXPECT_STREQ(out, "12345");
    EXPECT_EQ(orx_str_snprintf(out, sizeof out, "%s", "1234567"), 7) << "what would have been written";
    EXPECT_STREQ(out, "12345");
    EXPECT_EQ(orx_str_snprintf(out, 1, "%s", "x"), 1);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(orx_str_snprintf(nullptr, 10, "%s", "xyz"), 3);
    EXPECT_EQ(orx_str_snprintf(out, 0, "%s", "xyz"), 3);
}

TEST(Text, TerminatesWhenTheFormatFails)
{
    char out[6] = "xxxxx";
    const wchar_t beyond[] = {0x7fffffff, 0}; /* no character of any encoding */
    EXPECT_LT(orx_str_snprintf(out, sizeof out, "%ls", beyond), 0);
    EXPECT_STREQ(out, "");
}

TEST(Text, CopiesAsStrncpyDoes)
{
    char out[5] = {'x', 'x', 'x', 'x', 'x'};
    EXPECT_EQ(orx_strncpy(out, "ab", 4), out);
    EXPECT_EQ(memcmp(out, "ab\0\0x", 5), 0);
    orx_strncpy(out, "abcdef", 4);
    EXPECT_EQ(memcmp(out, "abcdx", 5), 0) << "full, and without a NUL";
    orx_strncpy(out, "z", 0);
    EXPECT_EQ(out[0], 'a');
    orx_strncpy(out, nullptr, 2);
    EXPECT_EQ(memcmp(out, "\0\0cdx", 5), 0);
}

TEST(Text, CopiesAsStrlcpyDoes)
{
    char out[4] = "xxx";
    EXPECT_EQ(orx_str_strlcpy(out, "ab", 4), 2u);
    EXPECT_STREQ(out, "ab");
    EXPECT_EQ(orx_str_strlcpy(out, "abc", 4), 3u);
    EXPECT_STREQ(out, "abc");
    EXPECT_EQ(orx_str_strlcpy(out, "abcd", 4), 4u);
    EXPECT_STREQ(out, "abc");
    EXPECT_EQ(orx_str_strlcpy(out, "z", 1), 1u);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(orx_str_strlcpy(nullptr, "abcd", 0), 4u);
    EXPECT_EQ(orx_str_strlcpy(out, nullptr, 4), 0u);
}

TEST(Library, IsClosed)
{
    void *self = dlopen(nullptr, RTLD_NOW);
    ASSERT_NE(self, nullptr);
    EXPECT_EQ(orx_dll_close(self), 0);
    EXPECT_EQ(orx_dll_close(nullptr), -1);
}

TEST(WatchMap, BeginsWithCreations)
{
    EXPECT_EQ(watch_map[0], static_cast<uint32_t>(FMON_CREATE));
    EXPECT_EQ(watch_map[1], 0u);
}

}  // namespace
