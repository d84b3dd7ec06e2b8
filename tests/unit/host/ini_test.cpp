/* Tests of the INI files of orx_base.h, and values that override them. */

#include <sys/stat.h>

#include <random>
#include <thread>

#include "host_support.h"
#include "orx_base.h"
#include "orx_host.h"

namespace
{

using host_test::CapturedStderr;
using host_test::TempDir;

/* A loaded file; answers "(none)" for what is not there. */
class Ini
{
public:
    explicit Ini(const std::string &text) : handle_(orx_ini_file_load(dir_.file("a.ini", text).c_str())) {}
    ~Ini() { orx_ini_file_free(handle_); }
    Ini(const Ini &) = delete;
    Ini &operator=(const Ini &) = delete;

    bool loaded() const { return handle_ != nullptr; }
    std::string get(const std::string &section, const std::string &key) const
    {
        const char *value = orx_ini_file_get(handle_, section.c_str(), key.c_str());
        return value ? value : "(none)";
    }

private:
    TempDir dir_;
    void *handle_;
};

TEST(Ini, FindsValuesBySectionAndKey)
{
    Ini ini(
        "; comment\n[fmon]\nmax_events = 10000\nmax_dentries=8000\n# other\n[6.1.0-37-amd64]\nmnt_id_offset: 284\n");
    EXPECT_EQ(ini.get("fmon", "max_events"), "10000");
    EXPECT_EQ(ini.get("fmon", "max_dentries"), "8000");
    EXPECT_EQ(ini.get("6.1.0-37-amd64", "mnt_id_offset"), "284");
    EXPECT_EQ(ini.get("fmon", "mnt_id_offset"), "(none)");
    EXPECT_EQ(ini.get("other", "max_events"), "(none)");
}

TEST(Ini, IsCaseSensitive)
{
    Ini ini("[Fmon]\nKey=1\n");
    EXPECT_EQ(ini.get("Fmon", "Key"), "1");
    EXPECT_EQ(ini.get("fmon", "Key"), "(none)");
    EXPECT_EQ(ini.get("Fmon", "key"), "(none)");
}

TEST(Ini, TakesTheLastOfSeveral)
{
    Ini ini("[a]\nk=1\n[b]\nk=2\n[a]\nk=3\nk=4\n");
    EXPECT_EQ(ini.get("a", "k"), "4");
    EXPECT_EQ(ini.get("b", "k"), "2");
}

TEST(Ini, KeepsKeysBeforeTheFirstSection)
{
    Ini ini("k=1\n[a]\nk=2\n");
    EXPECT_EQ(ini.get("", "k"), "1");
    EXPECT_EQ(ini.get("a", "k"), "2");
}

TEST(Ini, StripsBlanksAndInlineComments)
{
    Ini ini("\xef\xbb\xbf[a]\r\nk =  v w  ; why\r\nsemi=a;b\r\nempty=\r\n");
    EXPECT_EQ(ini.get("a", "k"), "v w");
    EXPECT_EQ(ini.get("a", "semi"), "a;b");
    EXPECT_EQ(ini.get("a", "empty"), "");
}

TEST(Ini, TakesIndentedLinesAsLines)
{
    Ini ini("[a]\nk=1\n  l=2\n\tm=3\n");
    EXPECT_EQ(ini.get("a", "k"), "1");
    EXPECT_EQ(ini.get("a", "l"), "2");
    EXPECT_EQ(ini.get("a", "m"), "3");
}

TEST(Ini, LoadsNothingFromWhatIsNoFile)
{
    TempDir dir;
    EXPECT_EQ(orx_ini_file_load(dir.path("missing").c_str()), nullptr);
    EXPECT_EQ(orx_ini_file_load(dir.path().c_str()), nullptr);
    EXPECT_EQ(orx_ini_file_load(""), nullptr);
    EXPECT_EQ(orx_ini_file_load(nullptr), nullptr);
    EXPECT_EQ(orx_ini_file_load("/dev/zero"), nullptr);
    ASSERT_EQ(mkfifo(dir.path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(orx_ini_file_load(dir.path("pipe").c_str()), nullptr) << "and does not wait for a writer";
}

TEST(Ini, AnswersNothingForMissingArguments)
{
    Ini ini("[a]\nk=1\n");
    void *handle = orx_ini_file_load("/dev/null");
    EXPECT_EQ(handle, nullptr) << "not a file";
    EXPECT_EQ(orx_ini_file_get(nullptr, "a", "k"), nullptr);
    orx_ini_file_free(nullptr);
    TempDir dir;
    handle = orx_ini_file_load(dir.file("empty").c_str());
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(orx_ini_file_get(handle, nullptr, "k"), nullptr);
    EXPECT_EQ(orx_ini_file_get(handle, "a", nullptr), nullptr);
    orx_ini_file_free(handle);
}

/* libinih would read the rest of a long line as a line of its own, here "evil=1". */
TEST(Ini, SkipsOverlongLinesWhole)
{
    CapturedStderr err;
    Ini ini("[a]\nlong=" + std::string(192, 'x') + "evil=1\nk=1\n;" + std::string(500, 'c') + "\nl=2\n");
    EXPECT_EQ(ini.get("a", "evil"), "(none)");
    EXPECT_EQ(ini.get("a", "long"), "(none)");
    EXPECT_EQ(ini.get("a", "k"), "1");
    EXPECT_EQ(ini.get("a", "l"), "2");
    ASSERT_EQ(err.lines().size(), 1u) << "the comment needs no warning: " << err.text();
    EXPECT_NE(err.text().find("line 2 is skipped"), std::string::npos);
}

TEST(Ini, TakesTheLongestLineThatFits)
{
    for (size_t size : {190u, 197u, 198u, 199u}) {
        std::string value(size - 2, 'x');
        EXPECT_EQ(Ini("[a]\nk=" + value).get("a", "k"), value) << size;
        EXPECT_EQ(Ini("[a]\nk=" + value + "\nl=1\n").get("a", "l"), "1") << size;
    }
}

TEST(Ini, ComparesLongSectionNamesAsFarAsTheyAreKept)
{
    for (size_t size : {49u, 50u, 51u, 300u}) {
        std::string name(size, 's');
        Ini ini("[first]\nk=0\n[" + name + "]\nk=1\n[next]\nk=2\n");
        EXPECT_EQ(ini.get("first", "k"), "0") << size;
        EXPECT_EQ(ini.get(name, "k"), "1") << size;
        EXPECT_EQ(ini.get("next", "k"), "2") << size;
    }
}

TEST(Ini, SurvivesGarbage)
{
    CapturedStderr err;
    Ini broken("no value\n=\n[\n]\n[]\nx\n[a\nk=1\n[ok]\nk=2\n");
    ASSERT_TRUE(broken.loaded());
    EXPECT_EQ(broken.get("ok", "k"), "2");
    EXPECT_TRUE(Ini(std::string("[a]\nk=\0v\nl=1\n", 13)).loaded());
    EXPECT_EQ(Ini(std::string("[a]\nk=\0v\nl=1\n", 13)).get("a", "l"), "1");
    std::mt19937 random(1);
    for (int i = 0; i < 200; i++) {
        std::string bytes;
        for (int n = 0; n < 2000; n++)
            bytes += "[]=:;#\n\r \tab\0\xff\x80"[random() % 15];
        EXPECT_TRUE(Ini(bytes).loaded());
    }
}

TEST(Ini, RefusesAHugeFile)
{
    CapturedStderr err;
    TempDir dir;
    std::string path = dir.file("huge.ini", "[a]\nk=1\n");
    ASSERT_EQ(truncate(path.c_str(), 1 << 30), 0);
    EXPECT_EQ(orx_ini_file_load(path.c_str()), nullptr);
    EXPECT_NE(err.text().find("is not loaded: more than"), std::string::npos);
    ASSERT_EQ(truncate(path.c_str(), 4 << 20), 0);
    void *ini = orx_ini_file_load(path.c_str());
    ASSERT_NE(ini, nullptr);
    EXPECT_STREQ(orx_ini_file_get(ini, "a", "k"), "1");
    orx_ini_file_free(ini);
}

TEST(Ini, TakesManyKeys)
{
    std::string text = "[a]\n";
    for (int i = 0; i < 100000; i++)
        text += "key" + std::to_string(i) + "=" + std::to_string(i) + "\n";
    Ini ini(text);
    EXPECT_EQ(ini.get("a", "key0"), "0");
    EXPECT_EQ(ini.get("a", "key99999"), "99999");
}

class IniOverride : public testing::Test
{
protected:
    void TearDown() override
    {
        orx_host_ini_override("fmon", "max_events", nullptr);
        orx_host_ini_override("fmon", "rate_limit", nullptr);
    }
};

TEST_F(IniOverride, WinsOverTheFile)
{
    char value[] = "5";
    ASSERT_EQ(orx_host_ini_override("fmon", "max_events", value), 0);
    value[0] = 'x';
    Ini ini("[fmon]\nmax_events=1\ntbd_interval=2\n");
    EXPECT_EQ(ini.get("fmon", "max_events"), "5");
    EXPECT_EQ(ini.get("fmon", "tbd_interval"), "2");
    ASSERT_EQ(orx_host_ini_override("fmon", "max_events", "6"), 0);
    EXPECT_EQ(ini.get("fmon", "max_events"), "5") << "files loaded before keep their answer";
    EXPECT_EQ(Ini("").get("fmon", "max_events"), "6");
}

TEST_F(IniOverride, MakesAMissingFileLoad)
{
    ASSERT_EQ(orx_host_ini_override("fmon", "rate_limit", "0"), 0);
    void *ini = orx_ini_file_load("/no/such/file.ini");
    ASSERT_NE(ini, nullptr);
    EXPECT_STREQ(orx_ini_file_get(ini, "fmon", "rate_limit"), "0");
    EXPECT_EQ(orx_ini_file_get(ini, "fmon", "max_events"), nullptr);
    orx_ini_file_free(ini);
}

TEST_F(IniOverride, IsTakenBack)
{
    ASSERT_EQ(orx_host_ini_override("fmon", "max_events", "5"), 0);
    ASSERT_EQ(orx_host_ini_override("fmon", "max_events", nullptr), 0);
    EXPECT_EQ(Ini("[fmon]\nmax_events=1\n").get("fmon", "max_events"), "1");
    EXPECT_EQ(orx_ini_file_load("/no/such/file.ini"), nullptr);
    EXPECT_EQ(orx_host_ini_override("fmon", "never set", nullptr), 0);
}

TEST_F(IniOverride, NeedsItsNames)
{
    EXPECT_EQ(orx_host_ini_override(nullptr, "k", "v"), -1);
    EXPECT_EQ(orx_host_ini_override("s", nullptr, "v"), -1);
}

TEST_F(IniOverride, MayChangeWhileThreadsLoad)
{
    TempDir dir;
    std::string path = dir.file("a.ini", "[fmon]\nmax_events=1\n");
    std::thread other([] {
        for (int i = 0; i < 200; i++)
            orx_host_ini_override("fmon", "max_events", i % 2 ? "2" : "3");
    });
    for (int i = 0; i < 200; i++) {
        void *ini = orx_ini_file_load(path.c_str());
        ASSERT_NE(ini, nullptr);
        EXPECT_EQ(strlen(orx_ini_file_get(ini, "fmon", "max_events")), 1u);
        orx_ini_file_free(ini);
    }
    other.join();
}

}  // namespace
