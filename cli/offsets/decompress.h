/*
 * decompress.h: what a kernel image is compressed with, taken off by the libraries of each format.
 */
#ifndef CLI_DECOMPRESS_H
#define CLI_DECOMPRESS_H

#include <cstddef>
#include <string>
#include <string_view>

namespace cli
{

enum class Unpacked {
    kDone,
    kUnknown, /* none of the formats */
    kBroken,  /* truncated or damaged */
    kTooLong, /* more than the limit comes out, or the memory that the format asks for is more than sensible */
};

/* The format that the first bytes name: "gzip", "xz", "zstd", "lz4", "bzip2" or "lzma"; null: none of them. */
const char *compression_of(std::string_view packed);

/* Bytes behind the end of the compressed ones are ignored: a kernel image has its length there. */
Unpacked decompress(std::string_view packed, size_t limit, std::string &out);

}  // namespace cli

#endif
