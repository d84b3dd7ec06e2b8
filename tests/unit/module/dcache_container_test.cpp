/* Tests of dcache_container.cpp: mounts that the container library knows, and paths below them. */

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "dcache.h"
#include "dll.h"
#include "orx_sensitivedir.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"

namespace
{

/* The container library, as the test plays it. */
struct Library {
    bool present = true, has_entry = true;
    struct orx_container_mount record = {0, nullptr};
    bool has_record = true;
    std::vector<std::string> opened, looked_up, asked;
    int flags = 0;
} library;
int handle_mark;

const struct orx_container_mount *play_get_mount(const char *id)
{
    library.asked.push_back(id);
    return library.has_record ? &library.record : nullptr;
}

void *play_dlopen(const char *path, int flags)
{
    library.opened.push_back(path);
    library.flags = flags;
    errno = ENOENT;
    return library.present ? &handle_mark : nullptr;
}

void *play_dlsym(void *handle, const char *symbol)
{
    EXPECT_EQ(&handle_mark, handle);
    library.looked_up.push_back(symbol);
    errno = ESRCH;
    return library.has_entry ? reinterpret_cast<void *>(play_get_mount) : nullptr;
}

class DcacheContainerTest : public testing::Test
{
protected:
    DcacheContainerTest()
    {
        testlib::reset_host();
        testlib::replace_dlopen(play_dlopen);
        testlib::replace_dlsym(play_dlsym);
        library = Library();
    }
    ~DcacheContainerTest() override
    {
        testlib::replace_dlopen(nullptr);
        testlib::replace_dlsym(nullptr);
    }

    /* "output|label" */
    std::string get(const char *path, const char *id, int out_size = 64)
    {
        char out[64];
        memset(out, '#', sizeof(out));
        out[0] = '\0';
        const char *label = "(untouched)";
        container_path_get(path, id, &label, out, out_size);
        return std::string(out) + "|" + (label ? label : "(null)");
    }
    void give_record(int32_t pid, const char *label) { library.record = {pid, label}; }
    void live_through_first_use();

    static constexpr char kOpenFailed[] = "load fmon module failed, errno: 2\n";
    static constexpr char kEntryMissing[] =
        "load sensitivedir symbol: _orx_get_container_info failed, errno: 3\n"; /* names the wrong entry */
};

void DcacheContainerTest::live_through_first_use()
{
    library.present = false;
    EXPECT_EQ("/rootfs/a/b|host", get("/a/b", "42"));
    EXPECT_EQ(1, testlib::log_count(1, kOpenFailed));
    EXPECT_EQ((std::vector<std::string>{"/agent/bin/../lib/liborx_sensitive_dir.6.so"}), library.opened);
    EXPECT_EQ(kDllFlags, library.flags);
    EXPECT_TRUE(library.flags & RTLD_NOW);
    EXPECT_EQ(0, testlib::dll_closes());

    library.present = true;
    library.has_entry = false;
    EXPECT_EQ("/rootfs/a/b|host", get("/a/b", "42"));
    EXPECT_EQ(1, testlib::log_count(1, kEntryMissing));
    EXPECT_EQ((std::vector<std::string>{"_orx_get_container_mount"}), library.looked_up);
    EXPECT_EQ(2u, library.opened.size());
    EXPECT_EQ(1, testlib::dll_closes());
    EXPECT_EQ("dcache.c", testlib::log_lines().at(0).file);
    EXPECT_EQ("dcache.c", testlib::log_lines().at(1).file);

    library.has_entry = true;
    give_record(1234, "web");
    EXPECT_EQ("/proc/1234/root/a/b|web", get("/a/b", "42"));
    EXPECT_EQ(3u, library.opened.size());
    EXPECT_EQ("/proc/1234/root/c|web", get("/c", "43"));
    EXPECT_EQ(3u, library.opened.size()) << "found once, kept";
    EXPECT_EQ(1, testlib::dll_closes());
    EXPECT_EQ((std::vector<std::string>{"42", "43"}), library.asked);
    EXPECT_EQ(2u, testlib::log_lines().size());
}

/* What was found is kept for the life of the process: the first use is seen in a fresh one. */
TEST_F(DcacheContainerTest, LoadsOnFirstUseRetriesAfterFailureAndKeepsWhatItFound)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(
        {
            live_through_first_use();
            exit(HasFailure() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(DcacheContainerTest, ARecordGivesItsProcessAndItsLabel)
{
    give_record(7, "db");
    EXPECT_EQ("/proc/7/root/var/lib|db", get("/var/lib", "1"));
    give_record(INT32_MAX, nullptr);
    EXPECT_EQ("/proc/2147483647/root/|(null)", get("/", "1"));
}

TEST_F(DcacheContainerTest, NoRecordMeansTheHost)
{
    library.has_record = false;
    EXPECT_EQ("/rootfs/etc|host", get("/etc", "1"));
    EXPECT_EQ("/rootfs|host", get("", "1"));
    EXPECT_EQ("", testlib::log_text());
}

TEST_F(DcacheContainerTest, NothingIsDoneWithoutAllArguments)
{
    give_record(7, "db");
    char out[16] = "before";
    const char *label = "before";
    container_path_get(nullptr, "1", &label, out, sizeof(out));
    container_path_get("/a", nullptr, &label, out, sizeof(out));
    container_path_get("/a", "1", nullptr, out, sizeof(out));
    container_path_get("/a", "1", &label, nullptr, 16);
    container_path_get("/a", "", &label, out, sizeof(out));
    EXPECT_STREQ("before", out);
    EXPECT_STREQ("before", label);
    EXPECT_TRUE(library.asked.empty());
}

TEST_F(DcacheContainerTest, OutputIsCutToTheSizeGiven)
{
    give_record(7, "db");
    EXPECT_EQ("/proc/7/ro|db", get("/var/lib", "1", 11));
    EXPECT_EQ("/|db", get("/var/lib", "1", 2));
    EXPECT_EQ("|db", get("/var/lib", "1", 1));
    library.has_record = false;
    EXPECT_EQ("/rootfs|host", get("/etc", "1", 8));
    EXPECT_EQ("/rootfs/|host", get("/etc", "1", 9));
}

TEST_F(DcacheContainerTest, AnEmptyOrNegativeBufferIsNotWritten)
{
    library.has_record = false;
    for (int size : {0, -1, INT32_MIN}) {
        char out[4] = {'x', 'x', 'x', 'x'};
        const char *label = nullptr;
        container_path_get("/a", "1", &label, out, size);
        EXPECT_EQ('x', out[0]) << size;
        EXPECT_STREQ("host", label);
    }
}

TEST_F(DcacheContainerTest, APathOfAnyLengthFitsItsBuffer)
{
    library.has_record = false;
    const std::string path = "/" + std::string(1021, 'c');
    char out[1024];
    const char *label;
    container_path_get(path.c_str(), "1", &label, out, sizeof(out));
    EXPECT_EQ(("/rootfs" + path).substr(0, 1023), out);
}

/* ---- read passes ---- */

TEST_F(DcacheContainerTest, InAPassAStrangersMountIsAskedForOnce)
{
    library.has_record = false;
    container_pass(true);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ("/rootfs/etc|host", get("/etc", "8"));
    EXPECT_EQ("/rootfs/etc|host", get("/etc", "9"));
    EXPECT_EQ((std::vector<std::string>{"8", "9"}), library.asked);
    container_pass(false);
    library.has_record = true;
    give_record(7, "db");
    EXPECT_EQ("/proc/7/root/etc|db", get("/etc", "8")) << "the next pass may know more";
    container_pass(true);
    EXPECT_EQ("/proc/7/root/etc|db", get("/etc", "9"));
    EXPECT_EQ("/proc/7/root/etc|db", get("/etc", "9"));
    EXPECT_EQ(5u, library.asked.size()) << "what a container has may end at any time";
    container_pass(false);
}

TEST_F(DcacheContainerTest, MountsBeyondCountingAreAskedForEachTime)
{
    library.has_record = false;
    container_pass(true);
    for (int turn = 0; turn < 2; turn++)
        for (int i = 0; i < 70; i++)
            get("/etc", std::to_string(i).c_str());
    get("/etc", "12345678901234567");
    get("/etc", "12345678901234567");
    container_pass(false);
    EXPECT_EQ(70u + 6 + 2, library.asked.size());
}

}  // namespace
