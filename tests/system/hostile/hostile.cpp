/*
 * hostile: attacks a module with eight clients, and `fmon watch` beside it, for a time, and then looks whether anything
 * was blinded, misled or filled up.
 *
 *   system_hostile [ATTACK,...] [SECONDS] [SEED]
 *
 * All attacks for 6 seconds without arguments; "list" tells their names. Each half of the time ends in a rest, when the
 * marks in /proc must be exactly those of the directories that are there, every directory and file is told of, and
 * nothing has grown since the rest before. Status: 0, 1 for a failed check, 2 for bad arguments, 77 without root.
 */
#include <malloc.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "attacks.h"
#include "battle.h"

namespace hostile
{

namespace
{

constexpr int kSkipped = 77;

int list_attacks()
{
    for (const AttackRow &row : attack_table())
        printf("%-10s %s\n", row.name, row.what);
    return 0;
}

std::vector<std::string> split(const std::string &text)
{
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, ',');)
        parts.push_back(part);
    return parts;
}

bool chosen(const Orders &orders, const AttackRow &row)
{
    return orders.attacks.empty() ||
           std::find(orders.attacks.begin(), orders.attacks.end(), row.name) != orders.attacks.end();
}

bool known(const std::string &name)
{
    const auto &table = attack_table();
    return std::any_of(table.begin(), table.end(), [&](const AttackRow &row) { return row.name == name; });
}

/* Whether the arguments make sense. */
bool parse(int argc, char **argv, Orders *orders)
{
    if (argc > 1 && std::string(argv[1]) != "all")
        orders->attacks = split(argv[1]);
    if (argc > 2)
        orders->seconds = atoi(argv[2]);
    if (argc > 3)
        orders->seed = strtoull(argv[3], nullptr, 10);
    return argc <= 4 && orders->seconds > 0 && std::all_of(orders->attacks.begin(), orders->attacks.end(), known);
}

/* Why nothing can be tried here; empty where it can. */
std::string hindrance()
{
    if (!testlib::can_fanotify())
        return "fanotify needs root";
    if (!testlib::can_mount())
        return "mounts cannot be made";
    if (!systest::can_have_namespace())
        return "others cannot have namespaces of their own";
    return "";
}

/* What is mounted here is nobody else's, and one arena holds the whole heap. */
bool set_apart()
{
    mallopt(M_ARENA_MAX, 1);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

int run(const Orders &orders)
{
    Battle battle(orders);
    for (const AttackRow &row : attack_table())
        if (chosen(orders, row))
            battle.add(row);
    return battle.run() ? 0 : 1;
}

}  // namespace

}  // namespace hostile

int main(int argc, char **argv)
{
    using namespace hostile;
    if (argc == 2 && std::string(argv[1]) == "list")
        return list_attacks();
    Orders orders;
    if (!parse(argc, argv, &orders)) {
        fprintf(stderr, "usage: system_hostile [ATTACK,...|all|list] [SECONDS] [SEED]\n");
        return 2;
    }
    const std::string reason = hindrance();
    if (!reason.empty()) {
        printf("left out: %s\n", reason.c_str());
        return getenv("CI") ? 1 : kSkipped;
    }
    return set_apart() ? hostile::run(orders) : 1;
}
