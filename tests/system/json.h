/*
 * json.h: what a program printed as JSON, for reading. The parser is another's, whose header is included in json.cpp
 * only: it takes longer to compile than a test.
 */
#ifndef SYSTEM_JSON_H
#define SYSTEM_JSON_H

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace systest
{

/* A value with all that is in it. What is not there is null; what is of another kind than asked for throws. */
class Json
{
public:
    Json() = default; /* null */
    /* Not JSON, or not UTF-8: parse() throws, parse_if() returns nothing. */
    static Json parse(const std::string &text);
    static std::optional<Json> parse_if(const std::string &text);
    static Json array(std::initializer_list<std::string> texts);

    bool is_object() const { return kind_ == kObject; }
    bool contains(const std::string &key) const { return find(key) != nullptr; }
    Json operator[](const std::string &key) const;
    /* The value of a member, and the default where the object has no such. */
    std::string value(const std::string &key, const std::string &otherwise) const;
    std::string value(const std::string &key, const char *otherwise) const
    {
        return value(key, std::string(otherwise));
    }
    bool value(const std::string &key, bool otherwise) const;
    template <std::integral T>
    requires(!std::same_as<T, bool>) T value(const std::string &key, T otherwise)
    const
    {
        const Json *const member = find(key);
        return member ? static_cast<T>(member->number()) : otherwise;
    }

    std::string text() const;
    int64_t number() const;
    operator std::string() const { return text(); }  // NOLINT(google-explicit-constructor)

    /* The elements of an array; others have none. */
    auto begin() const { return elements_.begin(); }
    auto end() const { return elements_.end(); }

    const std::string &dump() const { return dump_; } /* in one line, members by name */
    /* The same with another value, given as JSON, at "/member/member". */
    Json with(const std::string &pointer, const std::string &json) const;

    bool operator==(const Json &other) const { return dump_ == other.dump_; }
    bool operator==(const std::string &text) const { return kind_ == kString && string_ == text; }
    bool operator==(const char *text) const { return kind_ == kString && string_ == text; }
    template <std::integral T>
    bool operator==(T number) const
    {
        return kind_ == kNumber && dump_ == std::to_string(number);
    }

private:
    struct Reader;
    const Json *find(const std::string &key) const;

    enum { kNull, kBool, kNumber, kString, kArray, kObject } kind_ = kNull;
    std::string dump_ = "null", string_;
    std::vector<Json> elements_;    /* of an array; the members' values of an object */
    std::vector<std::string> keys_; /* of these members */
};

/* The bytes of an event's path, from whichever member holds them. */
std::string path_of(const Json &event);

std::ostream &operator<<(std::ostream &out, const Json &json);

}  // namespace systest

#endif
