#include "ui/widgets/coverimage.h"

#include <QFileInfo>
#include <QPainter>
#include <QThread>

CoverImage::~CoverImage()
{
    if (m_decoder != nullptr)
        m_decoder->wait();
}

void CoverImage::setPicture(const QString& fileName)
{
    const QFileInfo file(fileName);
    m_fileName = fileName;
    m_picture.load(file.path() % u'/' % file.completeBaseName() % u"_small." % file.suffix());
    m_scaled = {};
    update();
}

void CoverImage::beginDecoding()
{
    m_decoder = QThread::create([this] { m_decoded.load(m_fileName); });
    m_decoder->setParent(this);
    connect(m_decoder, &QThread::finished, this, [this] {
        m_picture = QPixmap::fromImage(std::move(m_decoded));
        m_scaled = {};
        m_complete = true;
        update();
    });
    m_decoder->start();
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
    if (m_decoder == nullptr)
        beginDecoding();
}
