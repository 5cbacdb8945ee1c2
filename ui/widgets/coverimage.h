#pragma once

#include <QFrame>
#include <QImage>
#include <QPixmap>

class QThread;

/// A frame whose background is a picture that covers it whole: scaled without distortion, centred
/// and cropped. It never asks for more room because of the picture. The picture is decoded on a
/// thread of its own once the frame has been painted for the first time; until then a small version
/// of it stands in its place.
class CoverImage final : public QFrame
{
    Q_OBJECT
    Q_PROPERTY(QString picture READ picture WRITE setPicture)

public:
    using QFrame::QFrame;
    /// Waits for the decoding, which takes some tens of milliseconds.
    ~CoverImage() override;

    /// File name of the picture, in the resources as a rule. The small version lies beside it:
    /// "hero.png" has "hero_small.png".
    QString picture() const { return m_fileName; }
    void setPicture(const QString& fileName);
    /// Whether the picture itself is shown, not its small version.
    bool isComplete() const { return m_complete; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void beginDecoding();

    QString m_fileName;
    QPixmap m_picture;
    QPixmap m_scaled; ///< m_picture cropped and scaled to the size painted last
    QThread* m_decoder = nullptr;
    QImage m_decoded; ///< the decoder's until it has finished
    bool m_complete = false;
};
