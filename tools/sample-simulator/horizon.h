#pragma once

#include "tools/sample-simulator/flight.h"

#include <QElapsedTimer>
#include <QTimer>
#include <QWidget>

/// The flight display of the sample simulator: artificial horizon, bank scale, speed and altitude
/// read-outs and a heading strip, moving by themselves. The arrow keys are the stick.
class Horizon final : public QWidget
{
    Q_OBJECT

public:
    /// `captionText` (name and version) and `statusText` are shown at the foot.
    Horizon(const QString& captionText, const QString& statusText);

    /// Inverted, the up arrow raises the nose.
    void setPitchInverted(bool inverted) { upPitch = inverted ? 1 : -1; }

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void keyReleaseEvent(QKeyEvent* event) override;

private:
    void moveStick(int key, double amount);
    void paintWorld(QPainter& painter) const;
    void paintBankScale(QPainter& painter) const;
    void paintAircraft(QPainter& painter) const;
    void paintHeading(QPainter& painter) const;
    void paintReadouts(QPainter& painter) const;

    QString caption;
    QString status;
    Flight flight;
    double upPitch = -1; ///< stick position of the up arrow
    QElapsedTimer clock;
    QTimer frames;
};
