/* Tests of container_info.cpp: what is known of a container as members of a JSON object, and whether it is usable. */

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "container_tool_utils.h"
#include "dll.h"
#include "orx_sensitivedir.h"
#include "shell_fixture.h"

namespace
{

/* The container library, as the test plays it. */
struct Library {
    bool present = true;
    std::string missing; /* an entry that it lacks */
    bool has_record = true;
    struct orx_container_info record = {};
    std::vector<std::string> opened, looked_up, calls;
    int flags = 0;
} library;
int handle_mark;

struct orx_container_info *play_get(const char *id)
{
    library.calls.push_back(std::string("get ") + id);
    return library.has_record ? &library.record : nullptr;
}

void play_free(struct orx_container_info *info)
{
    EXPECT_EQ(&library.record, info);
    library.calls.push_back("free");
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
    if (symbol == library.missing)
        return nullptr;
    return symbol == std::string("_orx_get_container_info") ? reinterpret_cast<void *>(play_get)
                                                            : reinterpret_cast<void *>(play_free);
}

/* What was found is kept for the life of the process. */
template <typename Body>
void in_fresh_process(Body body)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(
        {
            body();
            exit(testing::Test::HasFailure() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
}

constexpr char kNoRecord[] = "orx_get_container_info is NULL!\n";
constexpr char kOpenFailed[] = "load fmon module failed, errno: 2\n";
constexpr char kEntryMissing[] = "load sensitivedir symbol: _orx_get_container_info failed, errno: 3\n";
constexpr char kUnknown[] =
    "{\"mounts\":\"\",\"user\":\"\",\"container_namespace\":\"\",\"image_id\":\"\","
    "\"image_name\":\"\",\"image_tag\":\"\",\"repository\":\"\",\"container_name\":\"\","
    "\"capability\":\"\",\"ports_binding\":\"\",\"privileged\":0}";

class ContainerInfo : public ::testing::Test
{
protected:
    ContainerInfo()
    {
        testlib::reset_host();
        testlib::replace_dlopen(play_dlopen);
        testlib::replace_dlsym(play_dlsym);
        library = Library();
        give_record(0);
    }
    ~ContainerInfo() override
    {
        testlib::replace_dlopen(nullptr);
        testlib::replace_dlsym(nullptr);
    }

    /* The texts are numbered by their members' order in the structure. */
    static void give_record(int32_t status)
    {
        library.record = {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", 11, status, 13};
    }

    struct Written {
        int result;
        std::string json;
    };
    static Written write(const char *id, int with_init_pid = 0, int enable = 1)
    {
        testlib::log_clear();
        library.calls.clear();
        cJSON *json = testlib::json_object();
        const int result = container_info_to_json(enable, json, id, with_init_pid);
        const std::string text = testlib::json_text(json);
        testlib::json_free(json);
        return {result, text};
    }
    static int usable(const char *id, int enable = 1)
    {
        testlib::log_clear();
        library.calls.clear();
        return container_usable(enable, id);
    }
    using Calls = std::vector<std::string>;
};

/* ---- the writer ---- */

TEST_F(ContainerInfo, MembersAreWrittenInOrder)
{
    const Written written = write("ab");
    EXPECT_EQ(0, written.result);
    EXPECT_EQ(
        "{\"mounts\":\"1\",\"user\":\"2\",\"container_namespace\":\"3\",\"image_id\":\"4\",\"image_name\":\"5\","
        "\"image_tag\":\"6\",\"repository\":\"7\",\"container_name\":\"8\",\"capability\":\"9\","
        "\"ports_binding\":\"10\",\"privileged\":11}",
        written.json);
    EXPECT_EQ((LevelLines{{4, "get container info by id:ab\n"}}), level_lines());
    EXPECT_EQ("container_tool_utils", testlib::log_lines().at(0).file);
    EXPECT_EQ((Calls{"get ab", "free"}), library.calls);
}

TEST_F(ContainerInfo, TheFirstProcessComesLastAndWhenAsked)
{
    for (int asked : {1, 2, -1}) {
        const std::string json = write("ab", asked).json;
        EXPECT_NE(std::string::npos, json.find("\"privileged\":11,\"container_init_pid\":13}")) << json;
    }
    EXPECT_EQ(std::string::npos, write("ab", 0).json.find("container_init_pid"));
}

TEST_F(ContainerInfo, NumbersAreSigned)
{
    library.record.privileged = INT32_MIN;
    library.record.init_pid = INT32_MAX;
    const std::string json = write("ab", 1).json;
    EXPECT_NE(std::string::npos, json.find("\"privileged\":-2147483648,\"container_init_pid\":2147483647}")) << json;
}

TEST_F(ContainerInfo, NullTextsAreEmpty)
{
    library.record = {};
    const Written written = write("ab");
    EXPECT_EQ(0, written.result);
    EXPECT_EQ(kUnknown, written.json);
}

TEST_F(ContainerInfo, TheStatusIsNotLookedAtByTheWriter)
{
    give_record(5);
    EXPECT_EQ(0, write("ab").result);
}

TEST_F(ContainerInfo, WithoutARecordTheMembersAreEmpty)
{
    library.has_record = false;
    Written written = write("ab");
    EXPECT_EQ(-1, written.result);
    EXPECT_EQ(kUnknown, written.json);
    EXPECT_EQ((LevelLines{{4, "get container info by id:ab\n"}, {1, kNoRecord}}), level_lines());
    EXPECT_EQ((Calls{"get ab"}), library.calls);

    written = write("ab", 1);
    EXPECT_EQ(-1, written.result);
    std::string with_pid = kUnknown;
    with_pid.insert(with_pid.size() - 1, ",\"container_init_pid\":0");
    EXPECT_EQ(with_pid, written.json);
}

TEST_F(ContainerInfo, OfTheHostNothingIsWritten)
{
    for (const char *id : {"host", static_cast<const char *>(nullptr)}) {
        const Written written = write(id, 1);
        EXPECT_EQ(0, written.result);
        EXPECT_EQ("{}", written.json);
        EXPECT_EQ((LevelLines{{4, "container id is host/NULL!\n"}}), level_lines());
        EXPECT_EQ(Calls{}, library.calls);
    }
    for (const char *id : {"hos", "hosts", "Host", ""}) {
        EXPECT_EQ(0, write(id).result);
        EXPECT_EQ((Calls{std::string("get ") + id, "free"}), library.calls);
    }
}

TEST_F(ContainerInfo, SwitchedOffItDoesNothing)
{
    for (const char *id : {"ab", "host", static_cast<const char *>(nullptr)}) {
        const Written written = write(id, 1, 0);
        EXPECT_EQ(0, written.result);
        EXPECT_EQ("{}", written.json);
        EXPECT_EQ("", testlib::log_text());
        EXPECT_EQ(Calls{}, library.calls);
    }
    EXPECT_EQ(0, write("ab", 0, -1).result);
    EXPECT_EQ((Calls{"get ab", "free"}), library.calls) << "any other number is on";
}

TEST_F(ContainerInfo, WithoutAnObjectNothingIsAdded)
{
    EXPECT_EQ(0, container_info_to_json(1, nullptr, "ab", 1));
    EXPECT_EQ((Calls{"get ab", "free"}), library.calls);
    library.has_record = false;
    EXPECT_EQ(-1, container_info_to_json(1, nullptr, "ab", 1));
}

/* ---- the test ---- */

TEST_F(ContainerInfo, AContainerOfStatusZeroIsUsable)
{
    EXPECT_EQ(1, usable("ab"));
    EXPECT_EQ((LevelLines{{3, "get container info by id:ab\n"}}), level_lines());
    EXPECT_EQ("container_tool_utils", testlib::log_lines().at(0).file);
    EXPECT_EQ((Calls{"get ab", "free"}), library.calls);
    for (int32_t status : {1, -1, 256, INT32_MIN}) {
        give_record(status);
        EXPECT_EQ(0, usable("ab")) << status;
        EXPECT_EQ((LevelLines{{3, "get container info by id:ab\n"}}), level_lines());
        EXPECT_EQ((Calls{"get ab", "free"}), library.calls);
    }
}

TEST_F(ContainerInfo, AnUnknownContainerIsNot)
{
    library.has_record = false;
    EXPECT_EQ(0, usable("ab"));
    EXPECT_EQ((LevelLines{{3, "get container info by id:ab\n"}, {1, kNoRecord}}), level_lines());
    EXPECT_EQ((Calls{"get ab"}), library.calls);
}

TEST_F(ContainerInfo, TheHostIsUsableAndNothingIsNot)
{
    EXPECT_EQ(1, usable("host"));
    EXPECT_EQ("", testlib::log_text());
    EXPECT_EQ(0, usable(nullptr));
    EXPECT_EQ((LevelLines{{4, "container id is NULL!\n"}}), level_lines());
    EXPECT_EQ(Calls{}, library.calls);
}

TEST_F(ContainerInfo, SwitchedOffEverythingIsUsable)
{
    give_record(5);
    for (const char *id : {"ab", "host", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(1, usable(id, 0));
        EXPECT_EQ("", testlib::log_text());
        EXPECT_EQ(Calls{}, library.calls);
    }
}

/* ---- the library ---- */

TEST_F(ContainerInfo, AMissingLibraryIsLookedForAgain)
{
    in_fresh_process([] {
        library.present = false;
        for (size_t i = 1; i <= 2; i++) {
            const Written written = write("ab");
            EXPECT_EQ(-1, written.result);
            EXPECT_EQ(kUnknown, written.json);
            EXPECT_EQ((LevelLines{{4, "get container info by id:ab\n"}, {1, kOpenFailed}, {1, kNoRecord}}),
                      level_lines());
            EXPECT_EQ("orx_sensitivedir", testlib::log_lines().at(1).file);
            EXPECT_EQ(i, library.opened.size());
        }
        EXPECT_EQ("/agent/bin/../lib/liborx_sensitive_dir.6.so", library.opened.at(0));
        EXPECT_EQ(kDllFlags, library.flags);
        EXPECT_EQ(0, testlib::dll_closes());
        EXPECT_EQ(0, usable("ab"));
        EXPECT_EQ((LevelLines{{3, "get container info by id:ab\n"}, {1, kOpenFailed}, {1, kNoRecord}}), level_lines());

        library.present = true;
        EXPECT_EQ(1, usable("ab"));
    });
}

/* A record could not be given back, so without either entry there is none. The line names the same one for both. */
TEST_F(ContainerInfo, ALibraryWithoutAnEntryIsClosedAndLookedForAgain)
{
    for (const char *missing : {"_orx_get_container_info", "_orx_free_container_info"})
        in_fresh_process([missing] {
            library.missing = missing;
            for (int i = 1; i <= 2; i++) {
                const Written written = write("ab");
                EXPECT_EQ(-1, written.result);
                EXPECT_EQ(kUnknown, written.json);
                EXPECT_EQ((LevelLines{{4, "get container info by id:ab\n"}, {1, kEntryMissing}, {1, kNoRecord}}),
                          level_lines());
                EXPECT_EQ("orx_sensitivedir", testlib::log_lines().at(1).file);
                EXPECT_EQ(Calls{}, library.calls);
                EXPECT_EQ(i, testlib::dll_closes());
            }
            EXPECT_EQ(0, usable("ab"));
            EXPECT_EQ(3u, library.opened.size());
            library.missing.clear();
            EXPECT_EQ(0, write("ab").result);
            EXPECT_EQ(3, testlib::dll_closes());
        });
}

TEST_F(ContainerInfo, WhatWasFoundIsKept)
{
    in_fresh_process([] {
        EXPECT_EQ(0, write("ab").result);
        EXPECT_EQ((Calls{"_orx_get_container_info", "_orx_free_container_info"}), library.looked_up);
        library.present = false;
        EXPECT_EQ(0, write("cd").result);
        EXPECT_EQ(1, usable("ef"));
        EXPECT_EQ(1u, library.opened.size());
        EXPECT_EQ(2u, library.looked_up.size());
        EXPECT_EQ(0, testlib::dll_closes());
    });
}

}  // namespace
