// Docker keeps a directory for each container, with what it was given in config.v2.json and hostconfig.json.
#include "docker.h"

namespace container
{

namespace
{

void take_config(const Json &config, Details &out)
{
    const std::string name = text_at(config, {"Name"});
    fill(out.name, name.starts_with('/') ? name.substr(1) : name);
    fill(out.user, text_at(config, {"Config", "User"}));
    fill(out.name_space, text_at(config, {"Config", "Labels", "io.kubernetes.pod.namespace"}));
    fill(out.image_id, text_at(config, {"Image"}));
    take_image(text_at(config, {"Config", "Image"}), out);
    out.running = true_at(config, {"State", "Running"});
    out.paused = true_at(config, {"State", "Paused"});
}

void take_mounts(const Json &config, Details &out)
{
    each_member(config, {"MountPoints"}, [&](const std::string &place, const Json &mount) {
        append_to_list(out.mounts, text_at(mount, {"Source"}) + ":" + place);
    });
}

// "80/tcp": [{"HostIp": "0.0.0.0", "HostPort": "8080"}]; null where a port is not open to the outside.
void take_ports(const Json &config, Details &out)
{
    each_member(config, {"NetworkSettings", "Ports"}, [&](const std::string &port, const Json &bindings) {
        each_at(bindings, {}, [&](const Json &binding) {
            append_to_list(out.ports,
                           text_at(binding, {"HostIp"}) + ":" + text_at(binding, {"HostPort"}) + "->" + port);
        });
    });
}

// Docker takes capabilities with and without their prefix.
void take_capabilities(const Json &host_config, Details &out)
{
    each_at(host_config, {"CapAdd"}, [&](const Json &capability) {
        const std::string name = text_of(capability);
        append_to_list(out.capability, name.empty() || name.starts_with("CAP_") ? name : "CAP_" + name);
    });
}

}  // namespace

void read_docker(const Tree &root, const std::string &id, Details &out)
{
    const Tree directory(root, "var/lib/docker/containers");
    JsonDocument config, host_config;
    if (!read_json(directory, id + "/config.v2.json", config))
        return;
    out.known = true;
    take_config(config, out);
    take_mounts(config, out);
    take_ports(config, out);
    if (!read_json(directory, id + "/hostconfig.json", host_config))
        return;
    out.privileged = true_at(host_config, {"Privileged"});
    take_capabilities(host_config, out);
}

}  // namespace container
