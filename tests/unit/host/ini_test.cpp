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
    EXPECT_EQ("10000", ini.get("fmon", "max_events"));
    EXPECT_EQ("8000", ini.get("fmon", "max_dentries"));
    EXPECT_EQ("284", ini.get("6.1.0-37-amd64", "mnt_id_offset"));
    EXPECT_EQ("(none)", ini.get("fmon", "mnt_id_offset"));
    EXPECT_EQ("(none)", ini.get("other", "max_events"));
}

TEST(Ini, IsCaseSensitive)
{
    Ini ini("[Fmon]\nKey=1\n");
    EXPECT_EQ("1", ini.get("Fmon", "Key"));
    EXPECT_EQ("(none)", ini.get("fmon", "Key"));
    EXPECT_EQ("(none)", ini.get("Fmon", "key"));
}

TEST(Ini, TakesTheLastOfSeveral)
{
    Ini ini("[a]\nk=1\n[b]\nk=2\n[a]\nk=3\nk=4\n");
    EXPECT_EQ("4", ini.get("a", "k"));
    EXPECT_EQ("2", ini.get("b", "k"));
}

TEST(Ini, KeepsKeysBeforeTheFirstSection)
{
    Ini ini("k=1\n[a]\nk=2\n");
    EXPECT_EQ("1", ini.get("", "k"));
    EXPECT_EQ("2", ini.get("a", "k"));
}

TEST(Ini, StripsBlanksAndInlineComments)
{
    Ini ini("\xef\xbb\xbf[a]\r\nk =  v w  ; why\r\nsemi=a;b\r\nempty=\r\n");
    EXPECT_EQ("v w", ini.get("a", "k"));
    EXPECT_EQ("a;b", ini.get("a", "semi"));
    EXPECT_EQ("", ini.get("a", "empty"));
}

TEST(Ini, TakesIndentedLinesAsLines)
{
    Ini ini("[a]\nk=1\n  l=2\n\tm=3\n");
    EXPECT_EQ("1", ini.get("a", "k"));
    EXPECT_EQ("2", ini.get("a", "l"));
    EXPECT_EQ("3", ini.get("a", "m"));
}

TEST(Ini, LoadsNothingFromWhatIsNoFile)
{
    TempDir dir;
    EXPECT_EQ(nullptr, orx_ini_file_load(dir.path("missing").c_str()));
    EXPECT_EQ(nullptr, orx_ini_file_load(dir.path().c_str()));
    EXPECT_EQ(nullptr, orx_ini_file_load(""));
    EXPECT_EQ(nullptr, orx_ini_file_load(nullptr));
    EXPECT_EQ(nullptr, orx_ini_file_load("/dev/zero"));
    ASSERT_EQ(0, mkfifo(dir.path("pipe").c_str(), 0600));
    EXPECT_EQ(nullptr, orx_ini_file_load(dir.path("pipe").c_str())) << "and does not wait for a writer";
}

TEST(Ini, AnswersNothingForMissingArguments)
{
    Ini ini("[a]\nk=1\n");
    void *handle = orx_ini_file_load("/dev/null");
    EXPECT_EQ(nullptr, handle) << "not a file";
    EXPECT_EQ(nullptr, orx_ini_file_get(nullptr, "a", "k"));
    orx_ini_file_free(nullptr);
    TempDir dir;
    handle = orx_ini_file_load(dir.file("empty").c_str());
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(nullptr, orx_ini_file_get(handle, nullptr, "k"));
    EXPECT_EQ(nullptr, orx_ini_file_get(handle, "a", nullptr));
    orx_ini_file_free(handle);
}

/* libinih would read the rest of a long line as a line of its own, here "evil=1". */
TEST(Ini, SkipsOverlongLinesWhole)
{
    CapturedStderr err;
    Ini ini("[a]\nlong=" + std::string(192, 'x') + "evil=1\nk=1\n;" + std::string(500, 'c') + "\nl=2\n");
    EXPECT_EQ("(none)", ini.get("a", "evil"));
    EXPECT_EQ("(none)", ini.get("a", "long"));
    EXPECT_EQ("1", ini.get("a", "k"));
    EXPECT_EQ("2", ini.get("a", "l"));
    ASSERT_EQ(1u, err.lines().size()) << "the comment needs no warning: " << err.text();
    EXPECT_NE(err.text().find("line 2 is skipped"), std::string::npos);
}

TEST(Ini, TakesTheLongestLineThatFits)
{
    for (size_t size : {190u, 197u, 198u, 199u}) {
        std::string value(size - 2, 'x');
        EXPECT_EQ(Ini("[a]\nk=" + value).get("a", "k"), value) << size;
        EXPECT_EQ("1", Ini("[a]\nk=" + value + "\nl=1\n").get("a", "l")) << size;
    }
}

TEST(Ini, ComparesLongSectionNamesAsFarAsTheyAreKept)
{
    for (size_t size : {49u, 50u, 51u, 300u}) {
        std::string name(size, 's');
        Ini ini("[first]\nk=0\n[" + name + "]\nk=1\n[next]\nk=2\n");
        EXPECT_EQ("0", ini.get("first", "k")) << size;
        EXPECT_EQ("1", ini.get(name, "k")) << size;
        EXPECT_EQ("2", ini.get("next", "k")) << size;
    }
}

TEST(Ini, SurvivesGarbage)
{
    CapturedStderr err;
    Ini broken("no value\n=\n[\n]\n[]\nx\n[a\nk=1\n[ok]\nk=2\n");
    ASSERT_TRUE(broken.loaded());
    EXPECT_EQ("2", broken.get("ok", "k"));
    EXPECT_TRUE(Ini(std::string("[a]\nk=\0v\nl=1\n", 13)).loaded());
    EXPECT_EQ("1", Ini(std::string("[a]\nk=\0v\nl=1\n", 13)).get("a", "l"));
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
    ASSERT_EQ(0, truncate(path.c_str(), 1 << 30));
    EXPECT_EQ(nullptr, orx_ini_file_load(path.c_str()));
    EXPECT_NE(err.text().find("is not loaded: more than"), std::string::npos);
    ASSERT_EQ(0, truncate(path.c_str(), 4 << 20));
    void *ini = orx_ini_file_load(path.c_str());
    ASSERT_NE(nullptr, ini);
    EXPECT_STREQ("1", orx_ini_file_get(ini, "a", "k"));
    orx_ini_file_free(ini);
}

TEST(Ini, TakesManyKeys)
{
    std::string text = "[a]\n";
    for (int i = 0; i < 100000; i++)
        text += "key" + std::to_string(i) + "=" + std::to_string(i) + "\n";
    Ini ini(text);
    EXPECT_EQ("0", ini.get("a", "key0"));
    EXPECT_EQ("99999", ini.get("a", "key99999"));
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
    ASSERT_EQ(0, orx_host_ini_override("fmon", "max_events", value));
    value[0] = 'x';
    Ini ini("[fmon]\nmax_events=1\ntbd_interval=2\n");
    EXPECT_EQ("5", ini.get("fmon", "max_events"));
    EXPECT_EQ("2", ini.get("fmon", "tbd_interval"));
    ASSERT_EQ(0, orx_host_ini_override("fmon", "max_events", "6"));
    EXPECT_EQ("5", ini.get("fmon", "max_events")) << "files loaded before keep their answer";
    EXPECT_EQ("6", Ini("").get("fmon", "max_events"));
}

TEST_F(IniOverride, MakesAMissingFileLoad)
{
    ASSERT_EQ(0, orx_host_ini_override("fmon", "rate_limit", "0"));
    void *ini = orx_ini_file_load("/no/such/file.ini");
    ASSERT_NE(nullptr, ini);
    EXPECT_STREQ("0", orx_ini_file_get(ini, "fmon", "rate_limit"));
    EXPECT_EQ(nullptr, orx_ini_file_get(ini, "fmon", "max_events"));
    orx_ini_file_free(ini);
}

TEST_F(IniOverride, IsTakenBack)
{
    ASSERT_EQ(0, orx_host_ini_override("fmon", "max_events", "5"));
    ASSERT_EQ(0, orx_host_ini_override("fmon", "max_events", nullptr));
    EXPECT_EQ("1", Ini("[fmon]\nmax_events=1\n").get("fmon", "max_events"));
    EXPECT_EQ(nullptr, orx_ini_file_load("/no/such/file.ini"));
    EXPECT_EQ(0, orx_host_ini_override("fmon", "never set", nullptr));
}

TEST_F(IniOverride, NeedsItsNames)
{
    EXPECT_EQ(-1, orx_host_ini_override(nullptr, "k", "v"));
    EXPECT_EQ(-1, orx_host_ini_override("s", nullptr, "v"));
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
        ASSERT_NE(nullptr, ini);
        EXPECT_EQ(1u, strlen(orx_ini_file_get(ini, "fmon", "max_events")));
        orx_ini_file_free(ini);
    }
    other.join();
}

}  // namespace
