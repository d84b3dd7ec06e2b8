/* Attacks by other names for the same file, by other users of the same files, and by holding files. */
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "attacks.h"

namespace hostile
{

namespace
{

void give(Ground &g, const std::string &path)
{
    g.need(chown(path.c_str(), systest::kStranger, systest::kStranger) == 0, "giving " + path);
}

bool bind_to(const std::string &from, const std::string &to)
{
    return mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

/* Writes through bind mounts and hard links that lie outside of what is watched. */
class OtherMounts : public Attack
{
public:
    OtherMounts() : Attack(Who::kRoot)
    {
        own_dirs = {"own"};
        has_files = true;
    }

    void prepare(Ground &g) override
    {
        for (const char *dir : {"x", "x/a", "own"})
            g.need(make(g.tree(dir)), dir);
        for (const char *file : {"x/a/f", "own/f", "x/linked"})
            g.need(touch(g.tree(file)), file);
        g.need(make(g.out("bound")), "bound");
    }

    void round(Ground &g, uint64_t) override
    {
        write_through(g, "x/a");
        write_through(g, "own");
        write_linked(g, g.files("file"));
        write_linked(g, g.files("single"));
        write_linked(g, g.tree("x/linked"));
    }

private:
    void write_through(Ground &g, const char *dir)
    {
        const std::string bound = g.out("bound");
        g.need(bind_to(g.tree(dir), bound), "bind mount");
        g.need(touch(bound + "/f"), "writing through a bind mount");
        g.need(umount2(bound.c_str(), MNT_DETACH) == 0, "unmount");
    }

    void write_linked(Ground &g, const std::string &file)
    {
        const std::string link_name = g.out("link");
        g.need(link(file.c_str(), link_name.c_str()) == 0, "hard link");
        g.need(touch(link_name), "writing through a hard link");
        unlink(link_name.c_str());
    }
};

/* Reads what anybody may read, under a path that is a link to the same file for everybody else: where the monitor takes
 * marks away by that path, it takes those of what is watched. */
class StrangersAlias : public Attack
{
public:
    StrangersAlias() : Attack(Who::kStrangerInNamespace) { has_files = true; }

    void prepare(Ground &g) override
    {
        g.need(make(g.tree("sub")), "sub");
        g.need(touch(g.tree("sub/f")), "sub/f");
        g.need(symlink(g.tree().c_str(), g.out("alias").c_str()) == 0, "link");
        g.need(symlink(g.files().c_str(), g.out("files").c_str()) == 0, "link");
        give(g, g.out());
    }

    void begin(Ground &g) override
    {
        g.need(mount("none", g.out().c_str(), "tmpfs", 0, nullptr) == 0, "tmpfs");
        g.need(make(g.out("alias")) && bind_to(g.tree(), g.out("alias")), "bind mount");
        g.need(make(g.out("files")) && bind_to(g.files(), g.out("files")), "bind mount");
    }

    void round(Ground &g, uint64_t) override
    {
        for (const char *file : {"files/file", "files/single", "alias/sub/f", "alias/sub"})
            g.need(read_byte(g.out(file)) || errno == EISDIR, file);
    }
};

/* Writes to his own file, which lies where another file is for everybody else. */
class MountsOver : public Attack
{
public:
    MountsOver() : Attack(Who::kStrangerInNamespace) { never_told = {"passwd", "etc/passwd"}; }

    void prepare(Ground &g) override
    {
        for (const char *dir : {"etc", "his"})
            g.need(make(g.tree(dir)), dir);
        for (const char *file : {"passwd", "etc/passwd", "his/mine", "his/passwd"})
            g.need(touch(g.tree(file)), file);
        for (const char *mine : {"his", "his/mine", "his/passwd"})
            give(g, g.tree(mine));
    }

    void begin(Ground &g) override
    {
        g.need(bind_to(g.tree("his"), g.tree("etc")), "bind mount over a directory");
        g.need(bind_to(g.tree("his/mine"), g.tree("passwd")), "bind mount over a file");
    }

    void round(Ground &g, uint64_t) override
    {
        g.need(touch(g.tree("passwd")), "writing to what lies over a file");
        g.need(touch(g.tree("etc/passwd")), "writing to what lies over a directory");
    }
};

/* Holds leases on files of his own and writes to them: who opens such a file waits. */
class Leases : public Attack
{
public:
    Leases() : Attack(Who::kStranger)
    {
        has_files = true;
        burst = 1;
    }

    void prepare(Ground &g) override
    {
        for (const std::string &file : leased(g)) {
            g.need(touch(file), file);
            give(g, file);
        }
    }

    void begin(Ground &) override { signal(SIGIO, SIG_IGN); }

    /* The writes are there to be told of; the leases stay until the file is closed. */
    void round(Ground &g, uint64_t) override
    {
        std::vector<int> held;
        for (const std::string &file : leased(g)) {
            held.push_back(open(file.c_str(), O_RDWR | O_CLOEXEC));
            if (fcntl(held.back(), F_SETLEASE, F_WRLCK) == 0 && write(held.back(), "x", 1) == 1)
                taken_++;
        }
        systest::pause_ms(kHeldMs);
        for (const int fd : held)
            close(fd);
        errno = EAGAIN;
        g.need(taken_ > 0, "taking leases");
    }

private:
    static std::vector<std::string> leased(Ground &g)
    {
        std::vector<std::string> list = {g.files("file"), g.files("single")};
        for (int i = 0; i < 8; i++)
            list.push_back(g.tree("leased" + std::to_string(i)));
        return list;
    }

    uint64_t taken_ = 0;
};

/* Watches the same directories with inotify, and others that have the same numbers, for a moment each. */
class InotifyUsers : public Attack
{
public:
    InotifyUsers() : Attack(Who::kStrangerInNamespace) {}

    void prepare(Ground &g) override
    {
        g.need(make(g.tree("his")) && make(g.out("mnt")), "directories");
        give(g, g.tree("his"));
    }

    void begin(Ground &g) override { g.need(mount("none", g.out("mnt").c_str(), "tmpfs", 0, nullptr) == 0, "tmpfs"); }

    void round(Ground &g, uint64_t number) override
    {
        const int user = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        g.need(user >= 0, "inotify");
        const std::string own = g.out("mnt/d" + std::to_string(number % 100));
        make(own);
        for (const std::string &dir : {g.tree(), g.tree("his"), g.out("mnt"), own})
            g.need(inotify_add_watch(user, dir.c_str(), IN_ALL_EVENTS) >= 0, "watching " + dir);
        g.need(touch(g.tree("his/f")) && touch(own + "/f"), "writing");
        unlink(g.tree("his/f").c_str());
        remove_tree(own);
        close(user);
    }
};

}  // namespace

std::unique_ptr<Attack> other_mounts() { return std::make_unique<OtherMounts>(); }
std::unique_ptr<Attack> strangers_alias() { return std::make_unique<StrangersAlias>(); }
std::unique_ptr<Attack> mounts_over() { return std::make_unique<MountsOver>(); }
std::unique_ptr<Attack> leases() { return std::make_unique<Leases>(); }
std::unique_ptr<Attack> inotify_users() { return std::make_unique<InotifyUsers>(); }

}  // namespace hostile
