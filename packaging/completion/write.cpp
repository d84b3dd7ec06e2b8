/*
 * write.cpp SHELL FRAME FILE: writes the completion of a shell ("bash", "zsh", "fish") into FILE.
 */
#include <fstream>
#include <iostream>
#include <sstream>

#include "cli/front/completion.h"

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::cerr << "usage: fmon_completion SHELL FRAME FILE\n";
        return 2;
    }
    std::ostringstream frame;
    frame << std::ifstream(argv[2]).rdbuf();
    const std::string script = cli::completion_script(argv[1], frame.str());
    if (!script.empty() &&
        std::ofstream(argv[3]).write(script.data(), static_cast<std::streamsize>(script.size())).flush())
        return 0;
    std::cerr << "fmon_completion: cannot make " << argv[3] << " of " << argv[2] << " for " << argv[1] << "\n";
    return 1;
}
