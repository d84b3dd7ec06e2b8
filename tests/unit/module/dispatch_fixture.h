/*
 * dispatch_fixture.h: a started monitor with the directory "d", for the tests of who is given a record.
 */
#ifndef TESTS_DISPATCH_FIXTURE_H
#define TESTS_DISPATCH_FIXTURE_H

#include <string>

#include "core_fixture.h"
#include "tree_flags.h"

inline constexpr uint32_t kModify = FMON_MODIFY, kClose = FMON_CLOSE_WRITE, kCreate = FMON_CREATE;

class Dispatch : public testlib::CoreTest
{
protected:
    Dispatch() : dir(tree.dir("d")), punished("punish(7," + dir + "/f)") {}

    /* The instances whose queue holds the record of that path. */
    uint32_t takers(const std::string &path, uint32_t pid = 0)
    {
        struct event *ev = record(path, pid);
        return ev ? ev->ref : 0;
    }

    std::string dir, punished;
};

#endif
