/*
 * stats_json.h: members of the figures of a service, whatever they are.
 */
#ifndef OUTPUT_STATS_JSON_H
#define OUTPUT_STATS_JSON_H

#include <rapidjson/document.h>

#include <string>
#include <string_view>

namespace output
{

using Json = rapidjson::Value;

/* Null: it has no such member. */
inline const Json *find_member(const Json &object, const char *key)
{
    if (!object.IsObject())
        return nullptr;
    const auto found = object.FindMember(key);
    return found == object.MemberEnd() ? nullptr : &found->value;
}

/* 0 and "" for what is not there, or of another type. */
inline uint64_t number_of(const Json &object, const char *key)
{
    const Json *const member = find_member(object, key);
    return member && member->IsUint64() ? member->GetUint64() : 0;
}

inline std::string text_of(const Json &object, const char *key)
{
    const Json *const member = find_member(object, key);
    return member && member->IsString() ? std::string(member->GetString(), member->GetStringLength()) : "";
}

inline bool is_set(const Json &object, const char *key)
{
    const Json *const member = find_member(object, key);
    return member && member->IsTrue();
}

/* Calls fn(element, place) for each element of an array, and does nothing with what is none. */
template <typename Fn>
void for_each_element(const Json &object, const char *key, Fn fn)
{
    const Json *const member = find_member(object, key);
    if (!member || !member->IsArray())
        return;
    size_t place = 0;
    for (const Json &element : member->GetArray())
        fn(element, place++);
}

/* Calls fn(name, count) for each member that is a number. */
template <typename Fn>
void for_each_count(const Json &object, const char *key, Fn fn)
{
    const Json *const member = find_member(object, key);
    if (!member || !member->IsObject())
        return;
    for (const auto &each : member->GetObject())
        if (each.value.IsUint64())
            fn(std::string(each.name.GetString(), each.name.GetStringLength()), each.value.GetUint64());
}

/* False: it is no figures of a service. */
inline bool parse_stats(std::string_view json, rapidjson::Document &document)
{
    document.Parse(json.data(), json.size());
    return !document.HasParseError() && find_member(document, "service");
}

}  // namespace output

#endif
