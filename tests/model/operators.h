/*
 * operators.h: processes that change files as they are told, at once and without a pause between the steps.
 */
#ifndef MODEL_OPERATORS_H
#define MODEL_OPERATORS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace model
{

enum Verb : char {
    kMakeDir = 'd',
    kRemoveDir = 'D',
    kMakeFile = 'f', /* open, write, close */
    kMakeNode = 'n', /* an empty file, never opened */
    kMakeLink = 's', /* symbolic */
    kMakePipe = 'p',
    kAppend = 'a',
    kTruncate = 't',
    kOpenTruncate = 'T', /* and close */
    kChangeMode = 'c',
    kLink = 'l',
    kUnlink = 'u',
    kRename = 'r',
    kExchange = 'x',
    kHold = 'o', /* opens for writing; each process holds one file at most */
    kWriteHeld = 'w',
    kRelease = 'q',
};

struct Step {
    Verb verb;
    std::string one, other;
};

std::string to_text(const Step &step);

/* One process. Its steps are relative to its working directory, the ground. */
class Operator
{
public:
    explicit Operator(const std::string &ground);
    ~Operator();
    Operator(const Operator &) = delete;
    Operator &operator=(const Operator &) = delete;

    pid_t pid() const { return pid_; }
    void begin(const std::vector<Step> &steps);
    /* Waits until the steps are done; what failed, or empty. */
    std::string end();

private:
    pid_t pid_;
    int orders_, answers_;
};

}  // namespace model

#endif
