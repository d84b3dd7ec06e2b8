/*
 * fake_files.h: files of a made-up kernel: which real file stands for a path that the library opens. The directory of
 * tracefs is a whole tree, any other path is there when put() has said so.
 */
#ifndef TESTLIB_FAKE_FILES_H
#define TESTLIB_FAKE_FILES_H

#include <map>
#include <mutex>
#include <string>

#include "testlib/tree.h"

namespace testlib
{

class FakeFiles
{
public:
    FakeFiles() { tree_.dir("tracing/events"); }

    static bool is_tracing(const std::string &path); /* of tracefs */

    /* What `path` holds from now on; what is not there from now on, with all below. */
    void put(const std::string &path, const std::string &text);
    void remove(const std::string &path);

    /* The file to open for `path`, which may not exist; of what the double does not know `path` itself. */
    std::string real_path(const std::string &path);

private:
    std::string place(const std::string &path) const; /* of what lies in tracefs */

    TempTree tree_;
    std::mutex lock_;
    std::map<std::string, std::string> files_; /* path, real path */
    int next_ = 0;
};

}  // namespace testlib

#endif
