/*
 * probe_double.h: the other end of the test double of the kernel-probe library (probe_double/probe_double.c): what it
 * answers, what it was asked, and the records that it hands on.
 */
#ifndef TESTLIB_PROBE_DOUBLE_H
#define TESTLIB_PROBE_DOUBLE_H

#include <cstdint>
#include <string>
#include <vector>

#include "testlib/tree.h"

namespace testlib
{

/* An installation (with bin/ and lib/) whose library is a double: the whole one, or the one without that symbol. */
std::string probe_double_installation(const std::string &without = "");

/* While it lives, doubles in this process and in children take their directory from here. */
class ProbeDouble
{
public:
    ProbeDouble();
    ~ProbeDouble();
    ProbeDouble(const ProbeDouble &) = delete;
    ProbeDouble &operator=(const ProbeDouble &) = delete;

    std::string directory() const { return tree_.root(); }
    std::string environment() const; /* the variable's setting, for a program that is started */

    struct OsInfo {
        unsigned major = 6, minor = 1, patch = 0, arch = sizeof(void *) == 8 ? 2 : 1, count = 2, pid = 4242;
    };
    void set_os_info(const OsInfo &info);
    void set_unavailable(const std::string &words);
    void set_losses(const std::string &numbers); /* see probe_double.c */
    void behave(const std::string &lines);       /* replaces the earlier ones; see probe_double.c */

    std::vector<std::string> calls() const;
    std::vector<std::string> calls(const std::string &beginning) const; /* those that begin so */
    bool await_calls(const std::string &beginning, size_t count) const; /* of another thread; false: not within 10 s */
    bool called(const std::string &call) const;
    void forget_calls();

    /* Hands a record on as of that event: "Ki" goes to an inotify instance, every other to the one of file events. The
     * instance must exist. */
    void put(const std::string &event, uint32_t pid, const std::string &record, int index = 0);
    /* The bytes of a frame, and bytes as they are to a FIFO ("clt_file.0"). */
    static std::string frame(const std::string &event, uint32_t pid, const std::string &record);
    void put_bytes(const std::string &fifo, const std::string &bytes);

private:
    TempTree tree_;
};

}  // namespace testlib

#endif
