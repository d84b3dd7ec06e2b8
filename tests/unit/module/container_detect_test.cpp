/* Tests of container_detect.cpp: host or container, as libhulbase.so answers or does not. */

#include <algorithm>

#include "dll.h"
#include "shell_fixture.h"
#include "testlib/in_child.h"

namespace
{

int answer;
int asked;
int size_seen;
bool zeroed;
std::string path_seen, symbol_seen;
int flags_seen;

int agent_type(char *buf, int size)
{
    asked++;
    size_seen = size;
    zeroed = std::all_of(buf, buf + size, [](char c) { return c == '\0'; });
    memset(buf, 'x', static_cast<size_t>(size));
    return answer;
}

void *open_library(const char *path, int flags)
{
    path_seen = path;
    flags_seen = flags;
    return &answer;
}

void *find_entry(void *, const char *symbol)
{
    symbol_seen = symbol;
    return reinterpret_cast<void *>(agent_type);
}

void *find_nothing(void *, const char *)
{
    errno = ENOSYS;
    return nullptr;
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
static_assert(kDllFlags == 10, "at once and deep, unless a sanitizer forbids it");
#endif

class ContainerDetect : public ::testing::Test
{
protected:
    ContainerDetect()
    {
        testlib::reset_host();
        asked = 0;
    }
    ~ContainerDetect() override
    {
        testlib::replace_dlopen(nullptr);
        testlib::replace_dlsym(nullptr);
    }
    static int detect()
    {
        testlib::log_clear();
        return container_detect();
    }
    static void library_there()
    {
        testlib::replace_dlopen(open_library);
        testlib::replace_dlsym(find_entry);
    }
};

TEST_F(ContainerDetect, IsAHostUntilTheLibraryAnswers)
{
    in_child([] {
        testlib::replace_dlopen(no_library);
        EXPECT_EQ(0, detect());
        EXPECT_EQ((LevelLines{{1, "load hul base module failed, errno: 2\n"}, {3, "current env is host!"}}),
                  level_lines());

        testlib::replace_dlopen(open_library);
        testlib::replace_dlsym(find_nothing);
        for (int i = 1; i <= 2; i++) { /* forgotten, so opened again */
            path_seen.clear();
            EXPECT_EQ(0, detect());
            EXPECT_EQ(
                (LevelLines{{1, "load hulbase symbol: GetAgentType failed, errno: 38\n"}, {3, "current env is host!"}}),
                level_lines());
            EXPECT_EQ("/agent/bin/../lib/libhulbase.so", path_seen);
            EXPECT_EQ(kDllFlags, flags_seen);
            EXPECT_EQ(i, testlib::dll_closes());
        }
        for (const testlib::LogLine &line : testlib::log_lines())
            EXPECT_EQ("container_tool_utils", line.file);

        library_there();
        answer = 0;
        testlib::CallCount opens("dlopen"), lookups("dlsym");
        EXPECT_EQ(1, detect());
        EXPECT_EQ((LevelLines{{3, "current env is container!"}}), level_lines());
        EXPECT_EQ("GetAgentType", symbol_seen);
        EXPECT_EQ(1, opens.calls());
        EXPECT_EQ(1, lookups.calls());
        EXPECT_EQ(1, detect());
        EXPECT_EQ(1, opens.calls());
        EXPECT_EQ(1, lookups.calls());
        EXPECT_EQ(2, testlib::dll_closes());
    });
}

TEST_F(ContainerDetect, OnlyMinusOneIsAHost)
{
    in_child([] {
        library_there();
        for (int value : {0, 1, 2, 20, -2, 0x7fffffff}) {
            answer = value;
            EXPECT_EQ(1, detect()) << value;
        }
        answer = -1;
        EXPECT_EQ(0, detect());
        EXPECT_EQ((LevelLines{{3, "current env is host!"}}), level_lines());
    });
}

TEST_F(ContainerDetect, AsksWithTwentyZeroBytes)
{
    in_child([] {
        library_there();
        for (int i = 1; i <= 2; i++) {
            detect();
            EXPECT_EQ(i, asked);
            EXPECT_EQ(20, size_seen);
            EXPECT_TRUE(zeroed);
        }
    });
}

}  // namespace
