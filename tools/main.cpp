#include "tools/CommandLine.h"

int main(int argc, char** argv)
{
    return Zelmar::Host::CommandLine::run(argc, argv);
}
