#include "fs_model.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

#include "orx_fmon.h"

namespace systest
{

namespace
{

bool make_file_at(const std::string &path)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    return fd >= 0 && close(fd) == 0;
}

bool perform(char what, const std::string &a, const std::string &b)
{
    switch (what) {
        case 'd':
            return mkdir(a.c_str(), 0755) == 0;
        case 'f':
            return make_file_at(a);
        case 'u':
            return unlink(a.c_str()) == 0;
        case 'r':
            return rmdir(a.c_str()) == 0;
        case 'm':
            return rename(a.c_str(), b.c_str()) == 0;
        case 'x':
            return renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0;
        default:
            return false;
    }
}

void serve(int fd)
{
    char text[16384];
    ssize_t got;
    while ((got = recv(fd, text, sizeof(text) - 1, 0)) > 0) {
        text[got] = '\0';
        const std::string a = text + 1;
        const std::string b = text + 1 + a.size() + 1;
        const char answer = perform(text[0], a, b) ? 'y' : 'n';
        send(fd, &answer, 1, 0);
    }
    _exit(0);
}

}  // namespace

Worker::Worker()
{
    int pair[2];
    socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair);
    pid_ = fork();
    if (pid_ == 0) {
        close(pair[0]);
        serve(pair[1]);
    }
    close(pair[1]);
    fd_ = pair[0];
}

Worker::~Worker()
{
    kill(pid_, SIGKILL);
    close(fd_);
    waitpid(pid_, nullptr, 0);
}

bool Worker::run(char what, const std::string &a, const std::string &b)
{
    const std::string text = what + a + '\0' + b + '\0';
    char answer = 'n';
    return send(fd_, text.data(), text.size(), 0) > 0 && recv(fd_, &answer, 1, 0) == 1 && answer == 'y';
}

FsModel::FsModel(const std::string &watched, const std::string &other, unsigned seed, unsigned workers)
    : top_{nullptr, "", true, {}}, random_(seed)
{
    for (const std::string &root : {watched, other})
        top_.children.push_back(std::make_unique<Node>(Node{&top_, root, true, {}}));
    for (unsigned i = 0; i < workers; i++)
        workers_.push_back(std::make_unique<Worker>());
    worker_ = workers_[0].get();
}

std::string FsModel::path_of(const Node *node) const
{
    return node->parent == &top_ ? node->name : path_of(node->parent) + "/" + node->name;
}

bool FsModel::is_watched(const Node *node) const
{
    while (node->parent != &top_)
        node = node->parent;
    return node == top_.children[0].get();
}

void FsModel::all_directories(Node *from, std::vector<Node *> &out)
{
    for (const auto &node : from->children)
        if (node->is_dir) {
            out.push_back(node.get());
            all_directories(node.get(), out);
        }
}

void FsModel::all_files(Node *from, std::vector<Node *> &out)
{
    for (const auto &node : from->children)
        if (node->is_dir)
            all_files(node.get(), out);
        else
            out.push_back(node.get());
}

FsModel::Node *FsModel::any_directory(bool root_too)
{
    std::vector<Node *> all;
    all_directories(&top_, all);
    if (!root_too)
        all.erase(std::remove_if(all.begin(), all.end(), [&](Node *node) { return node->parent == &top_; }), all.end());
    return all.empty() ? nullptr : all[random_() % all.size()];
}

FsModel::Node *FsModel::any_file()
{
    std::vector<Node *> all;
    all_files(&top_, all);
    return all.empty() ? nullptr : all[random_() % all.size()];
}

FsModel::Node *FsModel::child(Node *directory, const std::string &name)
{
    for (const auto &node : directory->children)
        if (node->name == name)
            return node.get();
    return nullptr;
}

std::unique_ptr<FsModel::Node> FsModel::take_out(Node *node)
{
    auto &siblings = node->parent->children;
    const auto at = std::find_if(siblings.begin(), siblings.end(), [&](const auto &one) { return one.get() == node; });
    std::unique_ptr<Node> out = std::move(*at);
    siblings.erase(at);
    return out;
}

void FsModel::note_places(const Node *node)
{
    if (!node->is_dir)
        places[node->name].insert(path_of(node));
    for (const auto &one : node->children)
        note_places(one.get());
}

void FsModel::note(const Node *file, uint32_t kind, const Node *other)
{
    const bool again = !done_.emplace(worker_->pid(), file->name, file->parent, other).second;
    happened.push_back({kind, path_of(file), worker_->pid(), is_watched(file), again});
}

std::string FsModel::pool_name() { return "d" + std::to_string(random_() % 4); }
std::string FsModel::file_name() { return "f" + std::to_string(files_++); }
Worker &FsModel::any_worker() { return *workers_[random_() % workers_.size()]; }

void FsModel::make_directory()
{
    Node *in = any_directory(true);
    const std::string name = pool_name();
    if (child(in, name) || !worker_->run('d', path_of(in) + "/" + name))
        return;
    in->children.push_back(std::make_unique<Node>(Node{in, name, true, {}}));
}

void FsModel::make_file()
{
    Node *in = any_directory(true);
    auto file = std::make_unique<Node>(Node{in, file_name(), false, {}});
    if (!worker_->run('f', path_of(file.get())))
        return;
    note(file.get(), FMON_CREATE);
    note_places(file.get());
    in->children.push_back(std::move(file));
}

void FsModel::touch_and_go()
{
    Node *in = any_directory(true);
    const Node file{in, file_name(), false, {}};
    if (!worker_->run('f', path_of(&file)))
        return;
    note(&file, FMON_CREATE);
    note_places(&file);
    if (worker_->run('u', path_of(&file)))
        note(&file, FMON_DELETE);
}

void FsModel::remove_file()
{
    Node *file = any_file();
    if (!file || !worker_->run('u', path_of(file)))
        return;
    note(file, FMON_DELETE);
    take_out(file);
}

void FsModel::rename_file()
{
    Node *file = any_file();
    Node *to = any_directory(true);
    if (!file || !worker_->run('m', path_of(file), path_of(to) + "/" + file->name) || file->parent == to)
        return;
    Node *from = file->parent;
    note(file, FMON_MOVED_FROM, to);
    std::unique_ptr<Node> own = take_out(file);
    own->parent = to;
    to->children.push_back(std::move(own));
    note(file, FMON_MOVED_TO, from);
    note_places(file);
}

bool FsModel::move_directory(Node *node, Node *to, const std::string &name)
{
    if (child(to, name) || !worker_->run('m', path_of(node), path_of(to) + "/" + name))
        return false;
    std::unique_ptr<Node> own = take_out(node);
    own->parent = to;
    own->name = name;
    to->children.push_back(std::move(own));
    note_places(node);
    return true;
}

void FsModel::rename_directory()
{
    Node *node = any_directory(false);
    if (node)
        move_directory(node, any_directory(true), pool_name());
}

void FsModel::ping_pong()
{
    Node *node = any_directory(false);
    if (!node)
        return;
    Node *from = node->parent;
    const std::string name = node->name;
    Node *to = any_directory(true);
    const std::string other = pool_name();
    for (unsigned times = 1 + random_() % 3; times > 0; times--) {
        if (!move_directory(node, to, other) || random_() % 3 == 0)
            return;
        if (random_() % 3 == 0)
            touch_and_go();
        if (!move_directory(node, from, name))
            return;
    }
}

void FsModel::exchange()
{
    Node *a = any_directory(false);
    Node *b = any_directory(false);
    if (!a || a == b || !worker_->run('x', path_of(a), path_of(b)))
        return;
    std::unique_ptr<Node> own_a = take_out(a);
    std::unique_ptr<Node> own_b = take_out(b);
    std::swap(a->parent, b->parent);
    std::swap(a->name, b->name);
    a->parent->children.push_back(std::move(own_a));
    b->parent->children.push_back(std::move(own_b));
    note_places(a);
    note_places(b);
}

void FsModel::remove_tree(Node *node)
{
    while (!node->children.empty()) {
        Node *one = node->children.front().get();
        if (one->is_dir) {
            remove_tree(one);
            continue;
        }
        worker_->run('u', path_of(one));
        note(one, FMON_DELETE);
        take_out(one);
    }
    worker_->run('r', path_of(node));
    take_out(node);
}

void FsModel::step()
{
    worker_ = &any_worker();
    steps++;
    const unsigned what = random_() % 100;
    if (what < 18)
        make_directory();
    else if (what < 45)
        make_file();
    else if (what < 55)
        touch_and_go();
    else if (what < 60)
        remove_file();
    else if (what < 68)
        rename_file();
    else if (what < 80)
        rename_directory();
    else if (what < 90)
        ping_pong();
    else if (what < 96)
        exchange();
    else if (Node *node = any_directory(false))
        remove_tree(node);
}

}  // namespace systest
