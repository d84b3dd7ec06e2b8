/* The calls into the kernel-probe library. This source has a copy of handle and slots of its own, as every other. */
#include "linux/probe/kp_binding.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <map>
#include <thread>

#include "testlib/fake_host.h"
#include "testlib/fault.h"

namespace
{

using testlib::CallCount;
using testlib::Fault;
using Lines = std::vector<std::pair<int, std::string>>;

Lines lines()
{
    Lines out;
    for (const testlib::LogLine &line : testlib::log_lines()) {
        EXPECT_EQ("kp_thread_utils", line.file);
        out.emplace_back(line.level, line.text);
    }
    return out;
}

/* ---- a library that answers with what it was asked ---- */

std::string asked;
int32_t status;
int instance;
struct kp_os_info record;
const struct kp_os_info *record_given = &record;

void *lib_ins_crt(const char *name, int32_t **fds, int32_t *count)
{
    asked = std::string("ins_crt ") + name;
    *fds = static_cast<int32_t *>(malloc(2 * sizeof(int32_t)));
    *count = 2;
    return status < 0 ? nullptr : &instance;
}
int32_t lib_os_info_get(const struct kp_os_info **out)
{
    asked = "os_info_get";
    *out = record_given;
    return status;
}
int32_t lib_evt_reg(void *inst, struct kp_probe_def *def, kp_record_cb cb)
{
    asked = std::string("evt_reg ") + def->name;
    return inst == &instance && !cb ? status : -99;
}
int32_t lib_event_parse(int32_t index, void *inst)
{
    asked = "event_parse " + std::to_string(index);
    return inst == &instance ? status : -99;
}
int32_t lib_event_enable(uint8_t on, const char *event_name, void *inst)
{
    asked = "event_enable " + std::to_string(on) + " " + event_name;
    return inst == &instance ? status : -99;
}
int32_t lib_event_filter(const char *event_name, const char *filter, void *inst)
{
    asked = std::string("event_filter ") + event_name + " " + filter;
    return inst == &instance ? status : -99;
}
int32_t lib_cache_clean(void *inst)
{
    asked = "cache_clean";
    return inst == &instance ? status : -99;
}

template <typename Fn>
void *address(Fn *fn)
{
    return reinterpret_cast<void *>(fn);
}

const std::map<std::string, void *> full_library = {
    {"_kp_ins_crt", address(lib_ins_crt)},           {"_os_info_get", address(lib_os_info_get)},
    {"_kp_evt_reg", address(lib_evt_reg)},           {"kp_event_parse", address(lib_event_parse)},
    {"_kp_event_enable", address(lib_event_enable)}, {"_kp_event_filter", address(lib_event_filter)},
    {"_cache_clean", address(lib_cache_clean)},
};
std::map<std::string, void *> library;
std::string path_opened;
int flags_opened;

void *open_library(const char *path, int flags)
{
    path_opened = path;
    flags_opened = flags;
    return &library;
}
void *find_symbol(void *handle, const char *symbol)
{
    EXPECT_EQ(&library, handle);
    auto found = library.find(symbol);
    if (found != library.end())
        return found->second;
    void *none = dlsym(RTLD_DEFAULT, "no_such_symbol_anywhere"); /* leaves its text for dlerror */
    errno = ESRCH;
    return none;
}
void *no_library(const char *, int)
{
    errno = ENOENT;
    return nullptr;
}

/* Every binding, by its symbol; the instance binding answers 1 for an instance, 0 for none. */
struct Binding {
    const char *symbol;
    std::function<int32_t()> call;
    const char *expected; /* what the library was asked */
};
struct kp_probe_def definition = {};
const std::vector<Binding> bindings = {
    {"_kp_ins_crt",
     [] {
         int32_t *fds = nullptr, count = 0;
         void *made = kp::ins_crt("clt_file", &fds, &count);
         EXPECT_EQ(made ? 2 : 0, count);
         free(fds);
         return made ? 1 : 0;
     },
     "ins_crt clt_file"},
    {"_os_info_get",
     [] {
         const struct kp_os_info *out = nullptr;
         return kp::os_info_get(&out);
     },
     "os_info_get"},
    {"_kp_evt_reg", [] { return kp::evt_reg(&instance, &definition, nullptr); }, "evt_reg Kc"},
    {"kp_event_parse", [] { return kp::event_parse(3, &instance); }, "event_parse 3"},
    {"_kp_event_enable", [] { return kp::event_enable(255, "Kc", &instance); }, "event_enable 255 Kc"},
    {"_kp_event_filter", [] { return kp::event_filter("Kc", "mnt==1", &instance); }, "event_filter Kc mnt==1"},
    {"_cache_clean", [] { return kp::cache_clean(&instance); }, "cache_clean"},
};

class KpBinding : public ::testing::Test
{
protected:
    KpBinding()
    {
        testlib::reset_host();
        library = full_library;
        status = 0;
        record_given = &record;
        snprintf(definition.name, sizeof definition.name, "Kc");
        testlib::replace_dlopen(open_library);
        testlib::replace_dlsym(find_symbol);
    }
    ~KpBinding() override
    {
        kp::drop_module();
        testlib::replace_dlopen(nullptr);
        testlib::replace_dlsym(nullptr);
    }
    static bool slots_empty()
    {
        for (auto &slot : kp::unit.slots)
            if (slot.load())
                return false;
        return true;
    }
};

TEST_F(KpBinding, PassesArgumentsAndResults)
{
    for (const Binding &b : bindings) {
        asked.clear();
        status = 5;
        EXPECT_EQ(b.symbol == bindings[0].symbol ? 1 : 5, b.call()) << b.symbol;
        EXPECT_EQ(b.expected, asked);
    }
    for (const Binding &b : bindings) {
        status = -6;
        EXPECT_EQ(b.symbol == bindings[0].symbol ? 0 : -6, b.symbol == bindings[0].symbol ? 0 : b.call()) << b.symbol;
    }
    EXPECT_EQ(Lines{}, lines());
}

TEST_F(KpBinding, OpensTheInstallationsLibraryDeep)
{
    kp::cache_clean(&instance);
    EXPECT_EQ("/agent/bin/../lib/liborx_kp_thread.2.so", path_opened);
    EXPECT_EQ(kDllFlags, flags_opened);
}

TEST_F(KpBinding, OpensAndLooksUpOnce)
{
    CallCount opens("dlopen"), lookups("dlsym");
    for (int round = 0; round < 3; round++)
        for (const Binding &b : bindings)
            b.call();
    EXPECT_EQ(1, opens.calls());
    EXPECT_EQ(static_cast<int>(bindings.size()), lookups.calls());
    EXPECT_EQ(0, testlib::dll_closes());
}

/* ---- no library ---- */

TEST_F(KpBinding, WithoutTheLibraryEachCallTriesAndFails)
{
    testlib::replace_dlopen(no_library);
    CallCount opens("dlopen"), lookups("dlsym");
    int n = 0;
    for (const Binding &b : bindings) {
        testlib::log_clear();
        EXPECT_EQ(b.symbol == bindings[0].symbol ? 0 : -100, b.call()) << b.symbol;
        EXPECT_EQ((Lines{{1, "load kprobe thread module failed, errno: 2\n"}}), lines()) << b.symbol;
        EXPECT_EQ(++n, opens.calls());
    }
    EXPECT_EQ(0, lookups.calls());
    EXPECT_EQ(0, testlib::dll_closes());
    EXPECT_EQ(nullptr, kp::unit.handle.load());
}

TEST_F(KpBinding, TheErrnoIsDlopens)
{
    Fault refused("dlopen", 1, EMFILE);
    EXPECT_EQ(-100, kp::cache_clean(&instance));
    EXPECT_EQ((Lines{{1, "load kprobe thread module failed, errno: 24\n"}}), lines());
}

TEST_F(KpBinding, AnswersAsSoonAsTheLibraryIsThere)
{
    testlib::replace_dlopen(no_library);
    EXPECT_EQ(-100, kp::event_parse(0, &instance));
    testlib::replace_dlopen(open_library);
    status = 4;
    EXPECT_EQ(4, kp::event_parse(0, &instance));
}

/* ---- a library without one symbol ---- */

Lines missing_lines(const std::string &symbol)
{
    const std::string text = "load kp_thread symbol: ";
    if (symbol == "kp_event_parse") /* kept: the message has an underscore more than the symbol */
        return {{1, text + "_kp_event_parse failed, errnp:3"}};
    if (symbol == "_kp_ins_crt" || symbol == "_os_info_get" || symbol == "_kp_evt_reg")
        return {{1, text + symbol + " failed, errnp:3"}};
    return {{4, text + symbol + " failed, errno: 3\n"}};
}

TEST_F(KpBinding, AMissingSymbolReportsSuccessAndGivesTheLibraryUp)
{
    int closes = 0;
    for (const Binding &b : bindings) {
        library = full_library;
        library.erase(b.symbol);
        for (int round = 0; round < 2; round++) { /* opened again by the next call */
            testlib::log_clear();
            asked.clear();
            CallCount opens("dlopen");
            EXPECT_EQ(0, b.call()) << b.symbol;
            EXPECT_EQ(1, opens.calls()) << b.symbol;
            EXPECT_EQ("", asked);

            Lines got = lines();
            const Lines expected = missing_lines(b.symbol);
            ASSERT_EQ(expected[0].first == 4 ? 2u : 1u, got.size()) << testlib::log_text();
            EXPECT_EQ(expected[0], got[0]);
            if (got.size() == 2) {
                EXPECT_EQ(4, got[1].first);
                EXPECT_EQ(0u, got[1].second.find("load kp_thread symbol:"));
                EXPECT_NE(std::string::npos, got[1].second.find("no_such_symbol_anywhere")) << got[1].second;
            }
            EXPECT_EQ(++closes, testlib::dll_closes()) << b.symbol;
            EXPECT_EQ(nullptr, kp::unit.handle.load());
        }
        library = full_library;
        status = 1;
        EXPECT_EQ(1, b.call()) << b.symbol; /* a library mended meanwhile is used */
        kp::drop_module();
        closes++;
    }
}

/* Functions of a closed library are not there any more, whoever looked them up. */
TEST_F(KpBinding, AMissingSymbolClearsEverySlot)
{
    library.erase("_cache_clean");
    for (const Binding &b : bindings)
        if (b.symbol != std::string("_cache_clean"))
            b.call();
    EXPECT_FALSE(slots_empty());
    EXPECT_EQ(0, kp::cache_clean(&instance));
    EXPECT_TRUE(slots_empty());

    CallCount opens("dlopen"), lookups("dlsym");
    EXPECT_EQ(0, kp::event_parse(1, &instance));
    EXPECT_EQ(1, opens.calls());
    EXPECT_EQ(1, lookups.calls());
}

TEST_F(KpBinding, ALinelessDlerrorIsAnEmptyText)
{
    testlib::replace_dlsym([](void *, const char *) -> void * {
        dlerror();
        return nullptr;
    });
    kp::cache_clean(&instance);
    EXPECT_EQ("load kp_thread symbol:", lines().back().second);
}

TEST_F(KpBinding, ASymbolWithoutANameIsNotLookedUp)
{
    std::atomic<void *> slot{nullptr};
    CallCount lookups("dlsym");
    EXPECT_EQ(-1, kp::lookup(&library, nullptr, &slot));
    EXPECT_EQ(-1, kp::lookup(&library, "", &slot));
    EXPECT_EQ(0, lookups.calls());
    EXPECT_EQ(nullptr, slot.load());
    EXPECT_EQ(0, kp::lookup(&library, "_cache_clean", &slot));
    EXPECT_EQ(1, lookups.calls());
}

/* ---- what the sources share ---- */

TEST_F(KpBinding, OsInfoIsTheLibrarysRecord)
{
    const struct kp_os_info *out = nullptr;
    EXPECT_EQ(0, kp_os_info_get(&out));
    EXPECT_EQ(&record, out);
}

TEST_F(KpBinding, OsInfoWithoutARecordIsAFailure)
{
    const struct kp_os_info *out = &record;
    record_given = nullptr;
    EXPECT_GT(0, kp_os_info_get(&out));
    EXPECT_EQ(nullptr, out);

    library.erase("_os_info_get");
    kp::drop_module();
    out = &record;
    EXPECT_GT(0, kp_os_info_get(&out)); /* though the binding itself reports 0 */
    EXPECT_EQ(nullptr, out);

    testlib::replace_dlopen(no_library);
    EXPECT_EQ(-100, kp_os_info_get(&out));
}

TEST_F(KpBinding, AFailedOsInfoIsPassedOn)
{
    status = -4;
    const struct kp_os_info *out;
    EXPECT_EQ(-4, kp_os_info_get(&out));
}

TEST_F(KpBinding, AnInstanceComesWithItsDescriptors)
{
    int32_t *fds = nullptr, count = 0;
    EXPECT_EQ(&instance, kp::create_instance("x.c", "clt_inotify", &fds, &count));
    EXPECT_EQ("ins_crt clt_inotify", asked);
    EXPECT_NE(nullptr, fds);
    EXPECT_EQ(2, count);
    free(fds);
}

TEST_F(KpBinding, ARefusedInstanceLeavesNoDescriptors)
{
    int32_t *fds = nullptr, count = 0;
    status = -1; /* the array was made all the same */
    EXPECT_EQ(nullptr, kp::create_instance("x.c", "clt_file", &fds, &count));
    EXPECT_EQ(nullptr, fds);
    EXPECT_EQ(0, count);
    ASSERT_EQ(1u, testlib::log_lines().size());
    EXPECT_EQ("x.c", testlib::log_lines()[0].file);
    EXPECT_EQ(2, testlib::log_lines()[0].level);
    EXPECT_EQ("create kprobe instance failed!", testlib::log_lines()[0].text);
}

/* Probes are switched on clients' threads without a lock. */
TEST_F(KpBinding, FirstCallsOnManyThreadsOpenOneLibrary)
{
    std::atomic<int> opened{0};
    static std::atomic<int> *count;
    count = &opened;
    testlib::replace_dlopen([](const char *, int) -> void * {
        (*count)++;
        return &library;
    });
    testlib::replace_dlsym([](void *, const char *) -> void * {
        return address(+[](uint8_t, const char *, void *) -> int32_t { return 7; });
    });
    std::array<std::thread, 4> threads;
    for (std::thread &t : threads)
        t = std::thread([] {
            for (int n = 0; n < 100; n++)
                EXPECT_EQ(7, kp::event_enable(1, "Ki", &instance));
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(opened - 1, testlib::dll_closes());
}

}  // namespace
