#include "tools/report-collector/collectorserver.h"

#include "tools/report-collector/reportwriter.h"

#include <QTcpSocket>
#include <QTimer>

#include <utility>

namespace {

// Keeps a fast sender from filling the memory while the disk is slow.
constexpr qint64 readBufferSize = 1024LL * 1024;

/// One sender. Deletes itself when the connection has ended.
class Connection final : public QObject
{
public:
    Connection(QTcpSocket* socket, const QDir& reports, std::chrono::milliseconds idleTimeout,
               CollectorServer* server)
        : QObject(server), m_server(server), m_socket(socket), m_writer(reports), m_parser(m_writer)
    {
        m_socket->setParent(this);
        m_socket->setReadBufferSize(readBufferSize);
        m_sender = QStringLiteral("%1:%2")
                       .arg(m_socket->peerAddress().toString())
                       .arg(m_socket->peerPort());
        m_idle.setInterval(idleTimeout);
        m_idle.setSingleShot(true);
        connect(&m_idle, &QTimer::timeout, this, [this] {
            if (m_parser.status() == ReportParser::Status::Complete)
                m_socket->abort();
            else
                refuse(QStringLiteral("silent for too long"));
        });
        connect(m_socket, &QTcpSocket::readyRead, this, &Connection::read);
        connect(m_socket, &QTcpSocket::disconnected, this, &Connection::finish);
        m_idle.start();
    }

private:
    void read()
    {
        m_idle.start();
        while (!m_ended && m_socket->bytesAvailable() > 0) {
            const bool wasComplete = m_parser.status() == ReportParser::Status::Complete;
            const QByteArray bytes = m_socket->read(readBufferSize);
            const ReportParser::Status status = m_parser.feed(bytes);
            // A report is taken once it is whole, whatever follows.
            if (!wasComplete && !m_writer.folder().isEmpty())
                Q_EMIT m_server->reportStored(m_writer.folder(), m_writer.subject(),
                                              m_writer.attachmentCount(), m_parser.bytesRead());
            if (status == ReportParser::Status::Failed)
                refuse(m_writer.error().isEmpty() ? m_parser.error() : m_writer.error());
        }
    }

    void finish()
    {
        read();
        if (m_parser.status() == ReportParser::Status::Incomplete)
            refuse(
                QStringLiteral("the connection ended after %1 bytes, before the end of the message")
                    .arg(m_parser.bytesRead()));
        m_idle.stop();
        deleteLater();
    }

    void refuse(const QString& reason)
    {
        if (std::exchange(m_ended, true))
            return;
        Q_EMIT m_server->reportRefused(m_sender, reason);
        m_socket->abort();
        deleteLater();
    }

    CollectorServer* m_server;
    QTcpSocket* m_socket;
    QString m_sender;
    ReportWriter m_writer;
    ReportParser m_parser;
    QTimer m_idle;
    bool m_ended = false;
};

} // namespace

CollectorServer::CollectorServer(const QDir& reports, std::chrono::milliseconds idleTimeout,
                                 QObject* parent)
    : QObject(parent), m_reports(reports), m_idleTimeout(idleTimeout)
{
    connect(&m_server, &QTcpServer::newConnection, this, &CollectorServer::accept);
}

bool CollectorServer::listen(quint16 port)
{
    ReportWriter::removePartialFolders(m_reports);
    return m_server.listen(QHostAddress::LocalHost, port);
}

void CollectorServer::accept()
{
    while (QTcpSocket* socket = m_server.nextPendingConnection()) {
        if (m_connections == maximumConnections) {
            Q_EMIT reportRefused(socket->peerAddress().toString(),
                                 QStringLiteral("too many connections"));
            socket->abort();
            socket->deleteLater();
            continue;
        }
        ++m_connections;
        auto* connection = new Connection(socket, m_reports, m_idleTimeout, this);
        connect(connection, &QObject::destroyed, this, [this] { --m_connections; });
    }
}
