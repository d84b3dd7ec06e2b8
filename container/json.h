/*
 * json.h: JSON that others wrote: of bounded size and depth, and looked at without trust in any member's kind.
 */
#ifndef CONTAINER_JSON_H
#define CONTAINER_JSON_H

#include <rapidjson/document.h>

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>

namespace container
{

/* The parser's memory: it does not ask whether it got any, so that an exception must come instead. */
struct JsonMemory {
    static constexpr bool kNeedFree = true;
    void *Malloc(size_t size) { return size ? operator new(size) : nullptr; }
    void *Realloc(void *old, size_t old_size, size_t size);
    static void Free(void *memory) noexcept { operator delete(memory); }
};

using JsonDocument =
    rapidjson::GenericDocument<rapidjson::UTF8<>, rapidjson::MemoryPoolAllocator<JsonMemory>, JsonMemory>;
using Json = JsonDocument::ValueType;

constexpr size_t kMaxJson = size_t{4} * 1024 * 1024; /* bytes of a file */
constexpr int kMaxDepth = 64;
constexpr size_t kMaxText = 4096; /* bytes of one text that is taken over */

/* False: it is not JSON, or nested deeper than kMaxDepth. */
bool parse_json(const std::string &text, JsonDocument &out);

/* The member at the end of a way of members; null: it is not there. */
const Json *at(const Json &value, std::initializer_list<std::string_view> way);

/* The text there, up to its first NUL and kMaxText bytes; empty: there is none. */
std::string text_at(const Json &value, std::initializer_list<std::string_view> way);
std::string text_of(const Json &value);

/* The number there; 0: there is none, or it is no process id. */
int pid_at(const Json &value, std::initializer_list<std::string_view> way);

bool true_at(const Json &value, std::initializer_list<std::string_view> way);

/* Calls `take` with each element of the list there. */
template <typename Take>
void each_at(const Json &value, std::initializer_list<std::string_view> way, Take take)
{
    const Json *list = at(value, way);
    if (list && list->IsArray())
        for (const Json &element : list->GetArray())
            take(element);
}

/* Calls `take` with the name and value of each member of the object there. */
template <typename Take>
void each_member(const Json &value, std::initializer_list<std::string_view> way, Take take)
{
    const Json *object = at(value, way);
    if (object && object->IsObject())
        for (const auto &member : object->GetObject())
            take(text_of(member.name), member.value);
}

/* Adds to a list that is joined by ",". A list ends where it would become longer than a few thousand entries are. */
void append_to_list(std::string &list, std::string_view text);

}  // namespace container

#endif
