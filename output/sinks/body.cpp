#include "body.h"

#include <zlib.h>
#include <zstd.h>

namespace output
{

namespace
{

constexpr int kGzipWindow = 15 + 16; /* the largest, with a header of gzip's */
constexpr int kZstdLevel = 3;

bool gzip(std::string_view bytes, std::string &out)
{
    z_stream stream = {};
    if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindow, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        return false;
    out.resize(deflateBound(&stream, bytes.size()));
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef *>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    const int result = deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    return result == Z_STREAM_END;
}

bool zstd(std::string_view bytes, std::string &out)
{
    out.resize(ZSTD_compressBound(bytes.size()));
    const size_t size = ZSTD_compress(out.data(), out.size(), bytes.data(), bytes.size(), kZstdLevel);
    out.resize(ZSTD_isError(size) ? 0 : size);
    return !ZSTD_isError(size);
}

}  // namespace

std::string json_array(const Packets &packets)
{
    std::string array;
    array.reserve(packets.bytes().size() + 2);
    for (size_t i = 0; i < packets.size(); i++) {
        array += i == 0 ? '[' : ',';
        array += packets[i].substr(0, packets[i].size() - (packets[i].empty() ? 0 : 1));
    }
    return array + "]";
}

bool squeeze(std::string_view bytes, Squeeze how, std::string &out)
{
    if (how == Squeeze::kGzip)
        return gzip(bytes, out);
    if (how == Squeeze::kZstd)
        return zstd(bytes, out);
    out = bytes;
    return true;
}

}  // namespace output
