#include "ui/ProgressArea.h"

#include "library/MoviesBrowserController.h"
#include "media/EncodeBrowserController.h"
#include "processing/EncoderController.h"
#include "processing/MuxerController.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QVBoxLayout>

namespace {

QLabel* label(QWidget* parent, bool bold = false) {
    auto* l = new QLabel(parent);
    l->setTextInteractionFlags(Qt::NoTextInteraction);
    if (bold) {
        QFont f = l->font();
        f.setBold(true);
        l->setFont(f);
    }
    return l;
}

QProgressBar* bar(QWidget* parent) {
    auto* b = new QProgressBar(parent);
    b->setTextVisible(false);
    b->setFixedHeight(10);
    b->setMinimumWidth(160);
    return b;
}

} // namespace

ProgressArea::ProgressArea(EncoderController* encoder, QWidget* parent)
    : QWidget(parent), m_encoder(encoder) {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(12, 6, 12, 6);
    column->setSpacing(4);

    m_scanLine = new QWidget(this);
    auto* scan = new QHBoxLayout(m_scanLine);
    scan->setContentsMargins(0, 0, 0, 0);
    m_scanTitle = label(m_scanLine, true);
    m_scanStatus = label(m_scanLine);
    m_scanProgress = bar(m_scanLine);
    scan->addWidget(m_scanTitle);
    scan->addWidget(m_scanStatus, 1);
    scan->addWidget(m_scanProgress);
    column->addWidget(m_scanLine);

    m_encodeLine = new QWidget(this);
    auto* encode = new QHBoxLayout(m_encodeLine);
    encode->setContentsMargins(0, 0, 0, 0);
    m_thumbnail = new QLabel(m_encodeLine);
    m_thumbnail->setFixedSize(64, 36);
    m_thumbnail->setScaledContents(false);
    m_thumbnail->setAlignment(Qt::AlignCenter);
    m_count = label(m_encodeLine);
    m_encodeTitle = label(m_encodeLine, true);
    m_encodeStatus = label(m_encodeLine);
    m_hdsd = label(m_encodeLine);
    m_encodeProgress = bar(m_encodeLine);
    m_encodeProgress->setRange(0, 1000);
    m_percent = label(m_encodeLine);
    m_percent->setMinimumWidth(
        QFontMetrics(m_percent->font()).horizontalAdvance(QStringLiteral("100.0 %")));
    m_percent->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    m_time = label(m_encodeLine);
    encode->addWidget(m_thumbnail);
    encode->addWidget(m_count);
    encode->addWidget(m_encodeTitle);
    encode->addWidget(m_encodeStatus);
    encode->addWidget(m_hdsd);
    encode->addStretch(1);
    encode->addWidget(m_time);
    encode->addWidget(m_encodeProgress);
    encode->addWidget(m_percent);
    column->addWidget(m_encodeLine);

    if (encoder) {
        for (JobDisplay* job : {static_cast<JobDisplay*>(encoder),
                                static_cast<JobDisplay*>(encoder->muxController())}) {
            connect(job, &JobDisplay::titleFieldChanged, this, &ProgressArea::updateEncode);
            connect(job, &JobDisplay::statusFieldChanged, this, &ProgressArea::updateEncode);
            connect(job, &JobDisplay::timeFieldChanged, this, &ProgressArea::updateEncode);
            connect(job, &JobDisplay::countFieldChanged, this, &ProgressArea::updateEncode);
            connect(job, &JobDisplay::progressIndicatorChanged, this, &ProgressArea::updateEncode);
            connect(job, &JobDisplay::progressAnimatingChanged, this, &ProgressArea::updateEncode);
            connect(job, &JobDisplay::progressViewVisibleChanged, this,
                    &ProgressArea::updateEncode);
        }
        connect(encoder, &EncoderController::hdsdFieldChanged, this, &ProgressArea::updateEncode);
        connect(
            encoder, &EncoderController::thumbnailChanged, this, [this](const MDB_Image& image) {
                QPixmap pixmap;
                pixmap.loadFromData(image.data());
                m_thumbnail->setPixmap(pixmap.isNull()
                                           ? QPixmap()
                                           : pixmap.scaled(m_thumbnail->size(), Qt::KeepAspectRatio,
                                                           Qt::SmoothTransformation));
            });
    }
    updateScan();
    updateEncode();
}

void ProgressArea::showBrowser(EncodeBrowserController* browser) {
    for (const auto& c : std::as_const(m_scanConnections))
        disconnect(c);
    m_scanConnections.clear();
    m_browser = browser;
    m_library = nullptr;
    if (browser) {
        for (auto signal : {&EncodeBrowserController::scanTitleChanged,
                            &EncodeBrowserController::scanStatusChanged,
                            &EncodeBrowserController::scanProgressChanged,
                            &EncodeBrowserController::isScanningChanged})
            m_scanConnections << connect(browser, signal, this, &ProgressArea::updateScan);
    }
    updateScan();
}

void ProgressArea::showLibrary(MoviesBrowserController* library) {
    showBrowser(nullptr);
    m_library = library;
    if (library) {
        for (auto signal : {&MoviesBrowserController::scanTitleChanged,
                            &MoviesBrowserController::scanStatusChanged,
                            &MoviesBrowserController::scanProgressChanged,
                            &MoviesBrowserController::hiddenChanged})
            m_scanConnections << connect(library, signal, this, &ProgressArea::updateScan);
    }
    updateScan();
}

void ProgressArea::updateScan() {
    bool visible = false;
    if (m_browser) {
        visible = m_browser->scanTitleVisible() || m_browser->scanStatusVisible();
        m_scanTitle->setText(m_browser->scanTitleVisible() ? m_browser->scanTitle() : QString());
        m_scanStatus->setText(m_browser->scanStatusVisible() ? m_browser->scanStatus() : QString());
        const int max = m_browser->scanProgressMaximum();
        m_scanProgress->setRange(0, max > 0 ? max : 0);
        if (max > 0)
            m_scanProgress->setValue(m_browser->scanProgressValue());
        m_scanProgress->setVisible(m_browser->scanProgress() || max > 0);
    } else if (m_library) {
        visible = m_library->scanProgressVisible();
        m_scanTitle->setText(m_library->scanTitle());
        m_scanStatus->setText(m_library->scanStatus());
        const int max = m_library->scanProgressMaximum();
        m_scanProgress->setRange(0, m_library->scanProgress() ? 0 : qMax(1, max));
        m_scanProgress->setValue(m_library->scanProgressValue());
        m_scanProgress->setVisible(true);
    }
    m_scanLine->setVisible(visible);
}

const JobDisplay* ProgressArea::activeJob() const {
    if (!m_encoder)
        return nullptr;
    if (m_encoder->muxController()->progressViewVisible())
        return m_encoder->muxController();
    return m_encoder->progressViewVisible() ? m_encoder.data() : nullptr;
}

void ProgressArea::updateEncode() {
    const JobDisplay* job = activeJob();
    m_encodeLine->setVisible(job != nullptr);
    if (!job)
        return;
    m_encodeTitle->setText(job->titleField());
    m_encodeStatus->setText(job->statusField());
    m_time->setText(job->timeField());
    m_count->setText(m_encoder->countField());
    m_hdsd->setText(m_encoder->hdsdField());
    m_hdsd->setVisible(!m_encoder->hdsdField().isEmpty());
    if (job->progressAnimating()) {
        m_encodeProgress->setRange(0, 0);
        m_percent->clear();
    } else {
        m_encodeProgress->setRange(0, 1000);
        m_encodeProgress->setValue(int(job->progressIndicator() * 10));
        m_percent->setText(QString::number(job->progressIndicator(), 'f', 1) +
                           QStringLiteral(" %"));
    }
}

QString ProgressArea::scanText() const {
    if (m_scanLine->isHidden())
        return {};
    return (m_scanTitle->text() + u' ' + m_scanStatus->text()).trimmed();
}

QString ProgressArea::encodeText() const {
    if (m_encodeLine->isHidden())
        return {};
    QStringList parts;
    for (const QLabel* l : {m_count, m_encodeTitle, m_encodeStatus, m_hdsd, m_time, m_percent}) {
        if (!l->text().isEmpty())
            parts << l->text();
    }
    return parts.join(u' ');
}
