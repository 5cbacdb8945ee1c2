#include "app/settingsstore.h"

#include "app/paths.h"

#include <QDebug>
#include <QMetaType>
#include <QSettings>
#include <QVariant>

namespace {

void reportInvalidInstance()
{
    qDebug() << "Attempting to access invalid settings instance!";
}

} // namespace

SettingsStore& SettingsStore::instance()
{
    static SettingsStore store;
    return store;
}

SettingsStore::SettingsStore()
    : m_filePath(applicationDirectory().absolutePath() % QDir::separator() %
                 QLatin1String("config.ini"))
{
    // Left to the end of the process: nothing of Qt has to outlive the application object then.
    m_settings = new QSettings(m_filePath, QSettings::IniFormat);
    getValue(settings::vcsGroup, settings::availableVersions, true, QStringList{QString()});
    getValue(settings::filesystemGroup, settings::installationSize, true, qulonglong{0});
    getValue(settings::stateGroup, settings::shouldRequestDescriptions, true, true);
}

template <SettingType T>
std::optional<T> SettingsStore::getValue(const QString& group, const QString& key,
                                         bool writeDefault, const T& defaultValue)
{
    if (m_settings == nullptr) {
        reportInvalidInstance();
        return std::nullopt;
    }
    m_settings->beginGroup(group);
    if (m_settings->contains(key)) {
        const QVariant stored = m_settings->value(key);
        T value{};
        if (stored.metaType() == QMetaType::fromType<T>())
            value = stored.value<T>();
        else
            QMetaType::convert(stored.metaType(), stored.constData(), QMetaType::fromType<T>(),
                               &value);
        m_settings->endGroup();
        return value;
    }
    if (writeDefault)
        setValue(group, key, defaultValue);
    // After setValue no group is open any more, and Qt logs a warning. This is deliberate: the log
    // shows each default that was written.
    m_settings->endGroup();
    return std::nullopt;
}

template <SettingType T>
void SettingsStore::setValue(const QString& group, const QString& key, const T& value)
{
    if (m_settings == nullptr) {
        reportInvalidInstance();
        return;
    }
    if (!m_settings->group().isEmpty())
        m_settings->endGroup();
    m_settings->beginGroup(group);
    m_settings->setValue(key, QVariant::fromValue(value));
    m_settings->endGroup();
}

void SettingsStore::sync()
{
    if (m_settings != nullptr)
        m_settings->sync();
}

template std::optional<QStringList> SettingsStore::getValue(const QString&, const QString&, bool,
                                                            const QStringList&);
template std::optional<qulonglong> SettingsStore::getValue(const QString&, const QString&, bool,
                                                           const qulonglong&);
template std::optional<bool> SettingsStore::getValue(const QString&, const QString&, bool,
                                                     const bool&);
template void SettingsStore::setValue(const QString&, const QString&, const QStringList&);
template void SettingsStore::setValue(const QString&, const QString&, const qulonglong&);
template void SettingsStore::setValue(const QString&, const QString&, const bool&);
