/* `fmon run`: what the records of a service hold and how they are shown. */
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <filesystem>

#include "run_service.h"

using namespace systest;
using testlib::TempTree;

namespace
{

class RunRecords : public testing::Test
{
protected:
    std::string out(const std::string &name) const { return tree.path(name); }
    std::string text(const std::string &name, const std::string &format) const
    {
        return file_text(out(name)) + "format = \"" + format + "\"\n";
    }
    bool has(const std::string &file, const std::string &part) const
    {
        return await([&] { return content(out(file)).find(part) != std::string::npos; });
    }

    TempTree tree;
    Service service{tree};
};

}  // namespace

/* Directories by what the kernel says of them, which is known when they are gone, too. */
TEST_F(RunRecords, SayWhatIsADirectoryAndWhatWasRenamed)
{
    const std::string watch = tree_text(tree.dir("w")) + "events = [\"create,delete,move\"]\npair_renames = true\n";
    service.configure(instance_text("w", watch, text("json", "json") + "[[instance.output]]\n" + text("csv", "csv")));
    service.start();
    make_dir(tree.path("w/d"));
    EXPECT_TRUE(has("json", "\"events\":[\"create\"],\"path\":\"" + tree.path("w/d") + "\",\"dir\":true"));
    tree.remove("w/d");
    EXPECT_TRUE(has("json", "\"events\":[\"delete\"],\"path\":\"" + tree.path("w/d") + "\",\"dir\":true"));
    make_file(tree.path("w/a"));
    std::filesystem::rename(tree.path("w/a"), tree.path("w/b"));
    const std::string from = tree.path("w/a"), to = tree.path("w/b");
    EXPECT_TRUE(has("json", "\"events\":[\"moved_to\"],\"path\":\"" + to + "\",\"from\":\"" + from + "\""));
    EXPECT_TRUE(has("csv", "," + from + "\n")) << content(out("csv"));
    EXPECT_EQ(0u, content(out("csv")).find("time,events,path,pid,process,from\n"));
}

TEST_F(RunRecords, SayWhatTheFileIsWhereThatIsAskedFor)
{
    const std::string asked = text("asked", "json") + "stat = true\n[[instance.output]]\n" + text("not", "json");
    service.configure(instance_text("w", tree_text(tree.dir("w")) + "events = [\"create\"]\n", asked));
    service.start();
    make_file(tree.path("w/a"));
    struct stat st;
    ASSERT_EQ(0, stat(tree.path("w/a").c_str(), &st));
    EXPECT_TRUE(has("asked", "w/a\",\"inode\":" + std::to_string(st.st_ino) + ",\"device\":\"" +
                                 std::to_string(major(st.st_dev)) + ":" + std::to_string(minor(st.st_dev)) +
                                 "\",\"group\":" + std::to_string(st.st_gid)));
    EXPECT_TRUE(has("not", "w/a"));
    EXPECT_EQ(std::string::npos, content(out("not")).find("inode"));
}

TEST_F(RunRecords, ShowPathsAndTimesAsTheConfigurationSays)
{
    tree.dir("w");
    std::filesystem::create_directory_symlink(tree.path("w"), tree.path("link"));
    const std::string watch = tree_text(tree.path("link")) + "as_given = true\nevents = [\"create\"]\n";
    service.configure(instance_text("w", watch, text("out", "%t %p") + "time_format = \"year %Y\"\n",
                                    "iinclude = [\"/W/[^/]*[.]TXT$\"]\n"));
    service.start();
    make_file(tree.path("w/a.log"));
    make_file(tree.path("w/a.txt"));
    EXPECT_TRUE(has("out", " " + tree.path("link/a.txt") + "\n"));
    EXPECT_EQ(0u, content(out("out")).find("year 2"));
    EXPECT_EQ(std::string::npos, content(out("out")).find("a.log"));
}
