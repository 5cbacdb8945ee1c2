#include "vl/src/formats/frame.h"

#include <QTest>

#include <zstd.h>

#include <algorithm>
#include <random>

namespace {

using Bytes = std::vector<std::byte>;
/// Bytes cut off, bytes put behind, by how much too many bytes are agreed on, words of the fault.
using Broken = std::tuple<int, QByteArray, int, const char*>;

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
    void everyFlippedByteIsRefused();
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
    QTest::addColumn<Broken>("broken");
    const Bytes other = encode(sample(100));
    const QByteArray frame(reinterpret_cast<const char*>(other.data()), qsizetype(other.size()));
    const QByteArray skippable("\x50\x2a\x4d\x18\x01\0\0\0x", 9);
    // Windows of 64 and of 72 MiB, each in front of one raw byte.
    const QByteArray largest("\x28\xb5\x2f\xfd\0\x80\x09\0\0x", 10);
    const QByteArray larger("\x28\xb5\x2f\xfd\0\x81\x09\0\0x", 10);
    const Bytes zeros = encode(Bytes(64U << 20U));
    const QByteArray bomb(reinterpret_cast<const char*>(zeros.data()), qsizetype(zeros.size()));
    constexpr int all = 1000000;
    QTest::newRow("cut by a byte") << Broken{1, "", 0, "incomplete"};
    QTest::newRow("nothing") << Broken{all, "", 0, "incomplete"};
    QTest::newRow("frame after it") << Broken{0, frame, 0, "followed"};
    QTest::newRow("page") << Broken{all, "<html>", 0, "damaged"};
    QTest::newRow("skippable frame") << Broken{all, skippable, 0, "fewer"};
    QTest::newRow("largest window") << Broken{all, largest, 0, "fewer"};
    QTest::newRow("bomb: larger window") << Broken{all, larger, 0, "too much memory"};
    QTest::newRow("bomb: a byte more than agreed") << Broken{0, "", -1, "more bytes than"};
    QTest::newRow("bomb: 64 MiB in a few KiB") << Broken{all, bomb, 0, "more bytes than"};
    QTest::newRow("less than agreed") << Broken{0, "", 1, "fewer"};
}

void FrameTest::brokenFramesAreRefused()
{
    QFETCH(Broken, broken);
    const auto& [cutAtEnd, appended, agreedMore, fault] = broken;
    const Bytes raw = sample(100000);
    Bytes frame = encode(raw);
    frame.resize(frame.size() - std::min(frame.size(), std::size_t(cutAtEnd)));
    for (const char c : appended)
        frame.push_back(std::byte(static_cast<unsigned char>(c)));
    vl::FrameDecoder decoder;
    const auto agreed = std::uint64_t(qint64(raw.size()) + agreedMore);
    for (const std::size_t piece : {std::size_t{1}, std::size_t{1000000}}) {
        const std::string found = decode(decoder, frame, raw, agreed, piece);
        QVERIFY2(found.find(fault) != std::string::npos, found.c_str());
    }
    QCOMPARE(decode(decoder, encode(raw), raw, raw.size(), 1000), std::string()); // usable again
}

void FrameTest::everyFlippedByteIsRefused()
{
    const Bytes raw = sample(3000);
    Bytes frame = encode(raw);
    vl::FrameDecoder decoder;
    for (std::size_t i = 0; i < frame.size(); ++i) {
        frame[i] ^= std::byte{0x10};
        // Of the header's byte 4 this is the one bit that decoders must ignore.
        QVERIFY2(i == 4 || !decode(decoder, frame, raw, raw.size(), frame.size()).empty(),
                 std::to_string(i).c_str());
        frame[i] ^= std::byte{0x10};
    }
}

QTEST_APPLESS_MAIN(FrameTest)
#include "frametest.moc"
