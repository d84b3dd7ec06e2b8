/*
 * marks_ledger.h: what may be missing or otherwise where each directory has marks of its own. These are the exceptions:
 *
 * 1. Creations, removals, renames and changes of attributes come without their process.
 * 2. Truncations are not reported: fanotify does not report them to groups that are given paths.
 * 3. What happens to a directory that was made or renamed a moment ago, and below it, may be missing; what is found
 * there when the directory is marked comes as a creation that is `found`, by the path that it has then.
 * 4. modify and close_write of an entry that was renamed or removed a moment ago, itself or a directory above, come by
 * the path at the time of reading, or not at all.
 * 5. A path below a directory that was renamed a moment ago is put together from the directory's place and the names
 * below as they are known at the time of reading, which may be a path that nothing had.
 *    What happens in a directory that was moved out of the tree is reported until its move is read.
 * 6. What is seen by several paths, through a mount, comes by one of them at least.
 * 7. Records of names and records of contents come through two queues, whose order among each other is not known.
 * 8. What has no name any more is counted, in losses of source "path"; mounts that come or go, in losses of source
 * "watches".
 *
 * 9. A directory that is marked reports changes of its attributes itself, and so does its parent: one event or two.
 *
 * "A moment ago": in this round or the one before.
 */
#ifndef MODEL_MARKS_LEDGER_H
#define MODEL_MARKS_LEDGER_H

#include "ledger.h"

namespace model
{

class MarksLedger : public Ledger
{
protected:
    pid_t pid_of(const Happening &what) const override;
    bool may_miss(const Happening &what, int round) const override;
    bool may_report(const Key &key, bool found, int round) const override;
    bool is_exact() const override { return false; }
    int most_reports(const Happening &what) const override;

public:
    bool may_lose(const std::string &source, size_t count) override;
};

}  // namespace model

#endif
