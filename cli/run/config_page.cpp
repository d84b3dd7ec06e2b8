#include "config_page.h"

#include <span>

#include "config_tables.h"
#include "output/settings_text.h"
#include "output/sinks.h"

namespace cli
{

namespace
{

// What begins a line of mdoc, or is special in it, is none of ours.
std::string plain(std::string_view text)
{
    std::string out;
    for (const char c : text)
        out += c == '\\' ? std::string("\\e") : std::string(1, c);
    return out.starts_with('.') || out.starts_with('\'') ? "\\&" + out : out;
}

std::string item(const output::Setting &row)
{
    std::string text = ".It Ic " + std::string(row.key) + "\n" + plain(row.meaning) + ".\nIt takes " +
                       plain(output::type_text(row.type));
    if (row.required)
        text += "; it must be said";
    else if (row.fallback && *row.fallback)
        text += "; default: " + plain(row.fallback);
    return text + ".\n";
}

std::string list(std::span<const output::Setting> rows)
{
    std::string text = ".Bl -tag -width Ds\n";
    for (const output::Setting &row : rows)
        text += item(row);
    return text + ".El\n";
}

std::string outputs()
{
    std::string text;
    for (const output::SinkRow &sink : output::sinks()) {
        text += ".Ss Outputs of type " + std::string(sink.type) + "\n" + plain(sink.meaning) + ".\n";
        if (!sink.settings.empty())
            text += list(sink.settings);
    }
    return text;
}

bool fill(std::string &page, const std::string &mark, const std::string &text)
{
    const size_t at = page.find("\n" + mark + "\n");
    if (at != std::string::npos)
        page.replace(at + 1, mark.size() + 1, text);
    return at != std::string::npos;
}

}  // namespace

std::string config_page(const std::string &frame)
{
    std::string page = frame;
    const Rows monitor = monitor_keys();
    const bool whole = fill(page, "@service@", list(service_keys())) && fill(page, "@fmon@", list(monitor)) &&
                       fill(page, "@instance@", list(instance_keys())) && fill(page, "@watch@", list(watch_keys())) &&
                       fill(page, "@output@", list(output_keys())) && fill(page, "@outputs@", outputs());
    return whole ? page : "";
}

}  // namespace cli
