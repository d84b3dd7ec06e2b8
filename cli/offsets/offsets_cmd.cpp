/* `fmon offsets`: prints the section of fmon.ini for a kernel. */

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <new>

#include "agent/message.h"
#include "agent/time_format.h"
#include "kernel_image.h"
#include "offsets.h"
#include "offsets_options.h"
#include "orx_host.h"
#include "output/print.h"

namespace cli
{

namespace
{

constexpr char kWithoutBtf[] = "was built without a description of its types (BTF)";

struct Answer {
    std::string section;
    Offsets offsets;
};

// As the monitor is handed it where that kernel runs.
std::string handed_release(const std::string &release)
{
    char handed[256];
    return orx_host_release(release.c_str(), handed, sizeof handed) < 0 ? release : handed;
}

bool load_running_kernel(KernelImage &image, std::string &error)
{
    if (access(kRunningBtf, F_OK) != 0) {
        error = std::string("there is no ") + kRunningBtf + ": the running kernel " + kWithoutBtf +
                "; give the vmlinuz or vmlinux of a build of it that has one, or a file of BTF, as FILE";
        return false;
    }
    struct utsname name;
    if (!load_kernel_image(kRunningBtf, image, error) || uname(&name) != 0)
        return false;
    image.release = name.release;
    image.machine = name.machine;
    return true;
}

bool load(const OffsetsOptions &options, KernelImage &image, std::string &error)
{
    if (options.file.empty())
        return load_running_kernel(image, error);
    if (!load_kernel_image(options.file, image, error))
        return false;
    if (image.btf.empty())
        error = options.file + ": this kernel " + kWithoutBtf +
                ": give a vmlinux of it into which pahole -J has put one, or a file of BTF";
    return error.empty();
}

// The offsets are reported even where the monitor takes no section, for people who want to know them.
std::string release_error(const std::string &what, const std::string &release, const Offsets &offsets)
{
    return what + "the monitor takes no section for a release like '" + release +
           "', it has to be MAJOR.MINOR.PATCH-BUILD, such as 6.1.0-25-amd64 (--release names another); "
           "s_mounts_offset is " +
           std::to_string(offsets.s_mounts) + ", mnt_id_offset is " + std::to_string(offsets.mnt_id);
}

bool find_answer(const OffsetsOptions &options, Answer &answer, std::string &error)
{
    const std::string what = options.file.empty() ? "" : options.file + ": ";
    KernelImage image;
    if (!load(options, image, error))
        return false;
    std::string machine;
    if (!find_offsets(std::move(image.btf), answer.offsets, machine, error)) {
        error = (what.empty() ? std::string(kRunningBtf) + ": " : what) + error;
        return false;
    }
    if (!image.machine.empty())
        machine = image.machine;
    const std::string release = options.release.empty() ? image.release : options.release;
    answer.section = section_name(handed_release(release), machine);
    if (!is_known_machine(machine))
        error = "the monitor has probes for x86_64, i386 and i686 only, not for " + machine;
    else if (release.empty())
        error = what + "it does not name the kernel's release: give it with --release, as uname -r tells it";
    else if (answer.section.empty())
        error = release_error(what, release, answer.offsets);
    return error.empty();
}

std::string as_json(const Answer &answer)
{
    rapidjson::StringBuffer line;
    rapidjson::Writer writer(line);
    std::string time;
    agent::UtcTime().append(agent::wall_clock_ns(), time);
    writer.StartObject();
    writer.Key("type");
    writer.String("offsets");
    writer.Key("time");
    writer.String(time.c_str());
    writer.Key("section");
    writer.String(answer.section.c_str());
    writer.Key("s_mounts_offset");
    writer.Int(answer.offsets.s_mounts);
    writer.Key("mnt_id_offset");
    writer.Int(answer.offsets.mnt_id);
    writer.EndObject();
    return std::string(line.GetString()) + "\n";
}

}  // namespace

int run_offsets(const OffsetsOptions &options)
{
    Answer answer;
    std::string error;
    try {
        if (find_answer(options, answer, error))
            return output::print_out(options.json ? as_json(answer) : section_text(answer.section, answer.offsets));
    } catch (const std::bad_alloc &) {  // a compressed file says nothing of how much comes out
        error = options.file + ": there is not enough memory for what is in it";
    }
    agent::complain(error);
    return agent::kError;
}

}  // namespace cli
