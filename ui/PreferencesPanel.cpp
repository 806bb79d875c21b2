#include "ui/PreferencesPanel.h"

#include "ui_PreferencesPanel.h"

#include "core/Bookmark.h"
#include "core/MDB_Utility.h"
#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"
#include "metadata/MDB_Certifications.h"
#include "presets/MDB_Devices.h"
#include "ui/DevicesPanel.h"

#include <QButtonGroup>
#include <QFileDialog>
#include <QMessageBox>
#include <QSignalBlocker>
#include <QTimer>

#include <algorithm>

namespace {

const char kSettingsKey[] = "settingsKey";

UserDefaults& store() {
    return UserDefaults::standard();
}

QString key(const char* name) {
    return QString::fromLatin1(name);
}

// Items sorted by their shown name, each carrying its code.
void fillSorted(QComboBox* menu, QList<std::pair<QString, QString>> items, const QString& code) {
    std::sort(items.begin(), items.end(), [](const auto& a, const auto& b) {
        return QString::localeAwareCompare(a.first, b.first) < 0;
    });
    const QSignalBlocker block(menu);
    menu->clear();
    for (const auto& [name, itemCode] : items)
        menu->addItem(name, itemCode);
    menu->setCurrentIndex(menu->findData(code));
}

} // namespace

PreferencesPanel::PreferencesPanel(QWidget* parent)
    : QDialog(parent), m_ui(std::make_unique<Ui::PreferencesPanelPro>()) {
    m_ui->setupUi(this);
    setWindowModality(Qt::WindowModal);
    for (QLabel* text : {m_ui->primaryUsage, m_ui->primaryResolution, m_ui->secondaryUsage,
                         m_ui->secondaryResolution})
        text->setForegroundRole(QPalette::PlaceholderText);

    // A check box writes its state under its key at once; "HD-SD" is stored
    // as the integer 0 or 1.
    for (QCheckBox* box : findChildren<QCheckBox*>()) {
        const QString name = box->property(kSettingsKey).toString();
        if (name.isEmpty())
            continue;
        connect(box, &QCheckBox::toggled, this, [name](bool on) {
            if (name == QLatin1String(SettingsKey::HDSD))
                store().setInteger(on ? 1 : 0, name);
            else
                store().setBool(on, name);
        });
    }

    connect(m_ui->primaryDevice, &QComboBox::activated, this, [this](int index) {
        m_controller.primaryDeviceChanged(m_ui->primaryDevice->itemText(index));
        // An SD primary turns "HD-SD" off in the store; the box follows.
        const QSignalBlocker block(m_ui->hdsd);
        m_ui->hdsd->setChecked(store().boolForKey(key(SettingsKey::HDSD)));
        showDeviceTexts();
    });
    connect(m_ui->secondaryDevice, &QComboBox::activated, this, [this](int index) {
        m_controller.secondaryDeviceChanged(m_ui->secondaryDevice->itemText(index));
        showDeviceTexts();
    });
    connect(m_ui->language, &QComboBox::activated, this, [this](int index) {
        m_controller.languageRegionChanged(m_ui->language->itemData(index).toString());
    });
    connect(m_ui->country, &QComboBox::activated, this, [this](int index) {
        m_controller.countryChanged(m_ui->country->itemData(index).toString());
    });

    auto* content = new QButtonGroup(this);
    content->addButton(m_ui->contentTmdb, 0);
    content->addButton(m_ui->contentImdb, 1);
    content->addButton(m_ui->contentNone, 2);
    connect(content, &QButtonGroup::idClicked, this,
            [](int row) { store().setInteger(row, key(SettingsKey::ContentIDSource)); });

    const QToolButton* segments[] = {m_ui->segmentTV, m_ui->segmentMusic, m_ui->segmentExtra,
                                     m_ui->segmentMisc};
    for (int segment = 0; segment < 4; ++segment)
        connect(segments[segment], &QToolButton::clicked, this,
                [this, segment] { m_controller.onMetadataSegment(segment); });

    connect(m_ui->destinationButton, &QPushButton::clicked, this, [this] { chooseFolder(false); });
    connect(m_ui->itunesButton, &QPushButton::clicked, this, [this] { chooseFolder(true); });
    connect(m_ui->devicesButton, &QPushButton::clicked, this, &PreferencesPanel::onDevices);
    connect(m_ui->resetButton, &QPushButton::clicked, this, [this] {
        m_controller.onReset();
        PopulatePanel();
    });
    connect(m_ui->closeButton, &QPushButton::clicked, this, &QDialog::accept);

    fillLanguageMenus();
    fillDeviceMenus();
    PopulatePanel();
}

PreferencesPanel::~PreferencesPanel() = default;

QCheckBox* PreferencesPanel::checkBox(const QString& name) const {
    for (QCheckBox* box : findChildren<QCheckBox*>()) {
        if (box->property(kSettingsKey).toString() == name)
            return box;
    }
    return nullptr;
}

void PreferencesPanel::fillLanguageMenus() {
    const QString region = store().stringForKey(key(SettingsKey::LanguageRegion));
    QList<std::pair<QString, QString>> languages;
    QStringList codes = MDB_Utility::commonISO639_1();
    if (!codes.contains(region.left(2)))
        codes.append(region.left(2));
    for (const QString& code : codes) {
        const QString name = MDB_Utility::iso639_1().value(code);
        if (!name.isEmpty())
            languages.append({name, code});
    }
    fillSorted(m_ui->language, languages, region.left(2));

    QList<std::pair<QString, QString>> countries;
    for (const QString& code : MDB_Certifications::countries()) {
        const QString name = QLocale::territoryToString(QLocale::codeToTerritory(code));
        countries.append({name.isEmpty() || code.size() != 2 ? code : name, code});
    }
    fillSorted(m_ui->country, countries, region.mid(3, 2));
}

void PreferencesPanel::fillDeviceMenus() {
    const QStringList names = MDB_Devices::deviceNames();
    for (QComboBox* menu : {m_ui->primaryDevice, m_ui->secondaryDevice}) {
        const QSignalBlocker block(menu);
        menu->clear();
        menu->addItems(names);
    }
}

void PreferencesPanel::PopulatePanel() {
    m_controller.PopulatePanel();
    for (QCheckBox* box : findChildren<QCheckBox*>()) {
        const QString name = box->property(kSettingsKey).toString();
        if (name.isEmpty())
            continue;
        const QSignalBlocker block(box);
        box->setChecked(store().boolForKey(name));
    }
    const QString region = store().stringForKey(key(SettingsKey::LanguageRegion));
    m_ui->language->setCurrentIndex(m_ui->language->findData(region.left(2)));
    m_ui->country->setCurrentIndex(m_ui->country->findData(region.mid(3, 2)));
    m_ui->primaryDevice->setCurrentIndex(
        m_ui->primaryDevice->findText(store().stringForKey(key(SettingsKey::PrimaryDevice))));
    m_ui->secondaryDevice->setCurrentIndex(
        m_ui->secondaryDevice->findText(store().stringForKey(key(SettingsKey::SecondaryDevice))));
    showDeviceTexts();

    const int source = int(store().integerForKey(key(SettingsKey::ContentIDSource)));
    QRadioButton* rows[] = {m_ui->contentTmdb, m_ui->contentImdb, m_ui->contentNone};
    if (source >= 0 && source <= 2)
        rows[source]->setChecked(true);

    const QVariantMap list = store().dictionaryForKey(key(SettingsKey::MetadataList));
    const std::pair<QToolButton*, const char*> segments[] = {
        {m_ui->segmentTV, SettingsKey::TVMetadataList},
        {m_ui->segmentMusic, SettingsKey::MusicMetadataList},
        {m_ui->segmentExtra, SettingsKey::ExtraMetadataList},
        {m_ui->segmentMisc, SettingsKey::MiscMetadataList}};
    for (const auto& [button, group] : segments)
        button->setChecked(list.value(key(group)).toBool());
    showFolders();
}

void PreferencesPanel::showDeviceTexts() {
    m_ui->primaryUsage->setText(m_controller.primaryUsage());
    m_ui->primaryResolution->setText(m_controller.primaryResolution());
    m_ui->secondaryUsage->setText(m_controller.secondaryUsage());
    m_ui->secondaryResolution->setText(m_controller.secondaryResolution());
    m_ui->secondaryUsage->setVisible(m_controller.secondaryVisible());
    m_ui->secondaryResolution->setVisible(m_controller.secondaryVisible());
    m_ui->hdsd->setEnabled(m_controller.hdsdEnabled());
}

void PreferencesPanel::showFolders() {
    const auto shown = [](QLabel* label, const char* bookmarkKey) {
        const QString folder = Bookmark::resolve(store().dataForKey(key(bookmarkKey)));
        label->setText(folder.isEmpty() ? tr("Not set")
                                        : label->fontMetrics().elidedText(folder, Qt::ElideMiddle,
                                                                          label->minimumWidth()));
        label->setToolTip(folder);
    };
    shown(m_ui->destinationPath, SettingsKey::DestinationPathBookmark);
    shown(m_ui->itunesPath, SettingsKey::ITunesPathBookmark);
    m_ui->addToItunes->setEnabled(m_controller.addToITunesEnabled());
    const QSignalBlocker block(m_ui->addToItunes);
    m_ui->addToItunes->setChecked(store().boolForKey(key(SettingsKey::AddITunes)));
}

void PreferencesPanel::chooseFolder(bool itunes) {
    const QString current = itunes ? m_ui->itunesPath->toolTip() : m_ui->destinationPath->toolTip();
    const QString folder = QFileDialog::getExistingDirectory(
        this, itunes ? tr("Choose the iTunes Folder") : tr("Choose the Destination Folder"),
        current);
    if (folder.isEmpty())
        return;
    const bool stored = itunes ? m_controller.itunesPathChanged(folder)
                               : m_controller.destinationPathChanged(folder);
    if (!stored)
        QMessageBox::warning(this, windowTitle(), tr("%1 is not a folder.").arg(folder));
    showFolders();
}

void PreferencesPanel::onDevices() {
    auto* devices = new DevicesPanel(this);
    devices->setAttribute(Qt::WA_DeleteOnClose);
    // Names may have been added, renamed or deleted.
    connect(devices, &QDialog::finished, this, [this] {
        fillDeviceMenus();
        PopulatePanel();
    });
    devices->open();
}

void PreferencesPanel::showDestinationAlert() {
    if (m_alert)
        return;
    m_alert =
        new QMessageBox(QMessageBox::Warning, windowTitle(),
                        QString::fromLatin1(PreferencesPanelController::kDestinationMissingText),
                        QMessageBox::NoButton, this);
    m_alert->setObjectName(QStringLiteral("DestinationMissingAlert"));
    m_alert->addButton(tr("Close"), QMessageBox::AcceptRole);
    m_alert->setWindowModality(Qt::WindowModal);
    m_alert->setAttribute(Qt::WA_DeleteOnClose);
    connect(m_alert, &QObject::destroyed, this, [this] { m_alert = nullptr; });
    m_alert->open();
}

void PreferencesPanel::showEvent(QShowEvent* event) {
    QDialog::showEvent(event);
    if (m_checkedDestination)
        return;
    m_checkedDestination = true;
    if (Bookmark::resolve(store().dataForKey(key(SettingsKey::DestinationPathBookmark))).isEmpty())
        QTimer::singleShot(0, this, &PreferencesPanel::showDestinationAlert);
}

void PreferencesPanel::done(int result) {
    // Stays open without an iTunes bookmark, though the alert speaks of the
    // destination: that is the rule users know.
    if (!m_controller.onClose()) {
        showDestinationAlert();
        return;
    }
    store().synchronize();
    QDialog::done(result);
}
