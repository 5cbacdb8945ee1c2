#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <array>

/// The texts of a report, each in UTF-8.
struct ReportTexts
{
    QByteArray subject;
    QByteArray body;
    QByteArray os;
    QByteArray cpuArchitecture;
    QByteArray machineId;
};

/// Receives the parts of one report in the order of the message. An operation that returns false
/// ends the report.
class ReportSink
{
public:
    ReportSink() = default;
    ReportSink(const ReportSink&) = delete;
    ReportSink& operator=(const ReportSink&) = delete;
    virtual ~ReportSink() = default;

    virtual bool beginReport(const ReportTexts& texts) = 0;
    /// `name` is what the sender said and not to be trusted; `size` bytes follow.
    virtual bool beginAttachment(const QByteArray& name, qint64 size) = 0;
    virtual bool attachmentBytes(QByteArrayView bytes) = 0;
    virtual bool endAttachment() = 0;
    virtual bool endReport() = 0;
};

/// Reads one report message piece by piece, as the bytes arrive. Every length is checked before
/// anything of that size is kept; attachments are passed on and never held.
class ReportParser final
{
public:
    enum class Status { Incomplete, Complete, Failed };

    static constexpr qint64 maximumMessageSize = 512LL * 1024 * 1024;
    static constexpr int maximumAttachments = 5;
    /// Most bytes of one text or name.
    static constexpr qint64 maximumTextSize = 64LL * 1024;

    /// `sink` must outlive the parser.
    explicit ReportParser(ReportSink& sink) : m_sink(sink) {}

    /// Takes the next bytes of the message.
    Status feed(QByteArrayView bytes);
    Status status() const { return m_status; }
    /// Why the message was refused.
    const QString& error() const { return m_error; }
    /// Bytes of the message taken so far.
    qint64 bytesRead() const { return m_bytesRead; }

private:
    enum class Step { TotalSize, FileCount, Length, Text, Contents };
    static constexpr int textCount = 5;

    void takePiece();
    void takeLength(quint32 length);
    void takeText(const QByteArray& text);
    void finishField();
    void expect(Step step, qint64 size);
    void fail(const QString& error);
    bool isContents() const { return m_field >= textCount && (m_field - textCount) % 2 == 1; }
    qint64 bytesLeft() const { return m_totalSize - m_bytesRead; }

    ReportSink& m_sink;
    Status m_status = Status::Incomplete;
    QString m_error;
    Step m_step = Step::TotalSize;
    qint64 m_expected = sizeof(qint64); // bytes still to come for this step
    QByteArray m_piece;
    qint64 m_totalSize = 0;
    qint64 m_bytesRead = 0;
    int m_field = 0;
    int m_fieldCount = textCount;
    std::array<QByteArray, textCount> m_texts;
    QByteArray m_attachmentName;
};
