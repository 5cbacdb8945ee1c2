#include "app/settingsstore.h"
#include "tests/support/modalanswerer.h"
#include "tests/support/scriptedvl.h"
#include "ui/mainwindow/mainwindow.h"
#include "ui/widgets/replywindow.h"
#include "ui/widgets/resources.h"
#include "ui/widgets/warningwindow.h"

#include <QAbstractItemView>
#include <QComboBox>
#include <QDir>
#include <QEnterEvent>
#include <QLabel>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>

/// Pictures of every state of the windows, written as PNG files into the folder that the
/// environment variable VARNEL_PICTURES names; QT_SCALE_FACTOR sets their scale. Whether or not
/// anybody looks at them, no text may be cut off and every text must be readable.
class WindowPicturesTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void withoutVersions();
    void idle();
    void installing();
    void pointedAt_data();
    void pointedAt();
    void focused_data();
    void focused();
    void otherSizes();
    void openList();
    void dialogs();

private:
    void save(QWidget& window, const QString& state);

    QTemporaryDir m_temporary;
    QString m_folder;
};

namespace {

template <class T> T* child(const QWidget& window, const char* name)
{
    T* found = window.findChild<T*>(QLatin1String(name));
    if (!found)
        qFatal("no widget %s", name);
    return found;
}

double luminance(QColor colour)
{
    const auto linear = [](double value) {
        return value <= 0.04045 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * linear(colour.redF()) + 0.7152 * linear(colour.greenF()) +
           0.0722 * linear(colour.blueF());
}

/// Contrast between the most frequent colour of `image` and the one farthest from it
/// (https://www.w3.org/TR/WCAG21/#dfn-contrast-ratio).
double contrast(const QImage& image)
{
    QHash<QRgb, int> count;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x)
            ++count[image.pixel(x, y)];
    }
    QRgb ground = 0;
    int most = 0;
    for (auto entry = count.cbegin(); entry != count.cend(); ++entry) {
        if (entry.value() > most) {
            most = entry.value();
            ground = entry.key();
        }
    }
    double best = 1.0;
    const double base = luminance(QColor(ground)) + 0.05;
    for (auto entry = count.cbegin(); entry != count.cend(); ++entry) {
        const double other = luminance(QColor(entry.key())) + 0.05;
        best = std::max(best, std::max(base, other) / std::min(base, other));
    }
    return best;
}

scripted::Script scriptOf(const QString& installDirectory)
{
    scripted::Script script;
    script.catalogue = nlohmann::json::parse(R"({
        "1.0.0": {"date": "2026-01-20"},
        "1.1.0": {"date": "2026-05-12"},
        "1.2.0": {"date": "2026-10-02"},
        "9.0.0": {"date": "2026-11-01",
                  "name": "Предварительная сборка для участников закрытого испытания"}
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
    const QPixmap picture = window.grab();
    if (!m_folder.isEmpty()) {
        const QString file =
            QStringLiteral("%1/%2@%3.png").arg(m_folder, state).arg(picture.devicePixelRatio());
        QVERIFY2(picture.save(file), qPrintable(file));
    }

    QList<QWidget*> texts;
    for (auto* label : window.findChildren<QLabel*>()) {
        if (!label->text().isEmpty())
            texts.append(label);
    }
    for (auto* button : window.findChildren<QPushButton*>()) {
        if (!button->text().isEmpty())
            texts.append(button);
    }
    for (const QWidget* text : texts) {
        if (!text->isVisible())
            continue;
        const QByteArray what = (state + u": " + text->objectName()).toUtf8();
        const int height = text->hasHeightForWidth() ? text->heightForWidth(text->width())
                                                     : text->sizeHint().height();
        QVERIFY2(text->width() >= text->minimumSizeHint().width(), what.constData());
        QVERIFY2(text->height() >= height, what.constData());
        const QRect shown(text->mapTo(&window, QPoint()), text->size());
        QVERIFY2(window.rect().contains(shown), what.constData());
        const QRectF pixels(shown.topLeft() * picture.devicePixelRatio(),
                            shown.size() * picture.devicePixelRatio());
        const double ratio = contrast(picture.toImage().copy(pixels.toRect()));
        QVERIFY2(ratio >= 4.5,
                 qPrintable(QStringLiteral("%1 %2").arg(QString::fromUtf8(what)).arg(ratio)));
    }
}

void WindowPicturesTest::withoutVersions()
{
    scripted::Script script;
    script.catalogue = nullptr;
    scripted::setScript(script);
    MainWindow window;
    window.show();
    save(window, QStringLiteral("no-versions"));
}

void WindowPicturesTest::idle()
{
    scripted::setScript(scriptOf(m_temporary.path()));
    {
        MainWindow window; // the first to see these versions
        window.show();
        window.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&window));
        save(window, QStringLiteral("idle-update"));
    }
    MainWindow window;
    window.show();
    window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&window));
    child<QComboBox>(window, "versionsComboBox")->setCurrentIndex(2);
    save(window, QStringLiteral("idle"));
    ReplyWindow other;
    other.show();
    other.activateWindow();
    QTRY_VERIFY(!window.isActiveWindow());
    save(window, QStringLiteral("inactive"));
}

void WindowPicturesTest::installing()
{
    constexpr std::uint64_t mebibyte = 1 << 20;
    scripted::Script script = scriptOf(m_temporary.path());
    const auto at = [&script](vlupd::UPD_INSTALLATION_STAGE stage, std::uint64_t done,
                              std::uint64_t total) {
        script.installation.emplace_back(scripted::Stage{stage});
        script.installation.emplace_back(scripted::Progress{17 * mebibyte, done, total});
        script.installation.emplace_back(scripted::Gate{});
    };
    at(vlupd::STAGE_DOWNLOADING, 1536 * mebibyte, 4352 * mebibyte);
    at(vlupd::STAGE_UNPACKING, 999 * mebibyte, 1000 * mebibyte);
    at(vlupd::STAGE_APPLYING, 1, 1024);
    scripted::setScript(script);
    MainWindow window;
    window.show();
    window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&window));
    const auto* text = child<QLabel>(window, "progressText");
    child<QPushButton>(window, "runSimulatorButton")->click();
    const std::array states{QStringLiteral("Скачивание новых файлов"),
                            QStringLiteral("Распаковка архивов"),
                            QStringLiteral("Применение изменений")};
    const std::array names{QStringLiteral("downloading"), QStringLiteral("unpacking"),
                           QStringLiteral("applying")};
    const ModalAnswerer answerer(
        [this](QDialog& dialog) { save(dialog, QStringLiteral("finished")); });
    for (std::size_t i = 0; i < states.size(); ++i) {
        scripted::waitAtGate();
        QTRY_COMPARE(text->text(), states.at(i));
        QTRY_VERIFY(!child<QLabel>(window, "progressSizeText")->text().isEmpty());
        save(window, names.at(i));
        scripted::openGate();
    }
    QTRY_COMPARE(answerer.texts().size(), 1);
    QTRY_VERIFY(!window.isInstalling());
}

void WindowPicturesTest::pointedAt_data()
{
    QTest::addColumn<QString>("name");
    for (const char* name : {"runSimulatorButton", "updateButton", "settingsButton", "closeButton"})
        QTest::newRow(name) << QString::fromLatin1(name);
}

void WindowPicturesTest::pointedAt()
{
    QFETCH(const QString, name);
    scripted::setScript(scriptOf(m_temporary.path()));
    MainWindow window;
    child<QWidget>(window, "updateButton")->show();
    window.show();
    auto* button = window.findChild<QPushButton*>(name);
    QEnterEvent enter(QPointF(5, 5), QPointF(5, 5), QPointF(5, 5));
    QCoreApplication::sendEvent(button, &enter);
    QTRY_COMPARE(button->property("backgroundColor"), button->property("endBackgroundColor"));
    save(window, QStringLiteral("hover-") + name);
    button->setDown(true);
    save(window, QStringLiteral("pressed-") + name);
}

void WindowPicturesTest::focused_data()
{
    QTest::addColumn<QString>("name");
    for (const char* name :
         {"versionsComboBox", "runSimulatorButton", "updateButton", "settingsButton",
          "versionHistoryButton", "helpButton", "minimizeButton", "expandButton", "closeButton"})
        QTest::newRow(name) << QString::fromLatin1(name);
}

void WindowPicturesTest::focused()
{
    QFETCH(const QString, name);
    scripted::setScript(scriptOf(m_temporary.path()));
    MainWindow window;
    child<QWidget>(window, "updateButton")->show();
    window.show();
    window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&window));
    auto* widget = window.findChild<QWidget*>(name);
    QWidget* other =
        widget == QApplication::focusWidget() ? child<QWidget>(window, "updateButton") : widget;
    other->setFocus(Qt::TabFocusReason);
    widget->setFocus(Qt::TabFocusReason);
    save(window, QStringLiteral("focus-") + name);
    const QImage picture = widget->grab().toImage();
    QCOMPARE(picture.pixelColor(picture.width() / 2, 0), QColor(Qt::white));
    QVERIFY(
        picture.pixelColor(picture.width() / 2, int(3 * picture.devicePixelRatio())).lightness() <
        64);
}

void WindowPicturesTest::otherSizes()
{
    scripted::setScript(scriptOf(m_temporary.path()));
    MainWindow window;
    child<QWidget>(window, "updateButton")->show();
    window.resize(window.minimumSize());
    window.show();
    save(window, QStringLiteral("smallest"));
    QCOMPARE(window.size(), QSize(880, 560));
    window.showMaximized();
    QApplication::processEvents();
    window.resize(1600, 900); // the virtual screen is smaller than the window
    save(window, QStringLiteral("maximized"));
}

void WindowPicturesTest::openList()
{
    scripted::setScript(scriptOf(m_temporary.path()));
    MainWindow window;
    window.show();
    auto* box = child<QComboBox>(window, "versionsComboBox");
    box->showPopup();
    QWidget& popup = *box->view()->window();
    save(popup, QStringLiteral("list"));
    QVERIFY(popup.width() <= box->width());
    box->hidePopup();
}

void WindowPicturesTest::dialogs()
{
    ModalAnswerer answerer(
        [this](QDialog& dialog) { save(dialog, dialog.objectName().toLower()); });
    ReplyWindow reply;
    reply.setReplyText(
        QStringLiteral("Для обращения в поддержку требуется открыть браузер. Продолжить?"));
    reply.exec();
    WarningWindow warning;
    warning.setErrorText(QStringLiteral(
        "Не удалось загрузить список изменений. Попробуйте переустановить программу или "
        "перезапустить её в условиях наличия доступа к интернету."));
    warning.exec();
    QCOMPARE(answerer.texts().size(), 2);
}

QTEST_MAIN(WindowPicturesTest)
#include "windowpicturestest.moc"
