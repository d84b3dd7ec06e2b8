#include "message.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <new>
#include <string_view>

#include "escape.h"

namespace agent
{

namespace
{

int g_stderr = STDERR_FILENO;
thread_local std::string t_complainer; /* with ": " behind it; empty: none */

// Nothing is allocated here, and nothing else of the process is to run any more.
[[noreturn]] void on_uncaught()
{
    constexpr std::string_view kMemory = "fmon: out of memory\n", kFault = "fmon: ended by a fault of its own\n";
    bool is_memory = false;
    try {
        if (const std::exception_ptr current = std::current_exception())
            std::rethrow_exception(current);
    } catch (const std::bad_alloc &) {
        is_memory = true;
    } catch (...) {
        is_memory = false;
    }
    const std::string_view text = is_memory ? kMemory : kFault;
    [[maybe_unused]] const ssize_t n = write(g_stderr, text.data(), text.size());
    if (is_memory)
        _exit(kError);
    abort();
}

}  // namespace

void end_in_a_sentence() { std::set_terminate(on_uncaught); }

void say(const std::string &text)
{
    // Nobody can be told when this fails.
    [[maybe_unused]] const ssize_t n = write(g_stderr, text.data(), text.size());
}

void set_complainer(const std::string &name) { t_complainer = name.empty() ? "" : name + ": "; }

void complain(const std::string &text)
{
    std::string line = "fmon: ";
    append_safe(t_complainer + text, line);
    line.push_back('\n');
    say(line);
}

bool stderr_is_read()
{
    struct pollfd p = {g_stderr, POLLOUT, 0};
    return poll(&p, 1, 0) > 0;
}

bool stderr_is_terminal() { return isatty(g_stderr) == 1; }

void detach_stderr()
{
    const int copy = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (copy < 0)
        return;
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null < 0 || dup2(null, STDERR_FILENO) < 0) {
        close(copy);
    } else {
        g_stderr = copy;
    }
    if (null > STDERR_FILENO)
        close(null);
}

std::string with_commas(uint64_t number)
{
    std::string text = std::to_string(number);
    for (size_t i = text.size(); i > 3; i -= 3)
        text.insert(i - 3, ",");
    return text;
}

std::string counted(uint64_t number, const std::string &what)
{
    std::string text = with_commas(number) + " " + what;
    if (number == 1)
        return text;
    if (text.back() == 'y')
        return text.replace(text.size() - 1, 1, "ies");
    return text + (text.ends_with("ch") ? "es" : "s");
}

}  // namespace agent
