#include "offsets_options.h"

#include <getopt.h>

#include <string_view>

namespace cli
{

namespace
{

constexpr char kHelp[] =
    R"(Usage: fmon offsets [OPTION]... [FILE]

Prints the section of fmon.ini for a kernel: where its structures keep what kernel probes need to know a file's mount.
FILE is a kernel: a vmlinuz of a PC, a vmlinux, or a file of its types' description alone (BTF); without it, the kernel
that runs is asked. The kernel must have been built with BTF. Needs no rights, and changes nothing.

Options:
      --release TEXT      the kernel's release, as uname -r tells it, instead of the one that the kernel
                          names; a file of BTF alone names none
  -f, --format FORM       text: as it is written in fmon.ini (usual); json: one object
  -h, --help              this text

Examples:
  fmon offsets                                   of the kernel that runs
  fmon offsets >> /etc/fmon/fmon.ini             the same, into the configuration
  fmon offsets /boot/vmlinuz-6.1.0-37-amd64      of a kernel that is installed
  fmon offsets --release 6.1.0-37-amd64 btf      of a copy of that kernel's /sys/kernel/btf/vmlinux

Status: 0 done; 2 wrong usage, or the kernel does not tell.
)";

const struct option kLongOptions[] = {{"release", required_argument, nullptr, 'R'},
                                      {"format", required_argument, nullptr, 'f'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};

bool take_format(std::string_view value, OffsetsOptions &options, std::string &error)
{
    options.json = value == "json";
    if (options.json || value == "text")
        return true;
    error = "--format takes text or json, not '" + std::string(value) + "'";
    return false;
}

bool take_option(int code, char **argv, OffsetsOptions &options, std::string &error)
{
    switch (code) {
        case 'R':
            options.release = optarg;
            return true;
        case 'f':
            return take_format(optarg, options, error);
        case 'h':
            options.help = true;
            return true;
        case ':':
            error = std::string(optopt == 'R' ? "--release" : "--format") + " needs a value";
            return false;
        default:
            error = std::string("unknown option '") +
                    (optopt ? std::string("-") + static_cast<char>(optopt) : std::string(argv[optind - 1])) +
                    "': see fmon offsets --help";
            return false;
    }
}

}  // namespace

bool parse_offsets(int argc, char **argv, OffsetsOptions &options, std::string &error)
{
    opterr = 0;
    optind = 0;  // starts a new scan
    int code;
    while ((code = getopt_long(argc, argv, ":f:h", kLongOptions, nullptr)) != -1)
        if (!take_option(code, argv, options, error))
            return false;
    if (options.help || optind == argc)
        return true;
    if (argc - optind > 1) {
        error = "only one FILE can be read at a time";
        return false;
    }
    options.file = argv[optind];
    if (options.file.empty())
        error = "the name of FILE is empty";
    return error.empty();
}

std::string offsets_help() { return kHelp; }

}  // namespace cli
