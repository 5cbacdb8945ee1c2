#include "ui/widgets/coverimage.h"

#include <QPainter>

void CoverImage::setPicture(const QString& fileName)
{
    m_fileName = fileName;
    m_picture.load(fileName);
    m_scaled = {};
    update();
}

void CoverImage::paintEvent(QPaintEvent* event)
{
    QFrame::paintEvent(event);
    if (m_picture.isNull())
        return;
    const QSize needed = size() * devicePixelRatioF();
    if (m_scaled.size() != needed) {
        const QSize cropped = needed.scaled(m_picture.size(), Qt::KeepAspectRatio);
        const QRect crop(QPoint((m_picture.width() - cropped.width()) / 2,
                                (m_picture.height() - cropped.height()) / 2),
                         cropped);
        m_scaled =
            m_picture.copy(crop).scaled(needed, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    }
    QPainter(this).drawPixmap(rect(), m_scaled);
}
