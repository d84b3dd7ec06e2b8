/*
 * write.cpp FRAME FILE: writes the manual page fmon.toml(5) into FILE.
 */
#include <fstream>
#include <iostream>
#include <sstream>

#include "cli/run/config_page.h"

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::cerr << "usage: fmon_config_page FRAME FILE\n";
        return 2;
    }
    std::ostringstream frame;
    frame << std::ifstream(argv[1]).rdbuf();
    const std::string page = cli::config_page(frame.str());
    if (!page.empty() && std::ofstream(argv[2]).write(page.data(), static_cast<std::streamsize>(page.size())).flush())
        return 0;
    std::cerr << "fmon_config_page: cannot make " << argv[2] << " of " << argv[1] << "\n";
    return 1;
}
