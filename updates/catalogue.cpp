#include "updates/catalogue.h"

#include "updates/updater.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QSet>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using nlohmann::json;

enum class Conversion {
    done,
    /// The written form is none that Qt reads.
    unreadable,
    /// Texts that are not UTF-8 have no written form at all.
    impossible,
};

/// What the catalogue says of one version.
struct Version
{
    QJsonValue value;
    Conversion conversion = Conversion::done;
    bool special = false;
};

/// The library's document in its own order, each version converted to Qt's types just once:
/// `versions[i]` stands under `keys[i]`.
struct Catalogue
{
    std::vector<QString> keys;
    std::vector<Version> versions;
    /// With the special versions, for the lookups.
    std::optional<QJsonDocument> complete;
};

/// Absent until the library first returned an object; kept until a later fetch returns another.
std::optional<Catalogue> cache;

bool isSpecial(const json& version)
{
    if (!version.is_object())
        return false;
    const auto name = version.find("name");
    return name != version.end() && name->is_string() &&
           !name->get_ref<const std::string&>().empty();
}

void addVersion(Catalogue& catalogue, const std::string& key, const json& version)
{
    Version& added = catalogue.versions.emplace_back();
    added.special = isSpecial(version);
    try {
        const std::string text = '[' + json(key).dump() + ',' + version.dump() + ']';
        const QJsonArray pair = QJsonDocument::fromJson(QByteArray::fromStdString(text)).array();
        catalogue.keys.push_back(pair.at(0).toString());
        added.value = pair.at(1);
        if (pair.isEmpty())
            added.conversion = Conversion::unreadable;
    } catch (const json::exception&) {
        catalogue.keys.emplace_back();
        added.conversion = Conversion::impossible;
    }
}

/// The document that holds `versions` under the first of `keys`; null when one of them cannot be
/// read, absent when one of them cannot be written.
std::optional<QJsonDocument> toDocument(const std::vector<QString>& keys,
                                        const std::vector<Version>& versions)
{
    QJsonObject object;
    bool readable = true;
    for (std::size_t i = 0; i < versions.size(); ++i) {
        if (versions[i].conversion == Conversion::impossible)
            return std::nullopt;
        readable = readable && versions[i].conversion == Conversion::done;
        object.insert(keys[i], versions[i].value);
    }
    return readable ? QJsonDocument(object) : QJsonDocument();
}

/// Reads the catalogue from the library into the cache.
bool fetch()
{
    if (!updaterAccess.tryAcquire(1))
        return false;
    const json document = updaterInstance()->getAvailableVersions();
    updaterAccess.release(1);
    if (!document.is_object())
        return false;

    Catalogue fetched;
    fetched.keys.reserve(document.size());
    fetched.versions.reserve(document.size());
    for (const auto& [key, version] : document.items())
        addVersion(fetched, key, version);
    fetched.complete = toDocument(fetched.keys, fetched.versions);
    cache = std::move(fetched);
    return true;
}

/// The member `key` of `version`'s object in the catalogue, when it is a string.
std::optional<QString> versionText(const QString& version, QLatin1String key)
{
    const std::optional<QJsonDocument> catalogue = availableVersionsJson(true, true);
    if (!catalogue)
        return std::nullopt;
    const QJsonValue text = catalogue->object().value(version).toObject().value(key);
    return text.isString() ? std::optional(text.toString()) : std::nullopt;
}

} // namespace

std::optional<QJsonDocument> availableVersionsJson(bool useCache, bool includeSpecial)
{
    if (!(useCache && cache) && !fetch())
        return std::nullopt;
    if (includeSpecial)
        return cache->complete;

    // The values of the other versions move up and the keys stay where they are. This is
    // deliberate: where a special version is not last, a later version shows under its key.
    std::vector<Version> versions = cache->versions;
    versions.erase(std::remove_if(versions.begin(), versions.end(),
                                  [](const Version& version) { return version.special; }),
                   versions.end());
    return toDocument(cache->keys, versions);
}

std::optional<QString> versionName(const QString& version)
{
    return versionText(version, QLatin1String("name"));
}

std::optional<QDate> versionDate(const QString& version)
{
    const std::optional<QString> text = versionText(version, QLatin1String("date"));
    if (!text)
        return std::nullopt;
    return QDate::fromString(*text, QStringLiteral("yyyy-MM-dd"));
}

NewVersionCheck checkForNewVersions(const std::optional<QJsonDocument>& catalogue,
                                    const std::optional<QStringList>& seen)
{
    NewVersionCheck result;
    if (!catalogue || catalogue->object().isEmpty())
        return result;
    result.availableVersions = catalogue->object().keys();
    if (!seen || seen->isEmpty() || seen->first().isEmpty()) {
        result.hideNotification = false;
        return result;
    }
    const QSet<QString> seenVersions(seen->begin(), seen->end());
    result.hideNotification =
        std::all_of(result.availableVersions.begin(), result.availableVersions.end(),
                    [&](const QString& version) { return seenVersions.contains(version); });
    return result;
}

QList<VersionItem> versionItems(const std::optional<QStringList>& available,
                                const std::optional<QString>& installedVersion,
                                const QString& prefix)
{
    std::vector<SemanticVersion> versions;
    if (available) {
        versions.reserve(static_cast<std::size_t>(available->size()) + 1);
        for (const QString& version : *available)
            versions.emplace_back(version.toStdString());
        if (installedVersion && !installedVersion->isEmpty() &&
            !available->contains(*installedVersion))
            versions.emplace_back(installedVersion->toStdString());
    }
    std::sort(versions.begin(), versions.end());

    QList<VersionItem> items;
    items.reserve(static_cast<qsizetype>(versions.size()));
    for (auto version = versions.rbegin(); version != versions.rend(); ++version) {
        const QString text = QString::fromStdString(version->String());
        if (text.isEmpty())
            continue;
        const std::optional<QString> name = versionName(text);
        items.append({name ? QString(prefix % text % u" (" % *name % u')') : prefix % text, text});
    }
    if (items.isEmpty())
        items.append({QStringLiteral("Нет доступных версий"), QString()});
    return items;
}
