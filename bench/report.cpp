// Seconds from the connection until the last byte of a bug report has arrived.
//   bench_report ours|bare FILE...   bare: the files alone, through a buffer of 1 MiB
#include "bugreport/bugreport.h"

#include <QCoreApplication>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t bufferSize = 1U << 20U;

sockaddr_in collectorAddress()
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(52800);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int checked(int result)
{
    if (result < 0)
        throw std::runtime_error("a system call failed");
    return result;
}

int listenAsCollector()
{
    const int listener = checked(::socket(AF_INET, SOCK_STREAM, 0));
    const int on = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    const sockaddr_in address = collectorAddress();
    checked(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    checked(::listen(listener, 1));
    return listener;
}

double secondsToReceive(int listener)
{
    const int connection = checked(::accept(listener, nullptr, nullptr));
    const auto start = std::chrono::steady_clock::now();
    std::vector<char> buffer(bufferSize);
    while (::recv(connection, buffer.data(), buffer.size(), 0) > 0) {
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void sendBare(const QStringList& files)
{
    const int connection = checked(::socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = collectorAddress();
    checked(::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    std::vector<char> buffer(bufferSize);
    for (const QString& path : files) {
        const int file = checked(::open(qUtf8Printable(path), O_RDONLY));
        for (ssize_t size = 0; (size = ::read(file, buffer.data(), buffer.size())) > 0;)
            checked(static_cast<int>(
                ::send(connection, buffer.data(), static_cast<std::size_t>(size), 0)));
        ::close(file);
    }
    ::close(connection);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    try {
        const int listener = listenAsCollector();
        double seconds = 0;
        std::thread collector([&] {
            seconds = secondsToReceive(listener);
            QMetaObject::invokeMethod(&application, &QCoreApplication::quit, Qt::QueuedConnection);
        });
        if (arguments.value(1) == u"bare")
            sendBare(arguments.mid(2));
        else
            sendBugReport({QStringLiteral("A subject"), QString(80, u'x'), arguments.mid(2)});
        QCoreApplication::exec();
        collector.join();
        std::cout << seconds << '\n';
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
    return 0;
}
