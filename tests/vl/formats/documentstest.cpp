#include "vl/src/formats/catalogue.h"
#include "vl/src/formats/config.h"
#include "vl/src/formats/manifest.h"

#include <QTest>

#include <optional>

namespace {

enum Kind { Manifest, Catalogue, Config };
/// What is replaced by what in a good document, and the words of the fault; empty: accepted.
using Variant = std::tuple<Kind, QByteArray, QByteArray, std::string>;

const QByteArray hash(64, 'a');
/// The public half of a throw-away key pair.
const QByteArray key("RWSR7+yH763BrphIhmjCm/e/WAsCSzqRoqo5mqs87+djpmtpiaWleTHs");

/// Two frames of 3000 bytes in all, two files in them.
const char* const manifestText = R"({"format":1,
"version":"1.0.0",
"executables":{"default_exec":"bin/sim"},
"pack":{"size":30,"hash":"%H","frames":[
  {"offset":0,"size":10,"rawSize":1000,"hash":"%H"},
  {"offset":10,"size":20,"rawSize":2000,"hash":"%H"}]},
"files":[
  {"path":"a.txt","size":100,"mode":"0644","hash":"%H","rawOffset":512,"role":"settings"},
  {"path":"bin/sim","size":1500,"mode":"0755","hash":"%H","rawOffset":1024}]}
)";
const char* const catalogueText = R"({"format": 1, "repository": "0123456789abcdef", "serial": 7,
"date": "2026-11-01", "expires": "2027-11-01", "versions": {
"1.0.0": {"date": "2026-10-01", "manifest": {"hash": "%H", "size": 1000}, "own": null},
"special": {"date": "2026-10-02", "manifest": {"hash": "%H", "size": 33554432}, "name": "Особая"}}}
)";
// No raw text: moc would take the slashes for a comment.
const char* const configText =
    "{\"repository\": \"https://example.org/releases\", \"publicKeys\": [\"%K\"],"
    "\"repositoryId\": \"0123\", \"maxBytesPerSecond\": 1000, \"proxy\": \"http://proxy:3128\"}";

QByteArray goodText(Kind kind)
{
    const char* const text = kind == Manifest    ? manifestText
                             : kind == Catalogue ? catalogueText
                                                 : configText;
    return QByteArray(text).replace("%H", hash).replace("%K", key);
}

/// What is wrong with a document; nothing when it is accepted.
std::optional<vl::Error> faultOf(Kind kind, const std::string& text)
{
    const auto fault = [](const auto& result) {
        return result ? std::nullopt : std::optional<vl::Error>(result.error());
    };
    if (kind == Manifest)
        return fault(vl::readManifest(text, "1.0.0"));
    return kind == Catalogue ? fault(vl::readCatalogue(text)) : fault(vl::parseConfig(text));
}

} // namespace

/// Manifests and catalogues may be hostile, and vl.json is edited by hand: nothing of a malformed
/// one may be believed, and what is wrong has to be said by name.
class DocumentsTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void goodDocumentsSurviveRoundTrip();
    void variantsAreJudged_data();
    void variantsAreJudged();
};

void DocumentsTest::goodDocumentsSurviveRoundTrip()
{
    const std::string text = goodText(Manifest).toStdString();
    const auto manifest = vl::readManifest(text, "1.0.0");
    QVERIFY2(manifest, manifest ? "" : manifest.error().message.c_str());
    QCOMPARE(vl::writeManifest(*manifest), text);
    const auto catalogue = vl::readCatalogue(goodText(Catalogue).toStdString());
    QVERIFY2(catalogue, catalogue ? "" : catalogue.error().message.c_str());
    QCOMPARE(catalogue->manifests.at("1.0.0").size, std::uint64_t{1000});
    QVERIFY(catalogue->versions.at("1.0.0").contains("own"));
    const auto again = vl::readCatalogue(vl::writeCatalogue(*catalogue));
    QVERIFY(again && again->versions == catalogue->versions);
}

void DocumentsTest::variantsAreJudged_data()
{
    QTest::addColumn<Variant>("variant");
    const auto rowsOf = [](Kind kind, const char* of) {
        return [kind, of](const char* name, const QByteArray& before, const QByteArray& after,
                          const char* fault) {
            QTest::addRow("%s: %s", of, name) << Variant{kind, before, after, fault};
        };
    };
    const auto manifest = rowsOf(Manifest, "manifest");
    const QByteArray fileEnd = "\"rawOffset\":1024}";
    const auto file = [&fileEnd](const QByteArray& path, const QByteArray& size,
                                 const QByteArray& offset) -> QByteArray {
        return fileEnd + ",{\"path\":\"" + path + "\",\"size\":" + size +
               ",\"mode\":\"0644\",\"hash\":\"" + hash + "\",\"rawOffset\":" + offset + "}";
    };
    const auto delta = [](const QByteArray& from, const QByteArray& size,
                          const QByteArray& index) -> QByteArray {
        return "\"deltas\":[{\"from\":\"" + from + "\",\"fromManifest\":\"" + hash +
               "\",\"size\":" + size + ",\"hash\":\"" + hash + "\",\"indexSize\":" + index +
               ",\"indexHash\":\"" + hash + "\"}],\"files\":[";
    };
    const auto twoFrames = [](const QByteArray& end) -> QByteArray {
        return end + ",\"rawSize\":1000,\"hash\":\"" + hash + "\"},\n  {\"offset\":" + end + ",";
    };
    const QByteArray many = "9223372036854775807";
    manifest("unknown format", "\"format\":1,", "\"format\":2,\"files\":7,", "version 2");
    manifest("other version", "\"version\":\"1.0.0\"", "\"version\":\"1.0.1\"", "belongs to");
    manifest("no files", "\"files\":", "\"other\":", "\"files\" is missing");
    manifest("files is no list", "\"files\":[", "\"files\":null,\"x\":[", "wrong type");
    manifest("duplicate list", "\"files\":", "\"files\":[],\"files\":", "twice");
    manifest("unknown members", "\"size\":", "\"x\":{\"size\":[-1,{}],\"format\":9},\"size\":", "");
    manifest("more after the end", "1024}]}", "1024}]} {}", "not valid JSON");
    manifest("truncated", "]}\n", "", "not valid JSON");
    manifest("deep nesting",
             "\"files\":", "\"x\":" + QByteArray(100000, '[') + ",\"files\":", "too deeply");
    manifest("endless list", fileEnd, fileEnd + QByteArray(",{}").repeated(12'000'000), "32 MiB");
    manifest("list of nothings", fileEnd, fileEnd + ",{}", "missing");
    manifest("size as text", "\"size\":100", "\"size\":\"100\"", "wrong type");
    manifest("size as fraction", "\"size\":100", "\"size\":1e2", "wrong type");
    manifest("path as number", "\"a.txt\"", "7", "wrong type");
    manifest("hash as null", "\"" + hash + "\"", "null", "wrong type");
    manifest("frames as object", "\"frames\":[", "\"frames\":{},\"x\":[", "wrong type");
    manifest("negative", "\"size\":100", "\"size\":-1", "negative");
    manifest("2^63", "\"size\":100", "\"size\":9223372036854775808", "2^63");
    manifest("2^64", "\"size\":100", "\"size\":18446744073709551616", "wrong type");
    manifest("place overflows", "\"rawOffset\":512", "\"rawOffset\":" + many, "inside");
    manifest("frames overflow", twoFrames("10"), twoFrames(many), "2^63 - 1");
    manifest("frames overlap", "\"offset\":10,", "\"offset\":9,", "does not begin");
    manifest("short hash", hash, QByteArray(63, 'a'), "hexadecimal");
    manifest("set-user bit", "0755", "4755", "0644 nor 0755");
    manifest("unknown role", "\"settings\"", "\"Settings\"", "\"role\" is not");
    manifest("gap between frames", "\"offset\":10,", "\"offset\":11,", "does not begin");
    manifest("pack not filled", "\"pack\":{\"size\":30", "\"pack\":{\"size\":31", "fill");
    manifest("empty frame", "\"rawSize\":1000", "\"rawSize\":0", "empty or larger");
    manifest("largest frame", "\"rawSize\":2000", "\"rawSize\":67108864", "");
    manifest("larger frame", "\"rawSize\":2000", "\"rawSize\":67108865", "empty or larger");
    manifest("file to the last byte", "\"size\":1500", "\"size\":1976", "");
    manifest("file beyond it", "\"size\":1500", "\"size\":1977", "inside");
    manifest("files overlap", "\"rawOffset\":512", "\"rawOffset\":1000", "overlap");
    manifest("files of the same bytes", fileEnd, file("twin", "1500", "1024"), "");
    manifest("hostile path: parent folder", "a.txt", "../a.txt", "\"..\"");
    manifest("hostile path: absolute", "a.txt", "/etc/passwd", "absolute");
    manifest("hostile path: backslash", "a.txt", "..\\\\a.txt", "character \\");
    manifest("hostile path: NUL", "a.txt", "a\\u0000.txt", "control");
    manifest("case twin", fileEnd, file("A.TXT", "1", "1"), "one file");
    manifest("normalisation twin", fileEnd,
             file("\u0439", "1", "1") + file("\u0438\u0306", "1", "1").mid(fileEnd.size()),
             "one file");
    manifest("file below a file", fileEnd, file("a.txt/b", "1", "1"), "below the other");
    manifest("good delta", "\"files\":[", delta("0.9", "5", "5"), "");
    manifest("hostile delta version", "\"files\":[", delta("../0.9", "5", "5"), "delta's version");
    manifest("empty delta", "\"files\":[", delta("0.9", "0", "5"), "is empty");
    manifest("delta index above the limit", "\"files\":[", delta("0.9", "5", "33554433"),
             "too large");
    manifest("executable not listed", ":\"bin/sim\"}", ":\"bin/si\"}",
             "(default_exec) is not listed");
    manifest("executable that is settings", ":\"bin/sim\"}", ":\"a.txt\"}",
             "(default_exec) is a settings file");

    const auto catalogue = rowsOf(Catalogue, "catalogue");
    catalogue("unknown format", "\"format\": 1", "\"format\": 2", "format version 2");
    catalogue("truncated", "}}}\n", "}", "not valid JSON");
    catalogue("endless list", "null", "[" + QByteArray("0,").repeated(17'000'000), "32 MiB");
    catalogue("versions are no object", "\"versions\":", "\"versions\": [], \"x\":", "an object");
    catalogue("serial above 2^63", "\"serial\": 7", "\"serial\": 9223372036854775808", "2^63");
    catalogue("negative serial", "\"serial\": 7", "\"serial\": -7", "\"serial\"");
    catalogue("no such day", "2026-11-01", "2026-02-29", "\"date\"");
    catalogue("no expires", "\"expires\": \"2027-11-01\",", "", "");
    catalogue("no manifest", "\"manifest\"", "\"Manifest\"", "\"manifest\"");
    catalogue("manifest above the limit", "33554432", "33554433", "larger than 32 MiB");
    catalogue("hostile version key", "\"special\"", "\"../special\"", "version key");
    catalogue("case twin", "\"1.0.0\"", "\"SPECIAL\"", "one file");
    catalogue("version twice", "\"special\"", "\"1.0.0\"", "twice");
    catalogue("deep nesting", "null", QByteArray(100000, '[') + QByteArray(100000, ']'),
              "too deeply");
    catalogue("invalid UTF-8", "Особая", "\xff", "not valid JSON");

    const auto config = rowsOf(Config, "config");
    config("unknown members", "{", "{\"comment\": [1, 2], ", "");
    config("member twice", "{", "{\"proxy\": \"\", ", "twice");
    config("comma at the end", "3128\"}", "3128\",}", "not valid JSON");
    config("no repository", "\"repository\"", "\"repo\"", "\"repository\"");
    config("empty repository", "https://example.org/releases", "", "\"repository\"");
    config("only what must be", "\"repositoryId\": \"0123\", \"maxBytesPerSecond\": 1000, ", "",
           "");
    config("no keys", "\"publicKeys\"", "\"keys\"", "\"publicKeys\"");
    config("three keys", "\"],", "\", \"x\", \"y\"],", "\"publicKeys\"");
    config("key cut short", key, key.chopped(4), "not a minisign public key");
    config("negative limit", "1000", "-1", "\"maxBytesPerSecond\"");
    config("limit as text", "1000", "\"1M\"", "\"maxBytesPerSecond\"");
    config("proxy of another type", "\"http://proxy:3128\"", "{}", "\"proxy\"");
}

void DocumentsTest::variantsAreJudged()
{
    QFETCH(Variant, variant);
    const auto& [kind, before, after, fault] = variant;
    QByteArray text = goodText(kind);
    QVERIFY(text.contains(before));
    const auto found = faultOf(kind, text.replace(before, after).toStdString());
    const std::string message = found ? found->message : std::string();
    QVERIFY2(found.has_value() != fault.empty(), found ? message.c_str() : "accepted");
    QVERIFY2(message.find(fault) != std::string::npos, message.c_str());
    if (found)
        QCOMPARE(found->code, fault.starts_with("(default_exec)") ? vlupd::APP_DEFINITION_ERROR
                                                                  : vlupd::UPDATER_DATA_ERROR);
}

QTEST_APPLESS_MAIN(DocumentsTest)
#include "documentstest.moc"
