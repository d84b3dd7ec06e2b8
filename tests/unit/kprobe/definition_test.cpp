/* Definitions taken apart: the monitor's own, and what is none. */
#include "definition.h"

#include <gtest/gtest.h>

#include <cstring>

#include "kprobe_facts.h"

using namespace kprobe;
using kprobe_facts::parsed;
using testlib::file_probe;
using testlib::inotify_probe_of;
using testlib::ModuleProbe;

namespace
{

bool accepts(const ModuleProbe &probe)
{
    Definition def;
    return parse_definition(probe.record(), def);
}

std::string with(std::string text, const std::string &old, const std::string &instead)
{
    const size_t at = text.find(old);
    EXPECT_NE(std::string::npos, at) << old;
    return at == std::string::npos ? text : text.replace(at, old.size(), instead);
}

}  // namespace

TEST(KprobeDefinition, FileProbesOf64Bits)
{
    const char *const entries[] = {"%si", "%si", "%si", "%si", "%cx", "%di"};
    const auto probes = testlib::file_probes(true, "mnt==5");
    ASSERT_EQ(6u, probes.size());
    for (size_t i = 0; i < probes.size(); i++) {
        const Definition def = parsed(probes[i]);
        EXPECT_EQ(Shape::kFile, def.shape) << probes[i].name;
        EXPECT_EQ(entries[i], def.dentry) << probes[i].name;
        EXPECT_EQ(probes[i].point, def.point);
        EXPECT_EQ(probes[i].name, def.name);
        EXPECT_EQ("mnt==5", def.filter);
        const bool closes = probes[i].name == "Km";
        EXPECT_EQ(closes ? 55u : 53u, def.args.size()) << probes[i].name;
        EXPECT_EQ(closes ? 2u : 0u, def.more.size()) << probes[i].name;
    }
}

TEST(KprobeDefinition, FileProbesOf32Bits)
{
    const char *const entries[] = {"%dx", "%dx", "%dx", "%dx", "+4(%sp)", "%ax"};
    const auto probes = testlib::file_probes(false);
    for (size_t i = 0; i < probes.size(); i++) {
        const Definition def = parsed(probes[i]);
        EXPECT_EQ(Shape::kFile, def.shape) << probes[i].name;
        EXPECT_EQ(entries[i], def.dentry) << probes[i].name;
        EXPECT_EQ(probes[i].name == "Km" ? 59u : 57u, def.args.size()) << probes[i].name;
    }
}

TEST(KprobeDefinition, WhatTheCloseProbeAsksForBesides)
{
    const Definition def = parsed(file_probe(true, "Km"));
    ASSERT_EQ(2u, def.more.size());
    EXPECT_EQ("m", def.more[0].name);
    EXPECT_EQ("%dx", def.more[0].place);
    EXPECT_EQ("u32", def.more[0].type);
    EXPECT_EQ("f", def.more[1].name);
    EXPECT_EQ("+0(+48(%si))", def.more[1].place);
    EXPECT_EQ("u16", def.more[1].type);
}

TEST(KprobeDefinition, InotifyProbesOfAllKinds)
{
    const struct {
        bool is_64;
        int major, minor;
        size_t names; /* words of eight bytes */
    } rows[] = {{true, 6, 1, 16}, {false, 5, 10, 16}, {true, 3, 2, 16}, {true, 2, 6, 2}, {false, 2, 6, 2}};
    for (const auto &row : rows) {
        const Definition def = parsed(inotify_probe_of(row.is_64, row.major, row.minor));
        EXPECT_EQ(Shape::kInotify, def.shape) << row.major << "." << row.minor;
        EXPECT_EQ(3 + row.names, def.args.size()) << row.major << "." << row.minor;
        EXPECT_TRUE(def.dentry.empty());
    }
}

TEST(KprobeDefinition, OtherFieldsMakeAnotherShape)
{
    const std::string fetch = file_probe(true, "Kc").fetch;
    /* a field missing, a field too many, another order, a mount that is no three steps away */
    for (const std::string &text :
         {with(fetch, " g2=", " x2="), with(fetch, " l0=", " m0=0 l0="), with(fetch, "mnt=", "mount="),
          with(fetch, "+172(+192(+104(%si)))", "+192(+104(%si))"), std::string("mnt=%di")}) {
        const Definition def = parsed({"vfs_link", "K", text, ""});
        EXPECT_EQ(Shape::kOther, def.shape) << text.substr(0, 60);
        EXPECT_FALSE(def.args.empty());
        EXPECT_TRUE(def.dentry.empty()) << text.substr(0, 60);
    }
    EXPECT_EQ(Shape::kOther, parsed({"vfs_link", "K", "i=%di w=%si m=%dx", ""}).shape);
    EXPECT_EQ(Shape::kInotify, parsed({"vfs_link", "K", "i=%di w=%si m=%dx f0=%cx", ""}).shape);
}

TEST(KprobeDefinition, BracketsThatDoNotMatch)
{
    const std::string fetch = file_probe(true, "Kc").fetch, mount = "+172(+192(+104(%si)))";
    for (const char *text : {"+172(+192(+104(%si))", "+172(+192(+104(%si", ")+172(+192(", "()", "(((", ")))", "+1()"}) {
        const Definition def = parsed({"vfs_link", "K", with(fetch, mount, text), ""});
        EXPECT_EQ(Shape::kOther, def.shape) << text;
        EXPECT_EQ(53u, def.args.size()) << text; /* for the kernel to judge */
    }
    /* one closing bracket too many is part of the entry's place */
    EXPECT_EQ("%si)", parsed({"vfs_link", "K", with(fetch, mount, mount + ")"), ""}).dentry);
}

TEST(KprobeDefinition, TextsThatAreNone)
{
    for (const char *text : {"a", "=", "=%di", "a=", "a=:u32", "a=%di:", "1a=%di", "a-b=%di", "a=%di b", "a b=%di"}) {
        std::vector<FetchArg> args;
        EXPECT_FALSE(parse_fetch(text, args)) << text;
        EXPECT_FALSE(accepts({"vfs_link", "K", text, ""})) << text;
    }
}

TEST(KprobeDefinition, BlanksDoNotMatter)
{
    std::vector<FetchArg> args;
    ASSERT_TRUE(parse_fetch("  a=%di   b=+8(%si):u16 ", args));
    ASSERT_EQ(2u, args.size());
    EXPECT_EQ("+8(%si)", args[1].place);
    EXPECT_EQ("u16", args[1].type);
    EXPECT_TRUE(parse_fetch("", args));
    EXPECT_TRUE(args.empty());
    EXPECT_TRUE(parse_fetch("   ", args));
}

TEST(KprobeDefinition, NamesAndPoints)
{
    for (const char *name : {"", "1", "a b", "a/b", "a:b", "..", "a\n", "\xc3\xa4"}) {
        EXPECT_FALSE(accepts({"vfs_link", name, "a=%di", ""})) << name;
        EXPECT_FALSE(accepts({name, "K", "a=%di", ""})) << name;
    }
    EXPECT_TRUE(accepts({"vfs_link", "_a9", "a=%di", ""}));
}

TEST(KprobeDefinition, NamesThatFillTheirFields)
{
    const std::string fetch = "a=%di";
    kp_probe_def record = {};
    record.kind = 'p';
    memset(record.point, 'p', sizeof(record.point));
    memset(record.name, 'n', sizeof(record.name));
    record.fetch.u = reinterpret_cast<uintptr_t>(fetch.c_str());
    Definition def;
    ASSERT_TRUE(parse_definition(record, def));
    EXPECT_EQ(std::string(64, 'p'), def.point);
    EXPECT_EQ(std::string(64, 'n'), def.name);
    EXPECT_EQ("", def.filter);
}

TEST(KprobeDefinition, RecordsWithoutWhatIsNeeded)
{
    const ModuleProbe probe = file_probe(true, "Kc", "mnt==1");
    Definition def;
    kp_probe_def record = probe.record();
    record.fetch.u = 0;
    EXPECT_FALSE(parse_definition(record, def));
    for (const char kind : {'r', 'P', '\0'}) {
        record = probe.record();
        record.kind = kind;
        EXPECT_FALSE(parse_definition(record, def)) << kind;
    }
}

TEST(KprobeDefinition, TextsAtAndBeyondTheirLimits)
{
    const auto fetch_of = [](size_t size) { return "a=" + std::string(size - 2, 'x'); };
    EXPECT_TRUE(accepts({"vfs_link", "K", fetch_of(kMaxFetch), ""}));
    EXPECT_FALSE(accepts({"vfs_link", "K", fetch_of(kMaxFetch + 1), ""}));
    EXPECT_TRUE(accepts({"vfs_link", "K", "a=%di", std::string(kMaxFilter, 'f')}));
    EXPECT_FALSE(accepts({"vfs_link", "K", "a=%di", std::string(kMaxFilter + 1, 'f')}));
}

TEST(KprobeDefinition, SizesOfTypes)
{
    for (const char kind : {'u', 's', 'x'}) {
        const std::string k(1, kind);
        EXPECT_EQ(1u, type_size(k + "8", 8));
        EXPECT_EQ(2u, type_size(k + "16", 8));
        EXPECT_EQ(4u, type_size(k + "32", 8));
        EXPECT_EQ(8u, type_size(k + "64", 4));
    }
    EXPECT_EQ(8u, type_size("", 8));
    EXPECT_EQ(4u, type_size("", 4));
    for (const char *type : {"u", "u7", "u128", "b4", "string", "u32[2]", "x", "symbol", "u 8", "U8"})
        EXPECT_EQ(0u, type_size(type, 8)) << type;
}
