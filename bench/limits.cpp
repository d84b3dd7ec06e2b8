#include "limits.h"

#include <fstream>

namespace
{

/* Room for what else runs on the machine. */
constexpr long kReserve = 50000;

long read_number(const std::string &path)
{
    long number = -1;
    std::ifstream(path) >> number;
    return number;
}

bool write_number(const std::string &path, long number)
{
    std::ofstream file(path);
    file << number << std::flush;
    return file.good();
}

}  // namespace

/* A kernel without the limit (-1) does not limit. */
Limit::Limit(const std::string &name, long wanted)
    : path_("/proc/sys/" + name), before_(read_number(path_)), enough_(before_ < 0 || before_ >= wanted)
{
    if (!enough_)
        enough_ = raised_ = write_number(path_, wanted);
}

Limit::~Limit()
{
    if (raised_)
        write_number(path_, before_);
}

MarkLimits::MarkLimits(long directories)
    : watches_("fs/inotify/max_user_watches", directories + kReserve),
      marks_("fs/fanotify/max_user_marks", directories + kReserve)
{
}
