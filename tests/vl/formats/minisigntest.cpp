#include "vl/src/formats/minisign.h"

#include "vl/src/platform/file.h"

#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <array>

namespace {

const std::string message = "catalogue\n";

} // namespace

/// Signatures are the only thing that is believed; they have to mean the same to the minisign
/// program, and nothing altered may pass.
class MinisignTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void alteredSignaturesAreRefused_data();
    void alteredSignaturesAreRefused();
    void minisignAgreesBothWays();

private:
    bool run(const char* arguments);
    std::filesystem::path file(const char* name) const
    {
        return vl::fromUtf8(m_folder.filePath(QLatin1String(name)).toStdString());
    }
    std::string read(const char* name) const { return vl::readWholeFile(file(name), 1000).value(); }
    bool write(const char* name, const std::string& text) const
    {
        return vl::writeWholeFile(file(name), text).has_value();
    }

    vl::KeyPair m_keys = vl::generateKeyPair().value();
    QTemporaryDir m_folder;
};

/// Runs the minisign program in the folder; whether it ended well.
bool MinisignTest::run(const char* arguments)
{
    QProcess process;
    process.setWorkingDirectory(m_folder.path());
    process.start(QStringLiteral("minisign"), QString::fromLatin1(arguments).split(u' '));
    return process.waitForFinished() && process.exitCode() == 0;
}

void MinisignTest::alteredSignaturesAreRefused_data()
{
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<std::string>("fault"); // empty: accepted
    const auto row = [](const char* name, const QByteArray& signature, const char* fault) {
        QTest::newRow(name) << signature << std::string(fault);
    };
    const auto signedWith = [](const vl::SecretKey& key, const std::string& contents = message) {
        return QByteArray::fromStdString(vl::sign(contents, key, "timestamp:1\tfile:x"));
    };
    const QByteArray good = signedWith(m_keys.secretKey);
    const QByteArray other = signedWith(m_keys.secretKey, "catalogue");
    const vl::KeyPair stranger = vl::generateKeyPair().value();
    vl::SecretKey forged = stranger.secretKey;
    forged.id = m_keys.secretKey.id;
    row("as it is", good, "");
    row("Windows line ends", QByteArray(good).replace("\n", "\r\n"), "");
    row("page", "<html>\n<body>\n</body>\n</html>\n", "not a minisign signature");
    row("five lines", good + "x\n", "not a minisign signature");
    row("other trusted comment", QByteArray(good).replace("file:x", "file:y"), "trusted comment");
    row("global signature of another", good.chopped(90) + other.right(90), "trusted comment");
    // "RWQ..." is the legacy algorithm "Ed", "RUQ..." the pre-hashed "ED".
    row("legacy algorithm", QByteArray(good).replace("\nRU", "\nRW"), "legacy");
    row("other key", signedWith(stranger.secretKey), "unknown key");
    row("other key under the same id", signedWith(forged), "does not match");
    row("other contents", other, "does not match");
}

void MinisignTest::alteredSignaturesAreRefused()
{
    QFETCH(QByteArray, signature);
    QFETCH(std::string, fault);
    const std::array keys{vl::generateKeyPair().value().publicKey, m_keys.publicKey};
    const auto verified = vl::verify(message, signature.toStdString(), keys);
    const std::string found = verified ? std::string() : verified.error().message;
    QVERIFY2(fault.empty() ? verified.has_value() : found.find(fault) != found.npos, found.c_str());
}

void MinisignTest::minisignAgreesBothWays()
{
    if (QStandardPaths::findExecutable(QStringLiteral("minisign")).isEmpty())
        QSKIP("the minisign program is not installed");
    QVERIFY(write("m", message) && write("m.minisig", vl::sign(message, m_keys.secretKey, "x")));
    QVERIFY(write("key.pub", vl::writePublicKey(m_keys.publicKey)));
    QVERIFY(run("-V -p key.pub -m m"));

    // A key pair of minisign's in ours.
    QVERIFY(run("-G -W -p theirs.pub -s theirs.key"));
    const auto theirs = vl::readPublicKey(read("theirs.pub"));
    const auto secret = vl::readSecretKey(read("theirs.key"));
    QVERIFY(theirs && secret);
    QCOMPARE(vl::writePublicKey(vl::publicKeyOf(*secret)), vl::writePublicKey(*theirs));

    // Signatures of minisign's, with its key and with ours.
    QVERIFY(write("ours.key", vl::writeSecretKey(m_keys.secretKey)));
    for (const bool ours : {false, true}) {
        QVERIFY(run(ours ? "-S -s ours.key -m m" : "-S -s theirs.key -m m"));
        const vl::PublicKey& key = ours ? m_keys.publicKey : *theirs;
        const auto verified = vl::verify(message, read("m.minisig"), std::span(&key, 1));
        QVERIFY2(verified, verified ? "" : verified.error().message.c_str());
    }
}

QTEST_APPLESS_MAIN(MinisignTest)
#include "minisigntest.moc"
