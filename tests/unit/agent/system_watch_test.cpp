/* Which source serves a watch of the whole system, and why none does, with a made-up monitor. */
#include "agent/system_watch.h"

#include <cerrno>

#include "unit/agent/agent_testing.h"

using namespace agent;

namespace
{

struct {
    struct fmon_status status = {};
    int code = 0; /* of a request for system-wide events */
    std::vector<std::string> watches;
} g_module;

int make_instance(const char *, fmon_client_cb) { return 4; }

int global_watch(uint32_t id, uint32_t, uint32_t)
{
    EXPECT_EQ(4u, id);
    return g_module.code;
}

int status(struct fmon_status *out)
{
    const uint32_t size = out->size;
    *out = g_module.status;
    out->size = size;
    return 0;
}

int add_watch(uint32_t, const char *path, uint32_t, uint32_t, uint32_t, uint32_t)
{
    g_module.watches.push_back(path);
    return 0;
}

int32_t g_container = 0;

class CliSystemWatch : public testing::Test
{
protected:
    CliSystemWatch()
    {
        g_module = {};
        module.create_instance = make_instance;
        module.global_watch = global_watch;
        module.status = status;
        module.add_watch = add_watch;
        module.container_flag = &g_container;
    }

    bool is_placed(Source source)
    {
        watch.emplace(module, source);
        error.clear();
        return watch->place(FMON_CREATE, nullptr, error);
    }

    /* Why it is refused. */
    std::string refusal(Source source)
    {
        g_module.code = -1;
        EXPECT_FALSE(is_placed(source));
        EXPECT_EQ(std::string::npos, error.find('\n')) << error;
        return error;
    }

    Module module = {};
    std::optional<SystemWatch> watch;
    std::string error;
};

}  // namespace

TEST_F(CliSystemWatch, MarksOfFileSystemsServeWhereThereAreNoProbes)
{
    g_module.status.fs.source.state = FMON_SOURCE_ON;
    EXPECT_TRUE(is_placed(Source::kAuto));
    EXPECT_TRUE(watch->by_file_systems());
    watch->follow_mounts();
    EXPECT_TRUE(g_module.watches.empty());
}

TEST_F(CliSystemWatch, ProbesServeWhereTheyWork)
{
    g_module.status.fs.source.state = g_module.status.file_probes.state = FMON_SOURCE_ON;
    const agent_testing::Directory directory;  // with no library that could lack a function
    setenv("FMON_HOME", directory.dir("home").c_str(), 1);
    EXPECT_TRUE(is_placed(Source::kAuto));
    unsetenv("FMON_HOME");
    EXPECT_FALSE(watch->by_file_systems());
}

TEST_F(CliSystemWatch, ARefusalSaysWhatWasTried)
{
    g_module.status.file_probes = {FMON_SOURCE_REFUSED, FMON_WHY_MACHINE, -1, 0, "riscv64"};
    g_module.status.fs.last_fallback = {FMON_FALLBACK_INIT, EINVAL, ""};
    const std::string probes = refusal(Source::kMarks), both = refusal(Source::kAuto),
                      marks = refusal(Source::kFilesystem);
    EXPECT_NE(std::string::npos, probes.find("--system needs the kernel-probe library: "));
    EXPECT_EQ(std::string::npos, probes.find("marked"));
    EXPECT_EQ(0u, both.find(probes));
    EXPECT_NE(std::string::npos, both.find("no file system could be marked: the kernel does not report directories"));
    EXPECT_EQ(0u, marks.find("--system with --source filesystem needs a file system that can be marked: the kernel"));
}

TEST_F(CliSystemWatch, ASourceThatCouldNotStartSaysWhy)
{
    g_module.status.fs.source = {FMON_SOURCE_REFUSED, FMON_WHY_SYSTEM, -104, EPERM, ""};
    const std::string text = refusal(Source::kFilesystem);
    EXPECT_NE(std::string::npos,
              text.find("the kernel does not report directories and names (Operation not permitted)"));
    g_container = 1;
    EXPECT_NE(std::string::npos, refusal(Source::kFilesystem).find("inside a container only directories are marked"));
    g_container = 0;
}
