/* Tests of process_event.h: the kernel's messages, well-formed and crafted. */
#include "agent/process_event.h"

#include "unit/agent/process_messages.h"

using namespace agent;
using namespace process_messages;

namespace
{

std::string text_of(const ProcessEvent &event)
{
    const std::string at = std::to_string(event.pid) + "@" + std::to_string(event.time_ns);
    switch (event.kind) {
        case ProcessEvent::Kind::kAnswer:
            return "answer " + std::to_string(event.error) + " to " + std::to_string(event.acknowledged);
        case ProcessEvent::Kind::kFork:
            return "fork " + at + " by " + std::to_string(event.parent) + (event.by_thread ? "'s thread" : "");
        case ProcessEvent::Kind::kExec:
            return "exec " + at;
        case ProcessEvent::Kind::kUid:
            return "uid " + at + " " + std::to_string(event.uid);
        case ProcessEvent::Kind::kName:
            return "name " + at + " " + std::string(event.name);
        case ProcessEvent::Kind::kExit:
            return "exit " + at;
    }
    return "?";
}

std::vector<std::string> cut(const std::string &datagram)
{
    const std::vector<char> exact(datagram.begin(), datagram.end()); /* so that a sanitizer sees its end */
    ProcessMessages messages(exact.data(), exact.size());
    std::vector<std::string> texts;
    for (ProcessEvent event; messages.next(event);)
        texts.push_back(text_of(event));
    return texts;
}

using Texts = std::vector<std::string>;

}  // namespace

TEST(ProcessMessages, EachKindIsRead)
{
    EXPECT_EQ(Texts{"fork 20@7 by 10"}, cut(forked(7, 10, 20)));
    EXPECT_EQ(Texts{"fork 20@7 by 10's thread"}, cut(forked(7, 10, 20, 11)));
    EXPECT_EQ(Texts{"exec 20@8"}, cut(executed(8, 20)));
    EXPECT_EQ(Texts{"uid 20@9 1000"}, cut(user(9, 20, 0, 1000)));
    EXPECT_EQ(Texts{"name 20@9 cat"}, cut(named(9, 20, "cat")));
    EXPECT_EQ(Texts{"exit 20@10"}, cut(ended(10, 20)));
    EXPECT_EQ(Texts{"answer 1 to 42"}, cut(message(process_message::kNone, 1, {1}, 42)));
}

TEST(ProcessMessages, NoEventIsWithoutATime)
{
    EXPECT_EQ(Texts{}, cut(forked(0, 10, 20)));
    EXPECT_EQ(Texts{"exec 20@8"}, cut(executed(0, 20) + executed(8, 20)));
    EXPECT_EQ(Texts{"answer 1 to 42"}, cut(message(process_message::kNone, 0, {1}, 42)));
}

TEST(ProcessMessages, ThreadsAreNoProcesses)
{
    EXPECT_EQ(Texts{}, cut(message(process_message::kFork, 7, {10, 10, 21, 20})));
    EXPECT_EQ(Texts{}, cut(message(process_message::kExit, 7, {21, 20, 0, 17, 1, 1})));
    EXPECT_EQ(Texts{}, cut(message(process_message::kUid, 7, {21, 20, 1, 1})));
    EXPECT_EQ(Texts{}, cut(message(process_message::kComm, 7, {21, 20, 1, 1})));
}

TEST(ProcessMessages, OtherKindsAreLeftOut)
{
    for (const uint32_t what : {0x40u, 0x80u, 0x100u, 0x40000000u, 0x400u, 3u})
        EXPECT_EQ(Texts{}, cut(message(what, 7, {20, 20, 0, 0}))) << what;
}

TEST(ProcessMessages, SeveralInOneDatagramComeInTurn)
{
    EXPECT_EQ((Texts{"fork 20@7 by 10", "exec 20@8", "exit 20@9"}),
              cut(forked(7, 10, 20) + message(0x80, 7, {20, 20}) + executed(8, 20) + ended(9, 20)));
}

TEST(ProcessMessages, ANameWithoutAnEndEndsWithItsField)
{
    EXPECT_EQ(Texts{"name 20@9 0123456789abcdef"}, cut(named(9, 20, "0123456789abcdefgh")));
}

TEST(ProcessMessages, WhatIsCutOffIsNotRead)
{
    for (const std::string &whole : {forked(7, 10, 20), executed(8, 20), named(9, 20, "cat"), user(9, 20, 0, 1)})
        for (size_t size = 0; size < whole.size(); size++)
            EXPECT_EQ(Texts{}, cut(whole.substr(0, size))) << size;
}

TEST(ProcessMessages, LengthsThatLieEndTheReading)
{
    for (const uint32_t length : {0u, 1u, 15u, 153u, 0x7fffffffu, 0xffffffffu}) {
        std::string lying = executed(8, 20);
        memcpy(lying.data(), &length, sizeof length);
        EXPECT_EQ(Texts{}, cut(lying + executed(9, 20))) << length;
    }
}

TEST(ProcessMessages, ABodyShorterThanItsKindIsNotRead)
{
    for (uint16_t length = 0; length < 32; length++) {
        std::string lying = forked(7, 10, 20);
        memcpy(lying.data() + 32, &length, sizeof length);
        EXPECT_EQ(Texts{}, cut(lying)) << length;
    }
    std::string lying = executed(8, 20);
    const uint16_t length = 0xffff;
    memcpy(lying.data() + 32, &length, sizeof length);
    EXPECT_EQ(Texts{"exec 20@8"}, cut(lying));
}

TEST(ProcessMessages, OtherConnectorsAreNotRead)
{
    std::string other = executed(8, 20);
    other[16] = 2;
    EXPECT_EQ(Texts{"exec 20@9"}, cut(other + executed(9, 20)));
}
