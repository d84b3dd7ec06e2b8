/*
 * details.h: what is known of a container from the files that its engine and its runtime leave on the disk.
 */
#ifndef CONTAINER_DETAILS_H
#define CONTAINER_DETAILS_H

#include <string>
#include <string_view>

#include "files.h"
#include "json.h"

namespace container
{

/* Texts are empty where nothing is known; lists are joined by ",". */
struct Details {
    std::string mounts, user, name_space, image_id, image_name, image_tag, repository, name, capability, ports;
    bool privileged = false;
    bool running = false, paused = false; /* as its files say, which a crash leaves behind */
    bool known = false;                   /* there was a file */
};

/* Looks in every engine's places below `root` for a container's files. `id` is_id. Nothing found: all empty. Where
 * several files say the same thing, the engine's own wins over the runtime's. */
Details read_details(const std::string &root, const std::string &id);

/* ---- pieces, for docker.h, engines.h and oci.h ---- */

/* Parses a file in one of an engine's directories. */
bool read_json(const Tree &directory, const std::string &path, JsonDocument &out);

/* Takes "registry:5000/team/web:1.2@sha256:..." apart; names without a tag and digests alone are fine, too. */
void take_image(std::string_view reference, Details &out);

/* Fills in a text that is not known yet. */
void fill(std::string &text, std::string_view value);

}  // namespace container

#endif
