/*
 * containers.h: what the installation's container library knows.
 */
#ifndef AGENT_CONTAINERS_H
#define AGENT_CONTAINERS_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "orx_sensitivedir.h"

namespace agent
{

/* Empty where not known. */
struct ContainerName {
    std::string name, image; /* "registry/team/web:1.2", or the image's id */
};

struct ContainerLibrary {
    decltype(&_orx_get_container_info) info = nullptr;
    decltype(&_orx_free_container_info) free_info = nullptr;
    decltype(&orx_container_survey) survey = nullptr; /* ours only: null in another make's library */

    explicit operator bool() const { return info && free_info; }
};

/* False, with the reason in `error`: there is none, or not a whole one. It stays loaded. */
bool load_container_library(const std::string &directory, ContainerLibrary &library, std::string &error);

/* Names by id, remembered for a while: one thread's. The library is loaded when the first is asked for. */
class ContainerNames
{
public:
    explicit ContainerNames(const ContainerLibrary &library) : library_(library), loaded_(true) {}
    ContainerNames() = default;

    /* `now_ms` is any clock that does not run backwards. */
    const ContainerName &find(std::string_view id, uint64_t now_ms);

    static constexpr uint64_t kKeepMs = 10'000; /* a container may be given another name */
    static constexpr size_t kMost = 1024;

private:
    struct Row {
        ContainerName name;
        uint64_t read_ms;
    };
    ContainerName read(const std::string &id) const;

    ContainerLibrary library_;
    bool loaded_ = false;
    std::map<std::string, Row, std::less<>> rows_;
};

}  // namespace agent

#endif
