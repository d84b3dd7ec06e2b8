/* What is looked at while the attackers rest. */
#include <unistd.h>

#include <cstdio>

#include "battle.h"

namespace hostile
{

namespace
{

constexpr int kPatienceMs = 60000; /* a machine under load is slow */
constexpr int kSettleMs = 8000;    /* paths that are waited for are looked for every second */
constexpr uint64_t kHeapSlack = 64 << 10, kResidentSlack = 4 << 10;

std::vector<std::string> overflows(const struct fmon_loss_counts &lost)
{
    std::vector<std::string> list;
    if (lost.inotify)
        list.push_back("inotify " + std::to_string(lost.inotify));
    if (lost.fanotify)
        list.push_back("fanotify " + std::to_string(lost.fanotify));
    return list;
}

/* Flat: no more than a tenth and `slack` above what was before. */
bool is_flat(uint64_t before, uint64_t now, uint64_t slack) { return now <= before + before / 10 + slack; }

std::string change(uint64_t before, uint64_t now) { return std::to_string(before) + " -> " + std::to_string(now); }

}  // namespace

void Battle::make_after_dirs(bool there)
{
    std::vector<std::string> dirs = {tree_.path("flat/after")};
    for (const Side &side : sides_)
        dirs.push_back(side.ground->tree("after"));
    for (const std::string &dir : dirs)
        verdict_.holds("directories are made and removed", there ? make(dir) : rmdir(dir.c_str()) == 0, dir);
}

void Battle::pass_fence(const std::string &when)
{
    const uint64_t number = own_.raise_fence();
    verdict_.holds("the monitor answers" + when, await([&] { return own_.fence_told(number); }, kPatienceMs),
                   "it does not");
    own_.lower_fence(number);
}

/* 0: the module; from 1 on the commands. */
std::vector<std::string> Battle::wrong_marks(size_t who)
{
    if (who > 0)
        return systest::compare_marks(systest::expected_marks(commands_[who - 1]->watches()),
                                      systest::actual_marks(commands_[who - 1]->pid()), tree_.root());
    std::vector<Asked> watches;
    for (const Planned &planned : plan_)
        watches.push_back(planned.watch);
    const Marks expected = systest::expected_marks(watches);
    std::vector<std::string> wrong = systest::compare_marks(expected, systest::actual_marks(getpid()), tree_.root());
    for (const std::string &line : compare_dentries(expected, Clients::dentries()))
        wrong.push_back(line);
    return wrong;
}

void Battle::check_marks(const std::string &when)
{
    const int64_t deadline = systest::now_ms() + kSettleMs;
    for (size_t who = 0; who <= commands_.size(); who++) {
        std::vector<std::string> wrong = wrong_marks(who);
        while (!wrong.empty() && systest::now_ms() < deadline) {
            await([] { return false; }, 200);
            wrong = wrong_marks(who);
        }
        verdict_.none("marks of " + (who ? "command " + std::to_string(who - 1) : "the module") + when, wrong);
    }
}

void Battle::check_reports(const std::string &when)
{
    Roundabout roundabout(plan_, clients_, commands_);
    const int64_t deadline = systest::now_ms() + kSettleMs;
    verdict_.none("reports of " + std::to_string(roundabout.size()) + " directories and files" + when,
                  roundabout.go([&] {
                      await([] { return false; }, 50);
                      return systest::now_ms() < deadline;
                  }));
}

/* Nothing untrue was told, and nothing overflowed, which would have excused anything. */
void Battle::check_truth(const std::string &when)
{
    verdict_.none("paths that are not watched" + when, clients_.strays());
    verdict_.none("false paths told to clients" + when, clients_.signs().false_ones());
    for (size_t i = 0; i < commands_.size(); i++) {
        verdict_.none("false paths told by command " + std::to_string(i) + when, commands_[i]->signs().false_ones());
        verdict_.holds("no overflow in command " + std::to_string(i) + when, commands_[i]->lost("inotify") == 0,
                       std::to_string(commands_[i]->lost("inotify")));
    }
    struct fmon_status status = {};
    status.size = sizeof status;
    verdict_.holds("the status is told" + when, _orx_fmon_status(&status) == 0 && status.hardened, "it is not");
    verdict_.none("overflows" + when, overflows(status.lost));
    printf("  lost%s: unopened %llu, unknown %llu, path %llu\n", when.c_str(),
           static_cast<unsigned long long>(status.lost.unopened),
           static_cast<unsigned long long>(status.lost.unknown_wd), static_cast<unsigned long long>(status.lost.path));
}

void Battle::check_sizes(const Sizes &sizes, const std::string &when)
{
    printf("  sizes%s: marks %zu, directories cached %zu, heap %llu KiB, resident %llu KiB, slowest answer %lld ms\n",
           when.c_str(), sizes.marks, sizes.dentries, static_cast<unsigned long long>(sizes.heap >> 10),
           static_cast<unsigned long long>(sizes.resident), static_cast<long long>(slowest_ms_));
    for (size_t i = 0; i < commands_.size(); i++)
        printf("  command %zu%s: marks %llu, resident %llu KiB\n", i, when.c_str(),
               static_cast<unsigned long long>(sizes.command_marks[i]),
               static_cast<unsigned long long>(sizes.command_resident[i]));
    if (!before_)
        return;
    verdict_.holds("marks are flat" + when, sizes.marks == before_->marks, change(before_->marks, sizes.marks));
    verdict_.holds("the cache is flat" + when, sizes.dentries == before_->dentries,
                   change(before_->dentries, sizes.dentries));
    if (when.back() == '1')
        return; /* the first attack fills what is kept for use again */
    verdict_.holds("the heap is flat" + when, is_flat(before_->heap, sizes.heap, kHeapSlack),
                   change(before_->heap, sizes.heap));
#ifndef FMON_TEST_SANITIZED
    verdict_.holds("memory is flat" + when, is_flat(before_->resident, sizes.resident, kResidentSlack),
                   change(before_->resident, sizes.resident));
    for (size_t i = 0; i < commands_.size(); i++)
        verdict_.holds("memory of command " + std::to_string(i) + " is flat" + when,
                       is_flat(before_->command_resident[i], sizes.command_resident[i], kResidentSlack),
                       change(before_->command_resident[i], sizes.command_resident[i]));
#endif
}

void Battle::rest(int number)
{
    const std::string when = " at rest " + std::to_string(number);
    make_after_dirs(true);
    pass_fence(when);
    check_marks(when);
    check_reports(when);
    make_after_dirs(false);
    pass_fence(when);
    check_truth(when);
    const Sizes sizes = measure(commands_);
    check_sizes(sizes, when);
    before_ = sizes;
}

}  // namespace hostile
