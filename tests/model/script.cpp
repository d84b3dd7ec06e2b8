#include "script.h"

#include <algorithm>
#include <utility>

namespace model
{

void Script::by(size_t number, pid_t pid)
{
    number_ = number;
    pid_ = pid;
}

std::vector<Step> Script::take() { return std::exchange(steps_, {}); }

void Script::step(Verb verb, const std::string &one, const std::string &other)
{
    steps_.push_back({verb, one, other});
    operations_++;
}

void Script::happened(const std::string &kind, const Entry &entry, bool truncation, bool may_miss)
{
    /* A directory's own changes are seen where it is mounted, too. */
    const bool itself = kind == "attrib" && entry.node->kind == 'd';
    const std::vector<std::string> paths = itself ? world_.seen(*entry.node) : world_.seen(entry);
    Happening what = {"", kind, pid_, paths.empty(), truncation, entry.gone, may_miss, itself};
    what.identity = {itself ? entry.node : entry.dir, entry.node, itself ? "" : entry.name, kind.starts_with("moved"),
                     pid_};
    what.way = {entry.node};
    what.names = {entry.name};
    for (const Node *at = entry.dir; at; at = at->self ? at->self->dir : nullptr) {
        what.way.push_back(at);
        what.names.push_back(at->self ? at->self->name : "");
    }
    for (const std::string &path : paths)
        what.same_object.push_back(ground_ + "/" + path);
    what.path = ground_ + "/" + world_.reach(*entry.dir) + "/" + entry.name;
    if (paths.empty())
        ledger_.happened(what);
    for (const std::string &path : what.same_object) {
        what.path = path;
        ledger_.happened(what);
    }
}

void Script::note_place(const Node &dir)
{
    const std::vector<std::string> paths = world_.seen(dir);
    for (const std::string &path : paths)
        ledger_.was_at(dir, ground_ + "/" + path);
    if (paths.empty())
        ledger_.was_at(dir, "");
}

void Script::note_paths_below(Node &node)
{
    if (node.kind != 'd')
        return;
    for (const Node *dir : world_.directories(node)) {
        note_place(*dir);
        for (const auto &[name, entry] : dir->entries)
            for (const std::string &path : world_.seen(*entry))
                ledger_.was(ground_ + "/" + path);
    }
}

void Script::note_paths()
{
    note_paths_below(world_.tree());
    note_paths_below(world_.outer());
}

const Mount *Script::choose_way(const Node &one, const Node &other)
{
    for (const Mount &mount : world_.mounts())
        if (dice_.one_in(3) && world_.is_below(one, *mount.root) && world_.is_below(other, *mount.root))
            return &mount;
    return nullptr;
}

std::string Script::reach(const Entry &entry, const Mount *way) const
{
    return world_.reach(*entry.dir, way) + "/" + entry.name;
}

Entry *Script::make(Node &dir, const std::string &name, Verb verb)
{
    const bool file = verb == kMakeFile;
    const char kind = verb == kMakeDir ? 'd' : verb == kMakeLink ? 's' : verb == kMakePipe ? 'p' : 'f';
    Entry *entry = world_.add(dir, name, kind);
    step(verb, reach(*entry, choose_way(dir, dir)));
    happened("create", *entry);
    note_paths_below(*entry->node);
    if (file) {
        happened("modify", *entry);
        happened("close_write", *entry);
    }
    return entry;
}

Entry *Script::link(Entry &file, Node &dir, const std::string &name)
{
    const Mount *way = choose_way(*file.dir, dir);
    Entry *entry = world_.link(*file.node, dir, name);
    step(kLink, reach(file, way), reach(*entry, way));
    happened("create", *entry);
    return entry;
}

void Script::remove(Entry &entry)
{
    step(entry.node->kind == 'd' ? kRemoveDir : kUnlink, reach(entry, choose_way(*entry.dir, *entry.dir)));
    happened("delete", entry);
    ledger_.removed(*entry.node);
    world_.remove(entry);
}

void Script::move(Entry &entry, Node &dir, const std::string &name)
{
    const Mount *way = choose_way(*entry.dir, dir);
    step(kRename, reach(entry, way), world_.reach(dir, way) + "/" + name);
    happened("moved_from", entry);
    /* A directory that is replaced has its number of links changed, and its path for the last time. */
    if (const auto there = dir.entries.find(name); there != dir.entries.end() && there->second->node->kind == 'd') {
        ledger_.replaced(*there->second->node);
        happened("attrib", *there->second, false, true);
    }
    const Identity from = {entry.dir, entry.node, entry.name, true, pid_};
    world_.move(entry, dir, name);
    ledger_.renamed(from, {entry.dir, entry.node, entry.name, true, pid_});
    happened("moved_to", entry);
    note_paths_below(*entry.node);
}

void Script::exchange(Entry &one, Entry &other)
{
    const Mount *way = choose_way(*one.dir, *other.dir);
    step(kExchange, reach(one, way), reach(other, way));
    happened("moved_from", one);
    happened("moved_from", other);
    const Identity here = {one.dir, one.node, one.name, true, pid_},
                   there = {other.dir, one.node, other.name, true, pid_};
    world_.exchange(one, other);
    ledger_.renamed(here, there);
    ledger_.renamed({there.dir, other.node, there.name, true, pid_}, {here.dir, other.node, here.name, true, pid_});
    happened("moved_to", one);
    happened("moved_to", other);
    note_paths_below(*one.node);
    note_paths_below(*other.node);
}

void Script::write(Entry &file, Verb verb)
{
    step(verb, reach(file, choose_way(*file.dir, *file.dir)));
    happened("modify", file, verb != kAppend);
    if (verb != kTruncate)
        happened("close_write", file);
}

void Script::change_mode(Entry &entry)
{
    step(kChangeMode, reach(entry, choose_way(*entry.dir, *entry.dir)));
    happened("attrib", entry);
}

/* By way of no mount: what is open keeps a mount from being unmounted. */
void Script::hold(Entry &file)
{
    step(kHold, reach(file, nullptr));
    held_[number_] = &file;
}

void Script::write_held()
{
    step(kWriteHeld, "(held) " + held()->name);
    happened("modify", *held());
}

void Script::release()
{
    step(kRelease, "(held) " + held()->name);
    happened("close_write", *held());
    held_[number_] = nullptr;
}

bool Script::is_held(const Node &dir) const
{
    return std::any_of(held_.begin(), held_.end(), [&](const Entry *entry) { return entry && entry->dir == &dir; });
}

}  // namespace model
