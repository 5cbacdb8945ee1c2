#include "vl/src/formats/delta.h"

#include <QTest>

#include <algorithm>
#include <array>

namespace {

std::span<const std::byte> bytesOf(const std::string& text)
{
    return std::as_bytes(std::span(text));
}

vl::Manifest manifestOf(std::initializer_list<std::uint64_t> sizes)
{
    vl::Manifest manifest;
    for (const std::uint64_t size : sizes)
        manifest.files.emplace_back().size = size;
    return manifest;
}

const std::string head = "{\"format\":1}\n";

std::string line(int size, const std::string& target, const std::string& base)
{
    return "{\"size\":" + std::to_string(size) + ",\"hash\":\"" + std::string(64, 'a') +
           "\",\"target\":" + target + ",\"base\":" + base + "}\n";
}

} // namespace

/// The index of a delta pack tells what is read and written where: nothing of a malformed one may
/// be believed, although a signed manifest names it.
class DeltaTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void malformedIndexes_data();
    void malformedIndexes();
    void damagedFrames();
    void decompressionBombs();

private:
    // The older version has files of 100 and 50 MiB, the newer one of 300, 20 and 200 MiB.
    const vl::Manifest m_base = manifestOf({100, 50U << 20U});
    const vl::Manifest m_target = manifestOf({300, 20, 200U << 20U});
};

void DeltaTest::malformedIndexes_data()
{
    QTest::addColumn<std::string>("text");
    QTest::addColumn<std::string>("words");
    const auto row = [](const char* name, const std::string& text, const char* words) {
        QTest::newRow(name) << text << std::string(words);
    };
    const std::string good = line(10, "[0,0,300]", "[0,0,100]");
    row("good", head + line(4, "[0,0,200]", "[]") + line(6, "[0,200,100,1,0,20]", "[1,7,9]"), "");
    row("empty", "", "not valid JSON in its first line");
    row("other format", "{\"format\":2}\n" + good, "unknown format");
    row("no JSON", head + "{\"size\":", "not valid JSON in line 2");
    row("no object", head + "7\n", "has no \"size\"");
    row("bad hash", head + "{\"size\":10,\"hash\":\"a\",\"target\":[0,0,300],\"base\":[]}\n",
        "size or hash");
    row("too little", head + line(9, "[0,0,300]", "[]"), "do not fill");
    row("too much", head + good + line(1, "[1,0,20]", "[]"), "do not fill");
    row("endless frame", head + line(100'000'000, "[0,0,300]", "[]"), "size or hash");
    row("makes nothing", head + line(10, "[]", "[0,0,100]"), "makes nothing");
    row("two numbers", head + line(10, "[0,0]", "[]"), "threes");
    row("negative", head + line(10, "[0,-1,300]", "[]"), "names no file");
    row("no such file", head + line(10, "[3,0,1]", "[]"), "names no file");
    row("no such base", head + line(10, "[0,0,300]", "[2,0,1]"), "names no file");
    row("beyond the base's end", head + line(10, "[0,0,300]", "[0,1,100]"), "outside");
    row("overflowing", head + line(10, "[0,0,300]", "[0,9223372036854775807,2]"), "outside");
    row("raw too large", head + line(10, "[2,0,16777217]", "[]"), "too large");
    row("base too large", head + line(10, "[0,0,300]", "[1,0,20000000,1,0,20000000]"), "too large");
    row("hole", head + line(4, "[0,0,100]", "[]") + line(6, "[0,200,100]", "[]"), "follow");
    row("twice", head + line(4, "[0,0,300]", "[]") + line(6, "[0,0,300]", "[]"), "follow");
    row("in part", head + line(10, "[0,0,299]", "[]"), "in part");
}

void DeltaTest::malformedIndexes()
{
    QFETCH(std::string, text);
    QFETCH(std::string, words);
    vl::DeltaReference reference;
    reference.size = 10;
    const auto index = vl::readDeltaIndex(text, reference, m_base, m_target);
    const std::string fault = index ? std::string() : index.error().message;
    QVERIFY2(words.empty() ? fault.empty() : fault.find(words) != fault.npos, fault.c_str());
    if (index)
        QCOMPARE(vl::writeDeltaIndex(*index), text);
    else
        QCOMPARE(index.error().code, vlupd::UPDATER_DATA_ERROR);
}

void DeltaTest::damagedFrames()
{
    std::string base(5000, '\0');
    for (std::size_t i = 0; i < base.size(); ++i)
        base[i] = static_cast<char>(i * i / 7);
    const std::string raw = base.substr(100, 3000) + "new" + base.substr(0, 90);
    const auto frame = vl::DeltaEncoder(19).encode(bytesOf(raw), bytesOf(base));
    QVERIFY(frame);
    QVERIFY(frame->size() < 100);
    vl::DeltaDecoder decoder;
    std::string made(raw.size(), '\0');
    const auto decode = [&](std::span<const std::byte> compressed, const std::string& from) {
        return decoder.decode(compressed, bytesOf(from), std::as_writable_bytes(std::span(made)));
    };
    QVERIFY(decode(*frame, base));
    QVERIFY(made == raw);
    std::string changed = base;
    changed[1500] = static_cast<char>(changed[1500] + 1);
    QVERIFY(!decode(*frame, changed));
    QVERIFY(!decode(*frame, base.substr(0, base.size() - 1)));
    QVERIFY(!decode(std::span(*frame).first(frame->size() - 1), base));
    auto longer = *frame;
    longer.push_back(std::byte{0});
    QVERIFY(!decode(longer, base));
    for (std::size_t i = 0; i < frame->size(); ++i) {
        auto flipped = *frame;
        flipped[i] ^= std::byte{1};
        QVERIFY2(!decode(flipped, base) || made == raw, qPrintable(QString::number(i)));
    }
    // The decoder is none the worse for it, and never writes more than it was asked for.
    QVERIFY(decode(*frame, base));
    made.resize(raw.size() - 1);
    QVERIFY(!decode(*frame, base));
    made.resize(raw.size() + 1);
    QVERIFY(!decode(*frame, base));
}

void DeltaTest::decompressionBombs()
{
    const auto compressed = vl::compressDeltaIndex(head);
    QCOMPARE(vl::expandDeltaIndex(*compressed).value(), head);
    const auto bomb = vl::compressDeltaIndex(std::string(vl::maxDeltaIndexSize + 1, ' '));
    QVERIFY(bomb->size() < 10'000);
    QVERIFY(!vl::expandDeltaIndex(*bomb));
    const auto frame = vl::DeltaEncoder(1).encode(std::vector<std::byte>(vl::maxDeltaRawSize), {});
    QVERIFY(frame->size() < 10'000);
    std::array<std::byte, 1000> raw{};
    QVERIFY(!vl::DeltaDecoder().decode(*frame, {}, raw));
}

QTEST_GUILESS_MAIN(DeltaTest)
#include "deltatest.moc"
