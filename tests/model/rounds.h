/*
 * rounds.h: `fmon watch` beside the operators. Each round changes files for a while, waits until all of that was
 * reported, and compares.
 */
#ifndef MODEL_ROUNDS_H
#define MODEL_ROUNDS_H

#include <memory>
#include <string>
#include <vector>

#include "ledger.h"
#include "operators.h"
#include "player.h"
#include "script.h"
#include "system/harness.h"
#include "world.h"

namespace model
{

struct Setting {
    std::vector<std::string> options; /* of fmon watch */
    bool small_table;                 /* directories are forgotten */
    bool exact;                       /* no exceptions: what happens is reported by the file system's one mark */
};

class Rounds
{
public:
    Rounds(Setting setting, const std::string &ground, unsigned long seed);
    ~Rounds();
    /* Until so many operations were done or a round was wrong; the complaints of that one. */
    Complaints run(size_t operations);
    size_t operations() const { return script_.operations(); }
    size_t records() const { return ledger_->records(); }
    int rounds() const { return world_.round; }

private:
    struct Way { /* how a round goes */
        size_t longest_batch;
        int longest_pause_ms; /* between batches */
        bool stopped;         /* the watcher reads when the round is over */
        bool flickers;        /* it is stopped and goes on between batches */
        bool parallel;        /* each operator in a part of the tree that is its own */
    };

    void note(const std::string &line);
    void make_ground();
    void start_watcher();
    void round();
    Way choose_way();
    void play(const Way &way);
    void play_parallel();
    void batch(size_t number, size_t length);
    void await(size_t number);
    void perform(size_t number);
    void set_stopped(bool stopped);
    void change_mounts();
    void bind(Node &point);
    void settle_mounts(std::vector<Node *> roots);
    void finish_round();
    void barrier();
    bool read(int ms);
    void take(const systest::Json &record);
    bool is_marker_reported() const;
    bool is_of_mount(const systest::Json &record) const;

    Setting setting_;
    std::string ground_;
    World world_;
    std::unique_ptr<Ledger> ledger_;
    Dice dice_;
    Script script_;
    Player player_;
    std::vector<std::unique_ptr<Operator>> operators_; /* three, and one that makes the markers */
    std::unique_ptr<systest::Watch> watch_;
    Entry *marker_ = nullptr;
    std::map<std::string, std::set<std::string>>
        marks_; /* the marker's paths and what is still to be reported of each */
    bool stopped_ = false, lenient_ = false;
    std::vector<std::string> trace_;
    Complaints complaints_;
};

}  // namespace model

#endif
