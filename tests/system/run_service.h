/*
 * run_service.h: `fmon run` with a configuration of the test's, and a manager of services that listens to it.
 */
#ifndef SYSTEM_RUN_SERVICE_H
#define SYSTEM_RUN_SERVICE_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "harness.h"

namespace systest
{

/* Until the condition holds, or a limit has passed; what it said last. */
bool await(const std::function<bool()> &condition, int ms = 2 * kPatienceMs);

/* An [[instance]] with one watch and one output; the texts are lines of TOML. */
std::string instance_text(const std::string &name, const std::string &watch, const std::string &output,
                          const std::string &more = "");
/* Lines of a recursive watch on that path, and of an output into that file. */
std::string tree_text(const std::string &path);
std::string file_text(const std::string &path);

class Service
{
public:
    explicit Service(testlib::TempTree &tree) : tree_(tree) {}
    ~Service();

    /* Writes the configuration; [service] is the test's. */
    void configure(const std::string &instances, const std::string &service = "");
    void start();                                            /* and waits until all is placed */
    void launch(const std::string &setting = "FMON_TEST=1"); /* only; with that in the environment */
    void reload();                                           /* and waits until that is over */

    /* Until messages of the service's to its manager had that part so often. */
    bool hears(const std::string &part, int times = 1);
    /* What is answered to a request at that socket of the tree. */
    std::string ask(const std::string &socket, const std::string &request) const;
    Json stats() const { return Json::parse(ask("socket", "stats\n")); }

    Process &process() { return *process_; }
    std::string config() const { return tree_.path("fmon.toml"); }

private:
    testlib::TempTree &tree_;
    int manager_ = -1;
    std::string heard_;
    std::unique_ptr<Process> process_;
};

/* The paths of the events in a file of JSON lines, as often as they are there, with one of these kinds. */
std::vector<std::string> paths_in(const std::string &file, const Names &kinds);

}  // namespace systest

#endif
