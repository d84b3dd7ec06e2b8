/* The kernel-probe sources where probes cannot be had: no library, one that lacks symbols, one that refuses. */
#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <numeric>

#include "linux/fmon_linux.h"
#include "linux/mount.h"
#include "linux/probe/clt_file.h"
#include "linux/probe/clt_inotify.h"
#include "linux/probe/kp_binding.h"
#include "list.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/in_child.h"
#include "testlib/tree.h"

namespace
{

using testlib::CallCount;
using Lines = std::vector<std::pair<int, std::string>>;

const std::pair<int, std::string> kNoLibrary = {1, "load kprobe thread module failed, errno: 2\n"};

/* The lines of one source, the bindings' included. */
Lines lines(const std::string &file)
{
    Lines out;
    for (const testlib::LogLine &line : testlib::log_lines())
        if (line.file == file || line.file == "kp_thread_utils")
            out.emplace_back(line.level, line.text);
    return out;
}

/* ---- a library as far as these sources get ---- */

std::map<std::string, void *> library;
bool instance_made;
std::string instance_name;
int32_t *array_made;
int calls_behind_the_instance;
struct kp_os_info record = {0, 4, 9, 0, 2, 1, 0, 1234};

void *lib_ins_crt(const char *name, int32_t **fds, int32_t *count)
{
    instance_name = name;
    *fds = array_made = static_cast<int32_t *>(malloc(sizeof(int32_t)));
    **fds = 77;
    *count = 1;
    return instance_made ? &instance_made : nullptr;
}
int32_t lib_os_info_get(const struct kp_os_info **out)
{
    *out = &record;
    return 0;
}
int32_t lib_never()
{
    calls_behind_the_instance++;
    return 0;
}

void *open_library(const char *, int) { return &library; }
void *find_symbol(void *, const char *symbol)
{
    auto found = library.find(symbol);
    errno = ESRCH;
    return found == library.end() ? nullptr : found->second;
}
void *no_library(const char *, int)
{
    errno = ENOENT;
    return nullptr;
}
int fake_uname(void *out)
{
    struct utsname *name = static_cast<struct utsname *>(out);
    snprintf(name->machine, sizeof name->machine, "x86_64");
    snprintf(name->release, sizeof name->release, "4.9.0-1-amd64");
    return 0;
}

class CltDegraded : public ::testing::Test
{
protected:
    CltDegraded()
    {
        testlib::reset_host();
        testlib::replace_dlopen(no_library);
        testlib::replace_dlsym(find_symbol);
        testlib::replace_uname(fake_uname);
        testlib::set_ini({});
        list_init(&fmlnx.mounts);
        set_mounts({});
        library = {{"_kp_ins_crt", reinterpret_cast<void *>(lib_ins_crt)},
                   {"_os_info_get", reinterpret_cast<void *>(lib_os_info_get)}};
        for (const char *name :
             {"_kp_evt_reg", "kp_event_parse", "_kp_event_enable", "_kp_event_filter", "_cache_clean"})
            library[name] = reinterpret_cast<void *>(lib_never);
        instance_made = false;
        calls_behind_the_instance = 0;
    }
    ~CltDegraded() override
    {
        kp_notify_destroy();
        kp_inotify_destroy();
        mount_release(&fmlnx.mounts);
        testlib::clear_redirects();
        testlib::replace_dlopen(nullptr);
        testlib::replace_dlsym(nullptr);
        testlib::replace_uname(nullptr);
    }

    /* What a source found in a library stays found. */
    template <typename Body>
    static void with_library(Body body)
    {
        in_child([&] {
            testlib::replace_dlopen(open_library);
            body();
            EXPECT_EQ(0, calls_behind_the_instance);
        });
    }

    static std::vector<int> numbers(int first, size_t count)
    {
        std::vector<int> out(count);
        std::iota(out.begin(), out.end(), first);
        return out;
    }

    /* The mount table: one mount an id, in this order. */
    void set_mounts(const std::vector<int> &ids)
    {
        std::string text;
        for (int id : ids)
            text +=
                std::to_string(id) + " 1 8:1 / /mount/" + std::to_string(id) + " rw - ext4 " + tree_.root() + " rw\n";
        testlib::redirect_path("/proc/self/mountinfo", tree_.file("mountinfo", text));
    }
    static int start_collector()
    {
        int32_t fds[4] = {-5, -5, -5, -5};
        testlib::log_clear();
        const int ret = init_kpnotify(fds);
        EXPECT_EQ(-5, fds[0]);
        EXPECT_EQ(nullptr, clt_file.instance.load());
        EXPECT_EQ(nullptr, clt_file.fds);
        EXPECT_EQ(0, clt_file.fd_count);
        EXPECT_EQ(0, clt_file.s_mounts_offset);
        EXPECT_EQ(0, clt_file.mnt_id_offset);
        return ret;
    }
    static Lines collector_lines() { return lines("linux/clt_file.c"); }
    static Lines inotify_lines() { return lines("linux/clt_inotify.c"); }

    /* The common filter that is logged for these mounts, or the reason that there is none. */
    std::string filter_of(const std::vector<int> &ids)
    {
        set_mounts(ids);
        testlib::log_clear();
        enable_filter(FMON_CREATE);
        const Lines log = collector_lines();
        return log.empty() ? "" : log[0].second;
    }

    testlib::TempTree tree_;
};

/* ---- the collector of system-wide events ---- */

TEST_F(CltDegraded, CollectorWithoutTheLibrary)
{
    set_mounts({23, 25});
    EXPECT_GT(0, start_collector());
    EXPECT_EQ((Lines{{3, "vm_info:4.9.0-1-x86_64"},
                     {1, "fmon conf file prase error, no version!"},
                     {3, "common_filter = (mnt==23||mnt==25||mnt==0)"},
                     kNoLibrary,
                     {2, "create kprobe instance failed!"},
                     {2, "create kprobe instance failed!"}}),
              collector_lines());
}

TEST_F(CltDegraded, CollectorWithoutMountsStillGoesOn)
{
    EXPECT_GT(0, start_collector());
    EXPECT_EQ((Lines{{3, "vm_info:4.9.0-1-x86_64"},
                     {1, "fmon conf file prase error, no version!"},
                     {2, "can't get mountonfo!"},
                     kNoLibrary,
                     {2, "create kprobe instance failed!"},
                     {2, "create kprobe instance failed!"}}),
              collector_lines());
}

TEST_F(CltDegraded, CollectorOnAnUnknownKernel)
{
    testlib::Fault fault("uname", 1, EFAULT);
    EXPECT_GT(0, start_collector());
    EXPECT_EQ((Lines{{1, "get hw plat error"}, {2, "main get_os_info error"}}), collector_lines());
}

TEST_F(CltDegraded, CollectorWithoutAConfiguration)
{
    testlib::clear_ini();
    EXPECT_GT(0, start_collector());
    EXPECT_EQ(
        (Lines{{3, "vm_info:4.9.0-1-x86_64"}, {2, "clt_net conf file load failed!"}, {2, "load offset config error"}}),
        collector_lines());
}

TEST_F(CltDegraded, CollectorWithTooManyMounts)
{
    const std::vector<int> ids = numbers(1000000, 40);
    set_mounts(ids);
    EXPECT_GT(0, start_collector());
    EXPECT_EQ((Lines{{3, "vm_info:4.9.0-1-x86_64"},
                     {1, "fmon conf file prase error, no version!"},
                     {2, "can't get common filter"},
                     {2, "maybe noy support global event"}}),
              collector_lines());
}

TEST_F(CltDegraded, CollectorWhoseInstanceIsRefused)
{
    with_library([&] {
        EXPECT_GT(0, start_collector());
        EXPECT_EQ("clt_file", instance_name);
        const Lines log = collector_lines();
        ASSERT_EQ(5u, log.size());
        EXPECT_EQ((std::pair<int, std::string>{2, "create kprobe instance failed!"}), log[3]);
        EXPECT_EQ(log[3], log[4]);
    });
}

TEST_F(CltDegraded, CollectorWithoutTheSymbol)
{
    with_library([&] {
        library.erase("_kp_ins_crt");
        EXPECT_GT(0, start_collector());
        const Lines log = collector_lines();
        ASSERT_EQ(6u, log.size());
        EXPECT_EQ((std::pair<int, std::string>{1, "load kp_thread symbol: _kp_ins_crt failed, errnp:3"}), log[3]);
        EXPECT_EQ((std::pair<int, std::string>{2, "create kprobe instance failed!"}), log[4]);
    });
}

TEST_F(CltDegraded, CollectorStartsOverFromZero)
{
    clt_file.s_mounts_offset = 1;
    clt_file.mnt_id_offset = 2;
    clt_file.fds = static_cast<int32_t *>(malloc(4));
    clt_file.fd_count = 1;
    EXPECT_GT(0, start_collector()); /* checks that all is zero */
}

TEST_F(CltDegraded, DestroyingIsRepeatable)
{
    EXPECT_EQ(0, kp_notify_destroy());
    EXPECT_EQ(0, kp_notify_destroy());
    EXPECT_EQ(0, kp_inotify_destroy());
    EXPECT_EQ(0, kp_inotify_destroy());
}

TEST_F(CltDegraded, NothingToParse)
{
    for (int index : {-1, 0, 1, 1000}) {
        EXPECT_EQ(0, kpnotify_parse(index));
        EXPECT_EQ(0, inotify_parse(index));
    }
    EXPECT_EQ(Lines{}, lines("linux/clt_file.c"));
}

TEST_F(CltDegraded, SwitchingReachesNothing)
{
    with_library([] {
        CallCount opens("dlopen");
        for (uint32_t bit : {1u, 8u, 64u, 128u, 256u, 512u, 4096u, 0xffffffffu})
            enable_event(bit, '1');
        kpnotify_enable(1);
        kp_inotify_enable(1);
        EXPECT_EQ(0, opens.calls());
        EXPECT_TRUE(testlib::log_lines().empty());
    });
}

TEST_F(CltDegraded, CleaningSaysSo)
{
    clean_global_event();
    EXPECT_EQ((Lines{{4, "events is too much ,we clean the global event"}}), collector_lines());
}

/* ---- the common filter ---- */

TEST_F(CltDegraded, FilterOfOneAndMoreMounts)
{
    EXPECT_EQ("common_filter = (mnt==7||mnt==0)", filter_of({7}));
    EXPECT_EQ("common_filter = (mnt==7||mnt==23||mnt==5||mnt==0)", filter_of({7, 23, 5}));
    EXPECT_EQ("can't get mountonfo!", filter_of({}));
}

/* 256 bytes with the NUL: nineteen mounts of six digits fill them exactly. */
TEST_F(CltDegraded, FilterAtItsLimit)
{
    std::vector<int> ids = numbers(100000, 19);
    const std::string widest = filter_of(ids);
    EXPECT_EQ(strlen("common_filter = ") + 255, widest.size());
    EXPECT_EQ("||mnt==100018||mnt==0)", widest.substr(widest.size() - 22));

    ids[18] = 1000018; /* one digit too many: no room for ")" */
    EXPECT_EQ("can't get common filter", filter_of(ids));
    EXPECT_TRUE(testlib::logged(2, "maybe noy support global event"));
    ids[18] = 100018;
    for (int more = 0; more < 30; more++) {
        ids.push_back(200000 + more);
        EXPECT_EQ("can't get common filter", filter_of(ids)) << ids.size();
    }
}

TEST_F(CltDegraded, FilterWithoutMemoryForTheMounts)
{
    set_mounts({7});
    enable_filter(FMON_CREATE);
    testlib::log_clear();
    testlib::Fault fault("malloc", 1, ENOMEM, 1000);
    enable_filter(FMON_CREATE);
    EXPECT_TRUE(testlib::logged(2, "can't get mountonfo!")) << testlib::log_text();
}

/* ---- inotify deliveries ---- */

TEST_F(CltDegraded, InotifyWithoutTheLibrary)
{
    int32_t fds[2] = {-5, -5};
    EXPECT_GT(0, kp_inotify_init(fds));
    EXPECT_EQ((Lines{kNoLibrary, {2, "create kprobe instance failed!"}, {2, "create kprobe instance failed!"}}),
              inotify_lines());
    EXPECT_EQ(-5, fds[0]);
    EXPECT_EQ(0, clt_inotify_active());
}

TEST_F(CltDegraded, InotifyWhoseInstanceIsRefused)
{
    with_library([&] {
        int32_t fds[2] = {-5, -5};
        EXPECT_GT(0, kp_inotify_init(fds));
        EXPECT_EQ("clt_inotify", instance_name);
        EXPECT_EQ((Lines{{2, "create kprobe instance failed!"}, {2, "create kprobe instance failed!"}}),
                  inotify_lines());
    });
}

TEST_F(CltDegraded, TheInotifyProbeWithoutTheLibrary)
{
    EXPECT_EQ(-1, get_inotify_event());
    EXPECT_EQ((Lines{{3, "fmon tid = " + std::to_string(gettid())},
                     kNoLibrary,
                     {2, "get os_info failed!"},
                     {2, "calculate kprobe cmd failed !"},
                     {2, "register inotify event failed!"}}),
              inotify_lines());
}

/* Kept: registrations that the library lacks report success, so that both sources start and stay silent. */
TEST_F(CltDegraded, TheInotifyProbeOfALibraryWithoutRegistration)
{
    with_library([&] {
        instance_made = true;
        library.erase("_kp_evt_reg");
        int32_t fds[1];
        clt_inotify_room = 1;
        EXPECT_EQ(1, kp_inotify_init(fds));
        EXPECT_EQ(0, get_inotify_event());
        EXPECT_EQ((Lines{{3, "fmon tid = " + std::to_string(gettid())},
                         {3, "use ubuntu 17,16 version/debian 9"},
                         {3, "kprobe mode = 3"},
                         {1, "load kp_thread symbol: _kp_evt_reg failed, errnp:3"}}),
                  inotify_lines());
    });
}

TEST_F(CltDegraded, TheCollectorOfALibraryWithoutRegistration)
{
    with_library([&] {
        instance_made = true;
        library.erase("_kp_evt_reg");
        int32_t fds[1] = {-5};
        clt_file_room = 1;
        EXPECT_LE(0, init_kpnotify(fds));
        EXPECT_EQ(77, fds[0]);
        EXPECT_EQ(6, testlib::log_count(1, "load kp_thread symbol: _kp_evt_reg failed, errnp:3"));
        EXPECT_EQ(6, testlib::log_count(3, "krpopbe mode = 0"));
    });
}

TEST_F(CltDegraded, TheInotifyProbeOfALibraryWithoutOsInfo)
{
    with_library([&] {
        library.erase("_os_info_get");
        EXPECT_GT(0, get_inotify_event());
        EXPECT_EQ((Lines{{3, "fmon tid = " + std::to_string(gettid())},
                         {1, "load kp_thread symbol: _os_info_get failed, errnp:3"},
                         {2, "get os_info failed!"},
                         {2, "calculate kprobe cmd failed !"},
                         {2, "register inotify event failed!"}}),
                  inotify_lines());
    });
}

/* ---- the bindings' state ---- */

TEST_F(CltDegraded, EachSourceOpensTheLibraryForItself)
{
    with_library([] {
        CallCount opens("dlopen"), lookups("dlsym");
        int32_t fds[2];
        kp_inotify_init(fds);
        EXPECT_EQ(1, opens.calls());
        init_kpnotify(fds);
        EXPECT_EQ(2, opens.calls());
        get_inotify_event();
        kp_inotify_init(fds);
        init_kpnotify(fds);
        EXPECT_EQ(2, opens.calls());
        EXPECT_EQ(3, lookups.calls()); /* the instance twice and os-info */
    });
}

}  // namespace
