/*
 * settings.h: what a plug-in is told, by key.
 */
#ifndef BUS_SETTINGS_H
#define BUS_SETTINGS_H

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "fmon_bus.h"

namespace bus
{

class Settings
{
public:
    Settings(const struct fmon_bus_setting *settings, size_t count)
    {
        for (size_t i = 0; i < count; i++)
            values_[settings[i].key] = settings[i].value;
    }

    /* Of a key that is not there: empty, 0, false. */
    std::string text(const char *key) const
    {
        const auto found = values_.find(key);
        return found == values_.end() ? "" : found->second;
    }
    bool has(const char *key) const { return !text(key).empty(); }
    uint64_t number(const char *key) const { return strtoull(text(key).c_str(), nullptr, 10); }
    bool flag(const char *key) const { return text(key) == "true"; }

    std::vector<std::string> texts(const char *key) const
    {
        std::vector<std::string> all;
        const std::string joined = text(key);
        for (size_t begin = 0, end; (end = joined.find('\n', begin)) != std::string::npos; begin = end + 1)
            all.push_back(joined.substr(begin, end - begin));
        return all;
    }

    /* What the file named by the key holds, without the line end at its end. False: it cannot be read. */
    bool secret(const char *key, std::string &out) const
    {
        std::ifstream file(text(key));
        out.assign(std::istreambuf_iterator<char>(file), {});
        while (!out.empty() && (out.back() == '\n' || out.back() == '\r'))
            out.pop_back();
        return file.good() || file.eof();
    }

private:
    std::map<std::string, std::string> values_;
};

}  // namespace bus

#endif
