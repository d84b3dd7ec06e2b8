/*
 * process_image.h: what a process executes and where it belongs: what does not change, as a rule, between two programs.
 */
#ifndef AGENT_PROCESS_IMAGE_H
#define AGENT_PROCESS_IMAGE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "counted.h"
#include "process_files.h"

namespace agent
{

struct ProcessImage {
    std::string exe, cmdline, container;
    std::optional<uint32_t> loginuid{};
    uint64_t read_ns = 0; /* when it had been read; monotonic clock */
    bool wrong = false;   /* the process had another program by then: nothing of it holds */
    CountedBytes counted{};

    bool operator==(const ProcessImage &other) const
    {
        return exe == other.exe && cmdline == other.cmdline && container == other.container &&
               loginuid == other.loginuid;
    }
};

/* Shared by a process and those that it made, until they execute something. */
using ImagePtr = std::shared_ptr<ProcessImage>;

/* Reads it, what goes first first: the program's own parts are gone as soon as it ends. A program without arguments is
 * just being put into its place, and not yet the one that was to be read. */
ImagePtr read_image(const ProcessFiles &files, uint64_t (*now_ns)());

}  // namespace agent

#endif
