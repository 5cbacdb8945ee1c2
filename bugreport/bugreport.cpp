#include "bugreport/bugreport.h"

#include <QDataStream>
#include <QDebug>
#include <QFile>
#include <QSysInfo>
#include <QTcpSocket>

#include <utility>
#include <vector>

namespace {

constexpr quint16 collectorPort = 52800;
constexpr int connectionTimeoutMs = 30000;

using Attachment = std::pair<QByteArray, QByteArray>; // name, contents

/// Reads every file that can be opened.
std::vector<Attachment> readAttachments(const QStringList& paths)
{
    std::vector<Attachment> attachments;
    for (const QString& path : paths) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            qDebug() << "Can't open attached file!";
            continue;
        }
        const QString name = path.split(QLatin1Char('/')).constLast();
        // An empty file gives a null array, which is written as such.
        attachments.emplace_back(name.toUtf8(), file.readAll());
    }
    return attachments;
}

/// The whole message as it goes over the wire.
QByteArray composeMessage(const BugReport& report)
{
    const QByteArray texts[] = {
        report.subject.toUtf8(),
        report.body.toUtf8(),
        QString(QSysInfo::kernelType() + QLatin1Char(' ') + QSysInfo::kernelVersion()).toUtf8(),
        QSysInfo::currentCpuArchitecture().toUtf8(),
        QSysInfo::machineUniqueId(),
    };
    const std::vector<Attachment> attachments = readAttachments(report.attachedFiles);

    // Reserved in one piece: growing would hold the attachments a third time.
    constexpr qsizetype lengthSize = sizeof(quint32);
    qsizetype size = sizeof(qint64) + sizeof(qint8);
    for (const QByteArray& text : texts)
        size += lengthSize + text.size();
    for (const auto& [name, contents] : attachments)
        size += 2 * lengthSize + name.size() + contents.size();
    QByteArray message;
    message.reserve(size);

    QDataStream stream(&message, QIODevice::WriteOnly);
    stream << qint64{0} << static_cast<qint8>(attachments.size());
    for (const QByteArray& text : texts)
        stream << text;
    for (const auto& [name, contents] : attachments)
        stream << name << contents;
    stream.device()->seek(0);
    stream << qint64{message.size()};
    return message;
}

} // namespace

void writeAll(QIODevice& device, const QByteArray& data)
{
    // The array itself, not a pointer into it: a socket then shares its memory.
    qint64 written = device.write(data);
    qint64 count = written;
    while (count > 0 && written < data.size()) {
        count = device.write(data.constData() + written, data.size() - written);
        written += count;
    }
}

bool sendBugReport(const BugReport& report)
{
    auto* socket = new QTcpSocket;
    socket->connectToHost(QStringLiteral("127.0.0.1"), collectorPort);
    if (!socket->waitForConnected(connectionTimeoutMs)) {
        qDebug() << "Failed to connect to a remote host while sending bugreport!";
        delete socket;
        return false;
    }
    QObject::connect(socket, SIGNAL(disconnected()), socket, SLOT(deleteLater()));
    writeAll(*socket, composeMessage(report));
    // Small reports are gone when this returns, even if no event loop runs afterwards. The rest
    // stays in the socket's write buffer, which outlives close() and is sent by the event loop.
    socket->flush();
    socket->disconnectFromHost();
    socket->close();
    return true;
}
