// The size of a folder as the launcher counts it, timed from outside by scripts/bench.
//   bench_directorysize FOLDER
#include "app/paths.h"

#include <QString>

#include <iostream>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: bench_directorysize FOLDER\n";
        return 1;
    }
    std::cout << directorySize(QString::fromLocal8Bit(argv[1])) << '\n';
    return 0;
}
