/*
 * service.h: `fmon run`: instances that follow a configuration, until the service is told to end.
 */
#ifndef CLI_RUN_SERVICE_H
#define CLI_RUN_SERVICE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "agent/notify.h"
#include "agent/service_monitor.h"
#include "common/fd.h"
#include "config.h"
#include "instance.h"
#include "last_watch.h"
#include "stats.h"
#include "status_server.h"

namespace cli
{

/* One thread's. */
class Service
{
public:
    /* `file`: the configuration's, which is read again when the service is told to. */
    Service(const std::string &file, const Config &config);
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    /* Returns the exit status. The monitor's thread goes on: the caller ends the process at once. */
    int run();

    ServiceStats stats() const;

private:
    bool start(std::string &error);
    bool listen(std::string &error);
    void loop();
    uint64_t pause_ms(bool placing) const;
    void answer(bool stats, bool prometheus);
    void take_signals();
    void look(uint64_t now);
    void tend(uint64_t now);
    void reload();
    bool apply(const Config &config, std::string &error);
    void restore(const std::string &reason);
    Instance *find(const std::string &name);
    void tell_placed();
    void tell_gap();
    void keep_time(uint64_t ns, bool ended);
    void complain_news();
    int end();
    void settle(uint64_t deadline_ms);
    std::string summary() const;
    const char *phase() const;

    const std::string file_;
    Config config_;
    agent::Notify notify_;
    agent::ServiceMonitor monitor_;
    Numbers numbers_;
    Surroundings around_;
    std::vector<std::unique_ptr<Instance>> instances_;
    StatusServer status_, prometheus_;
    LastWatch last_;
    struct {
        common::Fd signals, changed; /* changed: an eventfd, readable when the state of a watch is another */
    } fds_;
    struct {
        uint64_t start_ns = 0;
        uint64_t reloads = 0;
        std::string reload_error; /* of the last one; empty: it was good */
        bool ready = false;       /* told the manager so, since the start and the last reload */
        bool told = false;        /* to end */
        bool again = false;       /* told to read the configuration anew */
        int status = 0;
        output::Leftover left; /* by outputs that went */
        uint64_t fed_ms = 0;   /* when the watchdog was told that all is well */
        uint64_t kept_ms = 0;  /* when it was last written down that this service watches; 0: never */
        bool kept = true;      /* and could be */
    } state_;
};

/* Where files of the service itself lie, whose events nobody wants. */
std::vector<std::string> own_files(const Config &config);

}  // namespace cli

#endif
