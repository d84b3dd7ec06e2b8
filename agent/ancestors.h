/*
 * ancestors.h: the processes above a process, up to the first one that is known.
 *
 * Each is what it was when it made the one below, and stays so: a process that has ended, or went on to another
 * program, is still who made its children. The list is shared by all that come from it.
 */
#ifndef AGENT_ANCESTORS_H
#define AGENT_ANCESTORS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "counted.h"

namespace agent
{

struct Ancestor;
using AncestorPtr = std::shared_ptr<const Ancestor>;

struct Ancestor {
    std::string name; /* empty: not known */
    uint32_t pid = 0;
    uint64_t start_ns = 0; /* since 1970; 0: not known */
    AncestorPtr parent{};  /* null: there is none, or it is not known */
    size_t depth = 1;      /* of the list from here on */
    CountedBytes counted{};
};

/* The list from that process on. One that would be longer than kMostAncestors loses its far half: a chain of processes
 * that each make the next and end has no end. */
AncestorPtr make_ancestor(std::string name, uint32_t pid, uint64_t start_ns, AncestorPtr parent);

inline constexpr size_t kMostAncestors = 128;

/* "sh[12] < sshd[3] < systemd[1]"; a name that is not known is "?". `put_name` appends a name as the form wants it. */
template <typename PutName>
void append_ancestors(const AncestorPtr &first, PutName put_name, std::string &out)
{
    for (const Ancestor *each = first.get(); each; each = each->parent.get()) {
        if (each != first.get())
            out.append(" < ");
        if (each->name.empty())
            out.push_back('?');
        else
            put_name(each->name, out);
        out.append("[" + std::to_string(each->pid) + "]");
    }
}

}  // namespace agent

#endif
