#pragma once

#include "tools/report-collector/reportparser.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QSet>
#include <QTemporaryDir>

#include <memory>

/// Stores one report as a folder of its own: report.json and the attachments. The folder appears
/// only when it is complete; until then, and when the report fails, there is at most a hidden
/// "partial" folder, which the destructor removes.
class ReportWriter final : public ReportSink
{
public:
    /// `reports` is the existing folder that the report's folder is made in.
    explicit ReportWriter(const QDir& reports) : m_reports(reports) {}

    bool beginReport(const ReportTexts& texts) override;
    bool beginAttachment(const QByteArray& name, qint64 size) override;
    bool attachmentBytes(QByteArrayView bytes) override;
    bool endAttachment() override;
    bool endReport() override;

    /// Absolute path of the finished report, empty before.
    const QString& folder() const { return m_folder; }
    QString subject() const { return m_report.value(QStringLiteral("subject")).toString(); }
    qsizetype attachmentCount() const { return m_attachments.size(); }
    /// What went wrong with the last operation that returned false.
    const QString& error() const { return m_error; }

    /// Removes what unfinished reports of an ended process have left in `reports`.
    static void removePartialFolders(const QDir& reports);

private:
    bool fail(const QString& operation, const QString& cause);
    QString uniqueName(const QString& name) const;

    QDir m_reports;
    std::unique_ptr<QTemporaryDir> m_partial;
    QFile m_file;
    QJsonObject m_report;
    QJsonArray m_attachments;
    QSet<QString> m_usedNames; // case folded
    QString m_folder;
    QString m_error;
};
