// The bundle's config.json, which every OCI runtime is started with.
#include "oci.h"

#include <algorithm>

namespace container
{

namespace
{

/* What engines give to every container. */
constexpr std::string_view kDefault[] = {
    "CAP_AUDIT_WRITE", "CAP_CHOWN",   "CAP_DAC_OVERRIDE", "CAP_FOWNER",           "CAP_FSETID",
    "CAP_KILL",        "CAP_MKNOD",   "CAP_NET_RAW",      "CAP_NET_BIND_SERVICE", "CAP_SETFCAP",
    "CAP_SETGID",      "CAP_SETPCAP", "CAP_SETUID",       "CAP_SYS_CHROOT",
};

/* Engines write down here what the runtime has no use for. A row's first key that is there counts. */
constexpr struct {
    std::string Details::*text;
    std::string_view keys[3];
} kAnnotations[] = {
    {&Details::name, {"io.kubernetes.cri.container-name", "io.kubernetes.container.name", "nerdctl/name"}},
    {&Details::name_space, {"io.kubernetes.cri.sandbox-namespace", "io.kubernetes.pod.namespace", "nerdctl/namespace"}},
};
constexpr std::string_view kImages[] = {"io.kubernetes.cri.image-name", "io.kubernetes.cri-o.ImageName",
                                        "io.kubernetes.cri-o.Image"};

void take_annotations(const Json &config, Details &out)
{
    for (const auto &row : kAnnotations)
        for (const std::string_view key : row.keys)
            fill(out.*row.text, text_at(config, {"annotations", key}));
    for (const std::string_view key : kImages)
        take_image(text_at(config, {"annotations", key}), out);
}

void take_user(const Json &config, Details &out)
{
    fill(out.user, text_at(config, {"process", "user", "username"}));
    const Json *uid = at(config, {"process", "user", "uid"});
    if (uid && uid->IsUint())
        fill(out.user, std::to_string(uid->GetUint()));
}

bool comes_from_outside(const Json &mount)
{
    bool bound = text_at(mount, {"type"}) == "bind";
    each_at(mount, {"options"}, [&](const Json &option) {
        const std::string text = text_of(option);
        bound = bound || text == "bind" || text == "rbind";
    });
    return bound;
}

void take_mounts(const Json &config, Details &out)
{
    std::string mounts;
    each_at(config, {"mounts"}, [&](const Json &mount) {
        if (comes_from_outside(mount))
            append_to_list(mounts, text_at(mount, {"source"}) + ":" + text_at(mount, {"destination"}));
    });
    fill(out.mounts, mounts);
}

bool is_default(std::string_view name)
{
    return std::find(std::begin(kDefault), std::end(kDefault), name) != std::end(kDefault);
}

// Nothing says "privileged" here. It is what engines make of it: every capability, and nothing of /proc covered.
bool is_privileged(const Json &config, std::string_view capabilities)
{
    const Json *masked = at(config, {"linux", "maskedPaths"});
    const bool covered = masked && masked->IsArray() && !masked->Empty();
    return !covered && !at(config, {"linux", "seccomp"}) && capabilities.find("CAP_SYS_ADMIN") != std::string::npos &&
           capabilities.find("CAP_SYS_MODULE") != std::string::npos;
}

void take_rights(const Json &config, Details &out)
{
    std::string added;
    each_at(config, {"process", "capabilities", "bounding"}, [&](const Json &capability) {
        const std::string name = text_of(capability);
        if (!is_default(name))
            append_to_list(added, name);
    });
    out.privileged = out.privileged || is_privileged(config, added);
    fill(out.capability, added);
}

}  // namespace

// A container that Docker knows is Docker's: what this file adds below is the engine's own mounts and rights.
void take_bundle(const Json &config, Details &out)
{
    take_annotations(config, out);
    if (out.known)
        return;
    out.known = true;
    take_user(config, out);
    take_mounts(config, out);
    take_rights(config, out);
}

}  // namespace container
