/* Tests of agent_library.h: entries of a library that is looked for at run time, and threads that open it together. */

#include "agent_library.h"

#include <gtest/gtest.h>

#include <barrier>
#include <string>
#include <thread>
#include <vector>

#include "shell_fixture.h"

namespace
{

int handle_mark, first_entry, second_entry;
std::string missing;
std::barrier<> *both_opened; /* null: nobody waits */

void *play_dlopen(const char *, int)
{
    if (both_opened)
        both_opened->arrive_and_wait();
    return &handle_mark;
}

void *play_dlsym(void *handle, const char *symbol)
{
    EXPECT_EQ(&handle_mark, handle);
    errno = ENOSYS;
    if (symbol == missing)
        return nullptr;
    return symbol == std::string("first") ? &first_entry : &second_entry;
}

class AgentLibrary : public ::testing::Test
{
protected:
    AgentLibrary()
    {
        testlib::reset_host();
        testlib::set_program_dir("/nowhere/bin");
        missing.clear();
        both_opened = nullptr;
    }
    ~AgentLibrary() override
    {
        testlib::replace_dlopen(nullptr);
        testlib::replace_dlsym(nullptr);
    }
    static void library_there()
    {
        testlib::replace_dlopen(play_dlopen);
        testlib::replace_dlsym(play_dlsym);
    }

    struct agent_library library = {
        .path = "@/../lib/none.so",
        .log_file = "some.c",
        .module = "the module",
        .symbol = "the symbol",
        .names = {"first", "second"},
        .entries = {},
        .handle = {},
    };
};

TEST_F(AgentLibrary, GivesEachEntryByItsIndex)
{
    library_there();
    testlib::CallCount opens("dlopen"), lookups("dlsym");
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(&second_entry, agent_library_entry(&library, 1));
        EXPECT_EQ(&first_entry, agent_library_entry(&library, 0));
    }
    EXPECT_EQ(1, opens.calls());
    EXPECT_EQ(2, lookups.calls());
    EXPECT_EQ("", testlib::log_text());
}

TEST_F(AgentLibrary, LogsUnderItsUsersNameWhatFails)
{
    EXPECT_EQ(nullptr, agent_library_entry(&library, 0));
    EXPECT_EQ(1, testlib::log_count_containing("load the module failed, errno: "));
    library_there();
    missing = "second";
    testlib::log_clear();
    EXPECT_EQ(nullptr, agent_library_entry(&library, 0));
    EXPECT_EQ((LevelLines{{1, "load the symbol failed, errno: 38\n"}}), level_lines());
    EXPECT_EQ("some.c", testlib::log_lines().at(0).file);
}

/* Nothing of a closed library is used. */
TEST_F(AgentLibrary, KeepsAllEntriesOrNone)
{
    library_there();
    for (const char *lost : {"first", "second"}) {
        missing = lost;
        testlib::log_clear();
        const int closed = testlib::dll_closes();
        EXPECT_EQ(nullptr, agent_library_entry(&library, 0));
        EXPECT_EQ(nullptr, agent_library_entry(&library, 1));
        EXPECT_EQ(2u, testlib::log_lines().size()) << "one line a try";
        EXPECT_EQ(closed + 2, testlib::dll_closes());
        EXPECT_EQ(nullptr, library.entries[0].load());
        EXPECT_EQ(nullptr, library.handle.load());
    }
    missing.clear();
    EXPECT_EQ(&first_entry, agent_library_entry(&library, 0));
}

TEST_F(AgentLibrary, OfTwoThreadsThatOpenItOneClosesItAgain)
{
    library_there();
    std::barrier<> barrier(2);
    both_opened = &barrier;
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; i++)
        threads.emplace_back([this] {
            EXPECT_EQ(&first_entry, agent_library_entry(&library, 0));
            EXPECT_EQ(&second_entry, agent_library_entry(&library, 1));
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(1, testlib::dll_closes());
    EXPECT_EQ(&handle_mark, library.handle.load());
}

}  // namespace
