#include "linux/probe/mount_filter.h"

#include <cstdlib>
#include <cstring>

#include "linux/mount.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/clt_file.c";

/* A filter under construction; what does not fit is cut off. */
class FilterText
{
public:
    explicit FilterText(char *out) : out_(out) {}
    bool has_room() const { return len_ < MOUNT_FILTER_SIZE - 1; }
    void put(const char *text)
    {
        orx_str_snprintf(out_ + len_, MOUNT_FILTER_SIZE - len_, "%s", text);
        len_ += strlen(out_ + len_); /* hosts differ in what the call returns for a text that was cut off */
    }
    void put_mount(const char *joint, int32_t id)
    {
        char text[sizeof("||mnt==-2147483648")];
        orx_str_snprintf(text, sizeof(text), "%smnt==%d", joint, id);
        put(text);
    }

private:
    char *out_;
    size_t len_ = 0;
};

int write_filter(const int32_t *ids, int count, char *out)
{
    FilterText filter(out);
    filter.put("(");
    filter.put_mount("", ids[0]);
    for (int i = 1; i < count && filter.has_room(); i++)
        filter.put_mount("||", ids[i]);
    if (filter.has_room())
        filter.put_mount("||", 0);
    if (!filter.has_room()) {
        FMON_LOG(2, kFile, "can't get common filter");
        return -1;
    }
    filter.put(")");
    FMON_LOG(3, kFile, "common_filter = %s", out);
    return 0;
}

}  // namespace

int mount_filter_make(char out[MOUNT_FILTER_SIZE])
{
    memset(out, 0, MOUNT_FILTER_SIZE);
    int32_t *ids = nullptr;
    const int count = get_global_mnt(&ids);
    int ret = 0;
    if (count > 0)
        ret = write_filter(ids, count, out);
    else
        FMON_LOG(2, kFile, "can't get mountonfo!");
    free(ids);
    return ret;
}
