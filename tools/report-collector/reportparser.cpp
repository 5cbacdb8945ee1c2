#include "tools/report-collector/reportparser.h"

#include <QtEndian>

#include <utility>

namespace {

constexpr qint64 lengthSize = sizeof(quint32);
// QDataStream writes a null byte array as this length and no bytes.
constexpr quint32 nullLength = 0xFFFFFFFF;

} // namespace

ReportParser::Status ReportParser::feed(QByteArrayView bytes)
{
    while (m_status == Status::Incomplete && !bytes.isEmpty()) {
        const QByteArrayView part = bytes.first(qMin(m_expected, bytes.size()));
        bytes = bytes.sliced(part.size());
        m_expected -= part.size();
        m_bytesRead += part.size();
        if (m_step != Step::Contents) {
            m_piece.append(part);
            if (m_expected == 0)
                takePiece();
        } else if (!m_sink.attachmentBytes(part)) {
            fail(QStringLiteral("an attachment could not be stored"));
        } else if (m_expected == 0) {
            finishField();
        }
    }
    if (m_status == Status::Complete && !bytes.isEmpty())
        fail(QStringLiteral("bytes follow the end of the message"));
    return m_status;
}

void ReportParser::takePiece()
{
    const QByteArray piece = std::exchange(m_piece, {});
    switch (m_step) {
    case Step::TotalSize: {
        m_totalSize = qFromBigEndian<qint64>(piece.constData());
        const qint64 minimumSize = qint64(sizeof(qint64) + sizeof(qint8)) + textCount * lengthSize;
        if (m_totalSize < minimumSize || m_totalSize > maximumMessageSize)
            fail(QStringLiteral("a message of %1 bytes is not accepted").arg(m_totalSize));
        else
            expect(Step::FileCount, sizeof(qint8));
        break;
    }
    case Step::FileCount: {
        const int fileCount = static_cast<qint8>(piece.front());
        if (fileCount < 0 || fileCount > maximumAttachments) {
            fail(QStringLiteral("%1 attachments are not accepted").arg(fileCount));
            break;
        }
        m_fieldCount += 2 * fileCount;
        expect(Step::Length, lengthSize);
        break;
    }
    case Step::Length:
        takeLength(qFromBigEndian<quint32>(piece.constData()));
        break;
    case Step::Text:
        takeText(piece);
        break;
    case Step::Contents:
        break; // never collected
    }
}

void ReportParser::takeLength(quint32 length)
{
    const qint64 size = length == nullLength ? 0 : qint64{length};
    const qint64 neededByLaterFields = (m_fieldCount - m_field - 1) * lengthSize;
    if (size > bytesLeft() - neededByLaterFields) {
        fail(QStringLiteral("field %1 of %2 bytes does not fit into the message")
                 .arg(m_field + 1)
                 .arg(size));
    } else if (isContents()) {
        if (!m_sink.beginAttachment(m_attachmentName, size))
            fail(QStringLiteral("an attachment could not be stored"));
        else if (size == 0)
            finishField();
        else
            expect(Step::Contents, size);
    } else if (size > maximumTextSize) {
        fail(QStringLiteral("field %1 of %2 bytes is too long").arg(m_field + 1).arg(size));
    } else if (size == 0) {
        takeText({});
    } else {
        expect(Step::Text, size);
    }
}

void ReportParser::takeText(const QByteArray& text)
{
    if (m_field < textCount)
        m_texts.at(static_cast<std::size_t>(m_field)) = text;
    else
        m_attachmentName = text;

    const bool isLastText = m_field == textCount - 1;
    if (isLastText &&
        !m_sink.beginReport({m_texts[0], m_texts[1], m_texts[2], m_texts[3], m_texts[4]}))
        fail(QStringLiteral("the report could not be stored"));
    else
        finishField();
}

void ReportParser::finishField()
{
    if (isContents() && !m_sink.endAttachment()) {
        fail(QStringLiteral("an attachment could not be stored"));
        return;
    }
    if (++m_field < m_fieldCount) {
        expect(Step::Length, lengthSize);
    } else if (bytesLeft() != 0) {
        fail(QStringLiteral("the fields end %1 bytes before the message").arg(bytesLeft()));
    } else if (!m_sink.endReport()) {
        fail(QStringLiteral("the report could not be stored"));
    } else {
        m_status = Status::Complete;
    }
}

void ReportParser::expect(Step step, qint64 size)
{
    m_step = step;
    m_expected = size;
}

void ReportParser::fail(const QString& error)
{
    m_status = Status::Failed;
    m_error = error;
}
