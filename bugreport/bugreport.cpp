#include "bugreport/bugreport.h"

#include <QDataStream>
#include <QDebug>
#include <QFile>
#include <QSysInfo>
#include <QTcpSocket>

#include <memory>
#include <utility>
#include <vector>

namespace {

constexpr quint16 collectorPort = 52800;
constexpr int connectionTimeoutMs = 30000;
constexpr qsizetype lengthSize = sizeof(quint32); // of a byte array field

struct Attachment
{
    QByteArray name;
    std::unique_ptr<QFile> file; // open
};

/// Opens every file that can be opened.
std::vector<Attachment> openAttachments(const QStringList& paths)
{
    std::vector<Attachment> attachments;
    for (const QString& path : paths) {
        auto file = std::make_unique<QFile>(path);
        if (!file->open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
            qDebug() << "Can't open attached file!";
            continue;
        }
        attachments.push_back({path.split(QLatin1Char('/')).constLast().toUtf8(), std::move(file)});
    }
    return attachments;
}

/// Appends the contents of `file` as a byte array field. They are read straight into `message`:
/// hundreds of megabytes take far longer to copy once more than to send.
void appendContents(QFile& file, QByteArray& message, QDataStream& stream)
{
    const qint64 size = file.size();
    if (size == 0) {
        // Empty, which reads as a null array, or of a kind that does not know its size.
        stream << file.readAll();
        return;
    }
    const qint64 lengthPosition = message.size();
    const qint64 start = lengthPosition + lengthSize;
    message.resize(start + size);
    qint64 end = start;
    qint64 count = 0;
    while (end < message.size() &&
           (count = file.read(message.data() + end, message.size() - end)) > 0)
        end += count;
    message.truncate(end); // the file has become shorter
    stream.device()->seek(lengthPosition);
    stream << static_cast<quint32>(end - start);
    stream.device()->seek(end);
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
    const std::vector<Attachment> attachments = openAttachments(report.attachedFiles);

    // Reserved in one piece: growing would copy the attachments and hold them twice.
    qsizetype size = sizeof(qint64) + sizeof(qint8);
    for (const QByteArray& text : texts)
        size += lengthSize + text.size();
    for (const auto& [name, file] : attachments)
        size += 2 * lengthSize + name.size() + file->size();
    QByteArray message;
    message.reserve(size);

    QDataStream stream(&message, QIODevice::WriteOnly);
    stream << qint64{0} << static_cast<qint8>(attachments.size());
    for (const QByteArray& text : texts)
        stream << text;
    for (const auto& [name, file] : attachments) {
        stream << name;
        appendContents(*file, message, stream);
    }
    stream.device()->seek(0);
    stream << qint64{message.size()};
    return message;
}

/// Goes on after short writes; ends early when a write takes nothing.
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

} // namespace

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
