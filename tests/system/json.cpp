#include "json.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>
#include <stdexcept>

namespace systest
{

struct Json::Reader {
    static Json read(const nlohmann::json &from)
    {
        Json json;
        json.dump_ = from.dump();
        if (from.is_boolean())
            json.kind_ = kBool;
        else if (from.is_number())
            json.kind_ = kNumber;
        else if (from.is_string())
            read_string(from, json);
        else if (from.is_structured())
            read_elements(from, json);
        return json;
    }

private:
    static void read_string(const nlohmann::json &from, Json &json)
    {
        json.kind_ = kString;
        json.string_ = from.get<std::string>();
    }
    static void read_elements(const nlohmann::json &from, Json &json)
    {
        json.kind_ = from.is_array() ? kArray : kObject;
        for (const auto &item : from.items()) {
            json.elements_.push_back(read(item.value()));
            if (from.is_object())
                json.keys_.push_back(item.key());
        }
    }
};

Json Json::parse(const std::string &text) { return Reader::read(nlohmann::json::parse(text)); }

std::optional<Json> Json::parse_if(const std::string &text)
{
    const nlohmann::json parsed = nlohmann::json::parse(text, nullptr, false);
    return parsed.is_discarded() ? std::nullopt : std::optional<Json>(Reader::read(parsed));
}

Json Json::array(std::initializer_list<std::string> texts)
{
    return Reader::read(nlohmann::json(std::vector<std::string>(texts)));
}

const Json *Json::find(const std::string &key) const
{
    const auto at = std::find(keys_.begin(), keys_.end(), key);
    return at == keys_.end() ? nullptr : &elements_[static_cast<size_t>(at - keys_.begin())];
}

Json Json::operator[](const std::string &key) const
{
    const Json *const member = find(key);
    return member ? *member : Json();
}

std::string Json::value(const std::string &key, const std::string &otherwise) const
{
    const Json *const member = find(key);
    return member ? member->text() : otherwise;
}

bool Json::value(const std::string &key, bool otherwise) const
{
    const Json *const member = find(key);
    if (member && member->kind_ != kBool)
        throw std::runtime_error("neither true nor false: " + member->dump_);
    return member ? member->dump_ == "true" : otherwise;
}

std::string Json::text() const
{
    if (kind_ != kString)
        throw std::runtime_error("not a string: " + dump_);
    return string_;
}

int64_t Json::number() const
{
    if (kind_ != kNumber)
        throw std::runtime_error("not a number: " + dump_);
    return std::stoll(dump_);
}

Json Json::with(const std::string &pointer, const std::string &json) const
{
    nlohmann::json changed = nlohmann::json::parse(dump_);
    changed[nlohmann::json::json_pointer(pointer)] = nlohmann::json::parse(json);
    return Reader::read(changed);
}

namespace
{

std::string from_base64(const std::string &text)
{
    const std::string digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    unsigned bits = 0;
    int have = 0;
    for (char c : text) {
        size_t value = digits.find(c);
        if (value == std::string::npos)
            break;
        bits = bits << 6 | static_cast<unsigned>(value);
        have += 6;
        if (have >= 8)
            out += static_cast<char>(bits >> (have -= 8) & 0xff);
    }
    return out;
}

}  // namespace

std::string path_of(const Json &event)
{
    return event.contains("path_bytes") ? from_base64(event["path_bytes"]) : event["path"].text();
}

std::ostream &operator<<(std::ostream &out, const Json &json) { return out << json.dump(); }

}  // namespace systest
