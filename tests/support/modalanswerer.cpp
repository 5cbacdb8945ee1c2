#include "tests/support/modalanswerer.h"

#include <QCoreApplication>
#include <QEvent>
#include <QLabel>
#include <QPointer>

#include <utility>

ModalAnswerer::ModalAnswerer(Answer answer) : m_answer(std::move(answer))
{
    QCoreApplication::instance()->installEventFilter(this);
}

ModalAnswerer::~ModalAnswerer()
{
    QCoreApplication::instance()->removeEventFilter(this);
}

bool ModalAnswerer::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::Show) {
        auto* dialog = qobject_cast<QDialog*>(watched);
        if (dialog && dialog->isModal())
            QMetaObject::invokeMethod(
                this,
                [this, dialog = QPointer<QDialog>(dialog)] {
                    if (dialog)
                        meet(*dialog);
                },
                Qt::QueuedConnection);
    }
    return QObject::eventFilter(watched, event);
}

void ModalAnswerer::meet(QDialog& dialog)
{
    const auto* label = dialog.findChild<QLabel*>();
    m_texts.append(label ? label->text() : QString());
    const QPointer<QDialog> guard(&dialog);
    if (m_answer)
        m_answer(dialog);
    if (guard && guard->isVisible())
        guard->close();
}
