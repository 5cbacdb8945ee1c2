// The web server of the installation benchmark, in a process of its own: serves a folder on a free
// port of 127.0.0.1, prints its address, and ends with its standard input.
//   bench_server FOLDER
#include "tests/support/httpserver.h"

#include <iostream>
#include <string>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: bench_server FOLDER\n";
        return 1;
    }
    testsupport::HttpServer server(argv[1]);
    std::cout << server.address() << std::endl;
    std::string line;
    while (std::getline(std::cin, line)) {
    }
    return 0;
}
