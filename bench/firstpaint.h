#pragma once

#include <QApplication>
#include <QEvent>
#include <QMetaObject>
#include <QWidget>

#include <cstdlib>

/// Ends the process once the first window has painted itself and all its children: what start-up
/// costs, without the cost of going down again.
class ExitAfterFirstPaint final : public QObject
{
public:
    ExitAfterFirstPaint() { QApplication::instance()->installEventFilter(this); }

    bool eventFilter(QObject* watched, QEvent* event) override
    {
        const auto* widget = qobject_cast<QWidget*>(watched);
        if (event->type() == QEvent::Paint && widget != nullptr && widget->isWindow())
            QMetaObject::invokeMethod(
                this, [] { std::_Exit(0); }, Qt::QueuedConnection);
        return false;
    }
};
