/* Tests of dcache_path.cpp: paths of dentries, their limits and their one buffer. */

#include <cstring>
#include <memory>

#include "dcache_fixture.h"

namespace
{

using testlib::Fault;

struct FreeText {
    void operator()(char *text) const { free(text); }
};
using Text = std::unique_ptr<char, FreeText>;

class DcachePathTest : public DcacheFixture
{
protected:
    static std::string letters(size_t n) { return std::string(n, 'p'); }

    /* A path of exactly `len` bytes in components of at most 100. */
    static std::string path_of(size_t len)
    {
        std::string path;
        while (path.size() < len) {
            const size_t left = len - path.size();
            const size_t part = left <= 100 ? left : left == 101 ? 50 : 100;
            path += "/" + std::string(part - 1, 'p');
        }
        return path;
    }
    static std::string text(const char *s) { return s ? s : "(null)"; }
};

TEST_F(DcachePathTest, TheRoot)
{
    EXPECT_STREQ("/", dentry_path_null(cache.root));
    EXPECT_STREQ("/x", _dentry_path(cache.root, "x"));
    EXPECT_STREQ("/", _dentry_path(cache.root, ""));
}

TEST_F(DcachePathTest, NoSeparatorBetweenTheRootAndItsChild)
{
    struct dentry *a = add("/a");
    EXPECT_STREQ("/a", dentry_path(a));
    EXPECT_STREQ("/a/x", _dentry_path(a, "x"));
    EXPECT_STREQ("/a", _dentry_path(a, ""));
    struct dentry *c = add("/a/bb/ccc");
    EXPECT_STREQ("/a/bb/ccc", dentry_path(c));
    EXPECT_STREQ("/a/bb/ccc/d d", _dentry_path(c, "d d"));
}

TEST_F(DcachePathTest, InlineAndSeparateNamesComeBackUnchanged)
{
    for (size_t len : {1u, 7u, 8u, 28u, 29u, 30u, 31u, 32u, 33u, 255u}) {
        const std::string path = "/top/" + letters(len) + "/" + letters(len) + "/end";
        EXPECT_EQ(path, dentry_path(add(path))) << len;
    }
}

TEST_F(DcachePathTest, TheLongestPathHas1022Bytes)
{
    for (size_t len : {1020u, 1021u, 1022u}) {
        ASSERT_EQ(len, path_of(len).size());
        EXPECT_EQ(path_of(len), text(dentry_path_null(add(path_of(len))))) << len;
    }
    for (size_t len : {1023u, 1024u, 1025u, 2000u}) {
        struct dentry *d = add(path_of(len));
        ASSERT_NE(nullptr, d);
        EXPECT_EQ(nullptr, dentry_path_null(d)) << len;
        EXPECT_EQ(nullptr, _dentry_path(d, nullptr));
        EXPECT_STREQ("(path overflow)", dentry_path(d));
        EXPECT_EQ(nullptr, dentry_path_dup(d));
        EXPECT_EQ(nullptr, dentry_sub_path_dup(d, nullptr));
        EXPECT_EQ(nullptr, dentry_sub_path_dup(d, "x"));
    }
}

TEST_F(DcachePathTest, OneComponentMayFillTheWholePath)
{
    EXPECT_EQ("/" + letters(1021), text(dentry_path_null(add("/" + letters(1021)))));
    for (size_t len : {1022u, 1023u, 1024u}) {
        struct dentry *d = add("/" + letters(len));
        ASSERT_NE(nullptr, d) << "cached although its path can never be built";
        EXPECT_EQ(nullptr, dentry_path_null(d)) << len;
    }
}

TEST_F(DcachePathTest, ADeepChainOfShortNamesOverflowsToo)
{
    std::string path;
    for (int i = 0; i < 511; i++)
        path += "/d";
    EXPECT_EQ(path, text(dentry_path_null(add(path))));
    EXPECT_EQ(nullptr, dentry_path_null(add(path + "/d")));
}

TEST_F(DcachePathTest, ASuffixBelowTheRootHasAtMost1021Bytes)
{
    for (size_t len : {1020u, 1021u})
        EXPECT_EQ("/" + letters(len), text(_dentry_path(cache.root, letters(len).c_str()))) << len;
    for (size_t len : {1022u, 1023u, 1024u, 1025u, 5000u})
        EXPECT_EQ(nullptr, _dentry_path(cache.root, letters(len).c_str())) << len;
}

TEST_F(DcachePathTest, ASuffixCountsTowardsTheLimit)
{
    struct dentry *d = add(path_of(1000));
    EXPECT_EQ(path_of(1000) + "/" + letters(21), text(_dentry_path(d, letters(21).c_str())));
    EXPECT_EQ(nullptr, _dentry_path(d, letters(22).c_str()));
    EXPECT_EQ(nullptr, _dentry_path(d, letters(1022).c_str()));
}

TEST_F(DcachePathTest, AllShareOneBuffer)
{
    struct dentry *a = add("/aa");
    struct dentry *b = add("/bb");
    const char *first = dentry_path(a);
    EXPECT_EQ(first, dentry_path(b));
    EXPECT_STREQ("/bb", first);
    EXPECT_STREQ("/bb/x", _dentry_path(b, "x"));
}

TEST_F(DcachePathTest, AnOverflowLeavesTheBufferUsable)
{
    EXPECT_STREQ("(path overflow)", dentry_path(add(path_of(1023))));
    EXPECT_STREQ("/", dentry_path(cache.root));
    EXPECT_EQ(nullptr, _dentry_path(cache.root, letters(1022).c_str()));
    EXPECT_STREQ("/a", dentry_path(add("/a")));
}

TEST_F(DcachePathTest, CopiesAreTheCallersOwn)
{
    struct dentry *a = add("/a/b");
    Text whole(dentry_path_dup(a));
    Text sub(dentry_sub_path_dup(a, "name"));
    Text self(dentry_sub_path_dup(a, nullptr));
    Text root(dentry_sub_path_dup(cache.root, "name"));
    dentry_path(cache.root);
    EXPECT_STREQ("/a/b", whole.get());
    EXPECT_STREQ("/a/b/name", sub.get());
    EXPECT_STREQ("/a/b", self.get()) << "no name: the directory itself";
    EXPECT_STREQ("/name", root.get());
}

TEST_F(DcachePathTest, ACopyThatCannotBeAllocatedIsNull)
{
    struct dentry *a = add("/a/b");
    {
        Fault fault("malloc");
        EXPECT_EQ(nullptr, dentry_path_dup(a));
        EXPECT_TRUE(fault.hit());
    }
    {
        Fault fault("malloc");
        EXPECT_EQ(nullptr, dentry_sub_path_dup(a, "x"));
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_STREQ("/a/b", dentry_path(a));
}

TEST_F(DcachePathTest, HostileNamesStayAsTheyAre)
{
    const std::string path = "/\n\x1b[31m/%n%s/\xff\xfe/*";
    EXPECT_EQ(path, dentry_path(add(path)));
}

}  // namespace
