#include "current_mounts.h"

#include <cstring>
#include <set>

#include "clock.h"
#include "filter.h"
#include "record.h"

namespace kprobe
{

void CurrentMounts::read()
{
    mounts_.refresh(read_mounts());
    read_ns_ = now_ns();
}

std::string CurrentMounts::by_device(const std::string &filter)
{
    const common::Lock lock(lock_);
    read();
    mounts_.want(mount_ids(filter));
    return filter_by_device(filter, mounts_);
}

bool CurrentMounts::name_mount(unsigned char *record)
{
    constexpr uint64_t kMaxAge = 100000000;  // ns
    const common::Lock lock(lock_);
    uint32_t device;
    memcpy(&device, record, sizeof(device));
    if (mounts_.id_of(device) == 0 && now_ns() - read_ns_ > kMaxAge)
        read();
    return put_mount_id(mounts_, record);
}

void CurrentMounts::mark(const std::string &filter, Marks &marks)
{
    const common::Lock lock(lock_);
    std::set<uint32_t> devices;
    for (const int32_t id : mount_ids(filter))
        if (const uint32_t device = mounts_.device_of(id))
            devices.insert(device);
    marks.place(devices, mounts_);
}

}  // namespace kprobe
