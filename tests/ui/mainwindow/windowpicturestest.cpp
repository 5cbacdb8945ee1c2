#include "app/settingsstore.h"
#include "tests/support/modalanswerer.h"
#include "tests/support/scriptedvl.h"
#include "ui/mainwindow/mainwindow.h"
#include "ui/widgets/coverimage.h"
#include "ui/widgets/resources.h"
#include "ui/widgets/warningwindow.h"

#include <QDir>
#include <QLabel>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>

/// Pictures of the windows, written as PNG files into the folder that the environment variable
/// VARNEL_PICTURES names; QT_SCALE_FACTOR sets their scale. No text may be cut off in them.
class WindowPicturesTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void idle();
    void installing();
    void dialogs();

private:
    void save(QWidget& window, const QString& state);

    QTemporaryDir m_temporary;
    QString m_folder;
};

namespace {

scripted::Script scriptOf(const QString& installDirectory)
{
    scripted::Script script;
    script.catalogue = nlohmann::json::parse(R"({
        "1.0.0": {}, "1.1.0": {}, "1.2.0": {},
        "9.0.0": {"name": "Предварительная сборка для участников закрытого испытания"}
    })");
    script.installed["1.1.0"] = {installDirectory.toStdString()};
    return script;
}

} // namespace

void WindowPicturesTest::initTestCase()
{
    QApplication::setStyle(QStringLiteral("windows"));
    loadResources();
    m_folder = qEnvironmentVariable("VARNEL_PICTURES");
    QVERIFY(m_folder.isEmpty() || QDir().mkpath(m_folder));
    auto& store = SettingsStore::instance();
    store.setValue(settings::vcsGroup, settings::showSpecialVersions, true);
    store.setValue(settings::vcsGroup, settings::availableVersions, QStringList(QString()));
}

void WindowPicturesTest::save(QWidget& window, const QString& state)
{
    QApplication::processEvents();
    QPixmap picture = window.grab();
    if (const auto* hero = window.findChild<CoverImage*>()) {
        QTRY_VERIFY(hero->isComplete());
        picture = window.grab();
    }
    if (!m_folder.isEmpty()) {
        const QString file =
            QStringLiteral("%1/%2@%3.png").arg(m_folder, state).arg(picture.devicePixelRatio());
        QVERIFY2(picture.save(file), qPrintable(file));
    }

    for (const auto* text : window.findChildren<QWidget*>()) {
        const bool hasText = qobject_cast<const QLabel*>(text) || // a progress bar's is not drawn
                             qobject_cast<const QPushButton*>(text);
        if (!hasText || !text->isVisible() || text->property("text").toString().isEmpty())
            continue;
        const QByteArray what = (state + u": " + text->objectName()).toUtf8();
        const int height = text->hasHeightForWidth() ? text->heightForWidth(text->width())
                                                     : text->sizeHint().height();
        QVERIFY2(text->width() >= text->minimumSizeHint().width(), what.constData());
        QVERIFY2(text->height() >= height, what.constData());
        const QRect shown(text->mapTo(&window, QPoint()), text->size());
        QVERIFY2(window.rect().contains(shown), what.constData());
    }
}

void WindowPicturesTest::idle()
{
    scripted::setScript(scriptOf(m_temporary.path()));
    for (const QString& state : {QStringLiteral("idle-update"), QStringLiteral("idle")}) {
        MainWindow window; // only the first one to see these versions shows the notice
        window.show();
        save(window, state);
    }
}

void WindowPicturesTest::installing()
{
    scripted::Script script = scriptOf(m_temporary.path());
    script.installation.emplace_back(scripted::Stage{vlupd::STAGE_DOWNLOADING});
    script.installation.emplace_back(scripted::Progress{17ULL << 20, 1536ULL << 20, 4352ULL << 20});
    script.installation.emplace_back(scripted::Gate{});
    scripted::setScript(script);
    MainWindow window;
    window.show();
    window.findChild<QPushButton*>(QStringLiteral("runSimulatorButton"))->click();
    scripted::waitAtGate();
    const auto* size = window.findChild<QLabel*>(QStringLiteral("progressSizeText"));
    QTRY_VERIFY(!size->text().isEmpty());
    save(window, QStringLiteral("downloading"));
    const ModalAnswerer answerer;
    scripted::openGate();
    QTRY_COMPARE(answerer.texts().size(), 1);
    QTRY_VERIFY(!window.isInstalling());
}

void WindowPicturesTest::dialogs()
{
    const ModalAnswerer answerer(
        [this](QDialog& dialog) { save(dialog, dialog.objectName().toLower()); });
    WarningWindow warning;
    warning.setErrorText(QStringLiteral("Не удалось загрузить список изменений. ").repeated(4));
    warning.exec();
    QCOMPARE(answerer.texts().size(), 1);
}

QTEST_MAIN(WindowPicturesTest)
#include "windowpicturestest.moc"
