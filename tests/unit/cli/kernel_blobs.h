/*
 * kernel_blobs.h: kernels as files, small and made up: BTF, a vmlinux around it, a vmlinuz around that.
 */
#ifndef KERNEL_BLOBS_H
#define KERNEL_BLOBS_H

#include <bzlib.h>
#include <elf.h>
#include <linux/btf.h>
#include <lz4.h>
#include <lzma.h>
#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace kernel_blobs
{

template <typename T>
void append(std::string &out, const T &value)
{
    out.append(reinterpret_cast<const char *>(&value), sizeof value);
}

template <typename T>
void put(std::string &out, size_t at, const T &value)
{
    memcpy(out.data() + at, &value, sizeof value);
}

struct Member {
    const char *name;
    uint32_t type, offset; /* in bytes */
};

/* Types get their ids in the order of their making, from 1. */
class BtfMaker
{
public:
    uint32_t structure(const char *name, const std::vector<Member> &members)
    {
        append(types_, btf_type{string(name), uint32_t{BTF_KIND_STRUCT} << 24 | uint32_t(members.size()), {0}});
        for (const Member &member : members)
            append(types_, btf_member{string(member.name), member.type, member.offset * 8});
        return ++last_;
    }
    uint32_t pointer(uint32_t to)
    {
        append(types_, btf_type{0, uint32_t{BTF_KIND_PTR} << 24, {to}});
        return ++last_;
    }
    std::string bytes() const
    {
        btf_header header = {};
        header.magic = BTF_MAGIC;
        header.version = 1;
        header.hdr_len = sizeof header;
        header.type_len = static_cast<uint32_t>(types_.size());
        header.str_off = header.type_len;
        header.str_len = static_cast<uint32_t>(strings_.size());
        std::string out;
        append(out, header);
        return out + types_ + strings_;
    }

private:
    uint32_t string(const char *text)
    {
        if (!*text)
            return 0;
        const auto at = static_cast<uint32_t>(strings_.size());
        strings_.append(text, strlen(text) + 1);
        return at;
    }
    std::string types_, strings_ = std::string(1, '\0');
    uint32_t last_ = 0;
};

struct Layout {
    uint32_t s_mounts = 224, mnt_instance = 120, mnt_id = 292;
    bool list = true; /* as up to 6.17 */
    uint32_t word = 8;
};

inline std::string make_btf(const Layout &at = {})
{
    BtfMaker btf;
    const uint32_t list = btf.structure("list_head", {{"next", 0, 0}, {"prev", 0, at.word}});
    const uint32_t mount =
        at.list ? btf.structure("mount", {{"mnt_instance", list, at.mnt_instance}, {"mnt_id", 0, at.mnt_id}})
                : btf.structure("mount", {{"mnt_id", 0, at.mnt_id}});
    const uint32_t s_mounts = at.list ? list : btf.pointer(mount);
    btf.structure("super_block", {{"s_dev", 0, 16}, {"s_mounts", s_mounts, at.s_mounts}});
    return btf.bytes();
}

template <typename Header, typename Section>
std::string make_elf_of(uint8_t type, uint16_t machine, const std::string &btf, const std::string &text)
{
    const std::string names = std::string("\0.text\0.BTF\0.shstrtab\0", 22);
    Header header = {};
    memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = type;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_machine = machine;
    header.e_shentsize = sizeof(Section);
    header.e_shnum = btf.empty() ? 3 : 4;
    header.e_shstrndx = 2;
    header.e_shoff = static_cast<decltype(header.e_shoff)>(sizeof(Header) + text.size() + names.size() + btf.size());
    std::string out;
    append(out, header);
    out += text + names + btf;
    const auto section = [&](uint32_t name, size_t offset, size_t size) {
        Section row = {};
        row.sh_name = name;
        row.sh_type = name ? SHT_PROGBITS : SHT_NULL;
        row.sh_offset = static_cast<decltype(row.sh_offset)>(offset);
        row.sh_size = static_cast<decltype(row.sh_size)>(size);
        append(out, row);
    };
    section(0, 0, 0);
    section(1, sizeof(Header), text.size());
    section(12, sizeof(Header) + text.size(), names.size());
    if (!btf.empty())
        section(7, sizeof(Header) + text.size() + names.size(), btf.size());
    return out;
}

constexpr char kBanners[] = "Linux version %s (%s)\0 Linux version 6.1.0-37-amd64 (someone@somewhere) #1 SMP";

inline std::string make_elf(const std::string &btf, bool is_64 = true,
                            const std::string &text = {kBanners, sizeof kBanners})
{
    return is_64 ? make_elf_of<Elf64_Ehdr, Elf64_Shdr>(ELFCLASS64, EM_X86_64, btf, text)
                 : make_elf_of<Elf32_Ehdr, Elf32_Shdr>(ELFCLASS32, EM_386, btf, text);
}

inline std::string compress_gzip(const std::string &in)
{
    std::string out(in.size() + 1000, '\0');
    z_stream stream = {};
    deflateInit2(&stream, 9, Z_DEFLATED, 16 + MAX_WBITS, 9, Z_DEFAULT_STRATEGY);
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(in.data()));
    stream.avail_in = static_cast<unsigned>(in.size());
    stream.next_out = reinterpret_cast<Bytef *>(out.data());
    stream.avail_out = static_cast<unsigned>(out.size());
    deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    return out;
}

inline std::string compress_by_lzma(const std::string &in, bool alone)
{
    std::string out(in.size() + 1000, '\0');
    lzma_stream stream = LZMA_STREAM_INIT;
    lzma_options_lzma options;
    lzma_lzma_preset(&options, 1);
    if ((alone ? lzma_alone_encoder(&stream, &options) : lzma_easy_encoder(&stream, 1, LZMA_CHECK_CRC32)) != LZMA_OK)
        return {};
    stream.next_in = reinterpret_cast<const uint8_t *>(in.data());
    stream.avail_in = in.size();
    stream.next_out = reinterpret_cast<uint8_t *>(out.data());
    stream.avail_out = out.size();
    const bool ended = lzma_code(&stream, LZMA_FINISH) == LZMA_STREAM_END;
    out.resize(ended ? static_cast<size_t>(stream.total_out) : 0);
    lzma_end(&stream);
    return out;
}

inline std::string compress_xz(const std::string &in) { return compress_by_lzma(in, false); }
inline std::string compress_lzma(const std::string &in) { return compress_by_lzma(in, true); }

inline std::string compress_zstd(const std::string &in)
{
    std::string out(ZSTD_compressBound(in.size()), '\0');
    out.resize(ZSTD_compress(out.data(), out.size(), in.data(), in.size(), 3));
    return out;
}

/* The blocks of the old format are of eight megabytes. */
inline std::string compress_lz4(const std::string &in)
{
    std::string out = "\x02\x21\x4c\x18";
    for (size_t at = 0; at < in.size(); at += size_t{8} << 20) {
        const int size = static_cast<int>(std::min(in.size() - at, size_t{8} << 20));
        std::string block(static_cast<size_t>(LZ4_compressBound(size)), '\0');
        const int n = LZ4_compress_default(in.data() + at, block.data(), size, static_cast<int>(block.size()));
        append(out, static_cast<uint32_t>(n));
        out.append(block, 0, static_cast<size_t>(n));
    }
    return out;
}

inline std::string compress_bzip2(const std::string &in)
{
    std::string out(in.size() + in.size() / 100 + 1000, '\0');
    auto size = static_cast<unsigned>(out.size());
    BZ2_bzBuffToBuffCompress(out.data(), &size, const_cast<char *>(in.data()), static_cast<unsigned>(in.size()), 1, 0,
                             0);
    out.resize(size);
    return out;
}

struct Compressor {
    const char *name;
    std::string (*run)(const std::string &);
};
constexpr Compressor kCompressors[] = {{"gzip", compress_gzip}, {"xz", compress_xz},       {"zstd", compress_zstd},
                                       {"lz4", compress_lz4},   {"bzip2", compress_bzip2}, {"lzma", compress_lzma}};

/* Two sectors of set-up code; the payload begins 64 bytes into what follows, with the length of `kernel` behind it. */
constexpr size_t kSetup = 1024, kPayload = 64;

inline std::string make_boot_image(const std::string &packed, size_t unpacked, const std::string &version)
{
    std::string out(kSetup + kPayload, '\0');
    out[0x1f1] = 1;
    put(out, 0x1fe, uint16_t{0xaa55});
    memcpy(out.data() + 0x202, "HdrS", 4);
    put(out, 0x206, uint16_t{0x20f});
    if (!version.empty()) {
        put(out, 0x20e, uint16_t{0x2f0 - 0x200});
        memcpy(out.data() + 0x2f0, version.c_str(), version.size() + 1);
    }
    put(out, 0x248, uint32_t{kPayload});
    put(out, 0x24c, static_cast<uint32_t>(packed.size() + 4));
    out += packed;
    append(out, static_cast<uint32_t>(unpacked));
    return out + "behind";
}

}  // namespace kernel_blobs

#endif
