#pragma once

#include "vlupd/vlupd.h"

#include <QString>

#include <cstdint>

/// What the main window is busy with. The numbers are those of its interface.
enum class ProgressState : std::int32_t {
    IDLE = 0,
    DOWNLOADING = 1,
    UNPACKING = 2,
    CHECKING_FILES = 3,
    APPLYING_CHANGES = 4,
    OTHER_STAGE = 5,
};

/// The state that an installation's stage puts the main window in; OTHER_STAGE for a stage that is
/// not known. None gives CHECKING_FILES.
ProgressState progressStateOf(vlupd::UPD_INSTALLATION_STAGE stage);

/// What the user reads about `state`.
QString progressStateText(ProgressState state);

/// Both byte counts in the unit that the greater one needs, with tabs in between, such as
/// "1.50\t/\t4.25\tГБ". The decimal separator is a point in every locale.
QString progressSizeText(std::uint64_t bytesDownloaded, std::uint64_t totalBytes);

/// How long the rest takes at this speed, such as "Осталось примерно\t5\tмин". Empty where that
/// cannot be told: nothing arrives, or the total is unknown (0).
QString progressTimeText(std::uint64_t bytesPerSecond, std::uint64_t bytesDownloaded,
                         std::uint64_t totalBytes);

/// Percent done, from 0 to 100; 0 when the total is unknown.
double progressPercentage(std::uint64_t bytesDownloaded, std::uint64_t totalBytes);
