#pragma once

#include <QLatin1String>
#include <QString>
#include <QStringList>

#include <concepts>
#include <optional>

class QSettings;

/// Groups and keys of the settings file.
namespace settings {
inline constexpr QLatin1String vcsGroup("VCS");
inline constexpr QLatin1String filesystemGroup("FILESYSTEM");
inline constexpr QLatin1String stateGroup("STATE");

/// "VCS": QStringList, the version keys that the new-version check saw last.
inline constexpr QLatin1String availableVersions("availableVersions");
/// "VCS": bool, whether lists include special versions.
inline constexpr QLatin1String showSpecialVersions("showSpecialVersions");
/// "FILESYSTEM": qulonglong, bytes of the installed version.
inline constexpr QLatin1String installationSize("installationSize");
/// "STATE": bool, whether the version history is written when the main window refreshes.
inline constexpr QLatin1String shouldRequestDescriptions("bShouldRequestDescriptions");
/// "STATE": bool, whether the notice of a new version stays hidden.
inline constexpr QLatin1String shouldHideNewUpdateNotification("bShouldHideNewUpdateNotification");
} // namespace settings

/// The types that the settings file holds.
template <typename T>
concept SettingType =
    std::same_as<T, QStringList> || std::same_as<T, qulonglong> || std::same_as<T, bool>;

/// The launcher's settings: "config.ini" in the application directory. GUI thread only.
class SettingsStore final
{
public:
    /// The one store. Its first use writes the defaults that the file lacks.
    static SettingsStore& instance();

    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;

    /// The value of `key` in `group`; one of another type is converted, and reads as the empty
    /// value of `T` where that fails. A missing key is absent; `writeDefault` then stores
    /// `defaultValue`, which the next read returns: absent means the default.
    template <SettingType T>
    std::optional<T> getValue(const QString& group, const QString& key, bool writeDefault,
                              const T& defaultValue);
    /// Stores `value`. Qt writes the file on its own schedule; a failure to do so is not reported.
    template <SettingType T>
    void setValue(const QString& group, const QString& key, const T& value);

    /// Writes the file now. For a caller about to end the process.
    void sync();

private:
    SettingsStore();
    ~SettingsStore() = default;

    QSettings* m_settings = nullptr;
    QString m_filePath;
};

extern template std::optional<QStringList> SettingsStore::getValue(const QString&, const QString&,
                                                                   bool, const QStringList&);
extern template std::optional<qulonglong> SettingsStore::getValue(const QString&, const QString&,
                                                                  bool, const qulonglong&);
extern template std::optional<bool> SettingsStore::getValue(const QString&, const QString&, bool,
                                                            const bool&);
extern template void SettingsStore::setValue(const QString&, const QString&, const QStringList&);
extern template void SettingsStore::setValue(const QString&, const QString&, const qulonglong&);
extern template void SettingsStore::setValue(const QString&, const QString&, const bool&);
