// The web server of the benchmarks, in a process of its own: serves a folder on a free port of
// 127.0.0.1 and prints its address. For every line of its standard input it prints how many
// requests it has answered and how many body bytes it has sent; it ends with its standard input.
//   bench_server FOLDER [DELAY]   DELAY: milliseconds before each answer
#include "tests/support/httpserver.h"

#include <iostream>
#include <string>

int main(int argc, char** argv)
{
    if (argc != 2 && argc != 3) {
        std::cerr << "usage: bench_server FOLDER [DELAY]\n";
        return 1;
    }
    testsupport::HttpServer server(argv[1]);
    if (argc == 3) {
        testsupport::Misbehaviour slow;
        slow.delay = std::chrono::milliseconds(std::stoi(argv[2]));
        server.misbehave("*", slow);
    }
    std::cout << server.address() << std::endl;
    std::string line;
    while (std::getline(std::cin, line))
        std::cout << server.requests() << ' ' << server.bytesSent() << std::endl;
    return 0;
}
