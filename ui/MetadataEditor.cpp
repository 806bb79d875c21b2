#include "ui/MetadataEditor.h"

#include "library/MoviesBrowserController.h"
#include "library/RetagBrowserController.h"
#include "lookup/SearchResultsPanelController.h"
#include "media/EncodeBrowserController.h"
#include "media/MDI_Media.h"
#include "metadata/MDB_Metadata.h"
#include "metadata/TagNames.h"
#include "ui/SearchResultsPanel.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDateEdit>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QSpinBox>
#include <QVBoxLayout>

namespace {

using Kind = MetadataEditorController::Kind;

const QSize kCoverSize(220, 326);
const QDate kNoDate(1800, 1, 1);
const char* const kHDNames[3] = {"SD", "HD 720p", "HD 1080p"};

QString pairText(const QWidget* control) {
    const auto boxes = control->findChildren<QSpinBox*>();
    if (boxes.size() != 2 || (boxes.at(0)->value() == 0 && boxes.at(1)->value() == 0))
        return {};
    return QStringLiteral("%1/%2").arg(boxes.at(0)->value()).arg(boxes.at(1)->value());
}

} // namespace

MetadataEditor::MetadataEditor(MetadataEditorController* editor, QWidget* parent)
    : QDialog(parent), m_editor(editor) {
    m_editor->setParent(this);
    setWindowModality(Qt::WindowModal);
    m_editor->load();
    build();
    refresh();
    connect(m_editor, &MetadataEditorController::changed, this, [this] {
        if (!m_filling)
            refresh();
    });
}

void MetadataEditor::build() {
    m_cover = new QLabel(this);
    m_cover->setObjectName(QStringLiteral("coverWell"));
    m_cover->setFixedSize(kCoverSize);
    m_cover->setAlignment(Qt::AlignCenter);
    m_cover->setFrameShape(QFrame::StyledPanel);
    m_cover->setAcceptDrops(true);
    m_cover->installEventFilter(this);
    m_cover->setToolTip(tr("Drop an image here to make it the cover"));
    m_coverPopup = new QComboBox(this);
    m_coverPopup->setObjectName(QStringLiteral("coverPopup"));
    auto* openImage = new QPushButton(tr("Open Image..."), this);
    openImage->setAutoDefault(false);
    auto* left = new QVBoxLayout;
    left->addWidget(m_cover);
    left->addWidget(new QLabel(tr("Cover:"), this));
    left->addWidget(m_coverPopup);
    left->addWidget(openImage);
    left->addStretch(1);

    m_heading = new QLabel(this);
    QFont bold = m_heading->font();
    bold.setBold(true);
    bold.setPointSizeF(bold.pointSizeF() * 1.3);
    m_heading->setFont(bold);
    auto* formHolder = new QWidget(this);
    m_form = new QFormLayout(formHolder);
    m_form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
    m_form->setLabelAlignment(Qt::AlignRight);
    for (const MetadataEditorController::Field& field : MetadataEditorController::fields()) {
        QWidget* control = makeControl(field);
        control->setObjectName(field.key);
        m_fields.insert(field.key, control);
        m_form->addRow(field.key + QLatin1Char(':'), control);
    }
    auto* scroll = new QScrollArea(this);
    scroll->setWidget(formHolder);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    auto* right = new QVBoxLayout;
    right->addWidget(m_heading);
    right->addWidget(scroll, 1);

    auto* middle = new QHBoxLayout;
    middle->addLayout(left);
    middle->addLayout(right, 1);

    m_search = new QPushButton(tr("Search..."), this);
    m_revert = new QPushButton(tr("Revert"), this);
    m_save = new QPushButton(tr("Save"), this);
    m_close = new QPushButton(tr("Close"), this);
    for (QPushButton* b : {m_search, m_revert, m_save, m_close})
        b->setAutoDefault(false);
    auto* bottom = new QHBoxLayout;
    bottom->addWidget(m_search);
    bottom->addStretch(1);
    bottom->addWidget(m_revert);
    bottom->addWidget(m_save);
    bottom->addWidget(m_close);
    // Encode items are written after the encode: nothing to save now.
    m_save->setVisible(m_editor->source() != MetadataEditorController::Source::Encode);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(middle, 1);
    layout->addLayout(bottom);
    resize(820, 640);

    connect(m_coverPopup, &QComboBox::activated, this, [this](int index) {
        if (index > 0 && !m_editor->chooseCover(index - 1))
            showError(tr("The image could not be loaded; the cover stays as it was."));
        refresh();
    });
    connect(openImage, &QPushButton::clicked, this, &MetadataEditor::openImage);
    connect(m_search, &QPushButton::clicked, this, &MetadataEditor::runSearch);
    connect(m_revert, &QPushButton::clicked, this, [this] {
        m_editor->revert();
        refresh();
    });
    connect(m_save, &QPushButton::clicked, this, &MetadataEditor::save);
    connect(m_close, &QPushButton::clicked, this, &QDialog::accept);
}

QWidget* MetadataEditor::makeControl(const MetadataEditorController::Field& field) {
    const QString key = field.key;
    auto commit = [this, key](const QString& value) {
        if (!m_filling && m_editor->setValue(key, value))
            refresh();
    };
    switch (field.kind) {
    case Kind::LongText: {
        auto* edit = new QPlainTextEdit(this);
        edit->setTabChangesFocus(true);
        edit->setFixedHeight(key == QLatin1String(TagName::Description) ? 70 : 110);
        connect(edit, &QPlainTextEdit::textChanged, this, [this, edit, key] {
            if (!m_filling)
                m_editor->setValue(key, edit->toPlainText());
        });
        return edit;
    }
    case Kind::Date: {
        auto* edit = new QDateEdit(this);
        edit->setCalendarPopup(true);
        edit->setDisplayFormat(QStringLiteral("yyyy-MM-dd"));
        edit->setMinimumDate(kNoDate);
        edit->setSpecialValueText(tr("None"));
        connect(edit, &QDateEdit::dateChanged, this, [commit](const QDate& date) {
            commit(date == kNoDate ? QString() : date.toString(Qt::ISODate));
        });
        return edit;
    }
    case Kind::NumberPair: {
        auto* pair = new QWidget(this);
        auto* row = new QHBoxLayout(pair);
        row->setContentsMargins(0, 0, 0, 0);
        auto* number = new QSpinBox(pair);
        auto* total = new QSpinBox(pair);
        for (QSpinBox* box : {number, total}) {
            box->setRange(0, 999);
            connect(box, &QSpinBox::valueChanged, this, [commit, pair] { commit(pairText(pair)); });
        }
        row->addWidget(number);
        row->addWidget(new QLabel(tr("of"), pair));
        row->addWidget(total);
        row->addStretch(1);
        return pair;
    }
    case Kind::Rating: {
        auto* popup = new QComboBox(this);
        for (const auto& [name, code] : m_editor->ratingChoices())
            popup->addItem(name, code);
        connect(popup, &QComboBox::activated, this,
                [commit, popup] { commit(popup->currentData().toString()); });
        return popup;
    }
    case Kind::MediaKind:
    case Kind::ContentRating: {
        auto* popup = new QComboBox(this);
        const auto& names = field.kind == Kind::MediaKind ? MDB_Metadata::mediaTypes()
                                                          : MDB_Metadata::contentRatings();
        for (int code : names.keys())
            popup->addItem(names.value(code));
        connect(popup, &QComboBox::activated, this,
                [commit, popup] { commit(popup->currentText()); });
        return popup;
    }
    case Kind::HDVideo: {
        auto* popup = new QComboBox(this);
        for (int i = 0; i < 3; ++i)
            popup->addItem(tr(kHDNames[i]), QString::number(i));
        connect(popup, &QComboBox::activated, this,
                [commit, popup] { commit(popup->currentData().toString()); });
        return popup;
    }
    case Kind::Boolean: {
        auto* box = new QCheckBox(this);
        connect(box, &QCheckBox::toggled, this,
                [commit](bool on) { commit(on ? QStringLiteral("1") : QStringLiteral("0")); });
        return box;
    }
    case Kind::Text:
        break;
    }
    auto* edit = new QLineEdit(this);
    connect(edit, &QLineEdit::editingFinished, this, [commit, edit] { commit(edit->text()); });
    return edit;
}

void MetadataEditor::fillControl(const QString& key, QWidget* control) {
    const QString value = m_editor->value(key);
    if (auto* edit = qobject_cast<QLineEdit*>(control)) {
        if (edit->text() != value)
            edit->setText(value);
    } else if (auto* text = qobject_cast<QPlainTextEdit*>(control)) {
        if (text->toPlainText() != value)
            text->setPlainText(value);
    } else if (auto* date = qobject_cast<QDateEdit*>(control)) {
        const QDate parsed = QDate::fromString(value.left(10), Qt::ISODate);
        date->setDate(parsed.isValid() ? parsed : kNoDate);
    } else if (auto* popup = qobject_cast<QComboBox*>(control)) {
        // A rating of another country's scale, as the file holds it.
        if (MetadataEditorController::kind(key) == Kind::Rating && !value.isEmpty() &&
            popup->findData(value) < 0)
            popup->addItem(value.section(u'|', 1, 1), value);
        const int byData = value.isEmpty() ? -1 : popup->findData(value);
        popup->setCurrentIndex(byData >= 0 ? byData : popup->findText(value));
    } else if (auto* box = qobject_cast<QCheckBox*>(control)) {
        box->setChecked(value == QLatin1String("1"));
    } else {
        const auto boxes = control->findChildren<QSpinBox*>();
        const QStringList parts = value.split(u'/');
        if (boxes.size() == 2) {
            boxes.at(0)->setValue(parts.value(0).toInt());
            boxes.at(1)->setValue(parts.value(1).toInt());
        }
    }
}

void MetadataEditor::refresh() {
    m_filling = true;
    const std::shared_ptr<MDI_Media> item = m_editor->item();
    const QString name = item ? item->getTag(QString::fromLatin1(TagName::Name)) : QString();
    m_heading->setText(!item ? tr("No movie selected") : name.isEmpty() ? item->name() : name);
    setWindowTitle(item ? tr("Edit \u201c%1\u201d").arg(m_heading->text()) : tr("Metadata"));
    QWidget* typing = focusWidget();
    for (auto it = m_fields.cbegin(); it != m_fields.cend(); ++it) {
        // What is being typed now is committed when the field is left.
        if (!typing || (typing != it.value() && !it.value()->isAncestorOf(typing)))
            fillControl(it.key(), it.value());
        it.value()->setEnabled(bool(item));
    }

    QPixmap cover;
    if (item && !item->getMetadata()->artwork().isNull())
        cover.loadFromData(item->getMetadata()->artwork().data());
    m_cover->setPixmap(
        cover.isNull() ? QPixmap()
                       : cover.scaled(kCoverSize, Qt::KeepAspectRatio, Qt::SmoothTransformation));
    m_cover->setText(cover.isNull() ? tr("No cover") : QString());

    m_coverPopup->clear();
    m_coverPopup->addItem(tr("Choose a cover..."));
    if (item) {
        const qsizetype posters = item->getMetadata()->artworkFullsizeURLs().size();
        const QList<QUrl> candidates = m_editor->coverCandidates();
        for (int i = 0; i < candidates.size(); ++i)
            m_coverPopup->addItem(i < posters ? tr("Poster %1").arg(i + 1)
                                              : tr("Backdrop %1").arg(i - posters + 1));
    }
    m_coverPopup->setEnabled(m_coverPopup->count() > 1);

    const bool busy = item && item->status() >= 5 && item->status() <= 7;
    m_search->setEnabled(item && !busy);
    m_revert->setEnabled(m_editor->isModified() && !busy);
    m_save->setEnabled(item && !busy &&
                       (m_editor->isModified() || item->getMetadata()->isEdited()));
    m_filling = false;
}

void MetadataEditor::followBrowser(EncodeBrowserController* browser) {
    auto follow = [this] {
        if (!m_filling)
            refresh();
    };
    connect(browser, &EncodeBrowserController::itemUpdated, this, follow);
    connect(browser, &EncodeBrowserController::reloaded, this, follow);
    connect(browser, &EncodeBrowserController::isScanningChanged, this, follow);
}

bool MetadataEditor::runSearch() {
    if (!m_editor->item())
        return false;
    SearchResultsPanelController panel;
    m_editor->openSearch(panel);
    SearchResultsPanel dialog(&panel, this);
    dialog.exec();
    const bool applied = m_editor->applySearch(panel);
    refresh();
    return applied;
}

bool MetadataEditor::save() {
    // A line edit still being typed in counts.
    if (QWidget* focus = focusWidget())
        focus->clearFocus();
    QString error;
    if (!m_editor->save(&error)) {
        showError(error);
        refresh();
        return false;
    }
    refresh();
    return true;
}

void MetadataEditor::done(int result) {
    if (QWidget* focus = focusWidget())
        focus->clearFocus();
    if (m_editor->isModified() && m_save->isVisible()) {
        QMessageBox ask(QMessageBox::Question, windowTitle(),
                        tr("Save the changes to \u201c%1\u201d?").arg(m_heading->text()),
                        QMessageBox::Save | QMessageBox::Discard | QMessageBox::Cancel, this);
        ask.setObjectName(QStringLiteral("SaveQuestion"));
        const int answer = ask.exec();
        if (answer == QMessageBox::Cancel || (answer == QMessageBox::Save && !save()))
            return;
        if (answer == QMessageBox::Discard)
            m_editor->revert();
    }
    QDialog::done(result);
}

void MetadataEditor::openImage() {
    const QString path = QFileDialog::getOpenFileName(
        this, tr("Choose a Cover"), QString(), tr("Images (*.png *.jpg *.jpeg *.gif *.bmp)"));
    if (path.isEmpty())
        return;
    if (!m_editor->setCoverFromFile(path))
        showError(tr("%1 is not an image the cover can be made of.").arg(path));
    refresh();
}

bool MetadataEditor::eventFilter(QObject* watched, QEvent* event) {
    if (watched == m_cover && m_editor->item()) {
        if (event->type() == QEvent::DragEnter) {
            auto* drag = static_cast<QDragEnterEvent*>(event);
            if (drag->mimeData()->hasUrls() && drag->mimeData()->urls().first().isLocalFile()) {
                drag->acceptProposedAction();
                return true;
            }
        } else if (event->type() == QEvent::Drop) {
            auto* drop = static_cast<QDropEvent*>(event);
            const QString path = drop->mimeData()->urls().value(0).toLocalFile();
            if (!m_editor->setCoverFromFile(path))
                showError(tr("%1 is not an image the cover can be made of.").arg(path));
            refresh();
            drop->acceptProposedAction();
            return true;
        }
    }
    return QDialog::eventFilter(watched, event);
}

void MetadataEditor::showError(const QString& message) {
    QMessageBox box(QMessageBox::Warning, windowTitle(), message, QMessageBox::Ok, this);
    box.setObjectName(QStringLiteral("EditorAlert"));
    box.exec();
}

MetadataController::MetadataController(EncodeBrowserController* browser, QWidget* parent)
    : MetadataEditor(new MetadataEditorController(browser), parent) {
    setObjectName(QStringLiteral("MetadataController"));
    followBrowser(browser);
}

TagController::TagController(RetagBrowserController* browser, QWidget* parent)
    : MetadataEditor(new MetadataEditorController(browser), parent) {
    setObjectName(QStringLiteral("TagController"));
    followBrowser(browser);
}

iTunesMetadataController::iTunesMetadataController(MoviesBrowserController* library,
                                                   QWidget* parent)
    : MetadataEditor(new MetadataEditorController(library), parent) {
    setObjectName(QStringLiteral("iTunesMetadataController"));
}
