#include "bugreport/bugreport.h"

#include <QDataStream>
#include <QDebug>
#include <QFile>
#include <QSysInfo>
#include <QTcpSocket>
#include <QtEndian>

#include <atomic>
#include <cstddef>
#include <future>
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

/// Room for a file's contents in the message.
struct Slot
{
    QFile* file;
    qsizetype start; // the length field lies before it
    qsizetype size;
    qsizetype read = 0;
};

/// Reads the files straight into their slots of `message`, on two threads: hundreds of megabytes
/// take longer to copy on one, or to copy twice, than to send.
void fillSlots(std::vector<Slot>& slots, QByteArray& message)
{
    char* const data = message.data();
    std::atomic<std::size_t> next = 0;
    const auto fill = [&] {
        for (std::size_t i = next++; i < slots.size(); i = next++) {
            Slot& slot = slots[i];
            qint64 count = 0;
            while (slot.read < slot.size && (count = slot.file->read(data + slot.start + slot.read,
                                                                     slot.size - slot.read)) > 0)
                slot.read += count;
        }
    };
    std::future<void> other;
    if (slots.size() > 1)
        other = std::async(fill);
    fill();
    if (other.valid())
        other.wait();
}

/// Takes out what files that became shorter have left unfilled.
void closeGaps(const std::vector<Slot>& slots, QByteArray& message)
{
    for (auto slot = slots.rbegin(); slot != slots.rend(); ++slot) {
        message.remove(slot->start + slot->read, slot->size - slot->read);
        qToBigEndian(static_cast<quint32>(slot->read), message.data() + slot->start - lengthSize);
    }
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
    std::vector<Slot> slots;
    for (const auto& [name, file] : attachments) {
        stream << name;
        if (const qint64 contents = file->size(); contents > 0) {
            slots.push_back({file.get(), message.size() + lengthSize, contents});
            message.resize(slots.back().start + contents);
            stream.device()->seek(message.size());
        } else {
            // Empty, which reads as a null array, or of a kind that does not know its size.
            stream << file->readAll();
        }
    }
    fillSlots(slots, message);
    closeGaps(slots, message);
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
