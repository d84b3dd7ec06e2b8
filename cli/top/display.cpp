#include "display.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "agent/descriptors.h"
#include "agent/message.h"
#include "agent/signals.h"
#include "agent/time_format.h"
#include "output/print.h"

namespace cli
{

namespace
{

constexpr uint64_t kLookMs = 50; /* how often a signal that ends the process is looked for: it must not outrun us */

void end_process() { kill(getpid(), SIGTERM); }

}  // namespace

Display::Display(const TopOptions &options, Board &board)
    : options_(options), board_(board), end_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

Display::~Display() { stop(); }

bool Display::start(std::string &error)
{
    std::unique_ptr<Screen> screen;
    if (!options_.batch && has_screen()) {
        screen = Screen::open(error);
        if (!screen)
            return false;
    }
    const agent::SignalsBlocked blocked;
    try {
        thread_ = std::thread([this, owned = std::move(screen)]() mutable {
            if (owned)
                show_screen(*owned);
            else
                print_tables();
            owned.reset();
        });
    } catch (const std::system_error &) {
        error = "no thread could be made: see ulimit -u";
    }
    return error.empty();
}

void Display::stop()
{
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(end_.get(), &one, sizeof one);
    if (thread_.joinable())
        thread_.join();
}

// Whatever comes first: the time, a key, the end. A reader that has gone ends the process.
bool Display::is_told_to_end(uint64_t wait_ms, bool keys) const
{
    constexpr short kGone = POLLHUP | POLLERR | POLLNVAL;
    struct pollfd fds[] = {{end_.get(), POLLIN, 0}, {keys ? STDIN_FILENO : -1, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    poll(fds, 3, static_cast<int>(wait_ms));
    const bool gone = (fds[1].revents | fds[2].revents) & kGone;
    if (gone)
        end_process();
    return gone || fds[0].revents || agent::stop_requested();
}

bool Display::take_keys(Screen &screen, View &view)
{
    bool pressed = false;
    for (int key; !view.quits() && (key = screen.key()) != kKeyNone; pressed = true) {
        const bool was_paused = view.paused();
        view.press(key, screen.size());
        if (view.paused() != was_paused)
            board_.pause(view.paused(), agent::steady_ms());
    }
    return pressed;
}

void Display::show_screen(Screen &screen)
{
    View view({options_.by.value_or(By::kFile), options_.sort, "", ""});
    for (uint64_t next = 0; !view.quits();) {
        const uint64_t now = agent::steady_ms();
        if (take_keys(screen, view) || now >= next) {
            view.take(board_.look(view.query(), now));
            screen.draw(view.lines(screen.size()));
            next = now + options_.interval_ms;
        }
        if (is_told_to_end(std::min(next - now, kLookMs), true))
            return;
    }
    end_process();
}

void Display::print_tables()
{
    for (uint64_t printed = 0; options_.tables == 0 || printed < options_.tables; printed++) {
        const uint64_t due = agent::steady_ms() + options_.interval_ms;
        for (uint64_t now; (now = agent::steady_ms()) < due;)
            if (is_told_to_end(due - now, false))
                return;
        if (output::print_out(tables_text(board_, options_, agent::steady_ms())) != agent::kDone)
            break;
    }
    end_process();
}

std::string tables_text(const Board &board, const TopOptions &options, uint64_t now_ms)
{
    std::string text;
    for (const By by : {By::kFile, By::kDirectory, By::kProcess, By::kContainer}) {
        if (options.by && *options.by != by)
            continue;
        const Seen seen = board.look({by, options.sort, "", ""}, now_ms);
        if (text.empty())
            text =
                title_text(seen) + "\n" + events_text(seen) + "\n" + kinds_text(seen) + "\n" + losses_text(seen) + "\n";
        text += "\n" + std::string(name_of(by)) + " by " + name_of(options.sort) + "\n" + heading_text(by, 0) + "\n";
        for (size_t i = 0; i < seen.rows.size() && i < options.rows; i++)
            text += row_text(seen.rows[i], by, seen.now_ms, 0) + "\n";
    }
    return text + "\n";
}

}  // namespace cli
