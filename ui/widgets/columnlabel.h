#pragma once

#include <QLabel>

/// A one-line label for texts of numbers and words with tabs between them. All numbers of a text
/// get the same width and stand right-aligned in it, so that the words around a number that counts
/// up or down stand still. A tab is as wide as a space.
class ColumnLabel final : public QLabel
{
    Q_OBJECT

public:
    explicit ColumnLabel(QWidget* parent = nullptr);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    int numberWidth(const QStringList& parts) const;
    int partWidth(const QString& part, int numberWidth) const;
    int textWidth() const;
};
