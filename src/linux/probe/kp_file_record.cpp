/* Records of the file probes: from the fetched names of an entry and its ancestors back to a path. */
#include <cstring>

#include "event.h"
#include "linux/mount.h"
#include "linux/probe/clt_file.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/clt_file.c";

constexpr int kLevels = 11;

/* What the fetch arguments of fetch_text.cpp fill, at any address. Names that fill their field have no NUL. */
struct [[gnu::packed]] file_record {
    uint32_t mount_id;
    char ancestors[kLevels][32]; /* the outermost first; the parent is the last */
    char leaf[64];
};
static_assert(sizeof(struct file_record) == 420 && offsetof(struct file_record, ancestors) == 4 &&
              offsetof(struct file_record, leaf) == 356);

/* A path under construction, without its NUL. A slash may take the last byte: then no leaf fits any more. */
struct path_text {
    char text[DCACHE_PATH_MAX];
    size_t length = 0;

    static constexpr size_t kMax = DCACHE_PATH_MAX - 1;
    bool has_room() const { return length <= kMax; }
    void append(const char *bytes, size_t n)
    {
        memcpy(text + length, bytes, n);
        length += n;
    }
};

/* A copy for the log: the name itself may be without an end, and where it ends is still to be found out. */
struct leaf_copy {
    char text[sizeof(file_record::leaf) + 1];
    explicit leaf_copy(const struct file_record *record)
    {
        memcpy(text, record->leaf, sizeof(record->leaf));
        text[sizeof(text) - 1] = '\0';
    }
};

/* Terminates a name that fills its field; true when it was cut off there. */
template <size_t Size>
bool cut_off(char (&name)[Size])
{
    if (name[Size - 1] == '\0')
        return false;
    name[Size - 1] = '\0';
    return strnlen(name, Size - 1) == Size - 1;
}

/* The index of the mount's root among the ancestors. -1: a name between was cut off, or the root is too far up. */
int find_root(struct file_record *record)
{
    for (int k = kLevels - 1; k >= 0; k--) {
        if (cut_off(record->ancestors[k])) {
            FMON_LOG(2, kFile, "dir name trunc");
            return -1;
        }
        FMON_LOG(4, kFile, "file dirname = %s", record->ancestors[k]);
        if (record->ancestors[k][0] == '/')
            return k;
    }
    FMON_LOG(2, kFile, "can't find root dir");
    return -1;
}

/* The directory of the record's mount takes the place of the mount's root. */
void begin_path(const struct file_record *record, path_text *path)
{
    const char *mount = search_mnt(static_cast<int32_t>(record->mount_id));
    if (mount) {
        path->append(mount, strnlen(mount, path_text::kMax));
        if (path->length > 0 && path->text[path->length - 1] != '/')
            path->append("/", 1);
    } else {
        FMON_LOG(2, kFile, "we don't find the mount dir!");
        path->append("/", 1);
    }
    FMON_LOG(4, kFile, "root_dirname:%s", mount ? mount : "(null)");
}

int append_directories(const struct file_record *record, int root, path_text *path)
{
    for (int k = root + 1; k < kLevels && path->has_room(); k++) {
        const char *name = record->ancestors[k];
        const size_t length = strlen(name);
        FMON_LOG(4, kFile, "transform path:dir:%d,path:%s", k, name);
        if (path->length + length > path_text::kMax) {
            FMON_LOG(2, kFile, "file path over 1024!");
            return -1;
        }
        path->append(name, length);
        path->append("/", 1);
    }
    return 0;
}

int append_leaf(const struct file_record *record, path_text *path)
{
    const size_t length = strlen(record->leaf);
    if (path->length + length + 1 >= sizeof(path->text)) {
        FMON_LOG(2, kFile, "file path over 1024");
        return -1;
    }
    path->append(record->leaf, length + 1);
    return 0;
}

void report(uint32_t event_bit, uint32_t pid, void *record, uint32_t size)
{
    if (size >= sizeof(struct file_record))
        transform_to_fmon_event(record, event_bit, pid);
}

}  // namespace

int transform_to_fmon_event(void *raw, uint32_t event_bit, uint32_t pid)
{
    struct file_record *record = static_cast<struct file_record *>(raw);
    FMON_LOG(4, kFile, "filename:%s, mnt_id:%d\n", leaf_copy(record).text, static_cast<int>(record->mount_id));
    const int root = find_root(record);
    if (root < 0) {
        fmon_lost_path(&fmon, "");
        return -1;
    }
    /* A pattern stands for the rest of a name that was cut off. */
    if (cut_off(record->leaf))
        record->leaf[sizeof(record->leaf) - 2] = '*';
    path_text path;
    begin_path(record, &path);
    if (append_directories(record, root, &path) < 0 || append_leaf(record, &path) < 0) {
        path.text[path.length < path_text::kMax ? path.length : path_text::kMax] = '\0';
        fmon_lost_path(&fmon, path.text);
        return -1;
    }
    event_process(&fmon, nullptr, path.text, event_bit, pid, 0, nullptr);
    return 0;
}

void read_kp_crt_event(uint32_t pid, void *record, uint32_t size) { report(FMON_CREATE, pid, record, size); }

void read_kp_del_event(uint32_t pid, void *record, uint32_t size) { report(FMON_DELETE, pid, record, size); }

void read_kp_writeclose_event(uint32_t pid, void *record, uint32_t size)
{
    report(FMON_CLOSE_WRITE, pid, record, size);
}

void read_kp_movefrom_event(uint32_t pid, void *record, uint32_t size)
{
    if (size > sizeof(struct file_record))
        FMON_LOG(2, kFile, "wrong data"); /* taken all the same */
    report(FMON_MOVED_FROM, pid, record, size);
}

void read_kp_moveto_event(uint32_t pid, void *record, uint32_t size) { report(FMON_MOVED_TO, pid, record, size); }

void read_kp_link_event(uint32_t pid, void *record, uint32_t size) { report(FMON_LINK, pid, record, size); }
