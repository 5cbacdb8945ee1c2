#pragma once

#include <QDir>
#include <QObject>
#include <QTcpServer>

#include <chrono>

/// Accepts bug reports on the loopback address and stores each in a folder of its own. A
/// connection that sends something else, stops halfway or falls silent costs nothing but its log
/// line; senders do not wait for each other.
class CollectorServer final : public QObject
{
    Q_OBJECT

public:
    static constexpr quint16 defaultPort = 52800;
    static constexpr int maximumConnections = 16;

    /// `reports` must exist. A connection without a byte for `idleTimeout` is closed.
    CollectorServer(const QDir& reports, std::chrono::milliseconds idleTimeout,
                    QObject* parent = nullptr);

    /// Starts listening; port 0 picks a free one. On failure returns false, see errorString().
    bool listen(quint16 port);
    quint16 port() const { return m_server.serverPort(); }
    QString errorString() const { return m_server.errorString(); }

Q_SIGNALS:
    /// A report is complete. `folder` is its absolute path.
    void reportStored(const QString& folder, const QString& subject, qsizetype attachments,
                      qint64 bytes);
    /// A connection ended without a report.
    void reportRefused(const QString& sender, const QString& reason);

private:
    void accept();

    QDir m_reports;
    std::chrono::milliseconds m_idleTimeout;
    QTcpServer m_server;
    int m_connections = 0;
};
