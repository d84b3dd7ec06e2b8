/* Tests of event_index.h: records found by path and process. */

#include "event_index.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "event.h"
#include "list.h"

namespace
{

struct Table {
    explicit Table(int32_t hash_size)
    {
        monitor.hash_size = hash_size;
        monitor.hash = event_table_new(hash_size);
    }
    ~Table() { free(monitor.hash); }

    struct event_record *add(const std::string &path, uint32_t pid)
    {
        records.push_back(std::make_unique<Record>(Record{{}, path}));
        Record *r = records.back().get();
        r->record.ev.path = r->path.data();
        r->record.ev.pid = pid;
        event_index_add(&monitor, &r->record, event_key(path.c_str(), pid));
        return &r->record;
    }
    struct event *find(const std::string &path, uint32_t pid) const
    {
        return event_index_find(&monitor, event_key(path.c_str(), pid), path.c_str(), pid);
    }

    struct Record {
        struct event_record record;
        std::string path;
    };
    struct fmon monitor = {};
    std::vector<std::unique_ptr<Record>> records;
};

TEST(EventIndex, FindsWhatWasAddedByPathAndProcess)
{
    Table table(32);
    struct event_record *a = table.add("/a", 1), *b = table.add("/a", 2), *c = table.add("/b", 1);
    EXPECT_EQ(&a->ev, table.find("/a", 1));
    EXPECT_EQ(&b->ev, table.find("/a", 2));
    EXPECT_EQ(&c->ev, table.find("/b", 1));
    EXPECT_EQ(nullptr, table.find("/b", 2));
    EXPECT_EQ(nullptr, table.find("/", 1));
    EXPECT_EQ(nullptr, table.find("", 1));
}

TEST(EventIndex, RemovedRecordsAreNotFound)
{
    Table table(32);
    std::vector<struct event_record *> records;
    for (int i = 0; i < 2000; i++) /* several to a head */
        records.push_back(table.add("/f" + std::to_string(i), 0));
    for (size_t i = 0; i < records.size(); i += 3)
        event_index_remove(&records[i]->ev);
    for (size_t i = 0; i < records.size(); i++)
        EXPECT_EQ(i % 3 ? &records[i]->ev : nullptr, table.find("/f" + std::to_string(i), 0)) << i;
    event_index_remove(&records[0]->ev); /* twice does no harm */
}

/* Neither a tag nor a key stands for the path: a record with the same key is a stranger if its path differs. */
TEST(EventIndex, EqualKeysAreToldApart)
{
    Table table(32);
    uint64_t key = event_key("/a", 1);
    struct event_record a = {}, b = {};
    char path_a[] = "/a", path_b[] = "/b";
    a.ev.path = path_a;
    b.ev.path = path_b;
    a.ev.pid = b.ev.pid = 1;
    event_index_add(&table.monitor, &a, key);
    event_index_add(&table.monitor, &b, key);
    EXPECT_EQ(&a.ev, event_index_find(&table.monitor, key, "/a", 1));
    EXPECT_EQ(&b.ev, event_index_find(&table.monitor, key, "/b", 1));
    EXPECT_EQ(nullptr, event_index_find(&table.monitor, key, "/c", 1));
    EXPECT_EQ(nullptr, event_index_find(&table.monitor, key, "/a", 2));
}

TEST(EventIndex, EverySizeHoldsItsHeads)
{
    for (int size : {1, 2, 3, 31, 32, 33, 63, 64, 65, 1000, 1023, 1024, 1025, 83333}) {
        Table table(size);
        ASSERT_NE(nullptr, table.monitor.hash);
        for (int i = 0; i < 3000; i++)
            table.add("/f" + std::to_string(i), 0);
        for (int i = 0; i < 3000; i++)
            ASSERT_NE(nullptr, table.find("/f" + std::to_string(i), 0)) << size;
        for (int i = 0; i < size; i++)
            ASSERT_EQ(nullptr, table.monitor.hash[i]) << "a chain head was touched";
    }
}

TEST(EventIndex, KeysOfDifferentTextsDiffer)
{
    std::set<uint64_t> keys;
    size_t texts = 0;
    for (size_t length = 0; length < 70; length++)
        for (size_t at = 0; at <= length; at++, texts++) {
            std::string text(length, 'a');
            if (at < length)
                text[at] = 'b';
            keys.insert(event_key(text.c_str(), 0));
        }
    EXPECT_EQ(texts, keys.size());
}

TEST(EventIndex, EveryByteAndBitCounts)
{
    const std::string text = "/srv/shares/projects/report.txt";
    std::set<uint64_t> keys{event_key(text.c_str(), 0)};
    size_t expected = 1;
    for (size_t at = 0; at < text.size(); at++)
        for (int bit = 0; bit < 8; bit++) {
            std::string other = text;
            other[at] = static_cast<char>(other[at] ^ 1 << bit);
            if (other[at] == '\0')
                continue;
            keys.insert(event_key(other.c_str(), 0));
            expected++;
        }
    for (int bit = 0; bit < 32; bit++, expected++)
        keys.insert(event_key(text.c_str(), 1U << bit));
    EXPECT_EQ(expected, keys.size());
}

/* Names that share one djb2 hash, and counters, spread over the heads as random numbers would. */
TEST(EventIndex, NamesMadeToCollideSpreadOut)
{
    constexpr int kNames = 8192, kHeads = 256;
    for (bool counters : {false, true}) {
        int load[kHeads] = {};
        for (int i = 0; i < kNames; i++) {
            std::string name = "/";
            for (int block = 0; block < 13; block++)
                name += i >> block & 1 ? "BA" : "Ab";
            load[event_key(counters ? std::to_string(i).c_str() : name.c_str(), 0) % kHeads]++;
        }
        for (int n : load) {
            EXPECT_GT(n, 0); /* 32 on average; fewer than 1 or more than 80 does not happen by chance */
            EXPECT_LT(n, 80);
        }
    }
}

TEST(EventIndex, KeyIsTheSameEachTime) { EXPECT_EQ(event_key("/a/b", 7), event_key("/a/b", 7)); }

}  // namespace
