#include "vl/src/formats/frame.h"

#include <QTest>

#include <zstd.h>

#include <algorithm>
#include <random>

namespace {

using Bytes = std::vector<std::byte>;

/// Half of it compresses, half does not.
Bytes sample(std::size_t size)
{
    std::mt19937 random(7);
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = std::byte(i % 2000 < 1000 ? 'x' : random() % 256);
    return bytes;
}

Bytes encode(const Bytes& raw)
{
    return vl::FrameEncoder(9).encode(raw).value();
}

/// Decodes in pieces; the fault, or an empty text when `raw` came out.
std::string decode(vl::FrameDecoder& decoder, const Bytes& frame, const Bytes& raw,
                   std::uint64_t rawSize, std::size_t piece)
{
    Bytes decoded;
    decoder.begin(rawSize);
    const auto sink = [&decoded](std::span<const std::byte> bytes) -> vl::Expected<void> {
        decoded.insert(decoded.end(), bytes.begin(), bytes.end());
        return {};
    };
    for (std::size_t offset = 0; offset < frame.size(); offset += piece) {
        const auto part = std::span(frame).subspan(offset, std::min(piece, frame.size() - offset));
        if (const auto fed = decoder.feed(part, sink); !fed)
            return fed.error().message;
        if (decoded.size() > rawSize)
            return "more bytes were handed out than agreed";
    }
    if (const auto ended = decoder.end(); !ended)
        return ended.error().message;
    return decoded == raw ? std::string() : "other bytes came out";
}

} // namespace

/// Frames come from the network and are decoded in the process that holds the installation.
class FrameTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void framesSurviveRoundTrip();
    void brokenFramesAreRefused_data();
    void brokenFramesAreRefused();
};

void FrameTest::framesSurviveRoundTrip()
{
    // One for all, because a decoder is used for frame after frame.
    vl::FrameDecoder decoder;
    const std::vector<std::pair<std::size_t, std::size_t>> cases{
        {1, 1}, {5000, 1}, {ZSTD_DStreamOutSize(), 4096}, {3000000, 10000000}};
    for (const auto& [size, piece] : cases) {
        const Bytes raw = sample(size);
        const Bytes frame = encode(raw);
        QCOMPARE(ZSTD_getFrameContentSize(frame.data(), frame.size()), raw.size());
        QCOMPARE(decode(decoder, frame, raw, raw.size(), piece), std::string());
    }
}

void FrameTest::brokenFramesAreRefused_data()
{
    QTest::addColumn<int>("cutAtEnd");
    QTest::addColumn<QByteArray>("appended");
    QTest::addColumn<int>("agreedMore"); // than there is
    QTest::addColumn<QByteArray>("fault");
    const Bytes other = encode(sample(100));
    const QByteArray frame(reinterpret_cast<const char*>(other.data()), qsizetype(other.size()));
    const auto row = [](const char* name, int cut, const QByteArray& appended, int agreedMore,
                        const char* fault) {
        QTest::newRow(name) << cut << appended << agreedMore << QByteArray(fault);
    };
    row("cut by a byte", 1, "", 0, "incomplete");
    row("nothing", 1000000, "", 0, "incomplete");
    row("frame after it", 0, frame, 0, "followed");
    row("page", 1000000, "<html>", 0, "damaged");
    row("skippable frame", 1000000, QByteArray("\x50\x2a\x4d\x18\x01\0\0\0x", 9), 0, "fewer");
    row("more than agreed", 0, "", -1, "more bytes than");
    row("less than agreed", 0, "", 1, "fewer");
}

void FrameTest::brokenFramesAreRefused()
{
    QFETCH(int, cutAtEnd);
    QFETCH(QByteArray, appended);
    QFETCH(int, agreedMore);
    QFETCH(QByteArray, fault);
    const Bytes raw = sample(100000);
    Bytes frame = encode(raw);
    frame.resize(frame.size() - std::min(frame.size(), std::size_t(cutAtEnd)));
    for (const char c : appended)
        frame.push_back(std::byte(static_cast<unsigned char>(c)));
    vl::FrameDecoder decoder;
    const auto agreed = std::uint64_t(qint64(raw.size()) + agreedMore);
    for (const std::size_t piece : {std::size_t{1}, std::size_t{1000000}}) {
        const std::string found = decode(decoder, frame, raw, agreed, piece);
        QVERIFY2(found.find(fault.toStdString()) != std::string::npos, found.c_str());
    }
    QCOMPARE(decode(decoder, encode(raw), raw, raw.size(), 1000), std::string()); // usable again
}

QTEST_APPLESS_MAIN(FrameTest)
#include "frametest.moc"
