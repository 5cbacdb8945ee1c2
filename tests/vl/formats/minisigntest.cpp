#include "vl/src/formats/minisign.h"

#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

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
    void secondKeyIsAccepted();
    void minisignAgreesBothWays();

private:
    QByteArray run(const QStringList& arguments);
    QByteArray read(const QString& name);
    void write(const QString& name, const std::string& text);

    vl::KeyPair m_keys = vl::generateKeyPair().value();
    std::string m_signature = vl::sign(message, m_keys.secretKey, "timestamp:1\tfile:x");
    QTemporaryDir m_folder;
};

/// Runs the minisign program in the folder; its output, or nothing when it failed.
QByteArray MinisignTest::run(const QStringList& arguments)
{
    QProcess process;
    process.setWorkingDirectory(m_folder.path());
    process.start(QStringLiteral("minisign"), arguments);
    if (!process.waitForFinished() || process.exitCode() != 0)
        return {};
    return process.readAllStandardOutput();
}

QByteArray MinisignTest::read(const QString& name)
{
    QFile file(m_folder.filePath(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void MinisignTest::write(const QString& name, const std::string& text)
{
    QFile file(m_folder.filePath(name));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(text.data(), qint64(text.size())), qint64(text.size()));
}

void MinisignTest::alteredSignaturesAreRefused_data()
{
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<QByteArray>("contents");
    QTest::addColumn<QByteArray>("fault"); // empty: accepted
    const QByteArray good = QByteArray::fromStdString(m_signature);
    const QByteArray contents = QByteArray::fromStdString(message);
    const auto row = [&contents](const char* name, const QByteArray& signature, const char* fault) {
        QTest::newRow(name) << signature << contents << QByteArray(fault);
    };
    const QList<QByteArray> lines = good.split('\n');
    row("as it is", good, "");
    row("Windows line ends", QByteArray(good).replace("\n", "\r\n"), "");
    row("page", "<html>\n<body>\n</body>\n</html>\n", "not a minisign signature");
    row("five lines", good + "x\n", "not a minisign signature");
    row("other trusted comment", QByteArray(good).replace("file:x", "file:y"), "trusted comment");
    row("global signature of another",
        lines[0] + "\n" + lines[1] + "\n" + lines[2] + "\n" +
            QByteArray::fromStdString(vl::sign(message, m_keys.secretKey, "z")).split('\n')[3] +
            "\n",
        "trusted comment");
    // "RWQ..." is the legacy algorithm "Ed", "RUQ..." the pre-hashed "ED".
    row("legacy algorithm", QByteArray(good).replace("\nRU", "\nRW"), "legacy");
    const vl::KeyPair other = vl::generateKeyPair().value();
    row("other key", QByteArray::fromStdString(vl::sign(message, other.secretKey, "")),
        "unknown key");
    vl::SecretKey forged = other.secretKey;
    forged.id = m_keys.secretKey.id;
    row("other key under the same id", QByteArray::fromStdString(vl::sign(message, forged, "")),
        "does not match");
    QTest::newRow("other contents")
        << good << QByteArray("catalogue") << QByteArray("does not match");
}

void MinisignTest::alteredSignaturesAreRefused()
{
    QFETCH(QByteArray, signature);
    QFETCH(QByteArray, contents);
    QFETCH(QByteArray, fault);
    const auto verified = vl::verify(contents.toStdString(), signature.toStdString(),
                                     std::span(&m_keys.publicKey, 1));
    QVERIFY2(verified.has_value() == fault.isEmpty(),
             verified ? "accepted" : verified.error().message.c_str());
    if (!verified)
        QVERIFY2(verified.error().message.find(fault.toStdString()) != std::string::npos,
                 verified.error().message.c_str());
}

void MinisignTest::secondKeyIsAccepted()
{
    const std::vector<vl::PublicKey> keys{vl::generateKeyPair().value().publicKey,
                                          m_keys.publicKey};
    QVERIFY(vl::verify(message, m_signature, keys));
    QVERIFY(!vl::verify(message, m_signature, {}));
}

void MinisignTest::minisignAgreesBothWays()
{
    if (QStandardPaths::findExecutable(QStringLiteral("minisign")).isEmpty())
        QSKIP("the minisign program is not installed");
    const QString file = QStringLiteral("m");
    const QString signature = QStringLiteral("m.minisig");
    write(file, message);
    write(signature, m_signature);
    write(QStringLiteral("key.pub"), vl::writePublicKey(m_keys.publicKey));
    QVERIFY(run({QStringLiteral("-V"), QStringLiteral("-p"), QStringLiteral("key.pub"),
                 QStringLiteral("-m"), file})
                .contains("Signature and comment signature verified"));

    // A key pair of minisign's in ours.
    const QString theirKey = QStringLiteral("theirs.key");
    QVERIFY(!run({QStringLiteral("-G"), QStringLiteral("-W"), QStringLiteral("-p"),
                  QStringLiteral("theirs.pub"), QStringLiteral("-s"), theirKey})
                 .isEmpty());
    const auto theirs = vl::readPublicKey(read(QStringLiteral("theirs.pub")).toStdString());
    const auto secret = vl::readSecretKey(read(theirKey).toStdString());
    QVERIFY(theirs && secret);
    QCOMPARE(vl::writePublicKey(vl::publicKeyOf(*secret)), vl::writePublicKey(*theirs));

    // Signatures of minisign's, with its key and with ours.
    write(QStringLiteral("ours.key"), vl::writeSecretKey(m_keys.secretKey));
    for (const QString& keyFile : {theirKey, QStringLiteral("ours.key")}) {
        run({QStringLiteral("-S"), QStringLiteral("-s"), keyFile, QStringLiteral("-m"), file});
        const vl::PublicKey& key = keyFile == theirKey ? *theirs : m_keys.publicKey;
        const auto verified =
            vl::verify(message, read(signature).toStdString(), std::span(&key, 1));
        QVERIFY2(verified, verified ? "" : verified.error().message.c_str());
    }
}

QTEST_APPLESS_MAIN(MinisignTest)
#include "minisigntest.moc"
