/* Tests of offsets.h and kernel_image.h: structure offsets from kernel images, whole and damaged. */

#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>

#include "cli/offsets/decompress.h"
#include "cli/offsets/kernel_image.h"
#include "cli/offsets/offsets.h"
#include "cli/offsets/offsets_options.h"
#include "kernel_blobs.h"
#include "unit/agent/agent_testing.h"
#include "unit/cli/parse.h"

using namespace agent;
using namespace cli;
using namespace kernel_blobs;

namespace
{

/* The whole way from a file's bytes; empty: refused with a reason. */
std::string section_of(const std::string &bytes, std::string *why = nullptr)
{
    KernelImage image;
    Offsets offsets;
    std::string error, machine;
    const bool known = read_kernel_image(bytes, image, error) && !image.btf.empty() &&
                       find_offsets(image.btf, offsets, machine, error);
    if (why)
        *why = error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    if (!known)
        return "";
    EXPECT_TRUE(error.empty()) << error;
    EXPECT_LT(offsets.s_mounts, 4096);
    EXPECT_LT(offsets.mnt_id, 4096);
    const std::string name = section_name(image.release, image.machine.empty() ? machine : image.machine);
    return section_text(name, offsets);
}

constexpr char kSection[] = "[6.1.0-37-x86_64]\ns_mounts_offset = 224\nmnt_id_offset = 172\n";

std::string reason_for(const std::string &bytes)
{
    std::string why;
    EXPECT_EQ("", section_of(bytes, &why));
    return why;
}

void expect_has(const std::string &text, const char *part)
{
    EXPECT_NE(text.find(part), std::string::npos) << "no '" << part << "' in: " << text;
}

bool offsets_of(const std::string &btf, Offsets &out, std::string &machine)
{
    std::string error;
    const bool found = find_offsets(btf, out, machine, error);
    EXPECT_EQ(found, error.empty()) << error;
    return found;
}

cli_testing::Parsed<OffsetsOptions> parse_arguments(std::vector<std::string> arguments)
{
    return cli_testing::parse(kOffsets, std::move(arguments));
}

}  // namespace

TEST(CliOffsets, SectionNames)
{
    const struct {
        const char *release, *machine, *name;
    } rows[] = {
        {"6.1.0-37-amd64", "x86_64", "6.1.0-37-x86_64"},
        {"5.10.0-32-cloud-amd64", "x86_64", "5.10.0-32-x86_64"},
        {"5.10.0-32-686", "i686", "5.10.0-32-i686"},
        {"3.10.0-1160.el7.x86_64", "i386", "3.10.0-1160-i386"},
        {"4.9.337-1-x", "x86_64", "4.9.81-1-x86_64"},  // the monitor keeps eight bits of each
        {"6.12.107+deb13-cloud-amd64", "x86_64", ""},
        {"6.18.44-fc-v669", "x86_64", ""},
        {"6.1", "x86_64", ""},
        {"", "x86_64", ""},
        {"6.1.0-37-arm64", "aarch64", ""},
    };
    for (const auto &row : rows)
        EXPECT_EQ(section_name(row.release, row.machine), row.name) << row.release;
}

TEST(CliOffsets, MountsInAList)
{
    Offsets offsets;
    std::string machine;
    ASSERT_TRUE(offsets_of(make_btf(), offsets, machine));
    EXPECT_EQ((Offsets{224, 172}), offsets);
    EXPECT_EQ("x86_64", machine);
    ASSERT_TRUE(
        offsets_of(make_btf({.s_mounts = 128, .mnt_instance = 60, .mnt_id = 148, .word = 4}), offsets, machine));
    EXPECT_EQ((Offsets{128, 88}), offsets);
    EXPECT_EQ("i686", machine);
}

TEST(CliOffsets, MountsBehindAPointer)
{
    Offsets offsets;
    std::string machine;
    ASSERT_TRUE(offsets_of(make_btf({.s_mounts = 200, .mnt_id = 308, .list = false}), offsets, machine));
    EXPECT_EQ((Offsets{200, 308}), offsets);
}

TEST(CliOffsets, TypesThatAreNoKernels)
{
    Offsets offsets;
    std::string machine;
    EXPECT_FALSE(offsets_of("", offsets, machine));
    BtfMaker nothing;
    nothing.structure("list_head", {});
    EXPECT_FALSE(offsets_of(nothing.bytes(), offsets, machine));
    // An id before the link, and offsets that no structure has.
    EXPECT_FALSE(offsets_of(make_btf({.mnt_instance = 300, .mnt_id = 292}), offsets, machine));
    EXPECT_FALSE(offsets_of(make_btf({.s_mounts = 1u << 20}), offsets, machine));
    // A list of another kind, and a pointer to something else: not what the monitor can follow.
    for (const bool pointer : {false, true}) {
        BtfMaker btf;
        const uint32_t other = btf.structure("hlist_head", {{"first", 0, 0}});
        btf.structure("mount", {{"mnt_id", 0, 308}});
        btf.structure("super_block", {{"s_mounts", pointer ? btf.pointer(other) : other, 224}});
        EXPECT_FALSE(offsets_of(btf.bytes(), offsets, machine));
    }
}

// A structure made of itself sixty thousand times, eight levels deep.
TEST(CliOffsets, TypesWithoutEnd)
{
    BtfMaker btf;
    btf.structure("super_block", std::vector<Member>(60000, {"", 1, 0}));
    btf.structure("mount", std::vector<Member>(60000, {"", 2, 0}));
    Offsets offsets;
    std::string machine;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(offsets_of(btf.bytes(), offsets, machine));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(CliOffsets, Vmlinux)
{
    EXPECT_EQ(kSection, section_of(make_elf(make_btf())));
    EXPECT_EQ("[6.1.0-37-i686]\ns_mounts_offset = 128\nmnt_id_offset = 88\n",
              section_of(make_elf(make_btf({.s_mounts = 128, .mnt_instance = 60, .mnt_id = 148, .word = 4}), false)));
    KernelImage image;
    std::string error;
    ASSERT_TRUE(read_kernel_image(make_elf(""), image, error)) << error;
    EXPECT_EQ("", image.btf);
    EXPECT_EQ("6.1.0-37-amd64", image.release);
    EXPECT_EQ("x86_64", image.machine);
    ASSERT_TRUE(read_kernel_image(make_elf("", true, "nothing"), image, error));
    EXPECT_EQ("", image.release);
}

TEST(CliOffsets, VmlinuxOfAnotherMachine)
{
    std::string elf = make_elf(make_btf());
    put(elf, offsetof(Elf64_Ehdr, e_machine), uint16_t{EM_AARCH64});
    expect_has(reason_for(elf), "no program of x86_64 or i386");
    elf = make_elf(make_btf());
    elf[EI_DATA] = ELFDATA2MSB;
    expect_has(reason_for(elf), "no program of x86_64 or i386");
}

TEST(CliOffsets, VmlinuxWithALyingSectionTable)
{
    const std::string good = make_elf(make_btf());
    const auto with = [&](size_t at, auto value) {
        std::string elf = good;
        put(elf, at, value);
        return elf;
    };
    constexpr char kReason[] = "section table leads out of the file";
    expect_has(reason_for(with(offsetof(Elf64_Ehdr, e_shoff), UINT64_MAX)), kReason);
    expect_has(reason_for(with(offsetof(Elf64_Ehdr, e_shoff), UINT64_MAX - 255)), kReason);
    expect_has(reason_for(with(offsetof(Elf64_Ehdr, e_shnum), uint16_t{0xffff})), kReason);
    expect_has(reason_for(with(offsetof(Elf64_Ehdr, e_shstrndx), uint16_t{4})), kReason);
    expect_has(reason_for(with(offsetof(Elf64_Ehdr, e_shentsize), uint16_t{1})), kReason);
    const auto table = [&](size_t section, size_t field) {
        return good.size() - (4 - section) * sizeof(Elf64_Shdr) + field;
    };
    expect_has(reason_for(with(table(2, offsetof(Elf64_Shdr, sh_size)), UINT64_MAX)), kReason);
    expect_has(reason_for(with(table(3, offsetof(Elf64_Shdr, sh_offset)), uint64_t{1} << 63)), kReason);
    expect_has(reason_for(with(table(3, offsetof(Elf64_Shdr, sh_size)), uint64_t{8})), "truncated or damaged");
    EXPECT_EQ("", section_of(with(table(3, offsetof(Elf64_Shdr, sh_name)), UINT32_MAX)));
}

TEST(CliOffsets, VmlinuzInEveryCompression)
{
    const std::string kernel = make_elf(make_btf());
    for (const Compressor &compressor : kCompressors) {
        const std::string packed = compressor.run(kernel);
        EXPECT_STREQ(compression_of(packed), compressor.name);
        EXPECT_EQ(kSection, section_of(make_boot_image(packed, kernel.size(), "6.1.0-37-amd64 (us) #1")))
            << compressor.name;
        EXPECT_EQ(kSection, section_of(make_boot_image(packed, kernel.size(), ""))) << compressor.name;
        EXPECT_EQ(kSection, section_of(packed)) << compressor.name;
    }
    EXPECT_EQ(kSection, section_of(make_boot_image(kernel, kernel.size(), "")));
}

// The head's word on the release counts before the greeting's.
TEST(CliOffsets, VmlinuzRelease)
{
    const std::string packed = compress_zstd(make_elf(make_btf()));
    expect_has(section_of(make_boot_image(packed, 0, "5.10.0-9-amd64 (us)")), "[5.10.0-9-x86_64]");
    EXPECT_EQ(kSection, section_of(make_boot_image(packed, 0, std::string(100, '6'))));
    std::string image = make_boot_image(packed, 0, "5.10.0-9-amd64 (us)");
    put(image, 0x20e, uint16_t{0xffff});
    EXPECT_EQ(kSection, section_of(image));
}

TEST(CliOffsets, VmlinuzThatLies)
{
    const std::string packed = compress_gzip(make_elf(make_btf())), good = make_boot_image(packed, 0, "");
    const auto with = [&](size_t at, auto value) {
        std::string image = good;
        put(image, at, value);
        return image;
    };
    expect_has(reason_for(with(0x206, uint16_t{0x207})), "older than");
    expect_has(reason_for(with(0x248, UINT32_MAX)), "behind the end of the file");
    expect_has(reason_for(with(0x24c, UINT32_MAX)), "behind the end of the file");
    expect_has(reason_for(with(0x1f1, uint8_t{255})), "behind the end of the file");
    expect_has(reason_for(with(0x248, uint32_t{0})), "compressed in a way that is not known");
    expect_has(reason_for(with(0x24c, uint32_t{100})), "(gzip) is truncated or damaged");
    expect_has(reason_for(make_boot_image(compress_xz("no kernel"), 0, "")), "is no kernel");
    expect_has(reason_for(make_boot_image(compress_xz(good), 0, "")), "is no kernel");
}

TEST(CliOffsets, OtherFiles)
{
    for (const std::string &text : {std::string(), std::string("text"), std::string(5000, '\0')})
        expect_has(reason_for(text), "no vmlinuz of a PC, no vmlinux and no BTF");
    expect_has(reason_for(compress_bzip2("text")), "no vmlinuz of a PC, no vmlinux and no BTF");
    KernelImage image;
    std::string error;
    ASSERT_TRUE(read_kernel_image(make_btf(), image, error));
    EXPECT_EQ(image.btf, make_btf());
    EXPECT_EQ("", image.release + image.machine);
}

TEST(CliOffsets, MoreComesOutThanMay)
{
    const std::string much(20 << 20, 'x');
    std::string out;
    for (const Compressor &compressor : kCompressors) {
        const std::string packed = compressor.run(much);
        EXPECT_EQ(Unpacked::kTooLong, decompress(packed, much.size() - 1, out)) << compressor.name;
        ASSERT_EQ(Unpacked::kDone, decompress(packed, much.size(), out)) << compressor.name;
        EXPECT_EQ(out, much) << compressor.name;
    }
    EXPECT_EQ(Unpacked::kUnknown, decompress("PK", 1 << 20, out));
    // A dictionary of two gigabytes.
    EXPECT_EQ(Unpacked::kTooLong,
              decompress(std::string("\x5d\0\0\0\x80\xff\xff\xff\xff\xff\xff\xff\xff", 13) + std::string(64, '\0'),
                         1 << 20, out));
}

// Room is made as it is needed: most files that are looked at are no kernels, or broken ones.
TEST(CliOffsets, LittleTakesLittleRoom)
{
    for (const Compressor &compressor : kCompressors) {
        std::string out;
        ASSERT_EQ(Unpacked::kDone, decompress(compressor.run("little"), kMaxKernelImage, out)) << compressor.name;
        EXPECT_EQ("little", out);
        EXPECT_LE(out.capacity(), size_t{64} << 10) << compressor.name;
    }
}

TEST(CliOffsets, CutOffAnywhere)
{
    const std::string kernel = make_elf(make_btf());
    std::string why;
    for (const Compressor &compressor : kCompressors) {
        const std::string packed = compressor.run(kernel), image = make_boot_image(packed, kernel.size(), "");
        for (size_t size = 0; size < kSetup + kPayload + packed.size() + 4; size += size < 1024 ? 13 : 1)
            EXPECT_EQ("", section_of(image.substr(0, size), &why)) << compressor.name << " " << size;
        // Bytes behind the end do not matter to the reader of a compressed vmlinux, but a cut does.
        for (size_t size = 0; size + 32 < packed.size(); size++)
            EXPECT_EQ("", section_of(packed.substr(0, size), &why)) << compressor.name << " " << size;
    }
    for (size_t size = 0; size < kernel.size(); size++)
        EXPECT_EQ("", section_of(kernel.substr(0, size), &why)) << size;
}

// Whatever is in it: an answer or a reason, and nothing that a sanitizer finds.
TEST(CliOffsets, DamagedAnyhow)
{
    std::mt19937 random(20261121);
    const std::string kernel = make_elf(make_btf());
    std::vector<std::string> samples = {make_btf(), kernel, make_elf(make_btf({.word = 4}), false)};
    for (const Compressor &compressor : kCompressors)
        samples.push_back(make_boot_image(compressor.run(kernel), kernel.size(), "6.1.0-37-amd64 (us)"));
    int answers = 0, reasons = 0;
    for (int round = 0; round < 6000; round++) {
        std::string bytes = samples[round % samples.size()];
        for (unsigned i = 0, n = random() % 4 + 1; i < n; i++) {
            // Numbers at the edges of their range, most often where the head is.
            const size_t at = random() % (random() % 2 ? std::min<size_t>(bytes.size(), 0x260) : bytes.size());
            constexpr uint8_t kEdges[] = {0, 1, 0x7f, 0x80, 0xff};
            bytes[at] = static_cast<char>(random() % 2 ? kEdges[random() % 5] : random());
        }
        if (random() % 8 == 0)
            bytes.resize(random() % bytes.size());
        std::string why;
        (section_of(bytes, &why).empty() ? reasons : answers)++;
    }
    EXPECT_GT(answers, 100);
    EXPECT_GT(reasons, 100);
}

TEST(CliOffsets, Files)
{
    agent_testing::Directory directory;
    std::string out, error;
    EXPECT_FALSE(read_whole_file(directory.path("none"), 100, out, error));
    expect_has(error, "No such file");
    EXPECT_FALSE(read_whole_file(directory.root(), 100, out, error));
    expect_has(error, "no regular file");
    ASSERT_EQ(0, mkfifo(directory.path("pipe").c_str(), 0600));
    EXPECT_FALSE(read_whole_file(directory.path("pipe"), 100, out, error));
    expect_has(error, "no regular file");
    const std::string text(3 << 20, 'a');
    const std::string file = directory.file("file", text);
    ASSERT_TRUE(read_whole_file(file, text.size(), out, error)) << error;
    EXPECT_EQ(out, text);
    EXPECT_FALSE(read_whole_file(file, text.size() - 1, out, error));
    expect_has(error, "longer than");
    ASSERT_TRUE(read_whole_file("/proc/self/status", 1 << 20, out, error));
    expect_has(out, "CapEff:");
    KernelImage image;
    EXPECT_FALSE(load_kernel_image(file, image, error));
    EXPECT_EQ(0u, error.rfind(file + ": it is no ", 0)) << error;
}

TEST(CliOffsets, Arguments)
{
    EXPECT_TRUE(parse_arguments({}).ok);
    EXPECT_EQ("", parse_arguments({}).options.file);
    const auto all = parse_arguments({"--release", "6.1.0-1", "-f", "json", "kernel"});
    EXPECT_TRUE(all.ok);
    EXPECT_EQ("6.1.0-1", all.options.release);
    EXPECT_EQ("kernel", all.options.file);
    EXPECT_TRUE(all.options.json);
    EXPECT_TRUE(parse_arguments({"--help", "a", "b"}).options.help);
    expect_has(parse_arguments({"a", "b"}).error, "only one FILE");
    expect_has(parse_arguments({""}).error, "empty");
    expect_has(parse_arguments({"-f", "xml"}).error, "text or json, not 'xml'");
    expect_has(parse_arguments({"--release"}).error, "--release needs a value");
    expect_has(parse_arguments({"--what"}).error, "unknown option '--what'");
    expect_has(parse_arguments({"-x"}).error, "unknown option '-x': see fmon offsets --help");
}
