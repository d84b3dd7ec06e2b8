/*
 * The engine of whole file systems' events: any records in any order, out of a made-up world whose answers make no
 * sense either. Paths begin at an anchor and keep to their length; nothing is left open; every loop ends.
 *
 * Input: a byte that says what is done, and what that takes. See step().
 */
#include <cstring>
#include <string>
#include <vector>

#include "fuzz.h"
#include "linux/fs/fs_ask.h"
#include "linux/fs/fs_engine.h"
#include "orx_fmon.h"
#include "testlib/fs_records.h"

namespace
{

using testlib::Handle;

constexpr int kDirectories = 24;

struct Input {
    const uint8_t *data;
    size_t size;

    uint8_t byte() { return size ? (size--, *data++) : 0; }
    int number() { return byte() % kDirectories + 1; }
    std::string text(size_t most)
    {
        const size_t len = most < size ? most : size;
        const std::string out(reinterpret_cast<const char *>(data), len);
        data += len;
        size -= len;
        return out;
    }
};

struct World {
    Input input;
    int opened = 0, chunks = 0;
    int answers = 0; /* bounded: an endless stream of new records is no storm that ends */
};

World &of(void *arg) { return *static_cast<World *>(arg); }
Handle handle(int number) { return testlib::handle(number, 1 + number % 2); }

struct fs_key key_of(const Handle &handle)
{
    return {{handle.fs, 0}, handle.type, static_cast<uint32_t>(handle.bytes.size()), handle.bytes.data()};
}

std::string name_of(Input &input)
{
    const uint8_t kind = input.byte();
    if (kind % 16 == 0)
        return std::string(255, 'n');
    return kind % 16 == 1 ? "." : std::string(1, static_cast<char>('a' + kind % 8));
}

std::string any_record(Input &input)
{
    constexpr uint64_t kMasks[] = {
        FMON_CREATE,   FMON_DELETE, FMON_CREATE | FMON_DELETE,        0x10000000, FMON_MOVED_FROM,
        FMON_MOVED_TO, FMON_ATTRIB, FMON_DELETE_SELF | FMON_MOVE_SELF};
    const uint8_t what = input.byte();
    const uint64_t mask = kMasks[what % 8] | (what & 8 ? 0x40000000 : 0);
    const Handle from = handle(input.number()), to = handle(input.number()), object = handle(input.number());
    if (what % 8 == 3)
        return testlib::rename_record(mask, what & 16 ? 7 : 8, from, name_of(input), to, name_of(input), object);
    if (what & 32)
        return testlib::named_record(mask, 7, {testlib::info(testlib::kInfoEntry, from, name_of(input))});
    return testlib::entry_record(mask, what & 16 ? 7 : 8, from, name_of(input), object);
}

std::string any_records(Input &input)
{
    std::string out;
    for (int left = input.byte() % 16; left > 0; left--)
        out += any_record(input);
    return out;
}

/* ---- the world's answers ---- */

enum fs_asked place(void *arg, int, const struct fs_key *, struct fs_place *out)
{
    World &world = of(arg);
    const uint8_t kind = world.input.byte();
    if (kind % 4 != 0 || world.answers++ > 1000)
        return kind % 4 == 1 ? FS_ASKED_GONE : FS_ASKED_TOP;
    const Handle parent = handle(world.input.number());
    const struct fs_key key = key_of(parent);
    fs_key_store(&out->parent, &key);
    strcpy(out->name, "p");
    out->name_len = 1;
    out->deleted = kind & 128;
    return FS_ASKED_PLACE;
}

int open_directory(void *arg, int, const struct fs_key *)
{
    if (of(arg).input.byte() % 4 == 0)
        return -1;
    return 1000 + of(arg).opened++;
}

bool list(void *arg, int, void (*each)(void *to, const char *name, uint32_t len), void *to)
{
    each(to, "a", 1);
    return of(arg).input.byte() % 2;
}

enum fs_entry_kind entry(void *arg, int, const char *, const struct fs_key *)
{
    return static_cast<enum fs_entry_kind>(of(arg).input.byte() % 5);
}

int open_path(void *arg, const char *, const struct fs_key *key) { return open_directory(arg, 0, key); }
void close_directory(void *arg, int) { of(arg).opened--; }

constexpr struct fs_asks kAsks = {place, open_directory, list, entry, open_path, close_directory};

int open_mount(void *arg, const int32_t *, unsigned n) { return n < 1u + of(arg).input.byte() % 2 ? 5 : -1; }

bool read_more(void *arg, struct fs_chunk *out)
{
    World &world = of(arg);
    const uint8_t kind = world.input.byte();
    *out = {nullptr, 0, kind % 8 != 1};
    if (kind % 8 == 0)
        return false;
    const std::string records = kind % 2 && world.answers < 1000 ? any_records(world.input) : "";
    if (records.empty())
        return true;
    char *bytes = new char[records.size()];
    memcpy(bytes, records.data(), records.size());
    out->bytes = bytes;
    out->size = records.size();
    world.chunks++;
    return true;
}

void done(void *arg, const struct fs_chunk *chunk)
{
    delete[] chunk->bytes;
    of(arg).chunks--;
}

void deliver(void *, const struct fs_event *event)
{
    FUZZ_CHECK(event->path_len == strlen(event->path) && event->path_len <= FS_PATH_MAX);
    FUZZ_CHECK(strncmp(event->path, "/w", 2) == 0 && event->kinds != 0);
    uint32_t left = event->kinds;
    for (int i = 0; fs_event_next(event, &left) != 0; i++)
        FUZZ_CHECK(i < 12);
}

void lost(void *, enum fs_loss kind, uint64_t count) { FUZZ_CHECK(kind < FS_LOSSES && count > 0); }
void displaced(void *, uint64_t) {}

/* ---- what is done ---- */

void add_anchor(struct fs_engine *engine, Input &input)
{
    const Handle own = handle(input.number());
    const uint8_t kind = input.byte();
    const std::string path = "/w" + std::to_string(kind % 4);
    const struct fs_anchor anchor = {key_of(own), path.c_str(), static_cast<uint64_t>(kind % 4), 5, (kind & 8) != 0};
    fs_engine_add(engine, &anchor);
}

void add_joint(struct fs_engine *engine, Input &input)
{
    const Handle root = handle(input.number()), in = handle(input.number());
    const struct fs_joint joint = {key_of(root), key_of(in), "m", static_cast<uint64_t>(input.byte() % 4)};
    fs_engine_join(engine, &joint);
}

/* The input goes on while the engine asks: what is taken is copied before. */
void take(struct fs_engine *engine, const std::string &records, bool drained)
{
    fs_engine_take(engine, records.data(), records.size(), drained);
}

void step(struct fs_engine *engine, Input &input)
{
    const int32_t fsid[2] = {1 + input.byte() % 2, 0};
    switch (input.byte() % 8) {
        case 0:
            return add_anchor(engine, input);
        case 1:
            return add_joint(engine, input);
        case 2:
            fs_engine_remove(engine, input.byte() % 4);
            return;
        case 3:
            return fs_engine_forget(engine, fsid);
        case 4:
            return take(engine, testlib::overflow_record() + any_records(input), true);
        case 5:
            return take(engine, input.text(input.byte()), input.byte() % 2);
        default:
            return take(engine, any_records(input), input.byte() % 2);
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    World world;
    world.input = {data, size};
    const struct fs_world callbacks = {&world,    open_mount, read_more, done, deliver, lost,
                                       displaced, nullptr,    nullptr,   0,    &kAsks,  true};
    struct fs_engine *engine = fs_engine_new(8, 7, &callbacks);
    while (world.input.size)
        step(engine, world.input);
    fs_engine_free(engine);
    FUZZ_CHECK(world.opened == 0 && world.chunks == 0);
    return 0;
}
