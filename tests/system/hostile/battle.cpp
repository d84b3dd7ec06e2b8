#include "battle.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace hostile
{

namespace
{

constexpr int kPatienceMs = 60000; /* a machine under load is slow */
#ifdef FMON_TEST_SANITIZED
constexpr int kSlowestMs = 4500;
#else
constexpr int kSlowestMs = 3000;
#endif

constexpr uint32_t kTree = FMON_DIR | FMON_RECURSIVE;
constexpr uint32_t kWriting = FMON_MODIFY | FMON_CLOSE_WRITE;
constexpr uint32_t kNaming = FMON_CREATE | FMON_DELETE | FMON_MOVED_FROM | FMON_MOVED_TO;
static_assert(kSlowestMs < kHeldMs, "who waits for a lease is seen to be slow");

/* What the attackers do until they are told to leave. */
void serve(Attack &attack, Ground &ground)
{
    attack.begin(ground);
    for (uint64_t number = 0; ground.stage() != kLeave;) {
        const int stage = ground.stage();
        if (is_rest(stage)) {
            if (ground.post().rested.load() != stage)
                attack.rest(ground);
            ground.post().rested = stage;
            systest::pause_ms(1);
            continue;
        }
        for (int i = 0; i < attack.burst && ground.attacking(); i++) {
            attack.round(ground, number++);
            ground.post().rounds++;
        }
        ground.fence();
    }
}

systest::Body body_of(Attack &attack, Ground &ground)
{
    const systest::Body body = [&] { serve(attack, ground); };
    if (attack.who == Who::kRoot)
        return body;
    return attack.who == Who::kStranger ? systest::as_stranger(body) : systest::in_own_namespace(body);
}

}  // namespace

Battle::Battle(const Orders &orders)
    : orders_(orders),
      shared_(make_shared_memory()),
      own_(shared_, tree_.root(), kNobody, "calm", 0),
      clients_(shared_, tree_.root())
{
    for (Post &post : shared_->posts)
        post.rested = -2;
}

void Battle::add(const AttackRow &row)
{
    const int index = static_cast<int>(sides_.size());
    sides_.push_back({&row, row.make(),
                      std::make_unique<Ground>(shared_, tree_.root(), index, row.name, orders_.seed + index), nullptr});
}

/* ---- before the first attack ---- */

void Battle::prepare()
{
    chmod(tree_.root().c_str(), 0711);
    for (const char *dir : {"tree", "tree/calm", "tree/fence", "files", "flat", "wait", "out"})
        tree_.dir(dir);
    chmod(tree_.path("tree/fence").c_str(), 01777);
    for (Side &side : sides_) {
        for (const char *part : {"tree/", "files/", "out/"})
            tree_.dir(part + side.ground->name());
        if (side.attack->has_files)
            touch(side.ground->files("file")) && touch(side.ground->files("single"));
        side.attack->prepare(*side.ground);
    }
}

/* Before anything here has a thread. */
void Battle::fork_attackers()
{
    for (Side &side : sides_)
        side.process = std::make_unique<systest::Background>(body_of(*side.attack, *side.ground));
}

void Battle::plan_watches()
{
    const std::string tree = tree_.path("tree"), flat = tree_.path("flat");
    plan_ = {{kAll, {tree, FMON_ALL_EVENTS, kTree}},
             {kSync, {tree, FMON_ALL_EVENTS, kTree | FMON_SYNC}},
             {kDelay, {tree, kWriting, kTree | FMON_SYNC | FMON_DELAY}},
             {kFlatFiles, {flat, kWriting, kTree}},
             {kFlatNames, {flat, kNaming, FMON_DIR}}};
    for (const Side &side : sides_) {
        for (const std::string &dir : side.attack->own_dirs)
            plan_.push_back({kOwnDirs, {side.ground->tree(dir), kNaming | kWriting, FMON_DIR | FMON_DELETED}});
        if (side.attack->has_files) {
            const std::string file = side.ground->files("file"), single = side.ground->files("single");
            constexpr uint32_t kFile = FMON_FILE | FMON_DELETED;
            plan_.push_back({kFileWrites, {file, kWriting, kFile}});
            plan_.push_back({kFileAll, {file, FMON_ALL_EVENTS, kFile | FMON_SYNC}});
            plan_.push_back({kFileWrites, {single, kWriting, kFile}});
        }
        for (const std::string &path : side.attack->never_told)
            clients_.signs().forbid(side.ground->tree(path));
    }
}

void Battle::start_commands()
{
    const std::string tree = tree_.path("tree"), flat = tree_.path("flat");
    constexpr uint32_t kMask = FMON_CREATE | FMON_CLOSE_WRITE;
    commands_.push_back(
        std::make_unique<Command>(shared_,
                                  std::vector<std::string>{"-r", "-e", "create,close_write", "--include",
                                                           "/(fence|sign)-[^/]*$|/passwd$", tree, flat},
                                  std::vector<Asked>{{tree, kMask, kTree}, {flat, kMask, kTree}}));
    for (const Side &side : sides_) {
        for (const std::string &path : side.attack->never_told)
            commands_.front()->signs().forbid(side.ground->tree(path));
        if (!side.attack->waits)
            continue;
        const std::string dir = side.ground->wait("his/anc/dir"), logs = side.ground->wait("homes");
        commands_.push_back(std::make_unique<Command>(
            shared_, std::vector<std::string>{"-r", "--wait", "-e", "create,close_write", dir},
            std::vector<Asked>{{dir, kMask, kTree}}));
        commands_.push_back(std::make_unique<Command>(
            shared_, std::vector<std::string>{"-r", "-e", "create,close_write", logs + "/*/log"},
            std::vector<Asked>{{logs + "/good/log", kMask, kTree}}));
    }
}

bool Battle::start()
{
    prepare();
    fork_attackers();
    const auto all_ready = [&] {
        return std::all_of(sides_.begin(), sides_.end(), [](Side &side) { return side.ground->post().rested == 0; });
    };
    verdict_.holds("attackers begin", await(all_ready, kPatienceMs), "one did not");
    plan_watches();
    const std::string error = clients_.start(plan_);
    verdict_.holds("clients start", error.empty(), error);
    start_commands();
    for (const auto &command : commands_)
        verdict_.holds("a command starts", command->established(), command->errors());
    return verdict_.failed() == 0;
}

/* ---- turns ---- */

/* What this process has to do all the time: reads what commands print, and sees how long an answer takes. */
void Battle::tend()
{
    for (const auto &command : commands_)
        command->take();
    const int64_t now = systest::now_ms();
    if (!canary_.empty()) {
        slowest_ms_ = std::max(slowest_ms_, now - canary_since_);
        if ((clients_.signs().seen(canary_)[kAll] & (FMON_CREATE | FMON_CLOSE_WRITE)) !=
            (FMON_CREATE | FMON_CLOSE_WRITE))
            return;
        unlink(canary_.c_str());
    }
    canary_ = own_.tree("canary" + std::to_string(canaries_++));
    clients_.signs().look_for(canary_);
    canary_since_ = now;
    touch(canary_);
}

bool Battle::await(const std::function<bool()> &done, int ms)
{
    for (const int64_t deadline = systest::now_ms() + ms; systest::now_ms() < deadline;) {
        if (done())
            return true;
        for (const auto &command : commands_)
            command->take();
        systest::pause_ms(2);
    }
    return done();
}

void Battle::turn(int half)
{
    slowest_ms_ = 0;
    canary_.clear();
    for (Side &side : sides_)
        side.rounds_before = side.ground->post().rounds;
    const int64_t begin = systest::now_ms();
    shared_->stage = 2 * half + 1;
    while (systest::now_ms() < begin + orders_.seconds * 500) {
        tend();
        systest::pause_ms(2);
    }
    const int rest_stage = 2 * half + 2;
    shared_->stage = rest_stage;
    const int64_t took = systest::now_ms() - begin;
    const auto all_rest = [&] {
        return std::all_of(sides_.begin(), sides_.end(),
                           [=](Side &side) { return side.ground->post().rested == rest_stage; });
    };
    while (!all_rest() && systest::now_ms() < begin + orders_.seconds * 500 + kPatienceMs) {
        tend();
        systest::pause_ms(2);
    }
    verdict_.holds("attackers rest", all_rest(), "one did not");
    tell_rounds(took);
    unlink(canary_.c_str());
    verdict_.holds("slowest answer under attack", slowest_ms_ <= kSlowestMs, std::to_string(slowest_ms_) + " ms");
}

void Battle::tell_rounds(int64_t ms)
{
    for (const Side &side : sides_) {
        const uint64_t rounds = side.ground->post().rounds - side.rounds_before;
        printf("  %-10s %8llu rounds, %8llu a minute\n", side.row->name, static_cast<unsigned long long>(rounds),
               static_cast<unsigned long long>(rounds * 60000 / static_cast<uint64_t>(std::max<int64_t>(ms, 1))));
    }
}

bool Battle::run()
{
    if (start()) {
        rest(0);
        for (int half = 0; half < 2; half++) {
            turn(half);
            rest(half + 1);
        }
    }
    return leave();
}

bool Battle::leave()
{
    shared_->stage = kLeave;
    for (Side &side : sides_) {
        verdict_.holds(side.ground->name() + " ends", side.process->wait(kPatienceMs), "it did not, or failed");
        verdict_.holds(side.ground->name() + " attacks", side.ground->post().failures == 0,
                       side.ground->post().failure);
    }
    for (const auto &command : commands_)
        verdict_.holds("a command ends well", command->stop() == 0, command->errors());
    for (int client = 0; client < kClients; client++)
        _orx_fmon_del_instance(static_cast<uint32_t>(client));
    printf("%s: %d failed\n", verdict_.failed() ? "FAILED" : "passed", verdict_.failed());
    return verdict_.failed() == 0;
}

}  // namespace hostile
