#include "vl/src/formats/manifest.h"

#include <QTest>

namespace {

const QByteArray hash(64, 'a');

/// A manifest that is in order: two frames of 3000 bytes in all, two files in them.
QByteArray goodManifest()
{
    return QByteArray(R"({"format":1,
"version":"1.0.0",
"executables":{"default_exec":"bin/sim"},
"pack":{"size":30,"hash":"%H","frames":[
  {"offset":0,"size":10,"rawSize":1000,"hash":"%H"},
  {"offset":10,"size":20,"rawSize":2000,"hash":"%H"}]},
"files":[
  {"path":"a.txt","size":100,"mode":"0644","hash":"%H","rawOffset":512},
  {"path":"bin/sim","size":1500,"mode":"0755","hash":"%H","rawOffset":1024}]}
)")
        .replace("%H", hash);
}

} // namespace

/// A manifest decides what is written where; nothing of a malformed one may be believed.
class ManifestTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void goodManifestSurvivesRoundTrip();
    void variantsAreJudged_data();
    void variantsAreJudged();
    void brokenTextsAreRefused_data();
    void brokenTextsAreRefused();
    void everyTruncationIsRefused();
    void sizeIsCapped();
};

void ManifestTest::goodManifestSurvivesRoundTrip()
{
    const std::string text = goodManifest().toStdString();
    const auto manifest = vl::readManifest(text, "1.0.0");
    QVERIFY2(manifest, manifest ? "" : manifest.error().message.c_str());
    QCOMPARE(vl::writeManifest(*manifest), text);
    QCOMPARE(manifest->pack.frames[1].rawOffset, std::uint64_t{1000});
    QCOMPARE(manifest->installedSize(), std::uint64_t{1600});
    QVERIFY(manifest->find("bin/sim") != nullptr);
    QCOMPARE(manifest->find("bin/sim")->mode, 0755U);
    QVERIFY(manifest->find("bin") == nullptr);
}

void ManifestTest::variantsAreJudged_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");
    QTest::addColumn<QByteArray>("fault"); // empty: accepted
    const auto row = [](const char* name, const QByteArray& before, const QByteArray& after,
                        const char* fault) {
        QTest::newRow(name) << before << after << QByteArray(fault);
    };
    const QByteArray fileEnd = "\"rawOffset\":1024}";
    const auto moreFiles = [&fileEnd](const QByteArray& path, const QByteArray& size,
                                      const QByteArray& offset) -> QByteArray {
        return fileEnd + ",{\"path\":\"" + path + "\",\"size\":" + size +
               ",\"mode\":\"0644\",\"hash\":\"" + hash + "\",\"rawOffset\":" + offset + "}";
    };
    // Structure
    row("unknown format", "\"format\":1", "\"format\":2", "format version 2");
    row("unknown format with other shapes", "\"format\":1,", "\"format\":2,\"files\":7,",
        "version 2");
    row("no format", "\"format\":1,", "", "\"format\" is missing");
    row("no files", "\"files\":", "\"other\":", "\"files\" is missing");
    row("file without a hash", "\"mode\":\"0644\",\"hash\"", "\"mode\":\"0644\",\"h\"", "missing");
    row("other version", "\"version\":\"1.0.0\"", "\"version\":\"1.0.1\"", "belongs to version");
    row("files is no list", "\"files\":[", "\"files\":null,\"x\":[", "wrong type");
    row("frames hold a number", "\"frames\":[", "\"frames\":[7,", "wrong type");
    row("text for a number", "\"size\":100", "\"size\":\"100\"", "wrong type");
    row("number for a text", "\"path\":\"a.txt\"", "\"path\":1", "wrong type");
    row("duplicate member", "\"size\":100", "\"size\":100,\"size\":100", "twice");
    row("duplicate list", "\"files\":", "\"files\":[],\"files\":", "twice");
    row("duplicate executable", "{\"default_exec\"", "{\"default_exec\":\"a.txt\",\"default_exec\"",
        "twice");
    row("duplicate unknown member", "\"format\":1", "\"format\":1,\"x\":1,\"x\":2", "twice");
    row("unknown members at every level",
        "\"size\":", "\"x\":{\"size\":[-1,{}],\"format\":9},\"size\":", "");
    row("unknown members at the top", "\"format\":1",
        "\"x\":[[],{\"files\":[{\"path\":-1}]},null,1e9],\"format\":1", "");
    row("deep nesting", "\"format\":1",
        "\"format\":1,\"x\":" + QByteArray(100000, '[') + QByteArray(100000, ']'), "too deeply");
    row("more after the end", "1024}]}", "1024}]} {}", "not valid JSON");
    row("invalid UTF-8", "a.txt", "a\xff.txt", "not valid JSON");
    // Numbers
    row("negative", "\"size\":100", "\"size\":-1", "negative");
    row("fraction", "\"size\":100", "\"size\":1.5", "wrong type");
    row("2^63", "\"size\":100", "\"size\":9223372036854775808", "2^63");
    row("2^64", "\"size\":100", "\"size\":18446744073709551616", "wrong type");
    row("end of file overflows", "\"rawOffset\":512", "\"rawOffset\":9223372036854775807",
        "inside");
    row("hash in capitals", hash, QByteArray(64, 'A'), "hexadecimal");
    row("short hash", hash, QByteArray(63, 'a'), "hexadecimal");
    row("mode with set-user bit", "0755", "4755", "0644 nor 0755");
    // Places
    row("gap between frames", "\"offset\":10,", "\"offset\":11,", "does not begin");
    row("overlapping frames", "\"offset\":10,", "\"offset\":9,", "does not begin");
    row("frames do not fill the pack", "\"pack\":{\"size\":30", "\"pack\":{\"size\":31", "fill");
    row("no frames", "\"frames\":[", "\"frames\":[],\"x\":[", "fill");
    row("empty frame", "\"rawSize\":1000", "\"rawSize\":0", "empty or larger");
    row("frame at the limit", "\"rawSize\":2000", "\"rawSize\":67108864", "");
    row("frame above the limit", "\"rawSize\":2000", "\"rawSize\":67108865", "empty or larger");
    row("file up to the last byte", "\"size\":1500", "\"size\":1976", "");
    row("file beyond the last byte", "\"size\":1500", "\"size\":1977", "inside");
    row("files overlap", "\"rawOffset\":512", "\"rawOffset\":1000", "overlap");
    row("files of the same bytes", fileEnd, moreFiles("twin", "1500", "1024"), "");
    row("same beginning, other size", fileEnd, moreFiles("twin", "1499", "1024"), "overlap");
    row("empty file inside another", fileEnd, moreFiles("empty", "0", "1100"), "");
    // Paths
    row("parent folder", "a.txt", "../a.txt", "\"..\"");
    row("absolute", "a.txt", "/a.txt", "absolute");
    row("escaped control character", "a.txt", "a\\u0000", "control");
    row("case twin", fileEnd, moreFiles("A.TXT", "1", "1"), "one file");
    row("file below a file", fileEnd, moreFiles("a.txt/b", "1", "1"), "below");
    row("executable not listed", "\"default_exec\":\"bin/sim\"", "\"default_exec\":\"bin/si\"",
        "not listed");
}

void ManifestTest::variantsAreJudged()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    QFETCH(QByteArray, fault);
    QByteArray text = goodManifest();
    QVERIFY(text.contains(before));
    text.replace(before, after);
    const auto manifest = vl::readManifest(text.toStdString(), "1.0.0");
    QCOMPARE(manifest.has_value(), fault.isEmpty());
    if (manifest)
        return;
    QVERIFY2(manifest.error().message.find(fault.toStdString()) != std::string::npos,
             manifest.error().message.c_str());
    QCOMPARE(manifest.error().code,
             fault == "not listed" ? vlupd::APP_DEFINITION_ERROR : vlupd::UPDATER_DATA_ERROR);
}

void ManifestTest::brokenTextsAreRefused_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("list") << QByteArray("[]");
    QTest::newRow("number") << QByteArray("7");
    QTest::newRow("null") << QByteArray("null");
    QTest::newRow("empty object") << QByteArray("{}");
    QTest::newRow("page") << QByteArray("<!DOCTYPE html><title>Log in</title>");
    QTest::newRow("huge number") << QByteArray("{\"x\":1e999}");
}

void ManifestTest::brokenTextsAreRefused()
{
    QFETCH(QByteArray, text);
    const auto manifest = vl::readManifest(text.toStdString(), "1.0.0");
    QVERIFY(!manifest);
    QCOMPARE(manifest.error().code, vlupd::UPDATER_DATA_ERROR);
}

void ManifestTest::everyTruncationIsRefused()
{
    const std::string text = goodManifest().trimmed().toStdString();
    for (std::size_t size = 0; size < text.size(); ++size)
        QVERIFY2(!vl::readManifest(std::string_view(text).substr(0, size), "1.0.0"),
                 std::to_string(size).c_str());
}

void ManifestTest::sizeIsCapped()
{
    std::string text = goodManifest().toStdString();
    text.resize(vl::maxManifestSize, ' ');
    QVERIFY(vl::readManifest(text, "1.0.0"));
    text += ' ';
    QVERIFY(!vl::readManifest(text, "1.0.0"));
}

QTEST_APPLESS_MAIN(ManifestTest)
#include "manifesttest.moc"
