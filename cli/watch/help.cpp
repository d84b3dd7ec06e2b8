/* The help of `fmon watch`, from its table of options; options.h. */

#include <string_view>

#include "agent/event_names.h"
#include "option_table.h"
#include "options.h"

namespace cli
{

namespace
{

constexpr size_t kTextColumn = 26;

constexpr char kHead[] =
    R"(Usage: fmon watch [OPTION]... PATH...
       fmon watch --system [OPTION]...

Shows what happens to files: a PATH that is a directory is watched with its entries, a file as a file. One "*" in
PATH (quoted) makes it a pattern; what matches later is watched, too.
)";

constexpr char kTail[] = R"(
Examples:
  fmon watch -r /etc                                changes below /etc, as they happen
  fmon watch -r --pid -e modify,close_write /srv    who writes below /srv (root)
  fmon watch -r --format json /data | jq .path      one JSON object a line
  fmon watch --wait /var/log/app.log                a file that comes and goes
  fmon watch -q -n 1 -e create --include '/ready$' /run     wait until a file is made
  fmon watch --exec 'make -s' -e close_write src    run a command after each save
  fmon watch '/home/*/.ssh'                         every user's, also those to come

Status: 0 done (Ctrl-C, -n reached, or the reader has gone); 1 nothing shown within -t; 2 wrong usage, or a PATH could
not be watched: nothing is watched then, unless --keep-going is given and something could be; 3 no watched PATH is
left. A directory below PATH that may not be read is named on stderr and left out; a limit that is reached
(watches, marks, --set max_dentries) counts as a PATH that could not be watched.

Without root the kernel does not tell which process caused an event.
)";

void pad(std::string &line, size_t column) { line.append(line.size() < column ? column - line.size() : 1, ' '); }

void append_row(const OptionRow &row, std::string &out)
{
    std::string line = row.letter ? std::string("  -") + row.letter + ", --" : "      --";
    line += row.name;
    if (row.argument)
        line += std::string(" ") + row.argument;
    std::string_view rest = row.help;
    while (!rest.empty()) {
        const size_t end = rest.find('\n');
        pad(line, kTextColumn);
        line.append(rest.substr(0, end));
        out += line + "\n";
        line.clear();
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
}

}  // namespace

std::string watch_help()
{
    std::string text = kHead;
    for (const OptionRow &row : kOptionTable) {
        if (row.section)
            text += std::string("\n") + row.section + ":\n";
        append_row(row, text);
    }
    return text + kTail;
}

std::string event_list()
{
    std::string text;
    for (const agent::EventName &row : agent::kEventTable) {
        std::string line = row.name;
        pad(line, 16);
        text += line + row.meaning + "\n";
    }
    return text;
}

}  // namespace cli
