#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonValue>
#include <QString>
#include <QStringList>

#include <optional>

class QNetworkAccessManager;

/// The version history kept in "descriptions.json" in the application directory: one object per
/// version with its lists "features", "changes" and "fixes". GUI thread only.
class DescriptionsFile final
{
public:
    static DescriptionsFile& instance();

    DescriptionsFile(const DescriptionsFile&) = delete;
    DescriptionsFile& operator=(const DescriptionsFile&) = delete;

    /// Reads the file; false when it cannot be opened. Text that is not JSON reads as an empty
    /// document.
    bool load();
    /// The versions in the file, which is read anew; absent when it cannot be.
    std::optional<QStringList> versionKeys();
    /// The description of `version` in the document read last; absent when it has none.
    std::optional<QJsonValue> versionDescription(const QString& version);

    const QString filePath;

private:
    DescriptionsFile();
    ~DescriptionsFile() = default;

    bool loaded = false;
    QJsonDocument document;
};

/// Builds the version history from the catalogue, special versions left out; absent when there is
/// no catalogue or no version in it. Makes no request: `manager` is not used.
std::optional<QJsonDocument> requestDescriptions(QNetworkAccessManager* manager);

/// Replaces the content of the file at `path` by `data`; false when it cannot be opened. A failure
/// to write is not detected.
bool writeFile(const QByteArray& data, const QString& path);
