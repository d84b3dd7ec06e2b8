#include "churn.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "watcher.h"

namespace
{

constexpr char kName[] = "/churned";

std::string directory(const std::string &root, int number) { return root + "/d" + std::to_string(number); }

[[noreturn]] void churn(const std::string &root, int directories, int files)
{
    for (int i = 0; i < files; i++) {
        const std::string path = directory(root, i % directories) + kName + std::to_string(i);
        const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        if (fd < 0 || write(fd, "0123456789abcdef", 16) != 16 || close(fd) != 0 || unlink(path.c_str()) != 0)
            _exit(1);
    }
    _exit(0);
}

double seconds(const struct timeval &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

struct kind_word {
    const char *word;
    ChurnKind kind;
};
constexpr kind_word kWords[] = {
    {"create", kCreated}, {"modify", kModified}, {"close_write", kClosed}, {"delete", kDeleted}};

/* The kinds in a list such as "create,close_write" or "CLOSE_WRITE,CLOSE". */
unsigned kinds_of(std::string list)
{
    unsigned kinds = 0;
    std::transform(list.begin(), list.end(), list.begin(), [](unsigned char c) { return std::tolower(c); });
    for (size_t at = 0; at < list.size();) {
        const size_t end = std::min(list.find(',', at), list.size());
        for (const kind_word &known : kWords)
            if (list.compare(at, end - at, known.word) == 0)
                kinds |= known.kind;
        at = end + 1;
    }
    return kinds;
}

/* Of fatrace's "sh(12): CW /path" only the letters are left. */
unsigned kinds_of_letters(const std::string &word)
{
    if (word.find_first_not_of("CROW<>+D") != std::string::npos || word.find('W') == std::string::npos)
        return 0;
    return word.find('C') == std::string::npos ? kModified : kClosed;
}

unsigned kinds_of_line(const std::string &line)
{
    unsigned kinds = 0;
    for (size_t at = 0; at < line.size();) {
        const size_t end = std::min(line.find(' ', at), line.size());
        const std::string word = line.substr(at, end - at);
        kinds |= kinds_of(word) | kinds_of_letters(word);
        at = end + 1;
    }
    return kinds;
}

bool is_loss(const std::string &line)
{
    return line.find("loss") != std::string::npos || line.find("verflow") != std::string::npos ||
           line.find("OVERFLOW") != std::string::npos;
}

/* fmon: "... /path  name[12]"; fatrace: "name(12): ...". */
bool names_process(const std::string &line) { return line.find_first_of("([") != std::string::npos; }

}  // namespace

void prepare_churn(const std::string &root, int directories)
{
    for (int i = 0; i < directories; i++)
        if (mkdir(directory(root, i).c_str(), 0777) != 0)
            perror("churn");
}

ChurnCost run_churn(const std::string &root, int directories, int files)
{
    const double start = now_seconds();
    const pid_t child = fork();
    if (child == 0)
        churn(root, directories, files);
    int status = -1;
    struct rusage usage = {};
    if (child < 0 || wait4(child, &status, 0, &usage) != child || status != 0) {
        fprintf(stderr, "churn: failed below %s\n", root.c_str());
        exit(2);
    }
    return {seconds(usage.ru_utime) + seconds(usage.ru_stime), now_seconds() - start};
}

void ChurnReport::read(const std::string &output, int count)
{
    files.assign(static_cast<size_t>(count), 0);
    std::ifstream in(output);
    for (std::string line; std::getline(in, line);) {
        loss |= is_loss(line);
        const size_t at = line.find(kName + 1);
        if (at == std::string::npos)
            continue;
        const auto number = static_cast<size_t>(atol(line.c_str() + at + sizeof kName - 2));
        if (number < files.size())
            files[number] |= static_cast<uint8_t>(kinds_of_line(line));
        lines++;
        named += names_process(line) ? 1 : 0;
    }
}

double ChurnReport::seen(unsigned kinds) const
{
    uint64_t came = 0;
    for (const uint8_t file : files)
        came += static_cast<uint64_t>(std::popcount(file & kinds));
    return static_cast<double>(came) / static_cast<double>(files.size() * static_cast<size_t>(std::popcount(kinds)));
}
