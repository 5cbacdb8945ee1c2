#include "ui/menu/descriptionsfile.h"
#include "ui/menu/historylabels.h"
#include "ui/menu/menudialog.h"
#include "ui/widgets/semitransparentbutton.h"
#include "ui/widgets/styles.h"
#include "ui_menudialog.h"
#include "updates/catalogue.h"

#include <QJsonArray>
#include <QScrollArea>

#include <algorithm>
#include <array>

namespace {

struct Section
{
    QString key;
    QString title;
};

const std::array<Section, 3>& sections()
{
    static const std::array<Section, 3> list{{
        {QStringLiteral("features"), QStringLiteral("Добавленные функции")},
        {QStringLiteral("changes"), QStringLiteral("Изменения")},
        {QStringLiteral("fixes"), QStringLiteral("Исправления")},
    }};
    return list;
}

/// Room for either style, so that nothing moves when a version is selected.
constexpr int versionButtonHeight = 32;

/// A scroll area that does not ask its contents for their size: the stack would lay out every
/// version's texts to find the largest.
class DescriptionScrollArea final : public QScrollArea
{
public:
    using QScrollArea::QScrollArea;
    QSize sizeHint() const override { return minimumSize(); }
};

/// The scrollable page that shows one version. Every widget is born below `stack`, where it
/// resolves its style once; one that moves there later does so with all that it holds.
QWidget* createDescriptionPage(const QJsonObject& description, const std::optional<QDate>& date,
                               QStackedWidget* stack)
{
    auto* page = new QWidget(stack);
    auto* pageLayout = new QVBoxLayout(page);
    pageLayout->setContentsMargins(0, 0, 0, 0);
    auto* scrollArea = new DescriptionScrollArea(page);
    scrollArea->setStyleSheet(styles::scrollArea + styles::scrollBar);
    scrollArea->setMinimumHeight(250);
    scrollArea->setWidgetResizable(true);
    auto* content = new QWidget(scrollArea->viewport());
    scrollArea->setWidget(content);
    pageLayout->addWidget(scrollArea);

    auto* labels = new QVBoxLayout(content);
    labels->setContentsMargins(15, 0, 0, 0);
    labels->setAlignment(Qt::AlignTop);
    if (date && date->isValid()) {
        addSectionHeader(labels, QStringLiteral("Дата выпуска"));
        addDateLabel(labels, *date, true);
    }
    for (const Section& section : sections()) {
        if (description.value(section.key).toArray().isEmpty())
            continue;
        addSectionHeader(labels, section.title);
        addListLabels(description, section.key, labels, true);
    }
    return page;
}

} // namespace

bool MenuDialog::buildVersionHistory()
{
    const auto keys = DescriptionsFile::instance().versionKeys();
    if (!keys)
        return false;
    // Descending by text, not by version; the first version that fails ends the list.
    bool ok = true;
    for (auto key = keys->crbegin(); ok && key != keys->crend(); ++key)
        ok = addVersionDescription(*key);

    // The frame's first child is its layout, the second its first button.
    auto* first =
        qobject_cast<SemiTransparentButton*>(ui->versionButtonsFrame->children().value(1));
    if (first) {
        first->setTransparency(1.0);
        first->animateClick();
    }
    versionHistoryLoaded = true;
    return ok;
}

bool MenuDialog::addVersionDescription(const QString& version)
{
    const auto value = DescriptionsFile::instance().versionDescription(version);
    if (!value)
        return false;
    const QJsonObject description = value->toObject();
    const std::optional<QDate> date = versionDate(version);
    const bool isDescribed =
        std::any_of(sections().begin(), sections().end(),
                    [&](const Section& section) { return description.contains(section.key); });
    if (!isDescribed && !date)
        return false;

    auto* button = new SemiTransparentButton(ui->versionButtonsFrame);
    button->setStyleSheet(styles::versionButton);
    button->animateTransparency(0.5, 1.0);
    button->setText(version);
    button->setToolTip(version); // the column may be too narrow for the text
    button->setMinimumHeight(versionButtonHeight);
    ui->versionsLayout->addWidget(button);
    // Counts the layout too; the selection takes both off again.
    const int index = static_cast<int>(ui->versionButtonsFrame->children().size());
    connect(button, &QPushButton::clicked, this,
            [this, button, index] { selectVersion(button, index); });

    ui->descriptionStackedWidget->addWidget(
        createDescriptionPage(description, date, ui->descriptionStackedWidget));
    return true;
}

void MenuDialog::selectVersion(SemiTransparentButton* button, int index)
{
    ui->descriptionStackedWidget->setCurrentIndex(index - 2);
    if (selectedVersionButton) {
        selectedVersionButton->setStyleSheet(styles::versionButton);
        selectedVersionButton->setEnabled(true);
        selectedVersionButton->setTransparency(0.5);
    }
    selectedVersionButton = button;
    button->setStyleSheet(button->styleSheet() + styles::selectedVersionButton);
    // Disabled, so that it can be neither clicked again nor faded by the pointer.
    button->setEnabled(false);
}
