/*
 * json_writer.h: lines of JSON, and what all that are made of events have in common. File names are bytes, and JSON is
 * UTF-8: what is no UTF-8 is replaced.
 */
#ifndef OUTPUT_JSON_WRITER_H
#define OUTPUT_JSON_WRITER_H

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>
#include <string_view>

#include "agent/queue.h"
#include "agent/time_format.h"
#include "format.h"

namespace output
{

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

void put(JsonWriter &writer, std::string_view utf8);
void put_key(JsonWriter &writer, std::string_view key);
void put_bytes(JsonWriter &writer, std::string_view bytes);
void put_text(JsonWriter &writer, std::string_view key, std::string_view bytes);
void put_known(JsonWriter &writer, std::string_view key, std::string_view bytes); /* nothing where it is empty */
void put_number(JsonWriter &writer, std::string_view key, uint64_t number);
void put_true(JsonWriter &writer, std::string_view key, bool is_so); /* nothing where it is not */
/* The bytes of a path that is not UTF-8, without which the file could not be found, in base64; else nothing. */
void put_path_bytes(JsonWriter &writer, std::string_view path, std::string_view key = "path_bytes");
void put_paths(JsonWriter &writer, std::string_view key, const std::vector<std::string> &paths);
void put_kinds(JsonWriter &writer, std::string_view key, uint32_t mask); /* their names */

template <typename Members>
void put_object(JsonWriter &writer, std::string_view key, Members members)
{
    put_key(writer, key);
    writer.StartObject();
    members();
    writer.EndObject();
}

/* Times as text, in UTC. */
class JsonTime
{
public:
    void put(JsonWriter &writer, std::string_view key, uint64_t ns); /* since 1970 */

private:
    agent::UtcTime form_;
    std::string text_;
};

/* Both ends of a time without watches, and its reason. */
void put_gap(JsonWriter &writer, const Unwatched &gap);

/* The list from `first` on, which may be null, as an array of processes. */
void put_ancestors(JsonWriter &writer, const agent::Ancestor *first, JsonTime &start);

/* That of the mount, as the monitor reports it inside a container; elsewhere that of the process. Empty: none. */
std::string_view container_of(const agent::Event &event);

/* The style's, or else what the machine calls itself. */
std::string host_of(const FormatStyle &style);
/* The name of the instance that delivered the event; empty: not known. */
std::string_view instance_of(const FormatStyle &style, const agent::Event &event);

/* One line at a time. */
class JsonLine
{
public:
    explicit JsonLine(const FormatStyle &style) : end_(style.end), terminal_(style.terminal) {}

    /* Appends an object with what `members` puts into it, and what ends a record. */
    template <typename Members>
    void append(std::string &out, Members members)
    {
        buffer_.Clear();
        writer_.Reset(buffer_);
        writer_.StartObject();
        members(writer_);
        writer_.EndObject();
        finish(out);
    }

private:
    void finish(std::string &out) const;

    const char end_;
    const bool terminal_;
    rapidjson::StringBuffer buffer_;
    JsonWriter writer_;
};

}  // namespace output

#endif
