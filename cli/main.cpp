#include "verbs.h"

int main(int argc, char **argv) { return cli::run_command(argc, argv); }
