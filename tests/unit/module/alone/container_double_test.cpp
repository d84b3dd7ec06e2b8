/*
 * The module on a real container library: the test double, whole and without each of its functions. What is found is
 * kept for the life of a process, so each case has one of its own.
 */
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "container_tool_utils.h"
#include "dcache.h"
#include "shell_fixture.h"
#include "testlib/in_child.h"

namespace
{

constexpr char kAnswers[] =
    "mount 42 1234 web\n"
    "mount 43 77 a label with blanks\n"
    "mount 44 78 -\n"
    "info ab mounts /a:/b,/c:/d\n"
    "info ab user app\n"
    "info ab container_name web\n"
    "info ab image_tag 1.2\n"
    "info ab privileged 1\n"
    "info ab init_pid 4711\n"
    "info down status 3\n";

constexpr char kOfAb[] =
    "{\"mounts\":\"/a:/b,/c:/d\",\"user\":\"app\",\"container_namespace\":\"\",\"image_id\":\"\","
    "\"image_name\":\"\",\"image_tag\":\"1.2\",\"repository\":\"\",\"container_name\":\"web\","
    "\"capability\":\"\",\"ports_binding\":\"\",\"privileged\":1,\"container_init_pid\":4711}";

class ContainerDouble : public ::testing::Test
{
protected:
    ContainerDouble()
    {
        testlib::reset_host();
        tree.file("answers", kAnswers);
        setenv("FMON_CONTAINER_DOUBLE", tree.root().c_str(), 1);
    }
    ~ContainerDouble() override { unsetenv("FMON_CONTAINER_DOUBLE"); }

    static void install(const std::string &variant)
    {
        testlib::set_program_dir(std::string(FMON_TEST_CONTAINER_DOUBLES) + "/" + variant + "/bin");
    }
    std::string calls() const
    {
        std::ifstream in(tree.path("calls"));
        return {std::istreambuf_iterator<char>(in), {}};
    }

    /* "walk path|label" */
    static std::string of_mount(const char *id)
    {
        char out[64] = "";
        const char *label = nullptr;
        container_path_get("/f", id, &label, out, sizeof(out));
        return std::string(out) + "|" + (label ? label : "(null)");
    }
    static std::string json_of(const char *id)
    {
        cJSON *json = testlib::json_object();
        container_info_to_json(1, json, id, 1);
        std::string text = testlib::json_text(json);
        testlib::json_free(json);
        return text;
    }
    static int missing_lines()
    {
        return testlib::log_count_containing("load sensitivedir symbol: _orx_get_container_info failed");
    }

    testlib::TempTree tree;
};

TEST_F(ContainerDouble, WholeItAnswersEverything)
{
    in_child([this] {
        install("whole");
        EXPECT_EQ("/proc/1234/root/f|web", of_mount("42"));
        EXPECT_EQ("/proc/77/root/f|a label with blanks", of_mount("43"));
        EXPECT_EQ("/proc/78/root/f|(null)", of_mount("44"));
        EXPECT_EQ("/rootfs/f|host", of_mount("4"));
        EXPECT_EQ("/rootfs/f|host", of_mount("421"));
        EXPECT_EQ(kOfAb, json_of("ab"));
        EXPECT_EQ(1, container_usable(1, "ab"));
        EXPECT_EQ(0, container_usable(1, "down"));
        EXPECT_EQ(0, container_usable(1, "a"));
        EXPECT_EQ(
            "mount 42\nmount 43\nmount 44\nmount 4\nmount 421\n"
            "info ab\nfree ab\ninfo ab\nfree ab\ninfo down\nfree down\ninfo a\n",
            calls());
        EXPECT_EQ(0, testlib::log_count_containing("failed"));
        EXPECT_EQ(0, testlib::dll_closes());
    });
}

/* Each half goes on without the other. */
TEST_F(ContainerDouble, WithoutTheMountEntryEverythingIsTheHosts)
{
    in_child([this] {
        install("without_orx_get_container_mount");
        for (int i = 1; i <= 3; i++) {
            EXPECT_EQ("/rootfs/f|host", of_mount("42"));
            EXPECT_EQ(i, missing_lines());
            EXPECT_EQ(i, testlib::dll_closes());
        }
        EXPECT_EQ(kOfAb, json_of("ab"));
        EXPECT_EQ(1, container_usable(1, "ab"));
        EXPECT_EQ("/rootfs/f|host", of_mount("42"));
        EXPECT_EQ(kOfAb, json_of("ab")) << "the library that the other half closed is still there";
        EXPECT_EQ("info ab\nfree ab\ninfo ab\nfree ab\ninfo ab\nfree ab\n", calls());
    });
}

TEST_F(ContainerDouble, WithoutAnInformationEntryNothingIsKnown)
{
    for (const char *variant : {"without_orx_get_container_info", "without_orx_free_container_info"})
        in_child([this, variant] {
            tree.remove("calls");
            install(variant);
            const std::string json = json_of("ab");
            EXPECT_NE(std::string::npos, json.find("\"mounts\":\"\"")) << json;
            EXPECT_EQ(0, container_usable(1, "ab"));
            EXPECT_EQ(2, missing_lines());
            EXPECT_EQ(2, testlib::dll_closes());
            EXPECT_EQ(2, testlib::log_count(1, "orx_get_container_info is NULL!\n"));
            EXPECT_EQ("/proc/1234/root/f|web", of_mount("42"));
            EXPECT_EQ(0, container_usable(1, "ab"));
            EXPECT_EQ("/proc/1234/root/f|web", of_mount("42"))
                << "the library that the other half closed is still there";
            EXPECT_EQ("mount 42\nmount 42\n", calls());
        });
}

/* Installed while the module runs: found by the next question. */
TEST_F(ContainerDouble, ALibraryThatComesLaterIsFound)
{
    in_child([this] {
        testlib::set_program_dir(tree.dir("nothing"));
        EXPECT_EQ("/rootfs/f|host", of_mount("42"));
        EXPECT_EQ(0, container_usable(1, "ab"));
        EXPECT_EQ(2, testlib::log_count_containing("load fmon module failed, errno: "));
        install("whole");
        EXPECT_EQ("/proc/1234/root/f|web", of_mount("42"));
        EXPECT_EQ(1, container_usable(1, "ab"));
    });
}

}  // namespace
