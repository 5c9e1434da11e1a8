#include "app/CommandLine.h"

int main(int argc, char** argv) { return skein::runCommandLine(argc, argv); }
