/*
 * hotplug.h: processors that come online and go, as the kernel reports them.
 */
#ifndef KPROBE_HOTPLUG_H
#define KPROBE_HOTPLUG_H

#include <set>
#include <string_view>

#include "common/fd.h"

namespace kprobe
{

using common::Fd;

// Which processor a message of the kernel's is about, such as "online@/devices/system/cpu/cpu3". -1: none.
int parse_cpu_message(std::string_view message);

class Hotplug
{
public:
    // False: nothing will be reported.
    bool open();
    void close() { socket_.reset(); }
    int fd() const { return socket_.get(); }

    // Takes what the kernel has reported, without waiting. True: processors came or went; which is in `cpus`, unless
    // the kernel reported more than it kept.
    bool take(std::set<int> &cpus);

private:
    Fd socket_;
};

}  // namespace kprobe

#endif
