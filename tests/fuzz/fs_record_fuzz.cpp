/* Records of whole file systems' events, as read(2) gives them: what is yielded lies inside of the buffer. */
#include "fuzz.h"
#include "linux/fs/fs_record.h"

namespace
{

struct Range {
    const char *begin, *end;
};

void check_inside(const Range &buffer, const char *at, size_t size)
{
    FUZZ_CHECK(at >= buffer.begin && at <= buffer.end && size <= static_cast<size_t>(buffer.end - at));
}

void check_key(const Range &record, const struct fs_key &key)
{
    FUZZ_CHECK(key.len <= FS_HANDLE_MAX);
    if (key.len)
        check_inside(record, key.bytes, key.len);
}

void check_entry(const Range &record, const struct fs_entry &entry)
{
    check_key(record, entry.dir);
    if (!entry.name_len)
        return;
    FUZZ_CHECK(entry.dir.len && entry.name_len <= 255);
    check_inside(record, entry.name, entry.name_len);
    FUZZ_CHECK(!memchr(entry.name, '/', entry.name_len) && !memchr(entry.name, '\0', entry.name_len));
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *buffer = reinterpret_cast<const char *>(data);
    struct fs_record record;
    enum fs_cut cut;
    for (size_t at = 0; (cut = fs_record_at(buffer, size, at, &record)) != FS_CUT_END; at += record.size) {
        FUZZ_CHECK(record.size >= 24 && record.size <= size - at);
        if (cut == FS_CUT_SKIP)
            continue;
        const Range own = {buffer + at, buffer + at + record.size};
        check_key(own, record.object);
        check_entry(own, record.entry);
        check_entry(own, record.to);
    }
    return 0;
}
