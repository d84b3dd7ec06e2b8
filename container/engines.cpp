// Where podman, CRI-O, containerd, runc and crun leave a container's bundle and state.
#include "engines.h"

#include "oci.h"

namespace container
{

namespace
{

constexpr size_t kMaxSpaces = 64; /* name spaces of containerd that are looked through */

// A name in a path: what a directory's entry may be called, and nothing that leads elsewhere.
bool is_plain(std::string_view name)
{
    return !name.empty() && name.size() <= 255 && name[0] != '.' && name.find('/') == std::string_view::npos;
}

bool take_bundle_file(const Tree &directory, const std::string &path, Details &out)
{
    JsonDocument config;
    if (!read_json(directory, path, config))
        return false;
    take_bundle(config, out);
    return true;
}

bool leads_up(std::string_view path) { return ("/" + std::string(path) + "/").find("/../") != std::string::npos; }

// A bundle lies where the engine wanted it; the runtime wrote down where. Its links are not followed.
void take_bundle_directory(const Tree &root, std::string bundle, Details &out)
{
    if (!bundle.starts_with('/') || leads_up(bundle))
        return;
    bundle.erase(0, bundle.find_first_not_of('/'));
    take_bundle_file(root, bundle + "/config.json", out);
}

// runc's state.json: annotations and the bundle's place are a list of "KEY=VALUE".
void take_runc_state(const Tree &root, const Json &state, Details &out)
{
    constexpr std::string_view kBundle = "bundle=";
    each_at(state, {"config", "labels"}, [&](const Json &label) {
        const std::string text = text_of(label);
        if (text.starts_with(kBundle))
            take_bundle_directory(root, text.substr(kBundle.size()), out);
    });
    out.known = true;
    out.running = out.running || pid_at(state, {"init_process_pid"}) > 0;
}

void take_crun_status(const Tree &root, const Json &status, Details &out)
{
    take_bundle_directory(root, text_at(status, {"bundle"}), out);
    out.known = true;
    out.running = out.running || pid_at(status, {"pid"}) > 0;
}

// One row of the list of containers, which has a text of JSON in it.
void take_storage_row(const Json &row, Details &out)
{
    each_at(row, {"names"}, [&](const Json &name) { fill(out.name, text_of(name)); });
    const std::string image = text_at(row, {"image"});
    fill(out.image_id, image);
    JsonDocument metadata;
    const std::string text = text_at(row, {"metadata"});
    if (text.empty() || !parse_json(text, metadata))
        return;
    take_image(text_at(metadata, {"image-name"}), out);
    fill(out.name, text_at(metadata, {"name"}));
}

}  // namespace

void read_storage(const Tree &root, const std::string &id, Details &out)
{
    const Tree directory(root, "var/lib/containers/storage/overlay-containers");
    JsonDocument list;
    if (read_json(directory, "containers.json", list))
        each_at(list, {}, [&](const Json &row) {
            if (text_at(row, {"id"}) == id)
                take_storage_row(row, out);
        });
    if (!take_bundle_file(directory, id + "/userdata/config.json", out))
        take_bundle_file(Tree(root, "run/containers/storage/overlay-containers"), id + "/userdata/config.json", out);
}

// "moby" is Docker's, which has name spaces of no other kind.
void read_containerd(const Tree &root, const std::string &id, Details &out)
{
    const Tree tasks(root, "run/containerd/io.containerd.runtime.v2.task");
    if (!tasks)
        return;
    for (const std::string &space : tasks.names(kMaxSpaces)) {
        if (!is_plain(space) || !take_bundle_file(tasks, space + "/" + id + "/config.json", out))
            continue;
        if (space != "moby")
            fill(out.name_space, space);
        return;
    }
}

void read_runtimes(const Tree &root, const std::string &id, Details &out)
{
    JsonDocument state;
    for (const char *place : {"run/runc", "run/docker/runtime-runc/moby", "run/containerd/runc/k8s.io",
                              "run/containerd/runc/default", "run/containerd/runc/moby"})
        if (read_json(Tree(root, place), id + "/state.json", state)) {
            take_runc_state(root, state, out);
            return;
        }
    if (read_json(Tree(root, "run/crun"), id + "/status", state))
        take_crun_status(root, state, out);
}

}  // namespace container
