/*
 * process_files.h: what /proc says of one process: its files, read and taken apart.
 *
 * What cannot be read, and what does not look as the kernel writes it, is empty or no value.
 */
#ifndef AGENT_PROCESS_FILES_H
#define AGENT_PROCESS_FILES_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/fd.h"

namespace agent
{

/* The line of "stat". */
struct ProcessStat {
    std::string name;  /* at most 15 bytes, as the kernel has it */
    std::string image; /* where the kernel put the program's code, data, stack, arguments and environment */
    uint32_t ppid = 0;
    uint64_t start = 0; /* clock ticks after boot */
};

/* A single file of a process below `proc`: for whoever reads no other. False: there is no such process. */
bool read_stat(const std::string &proc, uint32_t pid, ProcessStat &out);
std::string read_name(const std::string &proc, uint32_t pid);

/* The directory of one process below `proc` ("/proc"). All that is read is of one process, however its pid is used
 * afterwards: once the process has ended there is nothing to be read. */
class ProcessFiles
{
public:
    ProcessFiles(const std::string &proc, uint32_t pid);

    explicit operator bool() const { return bool(directory_); } /* false: there is no such process */
    int fd() const { return directory_.get(); }

    std::string exe() const;
    /* Arguments joined by blanks, at most kMaxCmdline bytes of them; none: the program has not been given any yet. */
    std::optional<std::string> cmdline() const;
    std::string name() const;
    bool stat(ProcessStat &out) const;
    std::string container() const;            /* the outermost one, as the container library reports it */
    std::optional<uint32_t> uid() const;      /* effective */
    std::optional<uint32_t> loginuid() const; /* none: not set, which the kernel writes as 4294967295 */

    static constexpr size_t kMaxCmdline = 4096;

private:
    std::string_view read(const char *name, char *buf, size_t size) const;

    common::Fd directory_;
};

}  // namespace agent

#endif
