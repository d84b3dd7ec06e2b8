/*
 * session_fakes.h: a session with everything around it made up, and a clock that is moved by hand.
 */
#ifndef SESSION_FAKES_H
#define SESSION_FAKES_H

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "agent/message.h"
#include "agent/session.h"

namespace session_fakes
{

using Lines = std::vector<std::string>;

/* Answers as the test wants. */
class FakeMonitor : public agent::Monitor
{
public:
    struct fmon_status status = {};
    bool has_status = true;
    std::optional<agent::Findings> findings;
    uint64_t held = 0; /* records that a dump holds back */
    uint64_t lost_processes = 0;
    uint64_t per_turn = 1; /* of these go with each release */
    bool holds = false;
    int looks = 0, releases = 0;

    bool read_status(struct fmon_status &out) const override
    {
        const_cast<FakeMonitor *>(this)->looks++;
        out = status;
        return has_status;
    }
    uint64_t process_losses() const override { return lost_processes; }
    bool has_findings() const override { return findings.has_value(); }
    agent::Findings take_findings() override { return *std::exchange(findings, {}); }
    bool end_hold() override { return std::exchange(holds, false); }
    uint64_t release() override
    {
        releases++;
        return held -= std::min(held, per_turn);
    }
};

/* Batches as they are to be taken. */
class FakeEvents : public agent::EventSource
{
public:
    std::deque<agent::Batch> batches;
    bool comes_while_going_to_sleep = false;

    void add(const Lines &paths, uint32_t mask = FMON_CREATE)
    {
        batches.emplace_back();
        for (const std::string &path : paths)
            batches.back().append({0, mask, 0, 0, path, "", nullptr}, nullptr);
    }

    bool take(agent::Batch &batch) override
    {
        batch.clear();
        if (batches.empty())
            return false;
        batch = std::move(batches.front());
        batches.pop_front();
        return true;
    }
    bool prepare_to_sleep() override { return !comes_while_going_to_sleep; }
};

/* Keeps everything as a line of text. */
class FakeReport : public agent::Report
{
public:
    Lines lines;    /* records, in order */
    Lines warnings; /* and notes */
    std::vector<std::string> hidden_events;
    agent::Established start; /* what was established last */
    uint64_t count = 0;       /* -n; 0: no limit */
    int end_status = 0;
    uint64_t patience_ms = 0; /* how long events may gather */
    bool ended_by_itself = false;

    /* The records since the last call. */
    Lines take() { return std::exchange(lines, {}); }

    void hide(const std::vector<std::string> &) override {}
    void set_plan(const agent::Plan &) override {}
    bool begin(std::string &) override { return true; }
    void add_root(const std::string &) override {}
    void event(const agent::Event &event) override
    {
        const std::string path(event.path);
        if (finished() || std::count(hidden_events.begin(), hidden_events.end(), path))
            return;
        lines.push_back((event.found ? "found " : "") + path);
        ended_by_itself |= ++shown_ == count;
    }
    void established(const agent::Established &all) override
    {
        lines.push_back("established " + std::to_string(all.paths.size()) + " " + std::to_string(all.missing.size()));
        start = all;
    }
    void loss(const std::string &source, uint64_t number, const std::string &path) override
    {
        lines.push_back("loss " + source + " " + std::to_string(number) + (path.empty() ? "" : " " + path));
    }
    void resynced(const std::vector<std::string> &paths, uint64_t directories) override
    {
        lines.push_back("resynced " + std::to_string(paths.size()) + " " + std::to_string(directories));
    }
    void appeared(const std::string &path) override { lines.push_back("appeared " + path); }
    void ended(const std::string &path, const char *reason) override
    {
        lines.push_back("ended " + path + " " + reason);
    }
    void note(const std::string &text) override { warnings.push_back(text); }
    void warning(const std::string &text) override { warnings.push_back(text); }
    void flush() override {}
    void report_dropped() override { lines.push_back("report_dropped"); }
    bool finished() const override { return ended_by_itself; }
    int status() const override { return end_status; }
    uint64_t shown() const override { return shown_; }
    int output_fd() const override { return -1; }
    bool has_records() const override { return true; }
    uint64_t gather_ms() const override { return patience_ms; }

private:
    uint64_t shown_ = 0;
};

/* Notes when it was called. */
class FakeWatched : public agent::Watched
{
public:
    Lines calls;
    std::string latest_left_out;
    bool expecting = false, gone = false;
    bool without_room = false, room = false;
    int slices = 0, slices_of_a_walk = 1;
    std::string last_path; /* after its event nothing is left */

    long count(const std::string &call) const { return std::count(calls.begin(), calls.end(), call); }

    bool place(agent::Intake &) override { return true; }
    void report_start() override {}
    void before(const agent::Batch &batch) override { calls.push_back("before " + std::to_string(batch.size())); }
    void shown(const agent::Event &event) override
    {
        calls.push_back("shown " + std::string(event.path));
        gone |= event.path == last_path;
    }
    void after() override { calls.push_back("after"); }
    void look() override { calls.push_back("look"); }
    void mounts_changed() override { calls.push_back("mounts_changed"); }
    void complete_trees() override { calls.push_back("complete_trees"); }
    LeftOut report_left_out(uint64_t left_out) override
    {
        calls.push_back("left out " + std::to_string(left_out));
        return {left_out, latest_left_out};
    }
    bool lacks_room() const override { return without_room; }
    bool has_room() override
    {
        calls.push_back("has_room");
        return room;
    }
    void start_walk() override
    {
        calls.push_back("start_walk");
        slices = slices_of_a_walk;
    }
    bool walk() override
    {
        calls.push_back("walk");
        if (slices > 1)
            return --slices > 0;
        if (room)
            without_room = false;
        return false;
    }
    void report_resynced() override { calls.push_back("report_resynced"); }
    bool is_expecting() const override { return expecting; }
    bool all_ended() const override { return gone; }
};

/* A session and its clock. Steps are taken as the loop takes them: each pause passes at once. */
class SessionTest : public testing::Test
{
protected:
    static constexpr uint64_t kStart = 1'000'000;

    void begin(uint64_t timeout_ms = 0)
    {
        request.timeout_ms = timeout_ms;
        session.emplace(request, monitor, events, report);
        session->start(watched, now);
    }

    /* One step with what has happened; the pause that it asks for is in `pause`. */
    void step(const agent::Inputs &inputs = {}) { pause = session->step(now, inputs); }

    /* Steps until so much time has gone, or the session is over. */
    void pass(uint64_t ms, agent::Inputs inputs = {})
    {
        const uint64_t end = now + ms;
        while (!session->over()) {
            step(std::exchange(inputs, {}));
            if (now + pause.ms > end)
                break;
            now += pause.ms;
        }
        now = end;
    }

    /* Steps until the session is over, told to end at once, with so much patience; returns how long it took. */
    uint64_t end_told(int patience_ms)
    {
        const uint64_t told = now;
        for (agent::Inputs inputs; !session->over(); now += pause.ms) {
            inputs.patience_ms = patience_ms - static_cast<int>(std::min<uint64_t>(now - told, patience_ms));
            step(inputs);
        }
        return now - told;
    }

    agent::Request request;
    FakeMonitor monitor;
    FakeEvents events;
    FakeReport report;
    FakeWatched watched;
    std::optional<agent::Session> session;
    agent::Pause pause;
    uint64_t now = kStart;
};

}  // namespace session_fakes

#endif
