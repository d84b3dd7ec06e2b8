/* Translation: the whole texts for real kernels, and what every text and every plan must keep to. */
#include "translate.h"

#include <gtest/gtest.h>

#include "kprobe_facts.h"
#include "places.h"

using namespace kprobe;
using namespace kprobe_facts;
using testlib::file_probe;
using testlib::inotify_probe_of;

namespace
{

/* `step` so many times around `inner`: up(2, "+24(", "%si") is "+24(+24(%si))". */
std::string up(int times, const std::string &step, std::string inner)
{
    for (int i = 0; i < times; i++)
        inner = step + inner + ")";
    return inner;
}

/* Names of a 64-bit kernel: the outermost ancestor is recognised by its first word; then short names in words and in an
 * array, where the way through the name pointer is too long, and from the eighth ancestor on through it. */
std::string names64(const std::string &entry)
{
    std::string text = " n11=+56(" + up(11, "+24(", entry) + ")";
    for (int word = 0; word < 4; word++)
        text +=
            " n10_" + std::to_string(word) + "=+" + std::to_string(56 + 8 * word) + "(" + up(10, "+24(", entry) + ")";
    text += " n9=+56(" + up(9, "+24(", entry) + "):x64[4]";
    for (int level = 8; level > 0; level--)
        text += " n" + std::to_string(level) + "=+0(+40(" + up(level, "+24(", entry) + ")):x64[4]";
    return text + " n0=+0(+40(" + entry + ")):x64[8]";
}

std::string names32(const std::string &entry)
{
    std::string text = " n11=+36(" + up(11, "+16(", entry) + ")";
    for (int word = 0; word < 4; word++)
        text += " n10_" + std::to_string(word) + "=+" + std::to_string(36 + 8 * word) + "(" + up(10, "+16(", entry) +
                "):x64";
    text += " n9=+36(" + up(9, "+16(", entry) + "):x64[4]";
    for (int level = 8; level > 0; level--)
        text += " n" + std::to_string(level) + "=+0(+28(" + up(level, "+16(", entry) + ")):x64[4]";
    return text + " n0=+0(+28(" + entry + ")):x64[8]";
}

std::string command_of(const std::string &name, const Facts &facts)
{
    return plan_of(file_probe(facts.is_64, name), facts).command("g", name);
}

bool is_refused(const testlib::ModuleProbe &probe, const Facts &facts)
{
    Plan plan;
    std::string why;
    const bool refused = !translate(parsed(probe), facts, plan, why);
    EXPECT_EQ(refused, why.find("not known") != std::string::npos) << why;
    return refused;
}

struct Kernel {
    const char *name;
    Facts facts;
};
const std::vector<Kernel> kernels = {{"5.10 amd64", amd64_5_10()},
                                     {"6.1 amd64", amd64_6_1()},
                                     {"6.12 amd64", amd64_6_12()},
                                     {"5.10 i386", i386_5_10()},
                                     {"6.1 i386", i386_6_1()}};

}  // namespace

TEST(KprobeTranslate, FileTextsOf64Bits)
{
    for (const Facts &facts : {amd64_5_10(), amd64_6_1()}) {
        const std::string si = " mnt=+16(+104(%si)):u32" + names64("%si"),
                          di = " mnt=+16(+104(%di)):u32" + names64("%di"),
                          cx = " mnt=+16(+104(%cx)):u32" + names64("%cx");
        EXPECT_EQ("p:g/Kc security_inode_create" + si, command_of("Kc", facts));
        EXPECT_EQ("p:g/Ku security_inode_unlink" + si, command_of("Ku", facts));
        EXPECT_EQ("p:g/Km __fsnotify_parent" + di + " m=%si:u32 f=+0(+48(%di)):u16", command_of("Km", facts));
        EXPECT_EQ("p:g/Krf security_inode_rename" + si, command_of("Krf", facts));
        EXPECT_EQ("p:g/Krt security_inode_rename" + cx, command_of("Krt", facts));
        EXPECT_EQ("p:g/Kl security_inode_link" + di, command_of("Kl", facts));
    }
}

TEST(KprobeTranslate, FileTextsOf32Bits)
{
    for (const Facts &facts : {i386_5_10(), i386_6_1()}) {
        const std::string dx = " mnt=+8(+84(%dx)):u32" + names32("%dx"), ax = " mnt=+8(+84(%ax)):u32" + names32("%ax");
        EXPECT_EQ("p:g/Kc security_inode_create" + dx, command_of("Kc", facts));
        EXPECT_EQ("p:g/Ku security_inode_unlink" + dx, command_of("Ku", facts));
        EXPECT_EQ("p:g/Km __fsnotify_parent" + ax + " m=%dx:u32 f=+0(+32(%ax)):u16", command_of("Km", facts));
        EXPECT_EQ("p:g/Krf security_inode_rename" + dx, command_of("Krf", facts));
        /* the hook has the new entry on the stack, which is too far away for the outermost ancestors */
        EXPECT_EQ("p:g/Krt d_move" + dx, command_of("Krt", facts));
        EXPECT_EQ("p:g/Kl security_inode_link" + ax, command_of("Kl", facts));
    }
}

TEST(KprobeTranslate, InotifyTexts)
{
    const struct {
        Facts facts;
        const char *args;
    } rows[] = {
        {amd64_5_10(),
         "i=-504(+16(+56(%di))):u64 w=+72(%di):u32 m=%si:u32 f=+0(+8(%r8)):x64[16] z=%r8:u64 g=+8(%di):u64"},
        {amd64_6_1(),
         "i=-536(+16(+56(%di))):u64 w=+72(%di):u32 m=%si:u32 f=+0(+8(%r8)):x64[16] z=%r8:u64 g=+8(%di):u64"},
        {amd64_6_12(),
         "i=+64(+8(+56(%di))):u64 w=+72(%di):u32 m=%si:u32 f=+0(+8(%r8)):x64[16] z=%r8:u64 g=+8(%di):u64"},
        {i386_5_10(),
         "i=-332(+16(+32(%ax))):u32 w=+44(%ax):u32 m=%dx:u32 f=+0(+8(+8(%sp))):x64[16] z=+8(%sp):u32 g=+8(%ax):u32"},
        {i386_6_1(),
         "i=-352(+16(+32(%ax))):u32 w=+44(%ax):u32 m=%dx:u32 f=+0(+8(+8(%sp))):x64[16] z=+8(%sp):u32 g=+8(%ax):u32"},
    };
    for (const auto &row : rows) {
        const Plan plan = plan_of(inotify_probe_of(row.facts.is_64, row.facts.major, row.facts.minor), row.facts);
        EXPECT_EQ(std::string("p:g/Ki inotify_handle_inode_event ") + row.args, plan.command("g", "Ki"));
        EXPECT_EQ(144u, plan.size);
        EXPECT_TRUE(plan.name_pointer);
        EXPECT_FALSE(plan.by_device);
    }
    Facts plain = i386_5_10();
    plain.arrays = false;
    const Plan plan = plan_of(inotify_probe_of(false, 5, 10), plain);
    ASSERT_EQ(21u, plan.args.size());
    EXPECT_EQ("+8(+8(+8(%sp)))", plan.args[4].place);
    EXPECT_EQ("x64", plan.args[4].type);
    EXPECT_EQ(24u, plan.pieces[4].to);
}

TEST(KprobeTranslate, ShortInotifyNamesStayShort)
{
    const Plan plan = plan_of(inotify_probe_of(true, 2, 6), amd64_6_1());
    EXPECT_EQ(32u, plan.size);
    EXPECT_EQ("x64[2]", plan.args[3].type);
}

/* What the kernel refuses, and what the monitor's records are. */
TEST(KprobeTranslate, LimitsAndRecords)
{
    for (const Kernel &kernel : kernels)
        for (const bool arrays : {true, false})
            for (testlib::ModuleProbe probe : testlib::file_probes(kernel.facts.is_64, "mnt==5")) {
                Facts facts = kernel.facts;
                facts.arrays = arrays;
                const Plan plan = plan_of(probe, facts);
                SCOPED_TRACE(std::string(kernel.name) + " " + probe.name + (arrays ? "" : " without arrays"));
                EXPECT_EQ(probe.name == "Km" ? 426u : 420u, plan.size);
                EXPECT_EQ(Shape::kFile, plan.shape);
                EXPECT_TRUE(plan.by_device);
                EXPECT_EQ(probe.name == "Km", plan.needs_marks);
                EXPECT_LT(plan.command(std::string(63, 'g'), std::string(63, 'e')).size(), 4096u);
                EXPECT_LE(plan.args.size(), 128u);
                for (const FetchArg &arg : plan.args)
                    EXPECT_LE(arg.place.size() + (arg.type.empty() ? 0 : 1 + arg.type.size()), kMaxExpression)
                        << arg.name;
            }
}

/* No byte is written twice, and none is left but behind the outermost ancestor's first word. */
TEST(KprobeTranslate, PiecesTileTheRecord)
{
    for (const Kernel &kernel : kernels)
        for (const bool arrays : {true, false}) {
            Facts facts = kernel.facts;
            facts.arrays = arrays;
            auto probes = testlib::file_probes(facts.is_64);
            probes.push_back(inotify_probe_of(facts.is_64, facts.major, facts.minor));
            for (const testlib::ModuleProbe &probe : probes) {
                SCOPED_TRACE(std::string(kernel.name) + " " + probe.name + (arrays ? "" : " without arrays"));
                const Plan plan = plan_of(probe, facts);
                std::vector<int> written(plan.size);
                for (const Piece &piece : plan.pieces)
                    for (uint32_t i = piece.to; i < piece.to + piece.size; i++) {
                        ASSERT_LT(i, plan.size) << piece.arg;
                        written[i]++;
                    }
                const auto word = static_cast<uint32_t>(facts.word());
                for (uint32_t i = 0; i < plan.size; i++) {
                    const bool outermost = plan.shape == Shape::kFile && i >= 4 + word && i < 4 + kAncestorSize;
                    ASSERT_EQ(outermost ? 0 : 1, written[i]) << i;
                }
            }
        }
}

TEST(KprobeTranslate, WithoutHooks)
{
    const Facts facts = without(amd64_6_1(), "security_");
    EXPECT_EQ("p:g/Krf d_move mnt=+16(+104(%di)):u32" + names64("%di"), command_of("Krf", facts));
    EXPECT_EQ("p:g/Krt d_move mnt=+16(+104(%si)):u32" + names64("%si"), command_of("Krt", facts));
    EXPECT_EQ("p:g/Kl vfs_link mnt=+16(+104(%di)):u32" + names64("%di"), command_of("Kl", facts));
    for (const char *name : {"Kc", "Ku"})
        EXPECT_TRUE(is_refused(file_probe(true, name), facts)) << "nobody knows which argument it is there";
}

TEST(KprobeTranslate, Before49CreationsAreAskedForElsewhere)
{
    const auto probes = testlib::file_probes(true, "", true);
    EXPECT_EQ("vfs_create", probes[0].point);
    EXPECT_EQ("security_inode_create", plan_of(probes[0], amd64_6_1()).point);
}

TEST(KprobeTranslate, WhereALayoutIsUnknownNothingIsPlaced)
{
    Facts no_layout = amd64_5_10(), no_mark = amd64_5_10(), no_group = amd64_5_10(), no_file = amd64_5_10();
    no_layout.dentry.s_dev = kUnknown;
    no_mark.mark.object = kUnknown;
    no_group.mark.group = kUnknown;
    no_file.mark.file_group = kUnknown;
    EXPECT_TRUE(is_refused(file_probe(true, "Km"), no_layout));
    EXPECT_TRUE(is_refused(file_probe(true, "Kc"), no_layout));
    for (const Facts &facts : {no_mark, no_group, no_file, without(amd64_5_10(), "inotify_")}) {
        EXPECT_FALSE(can_watch_inotify(facts));
        EXPECT_TRUE(is_refused(inotify_probe_of(true, 5, 10), facts));
    }
    EXPECT_TRUE(can_watch_inotify(amd64_5_10()));
}

TEST(KprobeTranslate, KernelsThatHandThePathOnBeforeTheEntry)
{
    Facts facts = amd64_5_10();
    facts.new_parent = false;
    EXPECT_EQ("p:g/Km __fsnotify_parent mnt=+16(+104(%si)):u32" + names64("%si") + " m=%dx:u32 f=+0(+48(%si)):u16",
              command_of("Km", facts));
}

TEST(KprobeTranslate, OtherDefinitionsAsWritten)
{
    const Plan plan = plan_of({"do_exit", "Kx", "a=%di b=+8(%si):u16 c=\\7:u8 d=%sp:s64", ""}, i386_6_1());
    EXPECT_EQ("p:g/Kx do_exit a=%di b=+8(%si):u16 c=\\7:u8 d=%sp:s64", plan.command("g", "Kx"));
    EXPECT_EQ(15u, plan.size);
    EXPECT_EQ(Shape::kOther, plan.shape);
    ASSERT_EQ(4u, plan.pieces.size());
    EXPECT_EQ(4u, plan.pieces[1].to);
    EXPECT_EQ(7u, plan.pieces[3].to);

    Plan none;
    std::string why;
    EXPECT_FALSE(translate(parsed({"do_exit", "Kx", "a=+0(%di):string", ""}), i386_6_1(), none, why));
    EXPECT_NE(std::string::npos, why.find("string")) << why;
}

TEST(KprobeTranslate, AFileRecordAtAnUnknownFunctionIsRefused)
{
    testlib::ModuleProbe probe = file_probe(true, "Kc");
    probe.point = "vfs_mkdir";
    EXPECT_TRUE(is_refused(probe, amd64_6_1()));
}
