#pragma once

#include "vlupd/vlupd.h"

#include <QDir>
#include <QMetaType>
#include <QSemaphore>
#include <QString>

#include <optional>
#include <ostream>
#include <utility>

/// Counts who is inside the update library. Three permits let an installation run while the GUI
/// thread holds one and takes a nested one; who finds none free goes without and never waits.
class UpdaterAccess final
{
public:
    /// Takes `permits` at once; false, and none taken, when fewer are free.
    bool tryAcquire(int permits) { return m_semaphore.tryAcquire(permits); }
    /// Waits until `permits` are free. Only the creation of the library object may wait.
    void acquire(int permits) { m_semaphore.acquire(permits); }
    void release(int permits) { m_semaphore.release(permits); }
    int available() const { return m_semaphore.available(); }

private:
    QSemaphore m_semaphore{3};
};

/// The guard that every call into the update library passes. Any thread.
extern UpdaterAccess updaterAccess;

/// One permit of `updaterAccess`, taken without waiting and given back at the end of the scope or
/// by an earlier `release`.
class UpdaterPermit final
{
public:
    UpdaterPermit() : m_held(updaterAccess.tryAcquire(1)) {}
    ~UpdaterPermit() { release(); }
    UpdaterPermit(const UpdaterPermit&) = delete;
    UpdaterPermit& operator=(const UpdaterPermit&) = delete;

    /// Whether a permit was free and is still held.
    explicit operator bool() const { return m_held; }
    void release()
    {
        if (std::exchange(m_held, false))
            updaterAccess.release(1);
    }

private:
    bool m_held;
};

/// True when at least one permit is free.
bool isUpdaterIdle();

/// The one library object, made by the first call, which waits for a permit. It stays owned here
/// and lives to the end of the process. GUI thread only.
vlupd::VLUPD* updaterInstance();

/// The greatest installed version and its directory. Absent when nothing is installed, when the
/// directory is gone, when no permit is free or when the library object does not exist yet.
std::optional<std::pair<QString, QDir>> latestInstalledVersion();

namespace vlupd {
/// Writes the result's name, such as "NOT_FOUND", or the number of one that has no name.
std::ostream& operator<<(std::ostream& stream, const UPD_RESULT& result);
} // namespace vlupd

Q_DECLARE_METATYPE(vlupd::UPD_RESULT)
Q_DECLARE_METATYPE(vlupd::UPD_INSTALLATION_STAGE)
