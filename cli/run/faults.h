/*
 * faults.h: what is wrong with a configuration: where, why, and what to do about it.
 */
#ifndef CLI_RUN_FAULTS_H
#define CLI_RUN_FAULTS_H

#include <algorithm>
#include <string>
#include <vector>

#include "toml_value.h"

namespace cli
{

struct Fault {
    Place place;
    std::string text;
};

class Faults
{
public:
    void add(const Place &place, const std::string &text) { all_.push_back({place, text}); }
    bool empty() const { return all_.empty(); }

    /* "FILE:LINE:COLUMN: text" each, in the order of the file; without a place: "FILE: text". */
    std::vector<std::string> lines(const std::string &file) const
    {
        std::vector<Fault> sorted = all_;
        std::stable_sort(sorted.begin(), sorted.end(),
                         [](const Fault &a, const Fault &b) { return a.place < b.place; });
        std::vector<std::string> lines;
        for (const Fault &fault : sorted) {
            const Place &place = fault.place;
            const std::string where =
                place.line ? ":" + std::to_string(place.line) + ":" + std::to_string(place.column) : "";
            lines.push_back(file + where + ": " + fault.text);
        }
        return lines;
    }

private:
    std::vector<Fault> all_;
};

}  // namespace cli

#endif
