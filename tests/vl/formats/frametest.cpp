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
    void framesSurviveRoundTrip_data();
    void framesSurviveRoundTrip();
    void brokenFramesAreRefused_data();
    void brokenFramesAreRefused();
    void everyFlippedByteIsRefused();
    void windowIsLimitedTo64MiB();
    void failureOfTheSinkIsHandedOn();
};

void FrameTest::framesSurviveRoundTrip_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("piece");
    QTest::newRow("one byte") << 1 << 1;
    QTest::newRow("byte by byte") << 5000 << 1;
    QTest::newRow("one output buffer") << int(ZSTD_DStreamOutSize()) << 4096;
    QTest::newRow("many output buffers from one piece") << 3000000 << 10000000;
}

void FrameTest::framesSurviveRoundTrip()
{
    QFETCH(int, size);
    QFETCH(int, piece);
    const Bytes raw = sample(std::size_t(size));
    const Bytes frame = encode(raw);
    QCOMPARE(ZSTD_getFrameContentSize(frame.data(), frame.size()), raw.size());
    vl::FrameDecoder decoder;
    // Twice, because a decoder is used for frame after frame.
    for (int round = 0; round < 2; ++round)
        QCOMPARE(decode(decoder, frame, raw, raw.size(), std::size_t(piece)), std::string());
}

void FrameTest::brokenFramesAreRefused_data()
{
    QTest::addColumn<int>("cutAtEnd");
    QTest::addColumn<QByteArray>("appended");
    QTest::addColumn<int>("agreedMore"); // than there is
    QTest::addColumn<QByteArray>("fault");
    const Bytes other = encode(sample(100));
    const QByteArray frame(reinterpret_cast<const char*>(other.data()), qsizetype(other.size()));
    QTest::newRow("cut by a byte") << 1 << QByteArray() << 0 << QByteArray("incomplete");
    QTest::newRow("cut in the middle") << 30000 << QByteArray() << 0 << QByteArray("incomplete");
    QTest::newRow("nothing") << 1000000 << QByteArray() << 0 << QByteArray("incomplete");
    QTest::newRow("rubbish after it") << 0 << QByteArray("x") << 0 << QByteArray("followed");
    QTest::newRow("frame after it") << 0 << frame << 0 << QByteArray("followed");
    QTest::newRow("page") << 1000000 << QByteArray("<html>") << 0 << QByteArray("damaged");
    QTest::newRow("skippable frame alone")
        << 1000000 << QByteArray("\x50\x2a\x4d\x18\x01\x00\x00\x00x", 9) << 0
        << QByteArray("fewer");
    QTest::newRow("more than agreed") << 0 << QByteArray() << -1 << QByteArray("more bytes than");
    QTest::newRow("less than agreed") << 0 << QByteArray() << 1 << QByteArray("fewer");
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

void FrameTest::everyFlippedByteIsRefused()
{
    const Bytes raw = sample(3000);
    const Bytes good = encode(raw);
    vl::FrameDecoder decoder;
    for (std::size_t i = 0; i < good.size(); ++i) {
        Bytes frame = good;
        frame[i] ^= std::byte{0x10};
        // The one bit of the header that decoders must ignore changes nothing that comes out.
        const bool unusedBit = i == 4;
        QVERIFY2(unusedBit || !decode(decoder, frame, raw, raw.size(), frame.size()).empty(),
                 std::to_string(i).c_str());
    }
}

void FrameTest::windowIsLimitedTo64MiB()
{
    for (const int windowLog : {26, 27}) {
        ZSTD_CCtx* context = ZSTD_createCCtx();
        ZSTD_CCtx_setParameter(context, ZSTD_c_windowLog, windowLog);
        // Of unknown size, so that the window is not narrowed to the contents.
        const Bytes raw = sample(1000);
        Bytes frame(ZSTD_compressBound(raw.size()));
        ZSTD_inBuffer in{raw.data(), raw.size(), 0};
        ZSTD_outBuffer out{frame.data(), frame.size(), 0};
        ZSTD_compressStream2(context, &out, &in, ZSTD_e_continue);
        QCOMPARE(ZSTD_compressStream2(context, &out, &in, ZSTD_e_end), std::size_t{0});
        ZSTD_freeCCtx(context);
        frame.resize(out.pos);
        vl::FrameDecoder decoder;
        const std::string fault = decode(decoder, frame, raw, raw.size(), frame.size());
        QVERIFY2(fault.empty() == (windowLog == 26), fault.c_str());
    }
}

void FrameTest::failureOfTheSinkIsHandedOn()
{
    const Bytes frame = encode(sample(1000000));
    vl::FrameDecoder decoder;
    decoder.begin(1000000);
    int calls = 0;
    const auto fed =
        decoder.feed(frame, [&calls](std::span<const std::byte>) -> vl::Expected<void> {
            ++calls;
            return vl::failure(vlupd::SYSTEM_CALL_ERROR, "disk full");
        });
    QVERIFY(!fed);
    QCOMPARE(fed.error().message, std::string("disk full"));
    QCOMPARE(calls, 1);
}

QTEST_APPLESS_MAIN(FrameTest)
#include "frametest.moc"
