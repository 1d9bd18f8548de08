// orvctl: the administrator's command line for managed nodes.
#include <unistd.h>

#include <iostream>

#include "orvctl/Orvctl.h"

int main(int argc, char** argv) {
    return orvctl::runOrvctl(argc, argv, std::cout, std::cerr, isatty(STDERR_FILENO) == 1);
}
