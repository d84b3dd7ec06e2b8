#include "kernel_image.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "decompress.h"

namespace cli
{

namespace
{

using namespace std::string_view_literals;

constexpr std::string_view kBtfMagic = "\x9f\xeb"sv, kSetupMagic = "HdrS", kBanner = "Linux version ";
constexpr size_t kMaxRelease = 64; /* of struct utsname, with its NUL */

/* The head of a bzImage, from the kernel's boot protocol for x86. */
enum : size_t {
    kSetupSectors = 0x1f1,
    kBootFlag = 0x1fe,
    kHeaderMagic = 0x202,
    kProtocol = 0x206,
    kVersionText = 0x20e, /* less 0x200 */
    kPayloadOffset = 0x248,
    kPayloadLength = 0x24c,
    kSector = 512,
};
constexpr uint16_t kBootable = 0xaa55, kFirstWithPayload = 0x208;

// Zeros where the bytes end before: no magic number is zero.
template <typename T>
T value_at(std::string_view bytes, size_t at)
{
    T value = {};
    if (at <= bytes.size() && bytes.size() - at >= sizeof value)
        memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

// False: not all of it lies within the bytes.
bool cut(std::string_view bytes, uint64_t offset, uint64_t length, std::string_view &out)
{
    if (offset > bytes.size() || length > bytes.size() - offset)
        return false;
    out = bytes.substr(static_cast<size_t>(offset), static_cast<size_t>(length));
    return true;
}

bool starts_with(std::string_view text, std::string_view start) { return text.substr(0, start.size()) == start; }

// The release at the beginning of a version text; empty: none can be like that.
std::string first_word(std::string_view text)
{
    size_t n = 0;
    while (n < text.size() && n < kMaxRelease && isgraph(static_cast<unsigned char>(text[n])))
        n++;
    return n < kMaxRelease ? std::string(text.substr(0, n)) : std::string();
}

// From the kernel's greeting at boot; other texts of the image that begin like it do not go on with a digit.
std::string find_release(std::string_view image)
{
    for (size_t at = 0; (at = image.find(kBanner, at)) != std::string_view::npos;) {
        at += kBanner.size();
        if (at < image.size() && isdigit(static_cast<unsigned char>(image[at])))
            return first_word(image.substr(at, kMaxRelease));
    }
    return {};
}

// What the section ".BTF" holds; nothing where there is none. False: the tables do not lie within the file.
template <typename Header, typename Section>
bool find_btf(std::string_view elf, std::string_view &out)
{
    const auto header = value_at<Header>(elf, 0);
    if (header.e_shnum == 0)
        return true;
    std::string_view table, names;
    if (header.e_shentsize != sizeof(Section) || header.e_shstrndx >= header.e_shnum ||
        !cut(elf, header.e_shoff, uint64_t{header.e_shnum} * sizeof(Section), table))
        return false;
    const auto strings = value_at<Section>(table, header.e_shstrndx * sizeof(Section));
    if (!cut(elf, strings.sh_offset, strings.sh_size, names))
        return false;
    for (size_t i = 0; i < header.e_shnum; i++) {
        const auto section = value_at<Section>(table, i * sizeof(Section));
        if (section.sh_type != SHT_NOBITS && section.sh_name < names.size() &&
            starts_with(names.substr(section.sh_name), ".BTF\0"sv))
            return cut(elf, section.sh_offset, section.sh_size, out);
    }
    return true;
}

bool read_elf(std::string_view elf, KernelImage &out, std::string &error)
{
    const auto type = value_at<unsigned char>(elf, EI_CLASS), order = value_at<unsigned char>(elf, EI_DATA);
    const auto machine = value_at<uint16_t>(elf, offsetof(Elf64_Ehdr, e_machine));  // the same place in 32 bits
    const bool is_64 = type == ELFCLASS64 && machine == EM_X86_64, is_32 = type == ELFCLASS32 && machine == EM_386;
    if (order != ELFDATA2LSB || (!is_64 && !is_32)) {
        error = "it is no program of x86_64 or i386, the machines that the monitor's probes know";
        return false;
    }
    std::string_view btf;
    if (!(is_64 ? find_btf<Elf64_Ehdr, Elf64_Shdr>(elf, btf) : find_btf<Elf32_Ehdr, Elf32_Shdr>(elf, btf))) {
        error = "its section table leads out of the file: it is truncated or damaged";
        return false;
    }
    out.btf = btf;
    out.machine = is_64 ? "x86_64" : "i686";
    if (out.release.empty())
        out.release = find_release(elf);
    return true;
}

bool unpack(std::string_view packed, std::string &out, std::string &error)
{
    switch (decompress(packed, kMaxKernelImage, out)) {
        case Unpacked::kDone:
            return true;
        case Unpacked::kUnknown:
            error = "the kernel in it is compressed in a way that is not known";
            return false;
        case Unpacked::kTooLong:
            error = "what is compressed in it is longer than 1 GiB, or asks for too much memory";
            return false;
        case Unpacked::kBroken:
            break;
    }
    error = std::string("what is compressed in it (") + compression_of(packed) + ") is truncated or damaged";
    return false;
}

bool is_elf(std::string_view bytes) { return starts_with(bytes, "\177ELF"sv); }

bool is_boot_image(std::string_view bytes)
{
    return value_at<uint16_t>(bytes, kBootFlag) == kBootable && bytes.size() > kHeaderMagic &&
           starts_with(bytes.substr(kHeaderMagic), kSetupMagic);
}

bool read_boot_image(std::string_view image, KernelImage &out, std::string &error)
{
    if (value_at<uint16_t>(image, kProtocol) < kFirstWithPayload) {
        error = "it is older than Linux 2.6.26, and such kernels have no probes";
        return false;
    }
    const size_t sectors = value_at<unsigned char>(image, kSetupSectors);
    const size_t setup = ((sectors ? sectors : 4) + 1) * kSector;
    const size_t version = value_at<uint16_t>(image, kVersionText);
    if (version != 0 && version + kSector < std::min(setup, image.size()))
        out.release = first_word(image.substr(version + kSector, kMaxRelease));
    std::string_view packed;
    if (!cut(image, setup + uint64_t{value_at<uint32_t>(image, kPayloadOffset)},
             value_at<uint32_t>(image, kPayloadLength), packed)) {
        error = "the kernel in it goes on behind the end of the file: it is truncated or damaged";
        return false;
    }
    std::string kernel;
    if (!is_elf(packed)) {
        if (!unpack(packed, kernel, error))
            return false;
        packed = kernel;
    }
    if (!is_elf(packed)) {
        error = "what is compressed in it is no kernel";
        return false;
    }
    return read_elf(packed, out, error);
}

struct Descriptor {
    int fd;
    ~Descriptor()
    {
        if (fd >= 0)
            close(fd);
    }
};

}  // namespace

bool read_kernel_image(std::string bytes, KernelImage &out, std::string &error)
{
    out = {};
    if (is_boot_image(bytes))
        return read_boot_image(bytes, out, error);
    if (compression_of(bytes)) {
        std::string plain;
        if (!unpack(bytes, plain, error))
            return false;
        bytes = std::move(plain);
    }
    if (is_elf(bytes))
        return read_elf(bytes, out, error);
    if (!starts_with(bytes, kBtfMagic)) {
        error = "it is no vmlinuz of a PC, no vmlinux and no BTF";
        return false;
    }
    out.btf = std::move(bytes);
    return true;
}

// Files of /sys and /proc report no length, or a wrong one: what counts is where they end.
bool read_whole_file(const std::string &path, size_t limit, std::string &out, std::string &error)
{
    const Descriptor file = {open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
    struct stat st;
    if (file.fd < 0 || fstat(file.fd, &st) != 0) {
        error = strerror(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        error = "it is no regular file";
        return false;
    }
    constexpr size_t kPiece = size_t{1} << 20;
    size_t done = 0;
    ssize_t n;
    do {
        out.resize(done + std::clamp<size_t>(static_cast<size_t>(st.st_size) - done + 1, 4096, kPiece));
        while ((n = read(file.fd, out.data() + done, out.size() - done)) < 0 && errno == EINTR)
            continue;
        done += n > 0 ? static_cast<size_t>(n) : 0;
    } while (n > 0 && done <= limit);
    out.resize(done);
    if (n < 0)
        error = strerror(errno);
    else if (done > limit)
        error = "it is longer than " + std::to_string(limit >> 20) + " MiB";
    return n >= 0 && done <= limit;
}

bool load_kernel_image(const std::string &path, KernelImage &out, std::string &error)
{
    std::string bytes;
    if (read_whole_file(path, kMaxKernelImage, bytes, error) && read_kernel_image(std::move(bytes), out, error))
        return true;
    error = path + ": " + error;
    return false;
}

}  // namespace cli
