/*
 * display.h: shows the board on a thread of its own: on the whole screen, or as plain tables one after the other.
 */
#ifndef CLI_TOP_DISPLAY_H
#define CLI_TOP_DISPLAY_H

#include <memory>
#include <string>
#include <thread>

#include "board.h"
#include "common/fd.h"
#include "screen.h"
#include "top_options.h"

namespace cli
{

class Display
{
public:
    Display(const TopOptions &options, Board &board);
    ~Display();
    Display(const Display &) = delete;
    Display &operator=(const Display &) = delete;

    /* Takes the terminal and begins. False, with one line in `error`. When it is told to end, by a key or because the
     * tables are all printed, it asks this process to end with SIGTERM. */
    bool start(std::string &error);
    /* Gives the terminal back, and waits for the thread. */
    void stop();

private:
    void show_screen(Screen &screen);
    bool take_keys(Screen &screen, View &view);
    void print_tables();
    bool is_told_to_end(uint64_t wait_ms, bool keys) const;

    const TopOptions &options_;
    Board &board_;
    common::Fd end_; /* an eventfd: readable from stop() on */
    std::thread thread_;
};

/* One plain table after the other, each with at most `rows` rows; `by` null: of all kinds. */
std::string tables_text(const Board &board, const TopOptions &options, uint64_t now_ms);

}  // namespace cli

#endif
