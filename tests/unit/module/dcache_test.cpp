/* Tests of dcache.h: dentries by path and by parent, limits, and what fails. */

#include <cstring>
#include <memory>

#include "dcache_fixture.h"

namespace
{

using testlib::fail_each;
using testlib::Fault;

using Paths = std::vector<std::string>;

class DcacheTest : public DcacheFixture
{
};

std::string letters(size_t n) { return std::string(n, 'n'); }

/* ---- start and end ---- */

TEST(DcacheInit, LimitsOfTheCapAreChecked)
{
    struct dcache c = {};
    for (int32_t bad : {0, -1, INT32_MIN, DCACHE_MAX_ENTRIES + 1, INT32_MAX})
        EXPECT_EQ(-1, dcache_init(&c, bad, nullptr)) << bad;
    for (int32_t good : {1, 2, int32_t{DCACHE_MAX_ENTRIES}}) {
        EXPECT_EQ(0, dcache_init(&c, good, nullptr)) << good;
        EXPECT_EQ(good, c.max_entries);
        dcache_destroy(&c);
    }
    EXPECT_EQ(2097152, DCACHE_MAX_ENTRIES);
}

TEST(DcacheInit, AFreshCacheHoldsTheUncountedRootOnly)
{
    struct dcache c;
    memset(&c, 0xa5, sizeof(c));
    ASSERT_EQ(0, dcache_init(&c, 10, nullptr));
    EXPECT_EQ(0u, c.count);
    EXPECT_EQ(128, dcache_buckets(&c));
    EXPECT_STREQ("/", c.root->name.in);
    EXPECT_EQ(1, c.root->len);
    EXPECT_EQ(nullptr, c.root->parent);
    EXPECT_TRUE(list_empty(&c.root->children));
    for (int i = 0; i < 128; i++)
        EXPECT_EQ(nullptr, c.buckets[i]);
    dcache_destroy(&c);
}

TEST(DcacheInit, EachFailedAllocationLeavesNothing)
{
    int runs = fail_each("calloc", ENOMEM, [](Fault &fault) {
        struct dcache c = {};
        int result = dcache_init(&c, 10, nullptr);
        EXPECT_EQ(fault.hit() ? -1 : 0, result);
        if (fault.hit()) {
            EXPECT_EQ(nullptr, c.root);
            EXPECT_EQ(nullptr, c.buckets);
        }
        dcache_destroy(&c);
    });
    EXPECT_EQ(2, runs); /* root, buckets */
}

std::vector<std::string> hooked;
void note_hook(struct dentry *d)
{
    hooked.push_back(std::string(dentry_name(d), d->len) +
                     (d->parent ? "<" + std::string(dentry_name(d->parent)) : ""));
    EXPECT_TRUE(list_empty(&d->children));
    d->owner[0] = 7;
}

TEST(DcacheInit, TheHookRunsOnceForEveryDentryTheRootIncluded)
{
    struct dcache c;
    hooked.clear();
    ASSERT_EQ(0, dcache_init(&c, 10, note_hook));
    EXPECT_EQ((Paths{"/"}), hooked);
    struct dentry *b = dcache_add(&c, "/a/b");
    dcache_add(&c, "/a/b");
    dcache_add_sub(&c, b, letters(40).c_str());
    EXPECT_EQ((Paths{"/", "a</", "b<a", letters(40) + "<b"}), hooked);
    EXPECT_EQ(7, b->owner[0]);
    dcache_destroy(&c);
    EXPECT_EQ(4u, hooked.size()) << "destruction runs no hook";
}

TEST(DcacheInit, DestroyingTwiceOrBeforeTheStartIsHarmless)
{
    struct dcache c = {};
    dcache_destroy(&c);
    ASSERT_EQ(0, dcache_init(&c, 10, nullptr));
    dcache_add(&c, ("/a/" + letters(30)).c_str());
    dcache_destroy(&c);
    EXPECT_EQ(nullptr, c.root);
    EXPECT_EQ(nullptr, c.buckets);
    EXPECT_EQ(0u, c.count);
    dcache_destroy(&c);
    ASSERT_EQ(0, dcache_init(&c, 10, nullptr));
    EXPECT_EQ(nullptr, dcache_find(&c, "/a"));
    dcache_destroy(&c);
}

/* ---- resolution ---- */

TEST_F(DcacheTest, TheRootIsFoundAndCannotBeDeleted)
{
    EXPECT_EQ(cache.root, find("/"));
    EXPECT_EQ(cache.root, add("/"));
    EXPECT_EQ(0, dcache_del(&cache, cache.root));
    EXPECT_EQ(cache.root, find("/"));
    EXPECT_EQ(0, dcache_del(&cache, nullptr));
    EXPECT_EQ(0u, cache.count);
}

TEST_F(DcacheTest, AddingMakesEveryMissingComponentOnce)
{
    struct dentry *c = add("/a/b/c");
    ASSERT_NE(nullptr, c);
    EXPECT_EQ((Paths{"/a", "/a/b", "/a/b/c"}), tree());
    EXPECT_EQ(c, add("/a/b/c"));
    EXPECT_EQ(c->parent, add("/a/b"));
    EXPECT_EQ(c, find("/a/b/c"));
    EXPECT_EQ(3u, cache.count);
}

TEST_F(DcacheTest, FindingMakesNothing)
{
    add("/a/b");
    for (const char *path : {"/x", "/a/x", "/a/b/x", "/b", "/a/b/x/y"})
        EXPECT_EQ(nullptr, find(path)) << path;
    EXPECT_EQ(2u, cache.count);
}

TEST_F(DcacheTest, AnEmptyComponentEndsThePath)
{
    struct dentry *a = add("/a//b");
    EXPECT_EQ((Paths{"/a"}), tree());
    EXPECT_EQ(a, add("/a/"));
    for (const char *path : {"/a", "/a/", "/a//", "/a//b", "/a//b/c"})
        EXPECT_EQ(a, find(path)) << path;
    for (const char *path : {"", "/", "//", "//a", "x"})
        EXPECT_EQ(cache.root, find(path)) << path;
}

TEST_F(DcacheTest, TheFirstCharacterIsSkippedWhateverItIs)
{
    add("abc");
    add("pipe:[7]");
    EXPECT_EQ((Paths{"/bc", "/ipe:[7]"}), tree());
    EXPECT_EQ(find("/bc"), find("xbc"));
}

TEST_F(DcacheTest, DotsAreNamesLikeOthers)
{
    struct dentry *d = add("/a/../.");
    EXPECT_EQ((Paths{"/a", "/a/..", "/a/../."}), tree());
    EXPECT_EQ(d, find("/a/../."));
}

TEST_F(DcacheTest, ComponentsOf1024BytesAreTakenAndOf1025Refused)
{
    struct dentry *d = add("/" + letters(1024));
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(1024, d->len);
    EXPECT_EQ(d, find("/" + letters(1024)));
    EXPECT_NE(nullptr, add("/" + letters(1023)));
    EXPECT_EQ(2u, cache.count);
    for (const std::string &bad : {"/" + letters(1025), "/" + letters(1025) + "/z", "/" + letters(5000)}) {
        EXPECT_EQ(nullptr, add(bad));
        EXPECT_EQ(nullptr, find(bad));
    }
    EXPECT_EQ(2u, cache.count);
}

TEST_F(DcacheTest, PathComponentsAreCutOneByOne)
{
    const char *pos = "/usr/lib//x";
    const char *name;
    EXPECT_EQ(3, path_component(&pos, &name));
    EXPECT_EQ(0, strncmp("usr", name, 3));
    EXPECT_STREQ("/lib//x", pos);
    EXPECT_EQ(3, path_component(&pos, &name));
    EXPECT_STREQ("//x", pos);
    EXPECT_EQ(0, path_component(&pos, &name));
    EXPECT_STREQ("/x", pos);
    for (const char *end : {"", "/", "//"}) {
        pos = end;
        EXPECT_EQ(0, path_component(&pos, &name)) << end;
    }
}

/* ---- names ---- */

TEST_F(DcacheTest, NamesOf29BytesAreInlineAndOf30Apart)
{
    struct dentry *in = add("/" + letters(29));
    struct dentry *apart = add("/" + letters(30));
    EXPECT_STREQ(letters(29).c_str(), in->name.in);
    EXPECT_STREQ(letters(30).c_str(), apart->name.ptr);
    for (struct dentry *d : {in, apart}) {
        const std::string path = full_path(d);
        EXPECT_EQ(d, find(path));
        EXPECT_EQ(path, dentry_path(d));
    }
    EXPECT_EQ(29, in->len);
    EXPECT_EQ(30, apart->len);
    EXPECT_EQ(0, del("/" + letters(30)));
    EXPECT_EQ(0, del("/" + letters(29)));
}

TEST_F(DcacheTest, InlineNamesLeaveTheRestOfTheirStorageZero)
{
    struct dentry *d = add("/ab");
    const std::string rest(DENTRY_NAME_INLINE - 2, '\0');
    EXPECT_EQ(rest, std::string(d->name.in + 2, rest.size()));
    for (unsigned char byte : d->owner)
        EXPECT_EQ(0, byte);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(d->owner) % 8);
}

TEST_F(DcacheTest, NamesThatDifferInTheirEighthByteOnlyShareABucketAndAreToldApart)
{
    struct dentry *a = add("/file0001");
    struct dentry *b = add("/file0002");
    struct dentry *c = add("/directory-00012");
    struct dentry *e = add("/directory-00013");
    EXPECT_NE(a, b);
    EXPECT_NE(c, e);
    EXPECT_EQ(&a->hash, b->hash.next) << "the later one heads the chain";
    EXPECT_EQ(&c->hash, e->hash.next);
    EXPECT_EQ(a, find("/file0001"));
    EXPECT_EQ(b, find("/file0002"));
    EXPECT_EQ(c, find("/directory-00012"));
    EXPECT_EQ(e, find("/directory-00013"));
    EXPECT_EQ(nullptr, find("/file0003"));
}

TEST_F(DcacheTest, AnExplicitLengthNeedsNoTerminator)
{
    struct dentry *ab = add("/ab");
    struct dentry *abc = add("/abc");
    std::unique_ptr<char[]> raw(new char[3]{'a', 'b', 'c'}); /* a sanitizer sees a read past it */
    EXPECT_EQ(ab, dcache_find_sub2(&cache, cache.root, raw.get(), 2));
    EXPECT_EQ(abc, dcache_find_sub2(&cache, cache.root, raw.get(), 3));
    EXPECT_EQ(nullptr, dcache_find_sub2(&cache, cache.root, raw.get(), 1));
    EXPECT_EQ(nullptr, dcache_find_sub2(&cache, cache.root, raw.get(), 0));
    EXPECT_EQ(nullptr, dcache_find_sub2(&cache, cache.root, raw.get(), -1));
    std::unique_ptr<char[]> word(new char[8]{'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'});
    struct dentry *full_word = add("/abcdefgh");
    EXPECT_EQ(full_word, dcache_find_sub2(&cache, cache.root, word.get(), 8));
}

TEST_F(DcacheTest, EqualNamesUnderDifferentParentsAreDifferent)
{
    struct dentry *one = add("/a/x");
    struct dentry *two = add("/b/x");
    EXPECT_NE(one, two);
    EXPECT_EQ(one, dcache_find_sub(&cache, find("/a"), "x"));
    EXPECT_EQ(two, dcache_find_sub(&cache, find("/b"), "x"));
    EXPECT_EQ(nullptr, dcache_find_sub(&cache, one, "x"));
}

TEST_F(DcacheTest, AnyByteButTheSeparatorMakesAName)
{
    for (int c = 1; c < 256; c++)
        if (c != '/') {
            ASSERT_NE(nullptr, add(std::string("/") + static_cast<char>(c)));
        }
    EXPECT_EQ(254u, cache.count);
    EXPECT_EQ("\xff\n", name_of(add("/\xff\n")));
}

TEST_F(DcacheTest, SubAddsFindBeforeTheyMake)
{
    struct dentry *a = add("/a");
    struct dentry *b = dcache_add_sub(&cache, a, "b");
    EXPECT_EQ(b, find("/a/b"));
    EXPECT_EQ(b, dcache_add_sub(&cache, a, "b"));
    EXPECT_EQ(b, dcache_find_sub(&cache, a, "b"));
    EXPECT_EQ(nullptr, dcache_find_sub(&cache, a, "c"));
    EXPECT_EQ(2u, cache.count);
}

TEST_F(DcacheTest, SubAddsFindAmongFewAndManySiblings)
{
    struct dentry *top = add("/top");
    std::vector<struct dentry *> made;
    for (int i = 0; i < 40; i++) {
        made.push_back(dcache_add_sub(&cache, top, ("sub-" + std::to_string(i)).c_str()));
        for (int k = 0; k <= i; k++)
            ASSERT_EQ(made[static_cast<size_t>(k)], dcache_add_sub(&cache, top, ("sub-" + std::to_string(k)).c_str()))
                << k << " of " << i;
        ASSERT_EQ(static_cast<uint32_t>(i) + 2, cache.count);
    }
    for (int i = 39; i >= 0; i--) {
        ASSERT_EQ(0, del("/top/sub-" + std::to_string(i)));
        ASSERT_EQ(nullptr, dcache_find_sub(&cache, top, ("sub-" + std::to_string(i)).c_str()));
    }
}

TEST_F(DcacheTest, NamesLongerThanTheLengthFieldAreRefused)
{
    EXPECT_NE(nullptr, dcache_add_sub(&cache, cache.root, letters(65535).c_str()));
    EXPECT_EQ(nullptr, dcache_add_sub(&cache, cache.root, letters(65536).c_str()));
    EXPECT_EQ(nullptr, dcache_add_sub(&cache, cache.root, letters(65536 + 3).c_str()));
    EXPECT_EQ(nullptr, dcache_find_sub(&cache, cache.root, letters(65536 + 3).c_str()));
    EXPECT_EQ(1u, cache.count);
}

/* ---- order, deletion, cap ---- */

TEST_F(DcacheTest, ChildrenStandInTheOrderOfTheirMaking)
{
    for (const char *path : {"/c", "/a", "/b", "/a"})
        add(path);
    EXPECT_EQ((Paths{"/c", "/a", "/b"}), tree());
    EXPECT_EQ(0, del("/a"));
    add("/a");
    EXPECT_EQ((Paths{"/c", "/b", "/a"}), tree());
}

TEST_F(DcacheTest, ADentryWithChildrenIsNotDeleted)
{
    add("/a/b");
    EXPECT_EQ(-1, del("/a"));
    EXPECT_EQ((Paths{"/a", "/a/b"}), tree());
    EXPECT_EQ(0, del("/a/b"));
    EXPECT_EQ(0, del("/a"));
    EXPECT_EQ(0u, cache.count);
    EXPECT_EQ(nullptr, find("/a"));
}

TEST_F(DcacheTest, ADentryUnlinkedBeforehandIsDeletedAllTheSame)
{
    struct dentry *a = add("/a");
    add("/b");
    list_unlink(&a->sibling);
    hlink_unlink(&a->hash);
    EXPECT_EQ(reinterpret_cast<list_head *>(uintptr_t{0x100100}), a->sibling.next);
    EXPECT_EQ(reinterpret_cast<list_head *>(uintptr_t{0x200200}), a->sibling.prev);
    EXPECT_EQ(0, dcache_del(&cache, a));
    EXPECT_EQ((Paths{"/b"}), tree());
}

class SmallDcacheTest : public DcacheFixture
{
protected:
    SmallDcacheTest() : DcacheFixture(3) {}
};

TEST_F(SmallDcacheTest, TheCapCountsEverythingButTheRoot)
{
    EXPECT_NE(nullptr, add("/a/b/c"));
    EXPECT_EQ(nullptr, add("/d"));
    EXPECT_EQ(nullptr, dcache_add_sub(&cache, cache.root, "d"));
    EXPECT_EQ(find("/a/b/c"), add("/a/b/c")) << "what is there is found in a full cache";
    EXPECT_EQ(0, del("/a/b/c"));
    EXPECT_NE(nullptr, add("/d"));
    EXPECT_EQ(nullptr, add("/e"));
    EXPECT_EQ(3u, cache.count);
}

TEST_F(SmallDcacheTest, AFailedAddTakesBackWhatItMade)
{
    struct dentry *x = add("/x");
    add("/w");
    EXPECT_EQ(nullptr, add("/x/y/z")) << "no room for z";
    EXPECT_EQ((Paths{"/x", "/w"}), tree());
    EXPECT_EQ(x, find("/x"));
    EXPECT_EQ(nullptr, add("/p/q/r"));
    EXPECT_EQ((Paths{"/x", "/w"}), tree());
    EXPECT_EQ(2u, cache.count);
}

TEST_F(DcacheTest, AComponentTooLongTakesBackWhatTheAddMade)
{
    add("/x");
    EXPECT_EQ(nullptr, add("/x/y/" + letters(1025) + "/z"));
    EXPECT_EQ(nullptr, add("/u/v/" + letters(1025)));
    EXPECT_EQ(nullptr, add("/x/" + letters(1025)));
    EXPECT_EQ((Paths{"/x"}), tree());
}

TEST_F(DcacheTest, EachFailedAllocationOfAnAddLeavesTheCacheAsItWas)
{
    add("/x/w");
    const auto before = buckets();
    const std::string path = "/x/y/" + letters(30) + "/" + letters(300) + "/z";
    for (const char *call : {"calloc", "malloc"}) {
        const int runs = fail_each(call, ENOMEM, [&](Fault &fault) {
            struct dentry *d = add(path);
            EXPECT_EQ(fault.hit(), d == nullptr);
            for (; d && d != find("/x");) {
                struct dentry *parent = d->parent;
                dcache_del(&cache, d);
                d = parent;
            }
            EXPECT_EQ(before, buckets());
            EXPECT_EQ((Paths{"/x", "/x/w"}), tree());
        });
        EXPECT_EQ(call[0] == 'c' ? 4 : 2, runs) << call; /* dentries; names apart */
    }
}

TEST_F(DcacheTest, EachFailedAllocationOfASubAddLeavesTheCacheAsItWas)
{
    for (const char *call : {"calloc", "malloc"}) {
        const int runs = fail_each(call, ENOMEM, [&](Fault &fault) {
            struct dentry *d = dcache_add_sub(&cache, cache.root, letters(30).c_str());
            EXPECT_EQ(fault.hit(), d == nullptr);
            EXPECT_EQ(fault.hit() ? 0u : 1u, cache.count);
            dcache_del(&cache, d);
        });
        EXPECT_EQ(1, runs) << call;
    }
}

}  // namespace
