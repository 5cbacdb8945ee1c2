#pragma once

#include <QDialog>
#include <QObject>
#include <QStringList>

#include <functional>

/// Answers modal dialogs as a user would, without timed waits: calls `answer` with each one as
/// soon as its own event loop runs. A dialog that `answer` leaves open is closed.
class ModalAnswerer final : public QObject
{
    Q_OBJECT

public:
    using Answer = std::function<void(QDialog&)>;

    explicit ModalAnswerer(Answer answer = {});
    ~ModalAnswerer() override;

    /// The texts of the dialogs met so far: for each the one of its labels.
    QStringList texts() const { return m_texts; }

    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void meet(QDialog& dialog);

    Answer m_answer;
    QStringList m_texts;
};
