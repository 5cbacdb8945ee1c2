#pragma once

#include <QFrame>
#include <QPixmap>

/// A frame whose background is a picture that covers it whole: scaled without distortion, centred
/// and cropped. It never asks for more room because of the picture.
class CoverImage final : public QFrame
{
    Q_OBJECT
    Q_PROPERTY(QString picture READ picture WRITE setPicture)

public:
    using QFrame::QFrame;

    /// File name of the picture, in the resources as a rule.
    QString picture() const { return m_fileName; }
    void setPicture(const QString& fileName);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QString m_fileName;
    QPixmap m_picture;
    QPixmap m_scaled; ///< m_picture cropped and scaled to the size painted last
};
