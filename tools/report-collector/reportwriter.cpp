#include "tools/report-collector/reportwriter.h"

#include "tools/report-collector/safefilename.h"

#include <QDateTime>
#include <QFileInfo>
#include <QJsonDocument>

namespace {

const QString reportFile = QStringLiteral("report.json");
const QString partialPrefix = QStringLiteral(".partial-");

} // namespace

bool ReportWriter::beginReport(const ReportTexts& texts)
{
    m_partial = std::make_unique<QTemporaryDir>(
        m_reports.absoluteFilePath(partialPrefix + QLatin1String("XXXXXX")));
    if (!m_partial->isValid())
        return fail(QStringLiteral("creating a folder"), m_partial->errorString());
    m_usedNames.insert(reportFile);
    m_report = {
        {QStringLiteral("received"), QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs)},
        {QStringLiteral("subject"), QString::fromUtf8(texts.subject)},
        {QStringLiteral("body"), QString::fromUtf8(texts.body)},
        {QStringLiteral("os"), QString::fromUtf8(texts.os)},
        {QStringLiteral("cpuArchitecture"), QString::fromUtf8(texts.cpuArchitecture)},
        {QStringLiteral("machineId"), QString::fromUtf8(texts.machineId)},
    };
    return true;
}

bool ReportWriter::beginAttachment(const QByteArray& name, qint64 size)
{
    const QString sentName = QString::fromUtf8(name);
    const QString storedName = uniqueName(safeFileName(sentName));
    m_usedNames.insert(storedName.toCaseFolded());
    m_attachments.append(QJsonObject{{QStringLiteral("name"), sentName},
                                     {QStringLiteral("file"), storedName},
                                     {QStringLiteral("size"), size}});
    m_file.setFileName(m_partial->filePath(storedName));
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::NewOnly))
        return fail(QStringLiteral("creating ") + storedName, m_file.errorString());
    return true;
}

bool ReportWriter::attachmentBytes(QByteArrayView bytes)
{
    if (m_file.write(bytes.data(), bytes.size()) != bytes.size())
        return fail(QStringLiteral("writing ") + m_file.fileName(), m_file.errorString());
    return true;
}

bool ReportWriter::endAttachment()
{
    if (!m_file.flush())
        return fail(QStringLiteral("writing ") + m_file.fileName(), m_file.errorString());
    m_file.close();
    return true;
}

bool ReportWriter::endReport()
{
    m_report.insert(QStringLiteral("attachments"), m_attachments);
    m_file.setFileName(m_partial->filePath(reportFile));
    const QByteArray json = QJsonDocument(m_report).toJson();
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::NewOnly) ||
        m_file.write(json) != json.size() || !m_file.flush())
        return fail(QStringLiteral("writing ") + reportFile, m_file.errorString());
    m_file.close();

    const QString name =
        QDateTime::currentDateTimeUtc().toString(QStringLiteral("'report-'yyyyMMdd-HHmmss-zzz"));
    QString unused = name;
    for (int i = 2; m_reports.exists(unused); ++i)
        unused = name + QLatin1Char('-') + QString::number(i);
    if (!m_reports.rename(m_partial->path(), unused))
        return fail(QStringLiteral("renaming the finished folder to ") + unused,
                    QStringLiteral("refused by the system"));
    m_partial->setAutoRemove(false);
    m_folder = m_reports.absoluteFilePath(unused);
    return true;
}

void ReportWriter::removePartialFolders(const QDir& reports)
{
    const QStringList names = reports.entryList({partialPrefix + QLatin1Char('*')},
                                                QDir::Dirs | QDir::Hidden | QDir::NoSymLinks);
    for (const QString& name : names)
        QDir(reports.absoluteFilePath(name)).removeRecursively();
}

bool ReportWriter::fail(const QString& operation, const QString& cause)
{
    m_error = operation + QStringLiteral(": ") + cause;
    m_file.close();
    return false;
}

QString ReportWriter::uniqueName(const QString& name) const
{
    const QFileInfo info(name);
    const QString suffix = info.suffix().isEmpty() ? QString() : QLatin1Char('.') + info.suffix();
    QString unique = name;
    for (int i = 2; m_usedNames.contains(unique.toCaseFolded()); ++i)
        unique = QStringLiteral("%1 (%2)%3").arg(info.completeBaseName()).arg(i).arg(suffix);
    return unique;
}
