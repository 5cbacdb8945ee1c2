#include "ui/menu/descriptionsfile.h"

#include "app/paths.h"
#include "updates/catalogue.h"

#include <QDebug>
#include <QFile>
#include <QJsonObject>

DescriptionsFile& DescriptionsFile::instance()
{
    static DescriptionsFile file;
    return file;
}

DescriptionsFile::DescriptionsFile()
    : filePath(applicationDirectory().absolutePath() % QDir::separator() %
               QLatin1String("descriptions.json"))
{
}

bool DescriptionsFile::load()
{
    QFile file(filePath);
    if (!file.open(QIODevice::ReadOnly)) {
        qDebug() << "Descriptions file is corrupted or not exists!";
        return false;
    }
    document = QJsonDocument::fromJson(file.readAll());
    loaded = true;
    return true;
}

std::optional<QStringList> DescriptionsFile::versionKeys()
{
    if (!load()) {
        qDebug() << "Failed to load descriptions JSON file!";
        return std::nullopt;
    }
    return document.object().keys();
}

std::optional<QJsonValue> DescriptionsFile::versionDescription(const QString& version)
{
    if (!loaded && !load()) {
        qDebug() << "Failed to load descriptions JSON file!";
        return std::nullopt;
    }
    const QJsonObject descriptions = document.object();
    const auto description = descriptions.find(version);
    if (description == descriptions.end())
        return std::nullopt;
    return description.value();
}

std::optional<QJsonDocument> requestDescriptions(QNetworkAccessManager* /*manager*/)
{
    const std::optional<QJsonDocument> catalogue = availableVersionsJson(true, false);
    if (!catalogue)
        return std::nullopt;

    QJsonObject result;
    const QJsonObject versions = catalogue->object();
    for (auto version = versions.begin(); version != versions.end(); ++version) {
        if (!version.value().isObject())
            continue;
        QJsonObject entry;
        const QJsonObject changelog =
            version.value().toObject().value(QLatin1String("changelog")).toObject();
        for (const QLatin1String list :
             {QLatin1String("features"), QLatin1String("changes"), QLatin1String("fixes")}) {
            if (const auto found = changelog.find(list); found != changelog.end())
                entry.insert(list, found.value());
        }
        result.insert(version.key(), entry);
    }
    if (result.isEmpty())
        return std::nullopt;
    return QJsonDocument(result);
}

bool writeFile(const QByteArray& data, const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        qDebug() << "Failed to open an output file " << path;
        return false;
    }
    file.write(data);
    return true;
}
