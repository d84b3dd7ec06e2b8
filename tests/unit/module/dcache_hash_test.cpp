/* Tests of dcache_hash.cpp: the hash of a name, against its definition. */

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "dcache.h"
#include "orx_base.h"

namespace
{

uint64_t salt_of(uint64_t n) { return n * 0x9E3779B97F4A7C15u; }

uint32_t hash(uint64_t salt, const std::string &name)
{
    return full_name_hash(salt, name.c_str(), static_cast<uint32_t>(name.size()));
}

/* The definition, word by word: a bounded string copy of size 8 into a zeroed word, and a mask for the last one. It
 * scans `name` to its NUL. */
uint32_t model(uint64_t salt, const char *name, uint32_t len)
{
    const uint16_t probe = 0x0102;
    const bool big = *reinterpret_cast<const unsigned char *>(&probe) == 1;
    uint64_t x = 0, y = salt;
    while (len > 0) {
        uint64_t w = 0;
        orx_str_strlcpy(reinterpret_cast<char *>(&w), name, 8);
        if (len < 8) {
            x ^= w & (big ? ~(~uint64_t{0} >> (8 * len)) : ~(~uint64_t{0} << (8 * len)));
            break;
        }
        x ^= w;
        y ^= x;
        x = x << 12 | x >> 52;
        x += y;
        y = y << 45 | y >> 19;
        y *= 9;
        name += 8;
        len -= 8;
    }
    y ^= x * 0x61C8864680B583EBu;
    y *= 0x61C8864680B583EBu;
    return static_cast<uint32_t>(y >> 32);
}

std::string random_name(std::mt19937 &random, size_t len)
{
    std::string name(len, '\0');
    for (char &c : name)
        c = static_cast<char>(1 + random() % 255);
    return name;
}

/* Computed by a model in another language, for little-endian hosts. */
TEST(DcacheHash, KnownValues)
{
    const uint16_t probe = 0x0102;
    if (*reinterpret_cast<const unsigned char *>(&probe) == 1)
        GTEST_SKIP() << "values of a little-endian host";
    const struct {
        uint64_t salt;
        const char *name;
        uint32_t value;
    } rows[] = {
        {0, "", 0x00000000},
        {1, "", 0x61c88646},
        {0, "a", 0x98d51a30},
        {0, "etc", 0x6ecf5a2e},
        {0x1122334455667788, "etc", 0xb540102a},
        {0, "1234567", 0x5b59d3e4},
        {0, "12345678", 0x994f9131},
        {0, "123456789", 0x11f92f41},
        {~uint64_t{0}, "aaaaaaaaaaaaaaa", 0x7d2c6426},
        {0x7f0012345678, "node_modules/.bin-cache-2024", 0xa1f1f094},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.value, hash(row.salt, row.name)) << row.name;
}

TEST(DcacheHash, EqualsItsDefinitionForNamesOfEveryLength)
{
    std::mt19937 random(1);
    for (uint32_t len = 0; len <= 300; len++)
        for (int turn = 0; turn < 40; turn++) {
            const std::string name = random_name(random, len);
            const uint64_t salt = turn == 0 ? 0 : turn == 1 ? ~uint64_t{0} : salt_of(random());
            ASSERT_EQ(model(salt, name.c_str(), len), hash(salt, name)) << len;
        }
}

TEST(DcacheHash, EqualsItsDefinitionInsideALongerText)
{
    std::mt19937 random(2);
    const std::string text = random_name(random, 400);
    for (uint32_t from = 0; from < 16; from++)
        for (uint32_t len = 0; len < 300; len++)
            ASSERT_EQ(model(from, text.c_str() + from, len), full_name_hash(from, text.c_str() + from, len));
}

TEST(DcacheHash, EqualsItsDefinitionWithNulBytesInside)
{
    std::mt19937 random(3);
    for (int turn = 0; turn < 20000; turn++) {
        std::string name = random_name(random, 1 + random() % 40);
        for (size_t n = random() % 4; n > 0; n--)
            name[random() % name.size()] = '\0';
        ASSERT_EQ(model(7, name.c_str(), static_cast<uint32_t>(name.size())), hash(7, name));
    }
}

TEST(DcacheHash, AByteOf0x80Or0x01BesideANulIsNotMistakenForOne)
{
    for (unsigned char byte : {0x01, 0x7f, 0x80, 0x81, 0xff})
        for (size_t at = 0; at < 16; at++)
            for (size_t nul = 0; nul < 17; nul++) {
                std::string name(16, 'x');
                name[at] = static_cast<char>(byte);
                if (nul < 16)
                    name[nul] = '\0';
                ASSERT_EQ(model(1, name.c_str(), 16), hash(1, name)) << at << " " << nul;
            }
}

TEST(DcacheHash, ReadsTheNameAndNothingElse)
{
    for (uint32_t len = 0; len <= 64; len++) {
        std::vector<char> block(len, 'q'); /* no NUL behind it: a sanitizer sees any read past the end */
        block.shrink_to_fit();
        const std::string text = std::string(len, 'q') + "tail";
        EXPECT_EQ(model(5, text.c_str(), len), full_name_hash(5, block.data(), len)) << len;
    }
}

TEST(DcacheHash, APathComponentHashesLikeItsStoredCopy)
{
    for (uint32_t len = 0; len <= 40; len++) {
        const std::string copy(len, 'c');
        EXPECT_EQ(hash(3, copy), full_name_hash(3, (copy + "/next/more-of-it").c_str(), len)) << len;
    }
}

TEST(DcacheHash, TheEighthByteOfAFullWordDoesNotCount)
{
    for (size_t words = 1; words <= 8; words++) {
        const std::string name(8 * words, 'm');
        for (size_t i = 0; i < name.size(); i++) {
            std::string other = name;
            other[i] = 'n';
            EXPECT_EQ(i % 8 == 7, hash(9, name) == hash(9, other)) << i;
        }
    }
    EXPECT_EQ(hash(0, "file0001"), hash(0, "file0002"));
    EXPECT_NE(hash(0, "file001"), hash(0, "file002")) << "seven bytes all count";
    EXPECT_NE(hash(0, "file0001x"), hash(0, "file0001y"));
}

TEST(DcacheHash, TheSaltCounts)
{
    EXPECT_NE(hash(0, "name"), hash(1, "name"));
    EXPECT_NE(hash(0, "name"), hash(uint64_t{1} << 63, "name"));
}

TEST(DcacheHash, OrdinaryNamesSpreadEvenly)
{
    std::map<uint32_t, int> chains;
    constexpr int kNames = 8192;
    for (int i = 0; i < kNames; i++)
        chains[hash(0x5555000012a0, "package-" + std::to_string(i)) % 1024]++;
    int longest = 0;
    for (const auto &chain : chains)
        longest = std::max(longest, chain.second);
    EXPECT_LT(longest, 32) << "8 on average";
    EXPECT_GT(chains.size(), 1000u);
}

}  // namespace
