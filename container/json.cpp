#include "json.h"

#include <algorithm>
#include <cstring>

namespace container
{

namespace
{

constexpr size_t kMaxList = size_t{256} * 1024;

// Brackets outside of texts. Whether they match is the parser's business.
bool is_shallow(std::string_view text)
{
    int depth = 0;
    bool inside = false;
    for (size_t i = 0; i < text.size(); i++) {
        const char c = text[i];
        if (inside && c == '\\')
            i++;
        else if (c == '"')
            inside = !inside;
        else if (!inside && (c == '[' || c == '{') && ++depth > kMaxDepth)
            return false;
        else if (!inside && (c == ']' || c == '}'))
            depth--;
    }
    return true;
}

}  // namespace

void *JsonMemory::Realloc(void *old, size_t old_size, size_t size)
{
    void *memory = Malloc(size);
    if (memory && old)
        memcpy(memory, old, std::min(old_size, size));
    Free(old);
    return memory;
}

bool parse_json(const std::string &text, JsonDocument &out)
{
    if (!is_shallow(text))
        return false;
    out.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    return !out.HasParseError();
}

const Json *at(const Json &value, std::initializer_list<std::string_view> way)
{
    const Json *here = &value;
    for (const std::string_view name : way) {
        if (!here->IsObject())
            return nullptr;
        const auto member =
            here->FindMember(Json(rapidjson::StringRef(name.data(), static_cast<rapidjson::SizeType>(name.size()))));
        if (member == here->MemberEnd())
            return nullptr;
        here = &member->value;
    }
    return here;
}

std::string text_of(const Json &value)
{
    if (!value.IsString())
        return {};
    const std::string_view text(value.GetString(), std::min<size_t>(value.GetStringLength(), kMaxText));
    return std::string(text.substr(0, text.find('\0')));
}

std::string text_at(const Json &value, std::initializer_list<std::string_view> way)
{
    const Json *text = at(value, way);
    return text ? text_of(*text) : std::string();
}

int pid_at(const Json &value, std::initializer_list<std::string_view> way)
{
    const Json *number = at(value, way);
    return number && number->IsInt() && number->GetInt() > 0 ? number->GetInt() : 0;
}

bool true_at(const Json &value, std::initializer_list<std::string_view> way)
{
    const Json *flag = at(value, way);
    return flag && flag->IsBool() && flag->GetBool();
}

void append_to_list(std::string &list, std::string_view text)
{
    if (text.empty() || list.size() + text.size() >= kMaxList)
        return;
    if (!list.empty())
        list.push_back(',');
    list.append(text);
}

}  // namespace container
