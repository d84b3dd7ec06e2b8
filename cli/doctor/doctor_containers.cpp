/* The doctor's section on containers; doctor.h. */

#include <unistd.h>

#include <cstring>

#include "agent/containers.h"
#include "agent/message.h"
#include "agent/module.h"
#include "doctor.h"

namespace cli
{

namespace
{

constexpr char kContainers[] = "containers";

/* What the kernel calls the numbering of processes that is the machine's own. */
constexpr char kHostNumbering[] = "pid:[4026531836]";

// Whether processes are seen under the machine's own numbers; also where that cannot be known.
bool sees_host_processes()
{
    char target[64] = "";
    const ssize_t n = readlink("/proc/self/ns/pid", target, sizeof target - 1);
    return n <= 0 || strcmp(target, kHostNumbering) == 0;
}

// Who may look at all, and is kept from it, is inside a user namespace, or meets a security module.
const char *hidden_remedy(const ContainerFacts &facts)
{
    if (facts.may_trace)
        return "run fmon on the host itself, outside of user namespaces";
    return facts.root ? "give fmon CAP_SYS_PTRACE, or mount /proc without hidepid" : "run as root";
}

Check judge_identity(const ContainerFacts &facts)
{
    const struct orx_container_census &census = facts.census;
    Check check = {kContainers, "identity", State::kOk, "", "", true};
    if (facts.census_error != 0) {
        check.state = State::kNo;
        check.text = std::string("/proc cannot be read: ") + strerror(facts.census_error);
        check.remedy = "mount it: mount -t proc proc /proc";
        return check;
    }
    check.text = agent::counted(census.containers, "container") + " with processes in sight, " +
                 agent::counted(census.mounts, "mount") + ", found in " + agent::with_commas(census.micros / 1000) +
                 " ms";
    if (facts.first_hidden || census.hidden > 0) {
        check.state = State::kWarn;
        check.text += ", but " +
                      (facts.first_hidden ? "most processes" : agent::counted(census.hidden, "process's mounts")) +
                      " may not be seen";
        check.remedy = hidden_remedy(facts);
    } else if (facts.container && !facts.host_processes) {
        check.state = State::kWarn;
        check.text += ", but only of this container's own processes";
        check.remedy = "start fmon's container with the host's process ids (--pid=host, hostPID)";
    } else if (census.cut > 0) {
        check.state = State::kWarn;
        check.text += ", but " + agent::counted(census.cut, "namespace") + " with more mounts than are read";
    }
    return check;
}

}  // namespace

ContainerFacts gather_containers(bool container)
{
    ContainerFacts facts;
    facts.container = container;
    facts.root = geteuid() == 0;
    facts.may_trace = gather_rights().capabilities.value_or(0) >> kCapSysPtrace & 1;
    facts.host_processes = sees_host_processes();
    facts.first_hidden = access("/proc/1", F_OK) != 0;
    agent::ContainerLibrary library;
    if (load_container_library(agent::library_directory(), library, facts.library_error) && library.survey) {
        facts.surveyed = true;
        facts.census_error = -library.survey(&facts.census);
    }
    return facts;
}

Checks judge_containers(const ContainerFacts &facts)
{
    const bool loads = facts.library_error.empty();
    Checks checks = {{kContainers, "library", loads ? State::kOk : State::kWarn,
                      loads
                          ? "liborx_sensitive_dir.6.so is there, and can be loaded"
                          : "containers have no names, and inside one no mount has a container: " + facts.library_error,
                      loads ? "" : "install fmon anew, with lib/liborx_sensitive_dir.6.so", true}};
    if (facts.surveyed)
        checks.push_back(judge_identity(facts));
    return checks;
}

}  // namespace cli
