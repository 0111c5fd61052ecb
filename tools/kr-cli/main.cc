// kr-cli: the bus from the command line. Everything is in cli.h.
#include "tools/kr-cli/cli.h"

int main(int argc, char** argv) { return kr::cli::main(argc, argv); }
