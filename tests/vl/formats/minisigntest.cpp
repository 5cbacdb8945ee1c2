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
    void keysSurviveRoundTrip();
    void alteredSignaturesAreRefused_data();
    void alteredSignaturesAreRefused();
    void everyFlippedBitOfTheSignatureIsRefused();
    void secondKeyIsAccepted();
    void badKeysAreRefused_data();
    void badKeysAreRefused();
    void minisignVerifiesOurs();
    void oursVerifiesMinisign();

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

void MinisignTest::keysSurviveRoundTrip()
{
    const std::string publicFile = vl::writePublicKey(m_keys.publicKey);
    const auto publicKey = vl::readPublicKey(publicFile);
    QVERIFY(publicKey && publicKey->id == m_keys.publicKey.id &&
            publicKey->key == m_keys.publicKey.key);
    const std::string line = publicFile.substr(publicFile.find('\n') + 1);
    QVERIFY(vl::readPublicKey(line));
    QVERIFY(vl::readPublicKey(line.substr(0, line.size() - 1)));
    const auto secretKey = vl::readSecretKey(vl::writeSecretKey(m_keys.secretKey));
    QVERIFY(secretKey && secretKey->id == m_keys.secretKey.id &&
            secretKey->key == m_keys.secretKey.key);
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
    row("other untrusted comment", QByteArray(good).replace("signature from", "from"), "");
    row("empty", "", "not a minisign signature");
    row("page", "<html>\n<body>\n</body>\n</html>\n", "not a minisign signature");
    row("two lines", lines[0] + "\n" + lines[1] + "\n", "not a minisign signature");
    row("five lines", good + "x\n", "not a minisign signature");
    row("other trusted comment", QByteArray(good).replace("file:x", "file:y"), "trusted comment");
    row("global signature of another",
        lines[0] + "\n" + lines[1] + "\n" + lines[2] + "\n" +
            QByteArray::fromStdString(vl::sign(message, m_keys.secretKey, "z")).split('\n')[3] +
            "\n",
        "trusted comment");
    // "RWQ..." is the legacy algorithm "Ed", "RUQ..." the pre-hashed "ED".
    row("legacy algorithm", QByteArray(good).replace("\nRU", "\nRW"), "legacy");
    row("unknown algorithm", QByteArray(good).replace("\nRU", "\nSU"), "unknown algorithm");
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

void MinisignTest::everyFlippedBitOfTheSignatureIsRefused()
{
    const std::size_t begin = m_signature.find('\n') + 1;
    for (std::size_t i = begin; i < m_signature.size() - 1; ++i) {
        std::string altered = m_signature;
        altered[i] = static_cast<char>(altered[i] ^ 1);
        QVERIFY2(!vl::verify(message, altered, std::span(&m_keys.publicKey, 1)),
                 std::to_string(i).c_str());
    }
}

void MinisignTest::secondKeyIsAccepted()
{
    const std::vector<vl::PublicKey> keys{vl::generateKeyPair().value().publicKey,
                                          m_keys.publicKey};
    QVERIFY(vl::verify(message, m_signature, keys));
    QVERIFY(!vl::verify(message, m_signature, {}));
}

void MinisignTest::badKeysAreRefused_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("fault");
    const QByteArray good = QByteArray::fromStdString(vl::writeSecretKey(m_keys.secretKey));
    vl::SecretKey torn = m_keys.secretKey;
    torn.key[40] ^= 1U;
    QTest::newRow("empty") << QByteArray() << QByteArray("not a minisign secret key");
    QTest::newRow("cut") << good.chopped(20) << QByteArray("not a minisign secret key");
    QTest::newRow("public key") << QByteArray::fromStdString(vl::writePublicKey(m_keys.publicKey))
                                << QByteArray("not a minisign secret key");
    QTest::newRow("halves that do not fit")
        << QByteArray::fromStdString(vl::writeSecretKey(torn)) << QByteArray("damaged");
    // "Ed", then "Sc" (scrypt) where an unencrypted key has two zero bytes.
    QTest::newRow("with a password")
        << QByteArray(good).replace("RWQAAEIy", "RWRTY0Iy") << QByteArray("password");
}

void MinisignTest::badKeysAreRefused()
{
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, fault);
    const auto key = vl::readSecretKey(text.toStdString());
    QVERIFY(!key);
    QVERIFY2(key.error().message.find(fault.toStdString()) != std::string::npos,
             key.error().message.c_str());
}

void MinisignTest::minisignVerifiesOurs()
{
    if (QStandardPaths::findExecutable(QStringLiteral("minisign")).isEmpty())
        QSKIP("the minisign program is not installed");
    write(QStringLiteral("m"), message);
    write(QStringLiteral("m.minisig"), m_signature);
    write(QStringLiteral("key.pub"), vl::writePublicKey(m_keys.publicKey));
    QVERIFY(run({QStringLiteral("-V"), QStringLiteral("-p"), QStringLiteral("key.pub"),
                 QStringLiteral("-m"), QStringLiteral("m")})
                .contains("Signature and comment signature verified"));
}

void MinisignTest::oursVerifiesMinisign()
{
    if (QStandardPaths::findExecutable(QStringLiteral("minisign")).isEmpty())
        QSKIP("the minisign program is not installed");
    const auto sign = [this](const QString& keyFile) {
        return run({QStringLiteral("-S"), QStringLiteral("-s"), keyFile, QStringLiteral("-m"),
                    QStringLiteral("m")});
    };
    write(QStringLiteral("m"), message);
    // A secret key of ours in minisign's hands.
    write(QStringLiteral("ours.key"), vl::writeSecretKey(m_keys.secretKey));
    sign(QStringLiteral("ours.key"));
    auto verified = vl::verify(message, read(QStringLiteral("m.minisig")).toStdString(),
                               std::span(&m_keys.publicKey, 1));
    QVERIFY2(verified, verified ? "" : verified.error().message.c_str());

    // A key pair of minisign's in ours.
    QVERIFY(!run({QStringLiteral("-G"), QStringLiteral("-W"), QStringLiteral("-p"),
                  QStringLiteral("theirs.pub"), QStringLiteral("-s"), QStringLiteral("theirs.key")})
                 .isEmpty());
    const auto theirs = vl::readPublicKey(read(QStringLiteral("theirs.pub")).toStdString());
    const auto secret = vl::readSecretKey(read(QStringLiteral("theirs.key")).toStdString());
    QVERIFY(theirs && secret);
    QCOMPARE(vl::writePublicKey(vl::publicKeyOf(*secret)), vl::writePublicKey(*theirs));
    sign(QStringLiteral("theirs.key"));
    verified = vl::verify(message, read(QStringLiteral("m.minisig")).toStdString(),
                          std::span(&*theirs, 1));
    QVERIFY2(verified, verified ? "" : verified.error().message.c_str());
}

QTEST_APPLESS_MAIN(MinisignTest)
#include "minisigntest.moc"
