/*
 * checks.h: what must be so when the attackers rest.
 */
#ifndef HOSTILE_CHECKS_H
#define HOSTILE_CHECKS_H

#include <functional>
#include <string>
#include <vector>

#include "clients.h"
#include "ground.h"

namespace hostile
{

/* Failed checks, told as they are found. */
class Verdict
{
public:
    /* Fails where there is something in the list; tells the first lines of it. */
    void none(const std::string &what, const std::vector<std::string> &wrong);
    void holds(const std::string &what, bool is_so, const std::string &detail = "");
    int failed() const { return failed_; }

private:
    int failed_ = 0;
};

/* The size of things at a rest. */
struct Sizes {
    size_t marks, dentries;
    uint64_t heap, resident; /* bytes in use; KiB; this process */
    std::vector<uint64_t> command_marks, command_resident;
};

/* Files that are made in every directory that should be watched, and who has to be told of each. */
class Roundabout
{
public:
    Roundabout(const std::vector<Planned> &plan, Clients &clients, std::vector<std::unique_ptr<Command>> &commands);

    /* Writes to each, and calls `wait` until everybody was told or it says that time is up. The paths that were not
     * told of, with who was not told. */
    std::vector<std::string> go(const std::function<bool()> &wait);
    size_t size() const { return signs_.size(); }

private:
    struct Sign {
        std::string path;
        Told wanted = {};
        std::vector<uint32_t> commands; /* wanted of each */
        bool made = false;              /* here, and to be removed */
    };

    Sign &sign(const std::string &path, bool made);
    void add_watch(const Asked &watch, const std::function<void(Sign &, uint32_t mask)> &want);
    std::vector<std::string> missing() const;

    Clients &clients_;
    std::vector<std::unique_ptr<Command>> &commands_;
    std::map<std::string, Sign> signs_;
};

/* What the cache holds beyond the watched directories, their files and what lies above, and what it lacks. */
std::vector<std::string> compare_dentries(const Marks &expected, const std::vector<std::string> &cached);

Sizes measure(const std::vector<std::unique_ptr<Command>> &commands);

}  // namespace hostile

#endif
