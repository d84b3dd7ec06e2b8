/* Attacks by changing the tree while it is being followed. */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <deque>

#include "attacks.h"

namespace hostile
{

namespace
{

std::string numbered(const char *prefix, uint64_t number) { return prefix + std::to_string(number); }

/* Puts links to a tree outside in the place of directories that the monitor is about to look into. */
class LinksForDirs : public Attack
{
public:
    LinksForDirs() : Attack(Who::kStranger) { burst = 20; }

    void prepare(Ground &g) override
    {
        g.need(make(g.tree("his")) && make(g.tree("his/d")) && make(g.tree("his/d/usr")), "directories");
        g.need(make(g.out("decoy")) && make(g.out("decoy/usr")), "decoy");
        for (uint64_t i = 0; i < 50; i++) {
            const std::string dir = g.out(numbered("decoy/usr/d", i));
            g.need(make(dir) && make(dir + "/s"), dir);
        }
        for (const char *mine : {"his", "his/d", "his/d/usr"})
            g.need(chown(g.tree(mine).c_str(), systest::kStranger, systest::kStranger) == 0, mine);
    }

    void begin(Ground &g) override { g.need(link_to_decoy(g, "his/l"), "link"); }

    void round(Ground &g, uint64_t number) override
    {
        if (number % 2)
            leave_a_link(g, number);
        else
            exchange_with_link(g);
    }

private:
    static bool link_to_decoy(Ground &g, const std::string &name)
    {
        return symlink(g.out("decoy").c_str(), g.tree(name).c_str()) == 0;
    }

    /* What was made there goes away under another name before it is looked into. */
    static void leave_a_link(Ground &g, uint64_t number)
    {
        const std::string a = numbered("his/a", number), b = numbered("his/b", number);
        g.need(make(g.tree(a)) && make(g.tree(a + "/usr")), "directories");
        g.need(rename_to(g.tree(a), g.tree(b)), "rename");
        g.need(link_to_decoy(g, a), "link");
        if (g.random(4) == 0)
            systest::pause_ms(1);
        unlink(g.tree(a).c_str());
        remove_tree(g.tree(b));
    }

    static void exchange_with_link(Ground &g)
    {
        for (int i = 0; i < 2; i++)
            g.need(swap(g.tree("his/d"), g.tree("his/l")), "exchange");
    }
};

/* Exchanges directories that are watched with others, in and out; replaces directories that have watches of their own,
 * and watched files. */
class Exchanges : public Attack
{
public:
    Exchanges() : Attack(Who::kRoot)
    {
        burst = 20;
        own_dirs = {"own0", "own1", "own2"};
        has_files = true;
    }

    void prepare(Ground &g) override
    {
        for (uint64_t i = 0; i < kDirs; i++)
            g.need(make(dir(g, i)) && make(dir(g, i) + "/s"), "directories");
        for (const char *own : {"own0", "own1", "own2", "own2/s"})
            g.need(make(g.tree(own)), own);
        g.need(make(g.out("e")) && make(g.out("e/s")), "outside");
    }

    void round(Ground &g, uint64_t number) override
    {
        const uint64_t one = g.random(kDirs), other = (one + 1 + g.random(kDirs - 1)) % kDirs;
        g.need(swap(dir(g, one), dir(g, other)), "exchange");
        g.need(swap(dir(g, one) + "/s", dir(g, other) + "/s"), "exchange of what lies below");
        g.need(swap(dir(g, one), g.out("e")), "exchange with what is outside");
        g.need(swap(dir(g, other), g.tree("own2")), "exchange of a directory with a watch of its own");
        move_over(g, g.tree("own0"), true, number);
        move_over(g, g.files("file"), false, number);
        move_over(g, g.files("single"), false, number);
        make_anew_while_held(g, "own1");
    }

    void rest(Ground &) override { release(); }

private:
    static constexpr uint64_t kDirs = 10;

    static std::string dir(Ground &g, uint64_t number) { return g.tree(numbered("d", number)); }

    static void move_over(Ground &g, const std::string &old, bool is_dir, uint64_t number)
    {
        const std::string fresh = g.tree(numbered("new", number));
        g.need(is_dir ? make(fresh) : touch(fresh), fresh);
        g.need(rename_to(fresh, old), "rename over what is there");
    }

    void make_anew_while_held(Ground &g, const char *name)
    {
        if (held_.size() > 4)
            release();
        const std::string path = g.tree(name);
        held_.push_back(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        g.need(held_.back() >= 0, "holding " + path);
        g.need(rmdir(path.c_str()) == 0 && make(path), "making anew what is held");
    }

    void release()
    {
        for (const int fd : held_)
            close(fd);
        held_.clear();
    }

    std::vector<int> held_;
};

/* Moves trees in whose paths are longer than any that the monitor can build, and removes them. */
class DeepTrees : public Attack
{
public:
    DeepTrees() : Attack(Who::kStranger) { burst = 2; }

    void prepare(Ground &g) override
    {
        for (const std::string &dir : {g.tree(), g.out()})
            g.need(chown(dir.c_str(), systest::kStranger, systest::kStranger) == 0, dir);
    }

    void round(Ground &g, uint64_t number) override
    {
        const std::string name = numbered("deep", number % 50), here = g.tree(name), built = g.out(name);
        g.need(make(built), built);
        const int top = open(built.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        build(g, top, kLevels);
        g.need(rename_to(built, here), "moving in");
        if (number % 4 == 0)
            g.fence();
        remove_tree(here);
    }

private:
    static constexpr int kLevels = 10, kSiblings = 5;

    static void build(Ground &g, int parent, int levels)
    {
        for (uint64_t i = 0; i < kSiblings; i++)
            g.need(mkdirat(parent, numbered("sibling", i).c_str(), 0755) == 0, "sibling");
        const std::string name(120, 'd');
        g.need(mkdirat(parent, name.c_str(), 0755) == 0, "level");
        const int next = openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        close(parent);
        if (levels > 1)
            build(g, next, levels - 1);
        else
            close(next);
    }
};

/* Makes directories and removes them at once, each under a new name, also where only files' kinds are watched. */
class Pairs : public Attack
{
public:
    Pairs() : Attack(Who::kRoot) { burst = 60; }

    void round(Ground &g, uint64_t number) override
    {
        const std::string name = numbered("pair", number);
        make_and_remove(g, g.flat(name), number);
        make_and_remove(g, g.tree(name), number);
    }

private:
    static void make_and_remove(Ground &g, const std::string &dir, uint64_t number)
    {
        g.need(make(dir), "mkdir");
        if (number % 3 == 0)
            g.need(make(dir + "/below") && rmdir((dir + "/below").c_str()) == 0, "below");
        if (number % 50 == 0)
            g.fence(); /* so that the directory has its marks when it goes */
        g.need(rmdir(dir.c_str()) == 0, "rmdir");
    }
};

/* Moves watched trees away, where they stay. */
class MovedAway : public Attack
{
public:
    MovedAway() : Attack(Who::kRoot) { burst = 1; }

    void round(Ground &g, uint64_t number) override
    {
        const std::string built = g.out("built"), here = g.tree("t"), gone = g.out(numbered("gone", number));
        g.need(make(built), "built");
        for (uint64_t i = 0; i < 30; i++)
            g.need(make(built + numbered("/d", i)), "built");
        g.need(rename_to(built, here), "moving in");
        g.fence();
        g.need(rename_to(here, gone), "moving away");
        gone_.push_back(gone);
        if (gone_.size() > kKept) {
            remove_tree(gone_.front());
            gone_.pop_front();
        }
    }

private:
    static constexpr size_t kKept = 10;
    std::deque<std::string> gone_;
};

/* Replaces what lies above a path that is waited for; puts links where a pattern finds them. */
class Ancestors : public Attack
{
public:
    Ancestors() : Attack(Who::kStranger)
    {
        waits = true;
        burst = 1;
    }

    void prepare(Ground &g) override
    {
        for (const char *dir : {"", "his", "his/anc", "his/anc/dir", "homes", "homes/good", "homes/good/log"})
            g.need(make(g.wait(dir)), dir);
        for (const char *dir : {"decoy", "decoy/dir", "decoy/log", "decoy/dir/below", "decoy/log/below"})
            g.need(make(g.out(dir)), dir);
        for (const char *dir : {"his", "his/anc", "his/anc/dir"})
            g.need(chown(g.wait(dir).c_str(), systest::kStranger, systest::kStranger) == 0, dir);
        g.need(chmod(g.wait("homes").c_str(), 01777) == 0, "homes");
    }

    void begin(Ground &g) override { g.need(link_to_decoy(g, "homes/evil"), "link"); }

    /* Each state stays for longer than the monitor takes to look for what it waits for. */
    void round(Ground &g, uint64_t number) override
    {
        const std::string old = "his/old" + std::to_string(number);
        g.need(rename_to(g.wait("his/anc"), g.wait(old)), "replacing");
        if (number % 2) {
            g.need(link_to_decoy(g, "his/anc"), "link");
            systest::pause_ms(kLookedForMs);
            unlink(g.wait("his/anc").c_str());
        }
        g.need(make(g.wait("his/anc")) && make(g.wait("his/anc/dir")), "making anew");
        systest::pause_ms(kLookedForMs);
        if (number > 1)
            remove_tree(g.wait("his/old" + std::to_string(number - 2)));
    }

private:
    static constexpr int kLookedForMs = 1300;

    static bool link_to_decoy(Ground &g, const std::string &name)
    {
        return symlink(g.out("decoy").c_str(), g.wait(name).c_str()) == 0;
    }
};

}  // namespace

std::unique_ptr<Attack> links_for_dirs() { return std::make_unique<LinksForDirs>(); }
std::unique_ptr<Attack> exchanges() { return std::make_unique<Exchanges>(); }
std::unique_ptr<Attack> deep_trees() { return std::make_unique<DeepTrees>(); }
std::unique_ptr<Attack> pairs() { return std::make_unique<Pairs>(); }
std::unique_ptr<Attack> moved_away() { return std::make_unique<MovedAway>(); }
std::unique_ptr<Attack> ancestors() { return std::make_unique<Ancestors>(); }

const std::vector<AttackRow> &attack_table()
{
    static const std::vector<AttackRow> table = {
        {"mounts", "writes through bind mounts and hard links outside of what is watched", other_mounts},
        {"alias", "reads by a path that is a link to the same file for everybody else", strangers_alias},
        {"over", "writes to his own file, mounted over a watched name", mounts_over},
        {"leases", "writes to files of his own with leases on them", leases},
        {"inotify", "watches the same directories with inotify, for a moment each", inotify_users},
        {"links", "puts links in the place of directories that are being looked into", links_for_dirs},
        {"exchange", "exchanges and replaces directories and files while somebody holds them", exchanges},
        {"deep", "moves trees in whose paths are too long, and removes them", deep_trees},
        {"pairs", "makes directories and removes them at once", pairs},
        {"away", "moves watched trees away, where they stay", moved_away},
        {"ancestors", "replaces what lies above a path that is waited for", ancestors},
    };
    return table;
}

}  // namespace hostile
