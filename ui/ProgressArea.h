#pragma once

#include <QPointer>

#include "library/MoviesBrowserController.h"
#include "media/EncodeBrowserController.h"
#include "processing/EncoderController.h"
#include <QWidget>

class EncodeBrowserController;
class EncoderController;
class JobDisplay;
class MoviesBrowserController;
class QLabel;
class QProgressBar;

// The strip under the grid: the scan line of the shown browser (its
// `scanTitle`, `scanStatus` and progress) and the encode line of the queue
// (title, status, percentage, time left, "[n of m]", the HD/SD field and the
// movie's thumbnail). Each line shows only while it has something to say.
class ProgressArea : public QWidget {
    Q_OBJECT
public:
    explicit ProgressArea(EncoderController* encoder, QWidget* parent = nullptr);

    // The browser whose scan line is shown (one of the two, or neither).
    void showBrowser(EncodeBrowserController* browser);
    void showLibrary(MoviesBrowserController* library);

    // For tests and screenshots: the texts shown now.
    QString scanText() const;
    QString encodeText() const;

private:
    void updateScan();
    void updateEncode();
    const JobDisplay* activeJob() const;

    QPointer<EncoderController> m_encoder;
    QPointer<EncodeBrowserController> m_browser;
    QPointer<MoviesBrowserController> m_library;
    QList<QMetaObject::Connection> m_scanConnections;

    QWidget* m_scanLine;
    QLabel* m_scanTitle;
    QLabel* m_scanStatus;
    QProgressBar* m_scanProgress;

    QWidget* m_encodeLine;
    QLabel* m_thumbnail;
    QLabel* m_encodeTitle;
    QLabel* m_encodeStatus;
    QLabel* m_percent;
    QLabel* m_time;
    QLabel* m_count;
    QLabel* m_hdsd;
    QProgressBar* m_encodeProgress;
};
