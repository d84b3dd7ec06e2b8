/*
 * dcache_fixture.h: a directory cache of its own for each test, and the check that it is whole.
 */
#ifndef TESTS_DCACHE_FIXTURE_H
#define TESTS_DCACHE_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dcache.h"
#include "list.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"

class DcacheFixture : public testing::Test
{
protected:
    explicit DcacheFixture(int32_t max_entries = 1000)
    {
        testlib::reset_host();
        EXPECT_EQ(0, dcache_init(&cache, max_entries, nullptr));
    }
    ~DcacheFixture() override
    {
        expect_whole();
        dcache_destroy(&cache);
    }

    struct dentry *add(const std::string &path) { return dcache_add(&cache, path.c_str()); }
    struct dentry *find(const std::string &path) { return dcache_find(&cache, path.c_str()); }
    int del(const std::string &path) { return dcache_del(&cache, find(path)); }

    /* The path by plain recursion, whatever its length. */
    static std::string name_of(const struct dentry *d) { return std::string(dentry_name(d), d->len); }
    static std::string full_path(const struct dentry *d)
    {
        if (!d->parent)
            return "/";
        return (d->parent->parent ? full_path(d->parent) : "") + "/" + name_of(d);
    }

    /* Paths of everything below `d`, parents first, siblings in the order of the ring. */
    static void list_below(struct dentry *d, std::vector<std::string> *out)
    {
        FMON_LIST_EACH (node, &d->children) {
            struct dentry *child = FMON_RECORD(node, struct dentry, sibling);
            EXPECT_EQ(d, child->parent);
            EXPECT_EQ(node, node->next->prev);
            out->push_back(full_path(child));
            list_below(child, out);
        }
    }
    std::vector<std::string> tree()
    {
        std::vector<std::string> paths;
        list_below(cache.root, &paths);
        return paths;
    }

    /* Every dentry in its bucket, in chain order. */
    std::vector<std::vector<struct dentry *>> buckets()
    {
        std::vector<std::vector<struct dentry *>> all(static_cast<size_t>(dcache_buckets(&cache)));
        for (size_t i = 0; i < all.size(); i++)
            for (hlink *node = cache.buckets[i]; node; node = node->next)
                all[i].push_back(FMON_RECORD(node, struct dentry, hash));
        return all;
    }

    /* The ring side and the table side tell of the same dentries, each in the bucket where it is looked for. */
    void expect_whole()
    {
        const std::vector<std::string> paths = tree();
        EXPECT_EQ(paths.size(), cache.count);
        size_t hashed = 0;
        for (uint32_t i = 0; i < static_cast<uint32_t>(dcache_buckets(&cache)); i++) {
            hlink **link = &cache.buckets[i];
            for (hlink *node = *link; node; link = &node->next, node = node->next, hashed++) {
                struct dentry *d = FMON_RECORD(node, struct dentry, hash);
                ASSERT_EQ(link, node->pprev);
                ASSERT_EQ(d, dcache_find_sub2(&cache, d->parent, dentry_name(d), d->len));
                ASSERT_EQ(i, full_name_hash(reinterpret_cast<uintptr_t>(d->parent), dentry_name(d), d->len) %
                                 static_cast<uint32_t>(dcache_buckets(&cache)));
            }
        }
        EXPECT_EQ(paths.size(), hashed);
    }

    struct dcache cache;
};

#endif
