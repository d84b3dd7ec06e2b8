/*
 * core_fixture.h: a started monitor over a fake backend and a temporary tree, for the tests of the core.
 */
#ifndef TESTS_CORE_FIXTURE_H
#define TESTS_CORE_FIXTURE_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "event.h"
#include "fmon.h"
#include "list.h"
#include "testlib/fake_backend.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/tree.h"

namespace testlib
{

using Lines = std::vector<std::string>;

/* What the calls in `body` wrote, each line as "file level text". */
inline Lines log_of(const std::function<void()> &body)
{
    log_clear();
    body();
    Lines lines;
    for (const LogLine &line : log_lines())
        lines.push_back(line.file + " " + std::to_string(line.level) + " " + line.text);
    return lines;
}

inline std::string fmon_line(int level, const std::string &text)
{
    return "fmon.c " + std::to_string(level) + " " + text;
}
inline std::string event_line(int level, const std::string &text)
{
    return "event.c " + std::to_string(level) + " " + text;
}

/* Runs `body` with the 1st, 2nd, ... call of `name` failing, each time followed by `after(hit)` with none failing,
 * until a run is not hit. Returns how many were. */
inline int fail_each_then(const char *name, const std::function<void()> &body, const std::function<void(bool)> &after)
{
    for (int nth = 1; nth <= 100; nth++) {
        bool hit;
        {
            Fault fault(name, nth);
            body();
            hit = fault.hit();
        }
        after(hit);
        if (!hit)
            return nth - 1;
    }
    ADD_FAILURE() << name << " is still hit";
    return 100;
}

struct HostReset {
    HostReset()
    {
        reset_host();
        g_container_flag = 0;
    }
};

inline size_t list_length(list_head *head)
{
    size_t n = 0;
    FMON_LIST_EACH (node, head) {
        n++;
    }
    return n;
}

inline std::vector<struct event *> table_records()
{
    std::vector<struct event *> found;
    for (int i = 0; fmon.hash && i < fmon.hash_size; i++)
        for (hlink *node = fmon.hash[i]; node; node = node->next)
            found.push_back(FMON_RECORD(node, struct event, link));
    return found;
}

class CoreTest : public ::testing::Test
{
protected:
    static constexpr int kFd = 7; /* any source descriptor */

    explicit CoreTest(int max_events = 100, int max_dentries = 1000) : monitor(max_events, max_dentries)
    {
        log_clear();
    }
    ~CoreTest() override
    {
        g_container_flag = 0;
        fmon_destroy_all();
        for (struct event *ev : table_records()) /* held back only */
            event_free(&fmon, ev);
    }

    static void fmon_destroy_all()
    {
        for (int id = 0; fmon.inited && id < FMON_MAX_INSTANCES; id++)
            fmon_destroy_instance(id);
    }

    int instance(const std::string &name = "client")
    {
        int id = fmon_create_instance(name.c_str());
        EXPECT_GE(id, 0) << name;
        return id;
    }

    static int add(int id, const std::string &path, uint32_t mask, uint32_t flags = FMON_DIR)
    {
        return fmon_add_watch(id, path.c_str(), mask, flags, 0, 0);
    }
    static int del(int id, const std::string &path) { return fmon_del_watch(id, path.c_str()); }

    /* The first watch of that instance with that stored path, or null. */
    static struct watch *find(int id, const std::string &path)
    {
        FMON_LIST_EACH (node, &fmon.instances[id].watches) {
            struct watch *w = FMON_RECORD(node, struct watch, inst_link);
            if (w->path == path)
                return w;
        }
        return nullptr;
    }
    static size_t watches(int id) { return list_length(&fmon.instances[id].watches); }
    static size_t queued(int id) { return list_length(&fmon.instances[id].events); }
    static size_t waiting() { return list_length(&fmon.tbd); }

    static struct dentry *dentry(const std::string &path) { return dcache_find(&fmon.dcache, path.c_str()); }

    /* A raw event of a child of a cached directory; an empty name is the directory itself. */
    static int process(const std::string &dir, const std::string &name, uint32_t mask, uint32_t pid = 0, int fd = kFd)
    {
        return event_process(&fmon, dentry(dir), name.empty() ? nullptr : name.c_str(), mask, pid, fd, nullptr);
    }
    /* A raw event of a full path. */
    static int process_path(const std::string &path, uint32_t mask, uint32_t pid = 0, int fd = kFd)
    {
        return event_process(&fmon, nullptr, path.c_str(), mask, pid, fd, nullptr);
    }

    /* The live record, or null. */
    static struct event *record(const std::string &path, uint32_t pid = 0)
    {
        for (struct event *ev : table_records())
            if (ev->path == path && ev->pid == pid)
                return ev;
        return nullptr;
    }

    /* A directory vanishes, as the backend reports it for each of its watches. */
    static void vanish(struct watch *w)
    {
        list_unlink(&w->link);
        w->dentry = nullptr;
        watch_out_service(&fmon, w);
    }

    /* Empties the cached tree, of which the fake backend gives nothing back; no watch may be attached. */
    static void clear_tree()
    {
        while (fmon.dcache.count) {
            struct dcache_traverse walk;
            dcache_traverse_start(&walk, fmon.dcache.root, nullptr);
            while (struct dentry *d = dcache_traverse_next_safe(&walk))
                if (walk.state == DCACHE_LEAF)
                    dcache_del(&fmon.dcache, d);
            dcache_traverse_end(&walk);
        }
    }

    /* The whole state as the dump shows it, and the counters that it does not. */
    static std::string snapshot()
    {
        log_clear();
        fmon_dump(0, nullptr);
        std::string state = log_text();
        for (uint32_t number : {fmon.inited, fmon.inst_mask, fmon.event_mask, fmon.tbd_last, fmon.dcache.count,
                                fmon.global_instance_mask, fmon.global_event_mask})
            state += std::to_string(number) + " ";
        for (const struct instance &inst : fmon.instances)
            state += std::to_string(inst.global_mask) + " ";
        log_clear();
        return state;
    }

    HostReset host;
    TempTree tree;
    Monitor monitor;
    FakeBackend &backend = monitor.backend;
};

}  // namespace testlib

#endif
