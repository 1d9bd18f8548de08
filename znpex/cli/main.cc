// znpex: the command line of the monitoring service.
#include <unistd.h>

#include <iostream>

#include "znpex/cli/Commands.h"

int main(int argc, char** argv) {
    return znpex::cli::runCli(argc, argv, std::cout, std::cerr, isatty(STDERR_FILENO) == 1);
}
