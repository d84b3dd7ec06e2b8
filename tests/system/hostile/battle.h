/*
 * battle.h: the attackers, the attacked, and the turns of attack and rest.
 */
#ifndef HOSTILE_BATTLE_H
#define HOSTILE_BATTLE_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "attacks.h"
#include "checks.h"
#include "clients.h"

namespace hostile
{

struct Orders {
    std::vector<std::string> attacks; /* none: all */
    int seconds = 6;
    uint64_t seed = 1;
};

class Battle
{
public:
    explicit Battle(const Orders &orders);

    void add(const AttackRow &row);
    /* Attacks, and looks what is left. False: a check failed. */
    bool run();

private:
    struct Side {
        const AttackRow *row;
        std::unique_ptr<Attack> attack;
        std::unique_ptr<Ground> ground;
        std::unique_ptr<systest::Background> process;
        uint64_t rounds_before = 0;
    };

    void prepare();
    void fork_attackers();
    void plan_watches();
    bool start();
    void start_commands();
    bool await(const std::function<bool()> &done, int ms);
    void tend();
    void turn(int half);
    void rest(int number);
    void pass_fence(const std::string &when);
    void check_marks(const std::string &when);
    std::vector<std::string> wrong_marks(size_t who);
    void check_reports(const std::string &when);
    void check_truth(const std::string &when);
    void check_sizes(const Sizes &sizes, const std::string &when);
    void make_after_dirs(bool there);
    void tell_rounds(int64_t ms);
    bool leave();

    const Orders orders_;
    testlib::TempTree tree_;
    Shared *const shared_;
    Ground own_; /* of the process that is attacked */
    std::vector<Side> sides_;
    std::vector<Planned> plan_;
    Clients clients_;
    std::vector<std::unique_ptr<Command>> commands_;
    Verdict verdict_;
    std::optional<Sizes> before_;

    /* A file of the calm directory at a time: how long until it is told of. */
    std::string canary_;
    int64_t canary_since_ = 0, slowest_ms_ = 0;
    uint64_t canaries_ = 0;
};

}  // namespace hostile

#endif
