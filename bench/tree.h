/*
 * tree.h: a tree of directories on disk to be watched.
 */
#ifndef BENCH_TREE_H
#define BENCH_TREE_H

#include <string>

/* `directories` directories (the root among them), ten to a directory; removed at the end. Made below `base`, else
 * TMPDIR, else /tmp. */
class BenchTree
{
public:
    explicit BenchTree(int directories, const char *base = nullptr);
    ~BenchTree();
    BenchTree(const BenchTree &) = delete;
    BenchTree &operator=(const BenchTree &) = delete;
    const std::string &root() const { return root_; }

private:
    std::string root_;
};

#endif
