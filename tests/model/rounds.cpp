#include "rounds.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "marks_ledger.h"

using systest::Json;

namespace model
{

namespace
{

constexpr size_t kOperators = 3, kMarker = 3;
constexpr int kAreas = 3, kPoints = 2, kRoundsOfOneWatcher = 25, kRoundsOfMounts = 6, kQuietMs = 30, kSettleMs = 10000,
              kLossMs = 3000;
constexpr size_t kFirstEntries = 150;

std::unique_ptr<Ledger> make_ledger(const Setting &setting)
{
    if (setting.exact)
        return std::make_unique<Ledger>(setting.small_table);
    return std::make_unique<MarksLedger>();
}

}  // namespace

Rounds::Rounds(Setting setting, const std::string &ground, unsigned long seed)
    : setting_(std::move(setting)),
      ground_(ground),
      ledger_(make_ledger(setting_)),
      dice_(seed),
      script_(world_, *ledger_, dice_, ground_),
      player_(world_, script_, dice_)
{
    make_ground();
    start_watcher();
}

Rounds::~Rounds()
{
    watch_.reset();
    for (const Mount &mount : world_.mounts())
        umount2((ground_ + "/" + world_.reach(*mount.point)).c_str(), MNT_DETACH);
}

/* ---- the processes ---- */

/* What is there before the watcher comes: it has seen none of that being made. */
void Rounds::make_ground()
{
    systest::make_dir(ground_ + "/tree");
    systest::make_dir(ground_ + "/outer");
    for (size_t i = 0; i <= kOperators; i++)
        operators_.push_back(std::make_unique<Operator>(ground_));
    script_.by(0, operators_[0]->pid());
    for (int i = 0; i < kAreas; i++)
        script_.make(world_.tree(), "area" + std::to_string(i), kMakeDir)->node->pinned = true;
    for (int i = 0; i < kPoints; i++) {
        Node &point = *script_.make(world_.tree(), "mount" + std::to_string(i), kMakeDir)->node;
        point.pinned = point.point = true;
    }
    script_.make(world_.outer(), "store", kMakeDir)->node->pinned = true;
    player_.confine({&world_.tree(), &world_.outer()});
    for (size_t i = 0; i < kFirstEntries; i++)
        player_.act();
    perform(0);
    ledger_->settle(0);
}

void Rounds::start_watcher()
{
    if (watch_) {
        EXPECT_EQ(0, watch_->stop());
        ledger_->settle(world_.round); /* the last marker's removal may have come too late */
    }
    watch_ = std::make_unique<systest::Watch>(ground_ + "/tree", setting_.options);
    watch_->losses_are_due();
    const Json established = watch_->established();
    if (setting_.exact) {
        EXPECT_EQ("filesystem", established.value("source", "")) << established;
    }
}

/* The file named by FMON_MODEL_TRACE has the notes of all rounds. */
void Rounds::note(const std::string &line)
{
    static FILE *const trace = getenv("FMON_MODEL_TRACE") ? fopen(getenv("FMON_MODEL_TRACE"), "we") : nullptr;
    trace_.push_back(line);
    if (trace)
        fprintf(trace, "%d: %s\n", world_.round, line.c_str());
}

void Rounds::await(size_t number)
{
    const std::string failure = operators_[number]->end();
    EXPECT_EQ("", failure);
    if (!failure.empty())
        complaints_.push_back("operator " + std::to_string(number) + ": " + failure);
}

void Rounds::perform(size_t number)
{
    const std::vector<Step> steps = script_.take();
    for (const Step &step : steps)
        note(std::to_string(operators_[number]->pid()) + " " + to_text(step));
    operators_[number]->begin(steps);
    await(number);
}

void Rounds::set_stopped(bool stopped)
{
    if (stopped == stopped_)
        return;
    const pid_t pid = watch_->process().pid();
    kill(pid, stopped ? SIGSTOP : SIGCONT);
    siginfo_t info;
    waitid(P_PID, static_cast<id_t>(pid), &info, stopped ? WSTOPPED : WCONTINUED);
    note(stopped ? "-- the watcher stands" : "-- the watcher goes on");
    stopped_ = stopped;
}

/* ---- a round ---- */

Rounds::Way Rounds::choose_way()
{
    static const std::vector<Way> ways = {
        {20, 0, false, false, false}, {1, 3, false, false, false}, {6, 1, false, false, false},
        {20, 0, true, false, false},  {4, 0, true, false, false},  {5, 0, false, true, false},
        {30, 0, false, false, true},  {30, 0, true, false, true},
    };
    return ways[dice_.below(ways.size())];
}

void Rounds::batch(size_t number, size_t length)
{
    script_.by(number, operators_[number]->pid());
    for (size_t i = 0; i < length; i++)
        player_.act();
    perform(number);
}

void Rounds::play(const Way &way)
{
    const size_t until = script_.operations() + 20 + dice_.below(100);
    player_.confine({&world_.tree(), &world_.tree(), &world_.tree(), &world_.outer()});
    for (int tries = 0; script_.operations() < until && tries < 500; tries++) {
        if (way.flickers)
            set_stopped(dice_.one_in(2));
        batch(dice_.below(kOperators), 1 + dice_.below(way.longest_batch));
        if (way.longest_pause_ms > 0)
            systest::pause_ms(static_cast<int>(dice_.below(static_cast<size_t>(way.longest_pause_ms) + 1)));
    }
}

/* All at once; no operator sees what another one does, so that the model need not know who was first. */
void Rounds::play_parallel()
{
    for (size_t i = 0; i < kOperators; i++) {
        Node *area = world_.tree().entries.at("area" + std::to_string(i))->node;
        player_.confine({area});
        script_.by(i, operators_[i]->pid());
        for (int k = 0; k < 25; k++)
            player_.act();
        const std::vector<Step> steps = script_.take();
        for (const Step &step : steps)
            note(std::to_string(operators_[i]->pid()) + " || " + to_text(step));
        operators_[i]->begin(steps);
    }
    for (size_t i = 0; i < kOperators; i++)
        await(i);
}

void Rounds::round()
{
    world_.round++;
    script_.note_paths();
    const Way way = choose_way();
    player_.keep_directories(!setting_.exact && dice_.one_in(2));
    set_stopped(way.stopped);
    if (way.parallel)
        play_parallel();
    else
        play(way);
    set_stopped(false);
    finish_round();
}

/* ---- what was reported ---- */

/* A mount that came or went: what happened there until it was known is lost. */
bool Rounds::is_of_mount(const Json &record) const
{
    const auto &entries = world_.tree().entries;
    return std::any_of(entries.begin(), entries.end(), [&](const auto &entry) {
        return entry.second->node->point && record.value("path", "") == ground_ + "/tree/" + entry.first;
    });
}

void Rounds::take(const Json &record)
{
    if (record["type"] == "resynced") /* follows a loss, which is judged */
        return;
    if (record["type"] != "event") {
        if (!lenient_ && !is_of_mount(record) &&
            !ledger_->may_lose(record.value("source", ""), record.value("count", size_t{0})))
            complaints_.push_back("not an event: " + record.dump());
        return;
    }
    Report report = {path_of(record), static_cast<pid_t>(record.value("pid", 0)), {}, record.value("found", false)};
    for (const std::string kind : record["events"])
        report.kinds.insert(kind);
    if (const auto at = marks_.find(report.path); at != marks_.end())
        for (const std::string &kind : report.kinds)
            at->second.erase(kind);
    ledger_->reported(report);
}

bool Rounds::read(int ms)
{
    const std::optional<Json> record = watch_->next(ms);
    if (record)
        take(*record);
    return record.has_value();
}

bool Rounds::is_marker_reported() const
{
    const auto done = [](const auto &mark) { return mark.second.empty(); };
    return setting_.exact ? std::all_of(marks_.begin(), marks_.end(), done)
                          : std::any_of(marks_.begin(), marks_.end(), done);
}

/* A file that is made when all else is done: when it has been reported, so has everything before. In any directory, so
 * that the watcher must know where that is by now; with marks, in one that is marked for certain. */
void Rounds::barrier()
{
    script_.by(kMarker, operators_[kMarker]->pid());
    std::vector<Node *> all = world_.directories(world_.tree());
    Node &dir = setting_.exact ? *dice_.pick(all) : world_.tree();
    marker_ = script_.make(dir, ".marker" + std::to_string(world_.round), kMakeFile);
    marks_.clear();
    for (const std::string &path : world_.seen(*marker_))
        marks_[ground_ + "/" + path] = {"create", "modify", "close_write"};
    perform(kMarker);
    const int64_t deadline = systest::now_ms() + (lenient_ ? 500 : systest::kPatienceMs);
    while (!is_marker_reported() && systest::now_ms() < deadline)
        read(20);
    while (!setting_.exact && read(kQuietMs)) {
    }
}

void Rounds::finish_round()
{
    barrier();
    for (const int64_t deadline = systest::now_ms() + kLossMs; ledger_->awaits_loss() && systest::now_ms() < deadline;)
        read(kQuietMs);
    const Complaints more = ledger_->settle(world_.round);
    complaints_.insert(complaints_.end(), more.begin(), more.end());
    script_.remove(*marker_); /* belongs to the next round */
    perform(kMarker);
}

/* ---- mounts ---- */

void Rounds::bind(Node &point)
{
    std::vector<Node *> all = world_.directories(dice_.one_in(3) ? world_.outer() : world_.tree());
    Node &root = *dice_.pick(all);
    if (!root.self)
        return;
    const std::string from = ground_ + "/" + world_.reach(root), to = ground_ + "/" + world_.reach(point);
    EXPECT_EQ(0, ::mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr)) << strerror(errno);
    world_.mount(point, root);
    note("-- " + world_.reach(root) + " is bound at " + world_.reach(point));
}

void Rounds::change_mounts()
{
    world_.round++;
    Node &point = *world_.tree().entries.at("mount" + std::to_string(dice_.below(kPoints)))->node;
    const auto &mounts = world_.mounts();
    const auto old =
        std::find_if(mounts.begin(), mounts.end(), [&](const Mount &mount) { return mount.point == &point; });
    std::vector<Node *> gone;
    if (old == mounts.end()) {
        bind(point);
    } else {
        EXPECT_EQ(0, umount2((ground_ + "/" + world_.reach(point)).c_str(), 0)) << strerror(errno);
        gone.push_back(old->root);
        world_.unmount(point);
        note("-- " + world_.reach(point) + " is unmounted");
    }
    settle_mounts(gone);
}

/* The watcher hears of mounts a little later. Until then what is seen through them may be missing. */
void Rounds::settle_mounts(std::vector<Node *> roots)
{
    for (const Mount &mount : world_.mounts())
        roots.push_back(mount.root);
    const int64_t deadline = systest::now_ms() + kSettleMs;
    const Dice before = dice_; /* how often this goes round is no part of the seed's course */
    lenient_ = true;
    for (bool settled = false; !settled; settled = complaints_.empty() || systest::now_ms() > deadline) {
        complaints_.clear();
        for (Node *root : roots) {
            script_.by(0, operators_[0]->pid());
            script_.remove(*script_.make(*root, ".probe", kMakeFile));
            perform(0);
        }
        script_.note_paths();
        finish_round();
    }
    lenient_ = false;
    dice_ = before;
}

Complaints Rounds::run(size_t operations)
{
    while (script_.operations() < operations && complaints_.empty()) {
        trace_.clear();
        round();
        if (complaints_.empty() && world_.round % kRoundsOfMounts == 0)
            change_mounts();
        if (complaints_.empty() && world_.round % kRoundsOfOneWatcher == 0)
            start_watcher();
    }
    if (!complaints_.empty())
        complaints_.insert(complaints_.end(), trace_.begin(), trace_.end());
    return complaints_;
}

}  // namespace model
