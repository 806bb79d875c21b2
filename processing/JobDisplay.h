#pragma once

#include <QObject>
#include <QString>

// The progress view of a job as observable state: a front end binds its
// widgets (or its terminal progress bar) to these properties.
class JobDisplay : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString titleField READ titleField NOTIFY titleFieldChanged)
    Q_PROPERTY(QString timeField READ timeField NOTIFY timeFieldChanged)
    Q_PROPERTY(QString statusField READ statusField NOTIFY statusFieldChanged)
    Q_PROPERTY(QString countField READ countField NOTIFY countFieldChanged)
    Q_PROPERTY(double progressIndicator READ progressIndicator NOTIFY progressIndicatorChanged)
    Q_PROPERTY(bool progressAnimating READ progressAnimating NOTIFY progressAnimatingChanged)
    Q_PROPERTY(bool progressViewVisible READ progressViewVisible NOTIFY progressViewVisibleChanged)
public:
    explicit JobDisplay(QObject* parent = nullptr) : QObject(parent) {}

    const QString& titleField() const { return m_titleField; }
    const QString& timeField() const { return m_timeField; }
    const QString& statusField() const { return m_statusField; }
    const QString& countField() const { return m_countField; }
    // Percent, 0 to 100.
    double progressIndicator() const { return m_progressIndicator; }
    bool progressAnimating() const { return m_progressAnimating; }
    bool progressViewVisible() const { return m_progressViewVisible; }

signals:
    void titleFieldChanged(const QString& text);
    void timeFieldChanged(const QString& text);
    void statusFieldChanged(const QString& text);
    void countFieldChanged(const QString& text);
    void progressIndicatorChanged(double percent);
    void progressAnimatingChanged(bool animating);
    void progressViewVisibleChanged(bool visible);

protected:
    void setTitleField(const QString& text);
    void setTimeField(const QString& text);
    void setStatusField(const QString& text);
    void setCountField(const QString& text);
    void setProgressIndicator(double percent);
    void setProgressAnimating(bool animating);
    void setProgressViewVisible(bool visible);

private:
    QString m_titleField;
    QString m_timeField;
    QString m_statusField;
    QString m_countField;
    double m_progressIndicator = 0;
    bool m_progressAnimating = false;
    bool m_progressViewVisible = false;
};
