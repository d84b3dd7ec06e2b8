/* The checksum of spooled records, by the processor's instruction and without. */
#include "output/spool/crc32c.h"

#include <gtest/gtest.h>

#include <string>

using namespace output;

TEST(Crc32c, TheChecksumIsCrc32c)
{
    EXPECT_EQ(0xe3069283u, crc32c(0, "123456789", 9));
    EXPECT_EQ(0xe3069283u, crc32c_portable(0, "123456789", 9));
    EXPECT_EQ(crc32c(0, "123456789", 9), crc32c(crc32c(0, "1234", 4), "56789", 5));
}

TEST(Crc32c, BothWaysOfTheChecksumAgreeAtEveryLength)
{
    std::string bytes;
    for (int i = 0; i < 100; i++) {
        EXPECT_EQ(crc32c_portable(5, bytes.data(), bytes.size()), crc32c(5, bytes.data(), bytes.size()));
        bytes.push_back(static_cast<char>(i * 37));
    }
}
