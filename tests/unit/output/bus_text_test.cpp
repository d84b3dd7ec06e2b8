/* What records are called on a bus. */
#include "output/sinks/bus_text.h"

#include <gtest/gtest.h>

#include "agent/event_names.h"
#include "orx_fmon.h"

using namespace output;

namespace
{

std::string kind_of(uint32_t mask)
{
    agent::Event event = {};
    event.mask = mask;
    return std::string(bus_kind({1, 0, "event", "", &event}));
}

std::string subject_of(const char *text, bool dots)
{
    SubjectTemplate subject;
    std::string error;
    EXPECT_TRUE(subject.parse(text, dots, error)) << error;
    return subject.make("a.example.org", "web root*", "create");
}

std::string error_of(const char *text)
{
    SubjectTemplate subject;
    std::string error;
    EXPECT_FALSE(subject.parse(text, true, error)) << text;
    return error;
}

}  // namespace

TEST(BusText, AKindIsThatOfTheEventThatSaysMost)
{
    EXPECT_EQ("create", kind_of(FMON_CREATE));
    EXPECT_EQ("delete", kind_of(FMON_CREATE | FMON_DELETE | FMON_MODIFY));
    EXPECT_EQ("create", kind_of(FMON_CREATE | FMON_CLOSE_WRITE | FMON_ATTRIB));
    EXPECT_EQ("close_write", kind_of(FMON_CLOSE_WRITE | FMON_OPEN | FMON_MODIFY));
    EXPECT_EQ("event", kind_of(0));
    EXPECT_EQ("loss", bus_kind({1, 0, "loss", "", nullptr}));
}

TEST(BusText, EveryKindHasItsPlace)
{
    for (size_t i = 0; i < agent::kSingleEventNames; i++)
        EXPECT_EQ(agent::kEventTable[i].name, kind_of(agent::kEventTable[i].mask));
    EXPECT_EQ("link", kind_of(0x1000));
}

TEST(BusText, ASubjectHoldsWhatStandsForItself)
{
    EXPECT_EQ("fmon.a_example_org.web_root_.create", subject_of("fmon.{host}.{instance}.{kind}", false));
    EXPECT_EQ("fmon-a.example.org-create", subject_of("fmon-{host}-{kind}", true));
    EXPECT_EQ("events", subject_of("events", true));
    EXPECT_EQ("create!", subject_of("{kind}!", true));
}

TEST(BusText, AnEmptyValueLeavesNoEmptyToken)
{
    SubjectTemplate subject;
    std::string error;
    ASSERT_TRUE(subject.parse("a.{host}.b", false, error));
    EXPECT_EQ("a._.b", subject.make("", "", ""));
}

TEST(BusText, WhatATemplateDoesNotKnowIsSaid)
{
    EXPECT_EQ("{user} is not known: {host}, {instance} and {kind} are", error_of("fmon.{user}"));
    EXPECT_EQ("a \"{\" has no \"}\"", error_of("fmon.{kind"));
    EXPECT_EQ("is empty", error_of(""));
}

TEST(BusText, AnIdIsOfBootInstanceAndNumber)
{
    SpoolEntry entry;
    entry.origin = std::make_shared<const std::string>("boot:web");
    entry.number = 7;
    EXPECT_EQ("boot:web:7", bus_id(entry));
    entry.own = true;
    EXPECT_EQ("boot:web:o7", bus_id(entry));
}

TEST(BusText, OwnRecordsAreLinesOfJson)
{
    const Origin origin = {"host", "boot", "w\"eb\xff"};
    EXPECT_EQ(R"({"type":"loss","time":"1970-01-01T00:00:01.000000000Z","source":"output","count":3,"total":8,)"
              "\"instance\":\"w\\\"eb\xef\xbf\xbd\",\"host\":\"host\",\"boot\":\"boot\"}",
              dropped_text(origin, 1'000'000'000, 3, 8));
    EXPECT_EQ(
        R"({"type":"heartbeat","time":"1970-01-01T00:00:01.000000000Z","accepted":6,"acknowledged":5,"dropped":4,)"
        R"("waiting":3,"losses":2,"spool_bytes":1,"instance":"","host":"","boot":""})",
        heartbeat_text({}, 1'000'000'000, {6, 5, 4, 3, 2, 1}));
}
