#include "offsets_options.h"

namespace cli
{

namespace
{

using O = OffsetsOptions;

constexpr char kHead[] =
    R"(Usage: fmon offsets [OPTION]... [FILE]

Prints the section of fmon.ini for a kernel: where its structures keep what kernel probes need to know a file's mount.
FILE is a kernel: a vmlinuz of a PC, a vmlinux, or a file of its types' description alone (BTF); without it, the kernel
that runs is asked. The kernel must have been built with BTF. Needs no rights, and changes nothing.
)";

constexpr char kTail[] = R"(
Examples:
  fmon offsets                                   of the kernel that runs
  fmon offsets >> /etc/fmon/fmon.ini             the same, into the configuration
  fmon offsets /boot/vmlinuz-6.1.0-37-amd64      of a kernel that is installed
  fmon offsets --release 6.1.0-37-amd64 btf      of a copy of that kernel's /sys/kernel/btf/vmlinux

Status: 0 done; 2 wrong usage, or the kernel does not tell.
)";

// An empty text is the kernel's own release.
bool take_release(O &options, const Given &given, std::string &)
{
    options.release = given.value;
    return true;
}

constexpr OptionRow<O> kRows[] = {
    {{0,
      "release",
      "TEXT",
      "the kernel's release, as uname -r tells it, instead of the one that the kernel\nnames; a file of BTF alone "
      "names "
      "none",
      {},
      "Options"},
     take_release},
    {{'f', "format", "FORM", "text: as it is written in fmon.ini (default); json: one object", one_of("text json")},
     set_choice<O, &O::json>},
    {{'h', "help", nullptr, "this text"}, set_flag<O, &O::help>},
};

bool take_file(O &options, VerbOf<O>::Arguments arguments, std::string &error)
{
    if (arguments.size() > 1)
        error = "only one FILE can be read at a time";
    else if (!arguments.empty() && !*arguments[0])
        error = "the name of FILE is empty";
    else if (!arguments.empty())
        options.file = arguments[0];
    return error.empty();
}

}  // namespace

constinit const VerbOf<O> kOffsets({"offsets", "show the section of fmon.ini for a kernel", kHead, kTail, nullptr,
                                    kFiles, Wording::kShort},
                                   kRows, take_file, run_offsets);

}  // namespace cli
