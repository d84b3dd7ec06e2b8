#include "decompress.h"

#include <bzlib.h>
#include <lz4.h>
#include <lzma.h>
#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

namespace cli
{

namespace
{

using namespace std::string_view_literals;

constexpr size_t kFirstChunk = size_t{32} << 10, kChunk = size_t{4} << 20; /* room made a time: doubled up to kChunk */
constexpr uint64_t kDecoderMemory = uint64_t{256} << 20; /* a dictionary's size is the image's own word */
constexpr size_t kLz4Block = size_t{8} << 20;            /* of the format that kernels use, before compression */
constexpr size_t kLz4Ratio = 255;                        /* a byte of a block stands for no more */

constexpr std::string_view kGzip = "\x1f\x8b"sv,
                           kXz =
                               "\xfd"
                               "7zXZ\0"sv,
                           kZstd = "\x28\xb5\x2f\xfd"sv, kLz4 = "\x02\x21\x4c\x18"sv, kBzip2 = "BZh"sv,
                           kLzma = "\x5d\0\0"sv;

/* What the libraries read from and write to. */
struct Cursor {
    const char *in;
    size_t in_left;
    char *out;
    size_t out_left;

    void moved(size_t in_left_now, size_t out_left_now)
    {
        in += in_left - in_left_now;
        out += out_left - out_left_now;
        in_left = in_left_now;
        out_left = out_left_now;
    }
};

enum class Step { kMore, kEnd, kBroken, kTooLong };

// Runs `step` until the end of the compressed stream. A step that neither reads nor writes has come to a truncated one.
template <typename Body>
Unpacked pump(std::string_view packed, size_t limit, std::string &out, Body step)
{
    Cursor at = {packed.data(), packed.size(), nullptr, 0};
    size_t made = 0, chunk = kFirstChunk;
    while (made <= limit) {
        const size_t room = std::min(chunk, limit + 1 - made), in_before = at.in_left;
        chunk = std::min(chunk * 2, kChunk);
        out.resize(made + room);
        at.out = out.data() + made;
        at.out_left = room;
        const Step result = step(at);
        const bool stuck = at.in_left == in_before && at.out_left == room;
        made += room - at.out_left;
        if (result == Step::kTooLong)
            return Unpacked::kTooLong;
        if (result == Step::kEnd && made <= limit) {
            out.resize(made);
            return Unpacked::kDone;
        }
        if (result == Step::kBroken || (result == Step::kMore && stuck))
            return Unpacked::kBroken;
    }
    return Unpacked::kTooLong;
}

// zlib and bzip2 do not promise to leave the input alone, and count it in 32 bits; what is read here is shorter.
template <typename Stream>
void lend(Stream &stream, const Cursor &at)
{
    stream.next_in = reinterpret_cast<decltype(stream.next_in)>(const_cast<char *>(at.in));
    stream.avail_in = static_cast<unsigned>(std::min<size_t>(at.in_left, UINT32_MAX));
    stream.next_out = reinterpret_cast<decltype(stream.next_out)>(at.out);
    stream.avail_out = static_cast<unsigned>(at.out_left);
}

template <typename Stream>
void take_back(const Stream &stream, Cursor &at, size_t lent)
{
    at.moved(at.in_left - (lent - stream.avail_in), stream.avail_out);
}

Unpacked from_gzip(std::string_view packed, size_t limit, std::string &out)
{
    constexpr int kGzipOnly = 16 + MAX_WBITS;
    z_stream stream = {};
    if (inflateInit2(&stream, kGzipOnly) != Z_OK)
        return Unpacked::kBroken;
    const std::unique_ptr<z_stream, int (*)(z_stream *)> end(&stream, inflateEnd);
    return pump(packed, limit, out, [&](Cursor &at) {
        lend(stream, at);
        const size_t lent = stream.avail_in;
        const int code = inflate(&stream, Z_NO_FLUSH);
        take_back(stream, at, lent);
        if (code == Z_STREAM_END)
            return Step::kEnd;
        return code == Z_OK || code == Z_BUF_ERROR ? Step::kMore : Step::kBroken;
    });
}

Unpacked from_bzip2(std::string_view packed, size_t limit, std::string &out)
{
    bz_stream stream = {};
    if (BZ2_bzDecompressInit(&stream, 0, 0) != BZ_OK)
        return Unpacked::kBroken;
    const std::unique_ptr<bz_stream, int (*)(bz_stream *)> end(&stream, BZ2_bzDecompressEnd);
    return pump(packed, limit, out, [&](Cursor &at) {
        lend(stream, at);
        const size_t lent = stream.avail_in;
        const int code = BZ2_bzDecompress(&stream);
        take_back(stream, at, lent);
        if (code == BZ_STREAM_END)
            return Step::kEnd;
        return code == BZ_OK ? Step::kMore : Step::kBroken;
    });
}

// Both formats of the library: it tells them apart itself.
Unpacked from_xz(std::string_view packed, size_t limit, std::string &out)
{
    lzma_stream stream = LZMA_STREAM_INIT;
    if (lzma_auto_decoder(&stream, kDecoderMemory, 0) != LZMA_OK)
        return Unpacked::kBroken;
    const std::unique_ptr<lzma_stream, void (*)(lzma_stream *)> end(&stream, lzma_end);
    return pump(packed, limit, out, [&](Cursor &at) {
        stream.next_in = reinterpret_cast<const uint8_t *>(at.in);
        stream.avail_in = at.in_left;
        stream.next_out = reinterpret_cast<uint8_t *>(at.out);
        stream.avail_out = at.out_left;
        const lzma_ret code = lzma_code(&stream, LZMA_RUN);
        at.moved(stream.avail_in, stream.avail_out);
        if (code == LZMA_STREAM_END)
            return Step::kEnd;
        if (code == LZMA_MEMLIMIT_ERROR)
            return Step::kTooLong;
        return code == LZMA_OK || code == LZMA_BUF_ERROR ? Step::kMore : Step::kBroken;
    });
}

Unpacked from_zstd(std::string_view packed, size_t limit, std::string &out)
{
    const std::unique_ptr<ZSTD_DStream, size_t (*)(ZSTD_DStream *)> stream(ZSTD_createDStream(), ZSTD_freeDStream);
    if (!stream)
        return Unpacked::kTooLong;
    return pump(packed, limit, out, [&](Cursor &at) {
        ZSTD_inBuffer in = {at.in, at.in_left, 0};
        ZSTD_outBuffer to = {at.out, at.out_left, 0};
        const size_t code = ZSTD_decompressStream(stream.get(), &to, &in);
        at.moved(in.size - in.pos, to.size - to.pos);
        if (ZSTD_isError(code))
            return Step::kBroken;
        return code == 0 ? Step::kEnd : Step::kMore;
    });
}

uint32_t little_endian(std::string_view bytes)
{
    uint32_t value = 0;
    for (size_t i = 4; i-- > 0;)
        value = value << 8 | static_cast<uint8_t>(bytes[i]);
    return value;
}

// The old format of the command lz4, which has no library call: blocks, each behind its length. The last four bytes of
// a kernel image are no block.
Unpacked from_lz4(std::string_view packed, size_t limit, std::string &out)
{
    packed.remove_prefix(kLz4.size());
    size_t made = 0;
    while (packed.size() > sizeof(uint32_t)) {
        const size_t length = little_endian(packed);
        packed.remove_prefix(sizeof(uint32_t));
        if (length > packed.size())
            return Unpacked::kBroken;
        const size_t room = length < kLz4Block / kLz4Ratio ? length * kLz4Ratio : kLz4Block;
        out.resize(made + room);
        const int n =
            LZ4_decompress_safe(packed.data(), out.data() + made, static_cast<int>(length), static_cast<int>(room));
        if (n < 0)
            return Unpacked::kBroken;
        made += static_cast<size_t>(n);
        if (made > limit)
            return Unpacked::kTooLong;
        packed.remove_prefix(length);
    }
    out.resize(made);
    return made > 0 ? Unpacked::kDone : Unpacked::kBroken;
}

struct Format {
    std::string_view start;
    const char *name;
    Unpacked (*decode)(std::string_view, size_t, std::string &);
};
constexpr Format kFormats[] = {{kGzip, "gzip", from_gzip}, {kXz, "xz", from_xz},          {kZstd, "zstd", from_zstd},
                               {kLz4, "lz4", from_lz4},    {kBzip2, "bzip2", from_bzip2}, {kLzma, "lzma", from_xz}};

const Format *find_format(std::string_view packed)
{
    for (const Format &format : kFormats)
        if (packed.substr(0, format.start.size()) == format.start)
            return &format;
    return nullptr;
}

}  // namespace

const char *compression_of(std::string_view packed)
{
    const Format *format = find_format(packed);
    return format ? format->name : nullptr;
}

Unpacked decompress(std::string_view packed, size_t limit, std::string &out)
{
    out.clear();
    const Format *format = find_format(packed);
    return format ? format->decode(packed, limit, out) : Unpacked::kUnknown;
}

}  // namespace cli
