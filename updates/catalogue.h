#pragma once

#include <QDate>
#include <QJsonDocument>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

// The catalogue of versions that the update service offers: an object keyed by version, read from
// the update library once and kept to the end of the process. GUI thread only.

/// The catalogue. `useCache`: a document read before is good enough. Without `includeSpecial` the
/// versions that carry a display name are dropped. Absent when no permit of the library is free,
/// when the library has no catalogue, or when its texts are not valid UTF-8.
std::optional<QJsonDocument> availableVersionsJson(bool useCache, bool includeSpecial);

/// The "name" of `version` in the catalogue, special versions included; may be empty. Absent when
/// it has none.
std::optional<QString> versionName(const QString& version);

/// The release date of `version` in the catalogue, special versions included. Present but invalid
/// when its text is no date; absent when it has none.
std::optional<QDate> versionDate(const QString& version);

/// What the check for new versions decides.
struct NewVersionCheck
{
    /// Whether the notice of a new version stays hidden.
    bool hideNotification = true;
    /// The versions that the next check compares with.
    QStringList availableVersions;
};

/// Compares the catalogue with the versions that the last check saw (absent: never checked). The
/// notice shows when there is a version never seen before, and after the first start.
NewVersionCheck checkForNewVersions(const std::optional<QJsonDocument>& catalogue,
                                    const std::optional<QStringList>& seen);

/// One entry of the list of versions: what it shows and the bare version (empty: none).
struct VersionItem
{
    QString text;
    QString version;

    bool operator==(const VersionItem&) const = default;
};

/// The versions offered for installation, the greatest first: those of `available` and the
/// installed one. Each text is `prefix`, the version and its display name in brackets. Where there
/// is no version (or `available` is absent) the only item says so.
QList<VersionItem> versionItems(const std::optional<QStringList>& available,
                                const std::optional<QString>& installedVersion,
                                const QString& prefix);
