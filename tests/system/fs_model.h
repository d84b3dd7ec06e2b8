/*
 * fs_model.h: a tree of directories and files that several processes change at random, each change known: what must be
 * told of it, and which paths there ever were.
 */
#ifndef SYSTEM_FS_MODEL_H
#define SYSTEM_FS_MODEL_H

#include <sys/types.h>

#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace systest
{

/* A process that does what it is told: "mkdir PATH", "rename FROM TO", ... */
class Worker
{
public:
    Worker();
    ~Worker();
    Worker(const Worker &) = delete;
    Worker &operator=(const Worker &) = delete;
    bool run(char what, const std::string &a, const std::string &b = "");
    pid_t pid() const { return pid_; }

private:
    pid_t pid_;
    int fd_;
};

/* What happened to a file that no other has the name of. The kernel may join it to what the same process did with the
 * same entry before: then it is told where that was, or was not told. */
struct Happened {
    uint32_t kind;
    std::string path;
    pid_t pid;
    bool watched;
    bool joined;
};

class FsModel
{
public:
    /* `watched` and `other` are empty directories of one file system. */
    FsModel(const std::string &watched, const std::string &other, unsigned seed, unsigned workers);

    void step(); /* one random operation */

    std::vector<Happened> happened;                      /* to files; each file's name is its own */
    std::map<std::string, std::set<std::string>> places; /* of each file's name: all paths that it had, and will have */
    unsigned steps = 0;

private:
    struct Node {
        Node *parent;
        std::string name;
        bool is_dir;
        std::vector<std::unique_ptr<Node>> children;
    };

    std::string path_of(const Node *node) const;
    bool is_watched(const Node *node) const;
    Node *any_directory(bool root_too);
    Node *any_file();
    Node *child(Node *directory, const std::string &name);
    std::unique_ptr<Node> take_out(Node *node);
    void note_places(const Node *node);
    void note(const Node *file, uint32_t kind, const Node *other = nullptr);
    std::string pool_name();
    std::string file_name();
    Worker &any_worker();

    void make_directory();
    void make_file();
    void touch_and_go(); /* makes a file and removes it */
    void remove_file();
    void rename_file();
    void rename_directory();
    void ping_pong();
    void exchange();
    void remove_tree(Node *node);
    bool move_directory(Node *node, Node *to, const std::string &name);
    void all_directories(Node *from, std::vector<Node *> &out);
    void all_files(Node *from, std::vector<Node *> &out);

    Node top_;
    std::vector<std::unique_ptr<Worker>> workers_;
    Worker *worker_ = nullptr;
    std::mt19937 random_;
    std::set<std::tuple<pid_t, std::string, const Node *, const Node *>> done_; /* by whom, to which entry */
    unsigned files_ = 0;
};

}  // namespace systest

#endif
