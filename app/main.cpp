#include "app/CommandLine.h"
#include "public/common/FatalFault.h"

#include <csignal>

int main(int argc, char** argv) {
    // Where the size of files is limited, a write that goes beyond is an error to handle, not the end.
    std::signal(SIGXFSZ, SIG_IGN);
    skein::endProgramOnShortage();
    return skein::runCommandLine(argc, argv);
}
